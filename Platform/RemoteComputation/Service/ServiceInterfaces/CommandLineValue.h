#pragma once

#include <string>

namespace Kestrane {

// Reading values of command-line options, with messages that name the option.
class CommandLineValue {
public:
    // A whole number from `lowest` to `highest`; throws std::invalid_argument
    // "Invalid value 'V' for WHAT: expected a whole number from L to H" otherwise.
    static unsigned long parseNumber(const std::string& what, const std::string& value,
                                     unsigned long lowest, unsigned long highest);
};

} // namespace Kestrane
