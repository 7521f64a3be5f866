#pragma once

#include <string>
#include <vector>

namespace Kestrane {

// Reading values of command-line options, with messages that name the option.
class CommandLineValue {
public:
    // A whole number from `lowest` to `highest`; throws std::invalid_argument
    // "Invalid value 'V' for WHAT: expected a whole number from L to H" otherwise.
    static unsigned long parseNumber(const std::string& what, const std::string& value,
                                     unsigned long lowest, unsigned long highest);
    // The value behind the option at `index`, which moves on to it; throws
    // std::invalid_argument "Missing value for option O" when there is none.
    static const std::string& takeValue(const std::vector<std::string>& args, size_t& index);
};

} // namespace Kestrane
