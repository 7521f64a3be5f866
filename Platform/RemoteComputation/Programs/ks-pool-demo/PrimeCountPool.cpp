#include "PrimeCountPool.h"

#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerResultRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
} // namespace

PrimeCountPool::PrimeCountPool(const DistributedWorkerPoolSettings& settings,
                               const std::string& executable, const GenericJobId& jobId,
                               bool separateProcesses, const PrimeCountTiming& timing)
    : DistributedWorkerPool(settings, executable, jobId, "Worker", 1, false, separateProcesses,
                            1000),
      timing(timing) {}

PrimeCountPool::~PrimeCountPool() {
    // A late call from a worker may still be inside this part of the pool.
    endProtocolCalls();
}

void PrimeCountPool::addTaskInput(ReplyEncoder& encoder,
                                  std::shared_ptr<DistributedWorkerTask> task, const std::string&) {
    auto range = std::dynamic_pointer_cast<PrimeRangeTask>(task);
    encoder.addElement("from", std::to_string(range->from));
    encoder.addElement("to", std::to_string(range->to));
}

std::shared_ptr<std::string>
PrimeCountPool::resultReceived(DistributedWorkerResultRequest& request) {
    auto task = std::dynamic_pointer_cast<PrimeRangeTask>(taskEnded(&request));
    auto* counted = dynamic_cast<PrimeCountResultRequest*>(&request);
    if (task && counted && request.getStatus() == "OK") {
        primes += counted->getPrimes();
        ++doneTasks;
        std::lock_guard<std::mutex> lock(workerPidsMutex);
        workerPids.insert(counted->getWorkerPid());
    } else if (task) {
        taskFailed(task, "",
                   "Worker reported " + request.getStatus() + ": " + request.getErrorMessage());
    }
    ReplyEncoder reply("AckReply", request);
    reply.addElement("status", "OK");
    return std::make_shared<std::string>(reply.getEncodedReply("  ", "   "));
}

void PrimeCountPool::taskFailed(std::shared_ptr<DistributedWorkerTask> task,
                                const std::string& workerName, const std::string& reason) {
    ++failures;
    auto range = std::dynamic_pointer_cast<PrimeRangeTask>(task);
    const unsigned int count = ++range->failures;
    KS_WARN("Task " << task->getTask4UId() << " failed on '" << workerName << "' (" << count
                    << ". time): " << reason);
    if (count >= c_maxFailures) {
        ++lostTasks;
        return;
    }
    addTask(task);
}

std::set<unsigned int> PrimeCountPool::getWorkerPids() {
    std::lock_guard<std::mutex> lock(workerPidsMutex);
    return workerPids;
}

} // namespace Kestrane
