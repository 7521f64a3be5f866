#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Kestrane {

// How ks-pool-demo was started as a worker: by a starter ("-c CALLBACK"), or by a job
// scheduler ("-jobSchedulerDistributedWorker POOL HOST PORT NUMBER"). Logging options are taken
// by LoggingSettings before this is parsed.
struct WorkerCommandLine {
    std::string callback;
    std::string jobId;
    std::string poolId;
    std::string poolHost;
    unsigned int poolPort = 0;
    unsigned int workerId = 0;
    bool jobSchedulerWorker() const { return !poolId.empty(); }

    // Empty when the arguments are not a worker's (the person's master command line); throws
    // std::invalid_argument naming the option for a worker command line that is broken.
    static std::optional<WorkerCommandLine> parse(const std::vector<std::string>& args);
};

// The master's command line.
struct PoolDemoOptions {
    struct Host {
        std::string name;
        unsigned int port = 0;
        // 0: as many workers as the host has free cores.
        unsigned int maxWorkers = 0;
    };
    unsigned int workers = 2;
    std::vector<Host> hosts;
    std::string scheduler;
    unsigned int jobs = 0;
    unsigned int tasks = 200;
    unsigned long long below = 100000000ULL;
    bool separateProcesses = false;
    // Seconds after the start at which one worker process gets SIGKILL; empty: never.
    std::optional<unsigned int> killAWorkerAfter;
    bool help = false;

    // Throws std::invalid_argument with a message naming the option.
    static PoolDemoOptions parse(const std::vector<std::string>& args);
    static std::string usage();
};

} // namespace Kestrane
