#pragma once

#include <string>

namespace Kestrane {

// What the two package documents share: protocol version, time stamps, the opening of the root.
class PackageFormat {
public:
    static const std::string c_version; // "5.0.0"
    // Current UTC time in ISO form, microseconds (the fraction left out when it is zero).
    static std::string timestamp();
    // "<?xml ...?>\n<ROOT xmlns:xsi=... xmlns=...\n"
    static std::string opening(const std::string& root);
};

} // namespace Kestrane
