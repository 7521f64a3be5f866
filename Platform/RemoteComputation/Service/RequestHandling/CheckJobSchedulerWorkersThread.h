#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerPool.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Thread.h"

#include <condition_variable>
#include <mutex>

namespace Kestrane {

// Asks the job scheduler, every getWorkerMaxAliveAge() seconds, about the pool's jobs that have
// not called back yet: a job that is neither pending nor running (or whose state can't be read)
// will never call back, and the pool gives its worker up.
class DistributedWorkerPool::CheckJobSchedulerWorkersThread : public Thread {
public:
    // `periodSeconds`: the pool's getWorkerMaxAliveAge(), read once, since the pool's derived
    // part may be gone while this thread ends.
    CheckJobSchedulerWorkersThread(DistributedWorkerPool* pool, unsigned int periodSeconds);
    ~CheckJobSchedulerWorkersThread() override;

    void executeRun() override;
    // Ends the wait at once; the owner then calls finalize().
    void stop();

private:
    // False when stopped first.
    bool waitOnePeriod();
    void checkPendingJobs();

    DistributedWorkerPool* pool;
    unsigned int periodSeconds;
    bool stopRequested = false;
    std::condition_variable condition;
    std::mutex mutex;
};

} // namespace Kestrane
