#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingUtility.h"

#include <chrono>
#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

namespace Kestrane {
namespace Computing {

std::string Utility::getHostName() {
    char name[256] = {0};
    if (gethostname(name, sizeof(name) - 1) != 0)
        return "localhost";
    return name;
}

std::string Utility::getUserName() {
    struct passwd pwd;
    struct passwd* result = nullptr;
    char buffer[4096];
    if (getpwuid_r(geteuid(), &pwd, buffer, sizeof(buffer), &result) == 0 && result)
        return result->pw_name;
    const char* user = std::getenv("USER");
    return user ? user : std::to_string(geteuid());
}

} // namespace Computing

int64_t ComputingUtility::getTimeStamp() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

} // namespace Kestrane
