#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Kestrane {

// The command line of ks-remote-service. Logging options (-logLevel, -logFile) are taken by
// LoggingSettings before these are parsed. Only the syntax is checked here: whether the --allow
// entries exist is AllowList's business.
struct RemoteServiceOptions {
    static constexpr unsigned int c_defaultMaxProcesses = 64;
    static constexpr unsigned int c_defaultTimeoutSeconds = 5;

    // Loopback unless asked otherwise: the service starts programs, so it is reachable from
    // other hosts only when somebody says so.
    std::string bindAddress = "127.0.0.1";
    // 0: the system picks a free port.
    unsigned int port = 0;
    std::vector<std::string> allow;
    // Empty: RemoteServiceKey::configuredPath().
    std::string keyFile;
    // Empty: PathConfiguration::getKsPathTmp()/remote-service.
    std::string logDirectory;
    unsigned int maxProcesses = c_defaultMaxProcesses;
    // Longest silence of a peer inside a conversation.
    unsigned int timeoutSeconds = c_defaultTimeoutSeconds;
    bool help = false;
    // "--create-key [FILE]": write a new key and exit. An empty path: the key file option, or
    // the configured path.
    bool createKey = false;
    std::string createKeyPath;

    // Throws std::invalid_argument with a message naming the option for anything it does not
    // understand.
    static RemoteServiceOptions parse(const std::vector<std::string>& args);
    static std::string usage();
};

} // namespace Kestrane
