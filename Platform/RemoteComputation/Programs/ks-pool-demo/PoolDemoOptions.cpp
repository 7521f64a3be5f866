#include "PoolDemoOptions.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/CommandLineValue.h"

#include <boost/algorithm/string.hpp>

#include <algorithm>

namespace Kestrane {

namespace {
unsigned long number(const std::string& option, const std::string& value, unsigned long lowest,
                     unsigned long highest) {
    return CommandLineValue::parseNumber("option " + option, value, lowest, highest);
}

PoolDemoOptions::Host parseHost(const std::string& text) {
    std::vector<std::string> parts;
    boost::split(parts, text, boost::is_any_of(":"));
    if (parts.size() < 2 || parts.size() > 3 || parts[0].empty())
        throw std::invalid_argument("Invalid host '" + text +
                                    "' for option --hosts: expected HOST:PORT[:MAX]");
    PoolDemoOptions::Host host;
    host.name = parts[0];
    host.port = static_cast<unsigned int>(number("--hosts", parts[1], 1, 65535));
    if (parts.size() == 3)
        host.maxWorkers = static_cast<unsigned int>(number("--hosts", parts[2], 0, 1024));
    return host;
}
} // namespace

std::optional<WorkerCommandLine> WorkerCommandLine::parse(const std::vector<std::string>& args) {
    auto has = [&args](const char* option) {
        return std::find(args.begin(), args.end(), option) != args.end();
    };
    if (!has("-c") && !has("-jobSchedulerDistributedWorker"))
        return std::nullopt;
    WorkerCommandLine worker;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "-c") {
            worker.callback = CommandLineValue::takeValue(args, i);
        } else if (arg == "-jobId") {
            worker.jobId = CommandLineValue::takeValue(args, i);
        } else if (arg == "-jobName") {
            // Stands before the job id's own option; a value of its own is taken too.
            if (i + 1 < args.size() && !args[i + 1].empty() && args[i + 1][0] != '-')
                worker.jobId = args[++i];
        } else if (arg == "-jobSchedulerDistributedWorker") {
            if (i + 4 >= args.size())
                throw std::invalid_argument("Missing values for option " + arg +
                                            ": expected POOL HOST PORT NUMBER");
            worker.poolId = args[i + 1];
            worker.poolHost = args[i + 2];
            worker.poolPort = static_cast<unsigned int>(number(arg, args[i + 3], 1, 65535));
            worker.workerId = static_cast<unsigned int>(number(arg, args[i + 4], 0, 1000000));
            i += 4;
            if (worker.poolId.empty() || worker.poolHost.empty())
                throw std::invalid_argument("Empty pool id or host for option " + arg);
        } else {
            throw std::invalid_argument("Unknown worker option '" + arg + "'");
        }
    }
    if (!worker.callback.empty() && worker.jobSchedulerWorker())
        throw std::invalid_argument(
            "Options -c and -jobSchedulerDistributedWorker exclude each other");
    return worker;
}

PoolDemoOptions PoolDemoOptions::parse(const std::vector<std::string>& args) {
    PoolDemoOptions options;
    bool workersGiven = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        auto value = [&]() -> const std::string& { return CommandLineValue::takeValue(args, i); };
        if (arg == "--workers") {
            options.workers = static_cast<unsigned int>(number(arg, value(), 1, 1024));
            workersGiven = true;
        } else if (arg == "--hosts") {
            std::vector<std::string> hosts;
            boost::split(hosts, value(), boost::is_any_of(","));
            for (const auto& host : hosts)
                options.hosts.push_back(parseHost(host));
        } else if (arg == "--scheduler") {
            options.scheduler = value();
            if (options.scheduler.empty())
                throw std::invalid_argument("Empty value for option --scheduler");
        } else if (arg == "--jobs") {
            options.jobs = static_cast<unsigned int>(number(arg, value(), 1, 10000));
        } else if (arg == "--tasks") {
            options.tasks = static_cast<unsigned int>(number(arg, value(), 1, 1000000));
        } else if (arg == "--below") {
            options.below = number(arg, value(), 2, 1000000000000ULL);
        } else if (arg == "--separate-processes") {
            options.separateProcesses = true;
        } else if (arg == "--kill-a-worker-after") {
            options.killAWorkerAfter = static_cast<unsigned int>(number(arg, value(), 0, 86400));
        } else if (arg == "--help" || arg == "-h") {
            options.help = true;
        } else {
            throw std::invalid_argument("Unknown option '" + arg + "'");
        }
    }
    const int modes = (workersGiven ? 1 : 0) + (options.hosts.empty() ? 0 : 1) +
                      (options.scheduler.empty() ? 0 : 1);
    if (modes > 1)
        throw std::invalid_argument(
            "Options --workers, --hosts and --scheduler exclude each other");
    if (!options.scheduler.empty() && options.jobs == 0)
        throw std::invalid_argument("Option --scheduler needs --jobs N");
    if (options.scheduler.empty() && options.jobs != 0)
        throw std::invalid_argument("Option --jobs belongs to --scheduler");
    if (options.tasks > options.below)
        throw std::invalid_argument("Option --tasks: more tasks than numbers below --below");
    return options;
}

std::string PoolDemoOptions::usage() {
    return "Usage: ks-pool-demo [--workers N | --hosts HOST:PORT[:MAX],... | --scheduler SCRIPT "
           "--jobs N]\n"
           "                    [--tasks T] [--below B] [--separate-processes]\n"
           "                    [--kill-a-worker-after SECONDS]\n"
           "Counts the primes below B with a pool of worker processes.\n"
           "  --workers N          N workers on this host (default 2)\n"
           "  --hosts LIST         workers on hosts through their starter services; MAX 0 or\n"
           "                       left out: as many as the host has free cores\n"
           "  --scheduler SCRIPT   N jobs through a job scheduler adapter\n"
           "  --tasks T            number of tasks (default 200)\n"
           "  --below B            bound of the count (default 100000000)\n"
           "  --separate-processes one process per worker (default: one per host)\n"
           "  --kill-a-worker-after S  SIGKILL one worker process after S seconds\n"
           "Exits 0 when the count is right.\n";
}

} // namespace Kestrane
