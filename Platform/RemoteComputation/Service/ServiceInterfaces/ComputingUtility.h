#pragma once

#include <cstdint>
#include <string>

namespace Kestrane {
namespace Computing {

class Utility {
public:
    static std::string getHostName();
    static std::string getUserName();
};

} // namespace Computing

class ComputingUtility {
public:
    // Seconds since the epoch.
    static int64_t getTimeStamp();
};

} // namespace Kestrane
