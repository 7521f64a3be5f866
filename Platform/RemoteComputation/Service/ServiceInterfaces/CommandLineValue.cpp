#include "Platform/RemoteComputation/Service/ServiceInterfaces/CommandLineValue.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

namespace Kestrane {

unsigned long CommandLineValue::parseNumber(const std::string& what, const std::string& value,
                                            unsigned long lowest, unsigned long highest) {
    bool digits = !value.empty() && value.size() <= 19 &&
                  std::all_of(value.begin(), value.end(),
                              [](char c) { return std::isdigit(static_cast<unsigned char>(c)); });
    unsigned long number = digits ? std::stoul(value) : 0;
    if (!digits || number < lowest || number > highest)
        throw std::invalid_argument("Invalid value '" + value + "' for " + what +
                                    ": expected a whole number from " + std::to_string(lowest) +
                                    " to " + std::to_string(highest));
    return number;
}

const std::string& CommandLineValue::takeValue(const std::vector<std::string>& args,
                                               size_t& index) {
    if (index + 1 >= args.size())
        throw std::invalid_argument("Missing value for option " + args[index]);
    return args[++index];
}

} // namespace Kestrane
