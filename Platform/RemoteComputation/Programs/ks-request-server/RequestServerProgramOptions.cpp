#include "RequestServerProgramOptions.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/CommandLineValue.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/GenericJobId.h"

#include <boost/lexical_cast.hpp>

#include <algorithm>
#include <cctype>

namespace Kestrane {

namespace {
unsigned int parseNumber(const std::string& option, const std::string& value, unsigned int lowest,
                         unsigned int highest) {
    return static_cast<unsigned int>(
        CommandLineValue::parseNumber("option " + option, value, lowest, highest));
}
} // namespace

RequestServerProgramOptions
RequestServerProgramOptions::parse(const std::vector<std::string>& args) {
    RequestServerProgramOptions options;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        auto value = [&]() -> const std::string& { return CommandLineValue::takeValue(args, i); };
        if (arg == "--port") {
            options.port = parseNumber(arg, value(), 0, 65535);
        } else if (arg == "--port-range") {
            options.portRange = parseNumber(arg, value(), 1, 65535);
        } else if (arg == "-c" || arg == "--callback") {
            options.callback = value();
        } else if (arg == GenericJobId::c_tag) {
            std::string text = value();
            std::string message;
            if (!GenericJobId::fromString(text, message).isValid())
                throw std::invalid_argument("Invalid job id '" + text + "': " + message);
            options.jobId = text;
        } else if (arg == "--help" || arg == "-h") {
            options.help = true;
        } else {
            throw std::invalid_argument("Unknown option '" + arg + "'");
        }
    }
    return options;
}

std::string RequestServerProgramOptions::usage() {
    return "Usage: ks-request-server [--port N] [--port-range R] [-c CALLBACK] [-jobId ID]\n"
           "                         [-logLevel LEVEL] [-logFile PATH] [-logFileSuffix S]\n"
           "  --port N        first port to listen on (default 0: the configuration decides,\n"
           "                  and with its port 0 the system picks one)\n"
           "  --port-range R  number of ports to try from the first one on\n"
           "  -c CALLBACK     once listening, report the port to HOST:PORT:ID (or\n"
           "                  NAME:IP:PORT:ID); exit 1 if that fails. A server that\n"
           "                  cannot start reports its error there\n"
           "  -jobId ID       the computation job this server works for (shown in its status)\n"
           "  -logLevel L     TRACE, DEBUG, INFO, WARN, ERROR, FATAL or OFF (default INFO)\n"
           "  -logFile PATH   also log to this file; -logFileSuffix S goes before its extension\n"
           "Prints 'PORT <n>' as its first line once it listens, and 'PUBLISHER <n>' (the port\n"
           "of its heartbeat publisher, -1 when none) as its second. SIGINT or SIGTERM stop it.\n";
}

} // namespace Kestrane
