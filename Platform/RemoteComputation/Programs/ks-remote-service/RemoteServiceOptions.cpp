#include "RemoteServiceOptions.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/CommandLineValue.h"

namespace Kestrane {

namespace {
unsigned int parseNumber(const std::string& option, const std::string& value, unsigned int lowest,
                         unsigned int highest) {
    return static_cast<unsigned int>(
        CommandLineValue::parseNumber("option " + option, value, lowest, highest));
}
} // namespace

RemoteServiceOptions RemoteServiceOptions::parse(const std::vector<std::string>& args) {
    RemoteServiceOptions options;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        auto value = [&]() -> const std::string& { return CommandLineValue::takeValue(args, i); };
        auto nonEmptyValue = [&]() -> const std::string& {
            const std::string& text = value();
            if (text.empty())
                throw std::invalid_argument("Empty value for option " + arg);
            return text;
        };
        if (arg == "--bind") {
            options.bindAddress = nonEmptyValue();
        } else if (arg == "--port") {
            options.port = parseNumber(arg, value(), 0, 65535);
        } else if (arg == "--allow") {
            options.allow.push_back(nonEmptyValue());
        } else if (arg == "--key-file") {
            options.keyFile = nonEmptyValue();
        } else if (arg == "--log-dir") {
            options.logDirectory = nonEmptyValue();
        } else if (arg == "--max-processes") {
            options.maxProcesses = parseNumber(arg, value(), 1, 100000);
        } else if (arg == "--timeout") {
            options.timeoutSeconds = parseNumber(arg, value(), 1, 3600);
        } else if (arg == "--create-key") {
            options.createKey = true;
            // The file is optional: a following word that is no option names it.
            if (i + 1 < args.size() && !args[i + 1].empty() && args[i + 1][0] != '-')
                options.createKeyPath = args[++i];
        } else if (arg == "--help" || arg == "-h") {
            options.help = true;
        } else {
            throw std::invalid_argument("Unknown option '" + arg + "'");
        }
    }
    return options;
}

std::string RemoteServiceOptions::usage() {
    return "Usage: ks-remote-service [--bind ADDR] [--port N] [--allow PATH]... [--key-file FILE]\n"
           "                         [--log-dir DIR] [--max-processes N] [--timeout S]\n"
           "                         [-logLevel LEVEL] [-logFile PATH]\n"
           "       ks-remote-service --create-key [FILE]\n"
           "  --bind ADDR         address to listen on (default 127.0.0.1; 0.0.0.0 for every\n"
           "                      IPv4 address)\n"
           "  --port N            port to listen on (default 0: the system picks one)\n"
           "  --allow PATH        a program that may be started, or a directory whose programs\n"
           "                      may be (not those of its subdirectories); absolute, repeatable.\n"
           "                      Without any, every start is refused\n"
           "  --key-file FILE     the shared key (default: the remoteServiceKeyFile setting,\n"
           "                      KS_REMOTE_SERVICE_KEY_FILE, else "
           "~/.kestrane/remote-service.key);\n"
           "                      read for every command, so it can be replaced while running\n"
           "  --log-dir DIR       where each started program's output goes (default\n"
           "                      <ks tmp>/remote-service)\n"
           "  --max-processes N   most started programs running at once (default 64)\n"
           "  --timeout S         longest silence of a client, in seconds (default 5)\n"
           "  --create-key [FILE] write a new key (default: the key file) and exit; an existing\n"
           "                      file is never replaced\n"
           "  -logLevel L         TRACE, DEBUG, INFO, WARN, ERROR, FATAL or OFF (default INFO)\n"
           "  -logFile PATH       also log to this file\n"
           "Prints 'PORT <n>' as its first line once it listens. SIGINT or SIGTERM stop it; the\n"
           "programs it started keep running. Exit codes: 0 stopped, 1 cannot start (e.g. the\n"
           "port is taken), 2 bad command line.\n";
}

} // namespace Kestrane
