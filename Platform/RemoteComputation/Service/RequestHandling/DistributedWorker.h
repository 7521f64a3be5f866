#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/GenericJobId.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Kestrane {

namespace Computing {
class RunningJob;
}
class DistributedWorkerRequestHandlerImpl;
class RequestEncoder;
class TcpRequestClient;

// The loop of one worker inside a worker process, on the thread of the pool's run request: take
// a core from the host's core accounting, fetch a task from the pool, let the program do it,
// send the result, give the core back. A worker without work holds no core, so that other jobs of
// the host can run. Its heartbeat key is its name and "#", by which the pool tells its workers
// apart.
class DistributedWorker {
public:
    DistributedWorker(std::shared_ptr<DistributedWorkerRequestHandlerImpl> impl,
                      const std::string& name, const std::string& poolId, const GenericJobId& jobId,
                      unsigned int cores, bool releaseCoresAfterEachTask,
                      std::shared_ptr<TcpRequestClient> client);
    // Waits for the aborts that stop() sent.
    ~DistributedWorker();
    DistributedWorker(const DistributedWorker&) = delete;
    DistributedWorker& operator=(const DistributedWorker&) = delete;

    // Returns when the worker has ended: the pool said "STOP", talking to it failed, or stop().
    void run();
    // From any thread: ends every wait at once and cancels the request under way.
    void stop();
    // Heartbeat in the worker's name; doWork may use it to report progress.
    void alive(const std::string& text) const;

    const std::string& getName() const { return name; }
    const std::string& getPoolId() const { return poolId; }

private:
    void processOneTask();
    // Takes a core; false when stopped first.
    bool takeCore(Computing::RunningJob& job);
    // Waits on coreCondition, ending early on stop. The caller holds the lock.
    void waitUnlessStopped(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds wait);
    // 0.5 to 1 times the core check interval, so that workers that compete drift apart.
    unsigned int randomCoreWaitMs() const;
    // On the run's own thread, so that the pool hears of the abort before the run's reply.
    void joinAborts();
    void sendResult(const std::string& taskId, std::shared_ptr<RequestEncoder> result);

    std::shared_ptr<DistributedWorkerRequestHandlerImpl> impl;
    std::string name;
    std::string poolId;
    GenericJobId jobId;
    unsigned int cores;
    bool releaseCoresAfterEachTask;
    std::shared_ptr<TcpRequestClient> client;

    std::condition_variable coreCondition;
    std::mutex stateMutex;
    std::atomic<bool> stopRequested{false};
    bool waitForInput = false;
    std::string currentRequestId;
    std::mutex requestMutex;
    std::vector<std::thread> aborts;
};

} // namespace Kestrane
