#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingError.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace Kestrane {
namespace Computing {

// Asks the starter service at host:port (ks-remote-service) to start a program there.
class JobStart : public ErrorMessage {
public:
    JobStart(const std::string& host, int port);

    // `arguments` is the whole argv, the program's absolute path first. True when the service
    // started it (getPid() tells its process id there); false with getErrorMessage().
    bool execute(const std::vector<std::string>& arguments);
    pid_t getPid() const { return m_pid; }

private:
    std::string m_host;
    int m_port;
    pid_t m_pid = -1;
};

} // namespace Computing
} // namespace Kestrane
