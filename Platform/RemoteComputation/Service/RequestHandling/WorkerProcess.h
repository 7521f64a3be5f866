#pragma once

#include <map>
#include <memory>
#include <string>

namespace Kestrane {

class TcpRequestClient;

// One worker process (or job) of a DistributedWorkerPool, as the pool sees it: how to reach it,
// how many workers it should still run, and the open run request of each of its workers.
struct WorkerProcess {
    // Host name, host name "_" number, or "JobSchedulerWorker_" number.
    std::string name;
    // Empty for a job that has not called back yet.
    std::shared_ptr<TcpRequestClient> client;
    int workersToStart = 0;
    // Worker name to the id of its run request, whose reply means that the worker has ended.
    std::map<std::string, std::string> requestIds;
    // The job scheduler's number; below 1 when there is none.
    int lsfJobId = -1;
};

} // namespace Kestrane
