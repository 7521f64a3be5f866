#pragma once

#include "PrimeCountWorker.h"

#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerPool.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerTask.h"

#include <atomic>
#include <mutex>
#include <set>

namespace Kestrane {

// One range of the count.
class PrimeRangeTask : public DistributedWorkerTask {
public:
    PrimeRangeTask(int number, uint64_t from, uint64_t to)
        : DistributedWorkerTask(number), from(from), to(to) {}
    bool isDummy() const override { return false; }
    const uint64_t from;
    const uint64_t to;
    // Times the task was given out and failed.
    std::atomic<unsigned int> failures{0};
};

// The master's pool: hands out ranges, adds up the counts, and gives a failed range out again
// (the library never does that by itself), up to c_maxFailures times.
class PrimeCountPool : public DistributedWorkerPool {
public:
    static const unsigned int c_maxFailures = 3;

    PrimeCountPool(const DistributedWorkerPoolSettings& settings, const std::string& executable,
                   const GenericJobId& jobId, bool separateProcesses,
                   const PrimeCountTiming& timing);
    ~PrimeCountPool() override;

    std::shared_ptr<std::string> resultReceived(DistributedWorkerResultRequest& request) override;
    const std::string& getRunRequestType() override { return PrimeCountRunRequest::c_type; }
    void addRunRequestContent(RequestEncoder& encoder) override { timing.addTo(encoder); }
    const std::string& getInputReplyType() override { return PrimeCountWorker::c_inputReplyType; }
    void addTaskInput(ReplyEncoder& encoder, std::shared_ptr<DistributedWorkerTask> task,
                      const std::string& workerName) override;
    unsigned int getWorkerMaxAliveAge() override { return timing.workerMaxAliveAge; }
    unsigned int getWorkerMaxChangeAge() override { return timing.workerMaxChangeAge; }
    unsigned int getJobSchedulerWorkerCores() override { return 1; }
    void taskFailed(std::shared_ptr<DistributedWorkerTask> task, const std::string& workerName,
                    const std::string& reason) override;

    uint64_t getPrimes() const { return primes; }
    unsigned int getDoneTasks() const { return doneTasks; }
    unsigned int getFailures() const { return failures; }
    // Tasks that failed c_maxFailures times, or when no worker was left.
    unsigned int getLostTasks() const { return lostTasks; }
    // Worker processes that have sent a result, by process id.
    std::set<unsigned int> getWorkerPids();

private:
    PrimeCountTiming timing;
    std::atomic<uint64_t> primes{0};
    std::atomic<unsigned int> doneTasks{0};
    std::atomic<unsigned int> failures{0};
    std::atomic<unsigned int> lostTasks{0};
    std::set<unsigned int> workerPids;
    std::mutex workerPidsMutex;
};

} // namespace Kestrane
