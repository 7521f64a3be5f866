#include "Platform/RemoteComputation/Service/RequestHandling/CheckJobSchedulerWorkersThread.h"

#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobStatusLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LSFJobStatus.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <chrono>
#include <utility>
#include <vector>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
} // namespace

DistributedWorkerPool::CheckJobSchedulerWorkersThread::CheckJobSchedulerWorkersThread(
    DistributedWorkerPool* pool, unsigned int periodSeconds)
    : Thread("CheckJobSchedulerWorkersThread"), pool(pool), periodSeconds(periodSeconds) {}

DistributedWorkerPool::CheckJobSchedulerWorkersThread::~CheckJobSchedulerWorkersThread() {
    stop();
    finalize();
}

void DistributedWorkerPool::CheckJobSchedulerWorkersThread::stop() {
    std::lock_guard<std::mutex> lock(mutex);
    stopRequested = true;
    condition.notify_all();
}

bool DistributedWorkerPool::CheckJobSchedulerWorkersThread::waitOnePeriod() {
    std::unique_lock<std::mutex> lock(mutex);
    condition.wait_for(lock, std::chrono::seconds(periodSeconds), [this] { return stopRequested; });
    return !stopRequested;
}

void DistributedWorkerPool::CheckJobSchedulerWorkersThread::executeRun() {
    size_t pending = 0;
    {
        boost::lock_guard<boost::mutex> lock(pool->workerMutex);
        for (const auto& process : pool->workerProcesses)
            if (!process.client)
                ++pending;
    }
    KS_TRACE("Starting CheckJobSchedulerWorkersThread. " << pending << " pending jobs.");
    while (waitOnePeriod())
        checkPendingJobs();
}

void DistributedWorkerPool::CheckJobSchedulerWorkersThread::checkPendingJobs() {
    std::vector<std::pair<std::string, std::string>> gone;
    size_t pending = 0;
    {
        boost::lock_guard<boost::mutex> lock(pool->workerMutex);
        const std::string& script = pool->settings.getJobSchedulerScript();
        for (const auto& process : pool->workerProcesses) {
            if (process.client)
                continue;
            ++pending;
            const std::string id = std::to_string(process.lsfJobId);
            Computing::JobStatusLSF query;
            Computing::LSFJobStatus status = Computing::LSFJobStatus::Unknown;
            std::string message;
            if (!query.execute(process.lsfJobId, script, status, message)) {
                KS_WARN("Error getting job status for job " << id << ":\n" << message);
                LivingProcess::alive("jobSchedulerJobError", "");
                KS_WARN("Can not get status of worker job (id=" << id << "): " << message);
                gone.emplace_back(process.name,
                                  "Error getting job status for job " + id + ":\n" + message);
            } else if (status != Computing::LSFJobStatus::Pending &&
                       status != Computing::LSFJobStatus::Running) {
                KS_WARN("Worker job '" << id << "' not running anymore: " << message);
                gone.emplace_back(process.name, "Job " + id + " not running anymore:\n" + message);
            } else {
                LivingProcess::alive("jobSchedulerJobRunning", "");
            }
        }
    }
    KS_TRACE(pending << " pending jobs, " << gone.size() << " failed.");
    for (const auto& job : gone)
        pool->jobSchedulerWorkerJobTerminated(job.first, job.second);
}

} // namespace Kestrane
