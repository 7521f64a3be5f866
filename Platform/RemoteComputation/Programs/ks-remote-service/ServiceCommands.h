#pragma once

#include <string>

namespace Kestrane {

class AllowList;
class ProcessLauncher;

// What the service does with a command once its sender is authenticated: PING, CORES and
// START. Knows nothing of connections, so that every refusal can be tried without one.
class ServiceCommands {
public:
    struct Outcome {
        bool ok = false;
        // The payload of the OK, or the reason of the ERROR (a text that says what to fix).
        std::string text;
    };

    ServiceCommands(const AllowList& allowList, ProcessLauncher& launcher);

    Outcome execute(const std::string& command);

    // The online CPUs of this host.
    static unsigned int onlineCores();

private:
    Outcome start(const std::string& encodedArguments);

    const AllowList& m_allowList;
    ProcessLauncher& m_launcher;
};

} // namespace Kestrane
