#include "ClientOptions.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/CommandLineValue.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <stdexcept>
#include <utility>

namespace Kestrane {

namespace {

ClientOptions::Command commandOf(const std::string& word) {
    using Command = ClientOptions::Command;
    if (word == "ping")
        return Command::Ping;
    if (word == "status")
        return Command::Status;
    if (word == "test")
        return Command::Test;
    if (word == "abort")
        return Command::Abort;
    if (word == "shutdown")
        return Command::Shutdown;
    if (word == "start")
        return Command::Start;
    throw std::invalid_argument("Unknown command '" + word +
                                "' (expected ping, status, test, abort, shutdown or start)");
}

void parseTarget(const std::string& arg, ClientOptions& options) {
    size_t colon = arg.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == arg.size())
        throw std::invalid_argument("Expected HOST:PORT, not '" + arg + "'");
    std::string host = arg.substr(0, colon);
    // An IPv6 address is written in brackets so that its colons are not taken for the port's.
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    options.host = host;
    options.port = static_cast<int>(CommandLineValue::parseNumber("the port of '" + arg + "'",
                                                                  arg.substr(colon + 1), 1, 65535));
}

// How many words behind HOST:PORT each command takes: at least, at most.
std::pair<size_t, size_t> operandCount(ClientOptions::Command command) {
    switch (command) {
    case ClientOptions::Command::Test:
        return {1, 2};
    case ClientOptions::Command::Abort:
        return {1, 1};
    default:
        return {0, 0};
    }
}

std::string operandNames(ClientOptions::Command command) {
    switch (command) {
    case ClientOptions::Command::Test:
        return "COMMAND [DATA]";
    case ClientOptions::Command::Abort:
        return "REQUEST_ID";
    default:
        return "nothing";
    }
}

// "start local", "start remote HOST:PORT" or "start scheduler SCRIPT".
void parseStart(const std::vector<std::string>& words, ClientOptions& options) {
    if (words.size() < 2)
        throw std::invalid_argument("'start' needs local, remote HOST:PORT or scheduler SCRIPT");
    const std::string& kind = words[1];
    size_t operands = 1;
    if (kind == "local") {
        options.startKind = ClientOptions::StartKind::Local;
        operands = 0;
    } else if (kind == "remote") {
        options.startKind = ClientOptions::StartKind::Remote;
        if (words.size() < 3)
            throw std::invalid_argument(
                "'start remote' needs HOST:PORT of the starter service (ks-remote-service)");
        parseTarget(words[2], options);
    } else if (kind == "scheduler") {
        options.startKind = ClientOptions::StartKind::Scheduler;
        if (words.size() < 3 || words[2].empty())
            throw std::invalid_argument(
                "'start scheduler' needs SCRIPT, the job scheduler adapter (e.g. "
                "share/kestrane/job-schedulers/slurm)");
        options.script = words[2];
    } else {
        throw std::invalid_argument("Unknown way to start '" + kind +
                                    "' (expected local, remote or scheduler)");
    }
    if (words.size() > 2 + operands)
        throw std::invalid_argument("Unexpected argument '" + words[2 + operands] +
                                    "' for 'start " + kind +
                                    "' (arguments for the server go behind --)");
}

} // namespace

std::string ClientOptions::commandName(Command command) {
    switch (command) {
    case Command::Ping:
        return "ping";
    case Command::Status:
        return "status";
    case Command::Test:
        return "test";
    case Command::Abort:
        return "abort";
    case Command::Shutdown:
        return "shutdown";
    case Command::Start:
        return "start";
    case Command::None:
        break;
    }
    return "";
}

ClientOptions ClientOptions::parse(const std::vector<std::string>& args) {
    ClientOptions options;
    std::vector<std::string> words;
    bool fileGiven = false;
    std::string startOnly; // the first option that only 'start' takes
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        auto value = [&]() -> const std::string& { return CommandLineValue::takeValue(args, i); };
        if (arg == "--help" || arg == "-h") {
            options.help = true;
        } else if (arg == "--file") {
            options.file = value();
            if (options.file.empty())
                throw std::invalid_argument("Option --file needs a path");
            fileGiven = true;
        } else if (arg == "--force-transfer") {
            options.forceTransfer = true;
        } else if (arg == "--timeout") {
            options.timeout = static_cast<unsigned int>(
                CommandLineValue::parseNumber("option --timeout", value(), 0, 1000000));
        } else if (arg == "--quiet" || arg == "-q") {
            options.quiet = true;
        } else if (arg == "--executable") {
            options.executable = value();
            if (options.executable.empty())
                throw std::invalid_argument("Option --executable needs a path");
            startOnly = startOnly.empty() ? arg : startOnly;
        } else if (arg == "--cores" || arg == "--min-cores") {
            int number = static_cast<int>(
                CommandLineValue::parseNumber("option " + arg, value(), 1, 100000));
            (arg == "--cores" ? options.cores : options.minimumCores) = number;
            startOnly = startOnly.empty() ? arg : startOnly;
        } else if (arg == "--job-name") {
            options.jobName = value();
            if (options.jobName.empty())
                throw std::invalid_argument("Option --job-name needs a name");
            startOnly = startOnly.empty() ? arg : startOnly;
        } else if (arg == "--") {
            // Behind it: the server's own arguments for 'start', otherwise words, even when
            // they begin with '-'.
            auto& rest = !words.empty() && words[0] == "start" ? options.serverArgs : words;
            rest.insert(rest.end(), args.begin() + i + 1, args.end());
            break;
        } else if (arg.size() > 1 && arg[0] == '-') {
            throw std::invalid_argument("Unknown option '" + arg + "'");
        } else {
            words.push_back(arg);
        }
    }
    if (options.help)
        return options;
    if (words.empty())
        throw std::invalid_argument("Missing command");
    options.command = commandOf(words[0]);
    const std::string name = commandName(options.command);
    if (options.command == Command::Start) {
        parseStart(words, options);
        if (fileGiven || options.forceTransfer)
            throw std::invalid_argument("Options --file and --force-transfer belong to 'test'");
        if (options.minimumCores > options.cores)
            throw std::invalid_argument("Option --min-cores " +
                                        std::to_string(options.minimumCores) +
                                        " is more than --cores " + std::to_string(options.cores));
        return options;
    }
    if (!startOnly.empty())
        throw std::invalid_argument("Option " + startOnly + " belongs to 'start'");
    if (words.size() < 2)
        throw std::invalid_argument("Missing HOST:PORT of the request server for '" + name + "'");
    parseTarget(words[1], options);

    std::vector<std::string> operands(words.begin() + 2, words.end());
    auto count = operandCount(options.command);
    if (operands.size() < count.first)
        throw std::invalid_argument("'" + name + "' needs " + operandNames(options.command) +
                                    " behind HOST:PORT");
    if (operands.size() > count.second)
        throw std::invalid_argument("Unexpected argument '" + operands[count.second] + "' for '" +
                                    name + "' (it takes " + operandNames(options.command) +
                                    " behind HOST:PORT)");
    if (options.command == Command::Test) {
        options.testCommand = operands[0];
        if (options.testCommand.empty())
            throw std::invalid_argument("The test COMMAND must not be empty");
        if (operands.size() > 1) {
            options.data = operands[1];
            options.hasData = true;
        }
    } else if (options.command == Command::Abort) {
        options.requestId = operands[0];
        if (!UniqueID::isValid(options.requestId))
            throw std::invalid_argument(
                "Invalid REQUEST_ID '" + options.requestId +
                "': expected three groups of 16 upper-case hexadecimal digits joined by '-'");
    }
    if ((fileGiven || options.forceTransfer) && options.command != Command::Test)
        throw std::invalid_argument("Options --file and --force-transfer belong to 'test'");
    if (options.forceTransfer && !fileGiven)
        throw std::invalid_argument("Option --force-transfer needs --file");
    return options;
}

std::string ClientOptions::usage() {
    return "Usage: ks ping     HOST:PORT\n"
           "       ks status   HOST:PORT\n"
           "       ks test     HOST:PORT COMMAND [DATA] [--file PATH] [--force-transfer]\n"
           "       ks abort    HOST:PORT REQUEST_ID\n"
           "       ks shutdown HOST:PORT\n"
           "       ks start    local | remote HOST:PORT | scheduler SCRIPT [--executable PATH]\n"
           "                   [--cores N] [--min-cores M] [--job-name NAME] [-- SERVER-ARGS]\n"
           "  HOST:PORT         the request server (the PORT line of ks-request-server)\n"
           "  COMMAND [DATA]    a test request: NOP, WAIT ms, WAIT_PROGRESS ms, PUT_FILE size,\n"
           "                    GET_FILE, GET_DATA count, PUT_DATA, QUEUED_NOP job id, CRASH\n"
           "  --file PATH       send this file with the test request\n"
           "  --force-transfer  send the file over the connection even where the server could\n"
           "                    read it in place (same host and user)\n"
           "  --timeout S       give up waiting for the reply after S seconds (default 0: no\n"
           "                    limit; a server whose heartbeat stops is given up all the same);\n"
           "                    for 'start local|remote': the wait for the server's callback\n"
           "  start             start a ks-request-server and print 'STARTED HOST:PORT\n"
           "                    RECONNECT-STRING'; the server keeps running after ks ends:\n"
           "                    local               as a process on this host\n"
           "                    remote HOST:PORT    through the starter service there\n"
           "                    scheduler SCRIPT    as a job, through a job scheduler adapter\n"
           "  --executable PATH the server program to start (default: ks-request-server beside\n"
           "                    ks; on another host, its path there)\n"
           "  --cores N, --min-cores M, --job-name NAME\n"
           "                    what a job asks of the scheduler (default 1, 1, "
           "ks-request-server)\n"
           "  --quiet, -q       only the outcome, no progress lines\n"
           "  --help, -h        this text\n"
           "Exit codes: 0 success, 1 the request failed (ExceptionReply, or a reply that says\n"
           "so) or the server could not be started, 2 server unreachable or bad command line,\n"
           "3 local error (missing file).\n";
}

} // namespace Kestrane
