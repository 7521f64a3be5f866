#include "ServiceCommands.h"

#include "AllowList.h"
#include "ProcessLauncher.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceProtocol.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RunningJob.h"

#include <cstring>
#include <exception>

namespace Kestrane {

namespace {

Logging s_logging(__FILE__);

using Protocol = RemoteServiceProtocol;

ServiceCommands::Outcome refuse(const std::string& reason) {
    return {false, reason};
}

// The first word of an unknown command, short and printable: it goes into a reply and the log.
std::string commandName(const std::string& command) {
    constexpr size_t c_shown = 32;
    std::string name = command.substr(0, command.find(' '));
    std::string text;
    for (size_t i = 0; i < name.size() && i < c_shown; ++i) {
        unsigned char byte = static_cast<unsigned char>(name[i]);
        text += byte >= 0x20 && byte < 0x7f ? name[i] : '?';
    }
    return name.size() > c_shown ? text + "..." : text;
}

// The computationCores setting, as the workers of this host and user see it (settings file and
// environment); 0, all online cores, when the settings are unusable.
int configuredCores() {
    try {
        return RequestServerConfiguration::getRegisteredInstance()->getComputationCores();
    } catch (const std::exception& e) {
        KS_WARN("Counting all online cores: the settings can't be read: " << e.what());
        return 0;
    }
}

} // namespace

ServiceCommands::ServiceCommands(const AllowList& allowList, ProcessLauncher& launcher)
    : m_allowList(allowList), m_launcher(launcher) {}

unsigned int ServiceCommands::onlineCores() {
    return Computing::RunningJob::capacity(0);
}

ServiceCommands::Outcome ServiceCommands::execute(const std::string& command) {
    if (command == Protocol::c_ping)
        return {true, Protocol::c_pong};
    if (command == Protocol::c_cores) {
        // The cores given to workers, and what the running jobs of this user leave of them.
        unsigned int cores = Computing::RunningJob::capacity(configuredCores());
        unsigned int used = Computing::RunningJob::usedCores();
        unsigned int freeCores = used < cores ? cores - used : 0;
        return {true, std::to_string(cores) + " " + std::to_string(freeCores)};
    }
    size_t startLength = std::strlen(Protocol::c_start);
    if (command.compare(0, startLength, Protocol::c_start) == 0)
        return start(command.substr(startLength));
    return refuse("unknown command '" + commandName(command) + "'; expected PING, CORES or START");
}

ServiceCommands::Outcome ServiceCommands::start(const std::string& encodedArguments) {
    std::vector<std::string> arguments;
    std::string error;
    if (!Protocol::decodeArguments(encodedArguments, arguments, error))
        return refuse("undecodable START arguments (" + error +
                      "); send them as RemoteServiceProtocol::encodeArguments writes them");
    if (arguments.empty())
        return refuse("START without a program: the argument list is empty; give the program's "
                      "absolute path first");
    std::string program;
    if (!m_allowList.check(arguments[0], program, error))
        return refuse(error);
    pid_t pid = -1;
    if (!m_launcher.start(program, std::vector<std::string>(arguments.begin() + 1, arguments.end()),
                          pid, error))
        return refuse(error);
    return {true, std::to_string(pid)};
}

} // namespace Kestrane
