#include "ServiceCommands.h"

#include "AllowList.h"
#include "ProcessLauncher.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceProtocol.h"

#include <cstring>
#include <unistd.h>

namespace Kestrane {

namespace {

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

} // namespace

ServiceCommands::ServiceCommands(const AllowList& allowList, ProcessLauncher& launcher)
    : m_allowList(allowList), m_launcher(launcher) {}

unsigned int ServiceCommands::onlineCores() {
    long cores = ::sysconf(_SC_NPROCESSORS_ONLN);
    return cores > 0 ? static_cast<unsigned int>(cores) : 1;
}

ServiceCommands::Outcome ServiceCommands::execute(const std::string& command) {
    if (command == Protocol::c_ping)
        return {true, Protocol::c_pong};
    if (command == Protocol::c_cores) {
        // Every core counts as free until the host's cores are accounted for.
        std::string cores = std::to_string(onlineCores());
        return {true, cores + " " + cores};
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
