#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Kestrane {

// The command line of ks-request-server. Logging options (-logLevel, -logFile, -logFileSuffix)
// are taken by LoggingSettings before these are parsed.
struct RequestServerProgramOptions {
    // 0: the configuration decides (and with its port 0 the system picks).
    unsigned int port = 0;
    // Number of ports to try from the first one on.
    std::optional<unsigned int> portRange;
    bool help = false;
    // "-c CALLBACK": whom to tell the port once the server listens.
    std::string callback;
    // "-jobId ID": the computation job that this process is (as GenericJobId::toCmd writes it).
    std::string jobId;

    // Throws std::invalid_argument with a message naming the option for anything it does not
    // understand.
    static RequestServerProgramOptions parse(const std::vector<std::string>& args);
    static std::string usage();
};

} // namespace Kestrane
