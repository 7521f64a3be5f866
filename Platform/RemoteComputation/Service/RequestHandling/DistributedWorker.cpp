#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorker.h"

#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequestHandlerImpl.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RunningJob.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <random>
#include <stdexcept>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
// What a worker's core is accounted as in the host's registry.
const int c_computingTypeDistributedWorker = 1;
const char* c_indent = "   ";
} // namespace

DistributedWorker::DistributedWorker(std::shared_ptr<DistributedWorkerRequestHandlerImpl> impl,
                                     const std::string& name, const std::string& poolId,
                                     const GenericJobId& jobId, unsigned int cores,
                                     bool releaseCoresAfterEachTask,
                                     std::shared_ptr<TcpRequestClient> client)
    : impl(std::move(impl)), name(name), poolId(poolId), jobId(jobId), cores(cores),
      releaseCoresAfterEachTask(releaseCoresAfterEachTask), client(std::move(client)) {}

void DistributedWorker::alive(const std::string& text) const {
    LivingProcess::alive(text, name + "#");
}

unsigned int DistributedWorker::randomCoreWaitMs() const {
    thread_local std::minstd_rand generator{std::random_device{}()};
    return static_cast<unsigned int>(generator() % 500 + 500) * impl->getCoreCheckIntervalS();
}

void DistributedWorker::waitUnlessStopped(std::unique_lock<std::mutex>& lock,
                                          std::chrono::milliseconds wait) {
    coreCondition.wait_for(lock, wait, [this] { return stopRequested.load(); });
}

bool DistributedWorker::takeCore(Computing::RunningJob& job) {
    const int computationCores =
        RequestServerConfiguration::getRegisteredInstance()->getComputationCores();
    std::unique_lock<std::mutex> lock(stateMutex);
    while (!stopRequested) {
        if (job.add(computationCores, cores, c_computingTypeDistributedWorker,
                    jobId.getName() + "_" + name))
            return true;
        alive("_waiting_free_core");
        const unsigned int waitMs = randomCoreWaitMs();
        KS_TRACE(name << ": no cores available. Waiting for " << waitMs << "ms before retrying...");
        waitUnlessStopped(lock, std::chrono::milliseconds(waitMs));
    }
    return false;
}

void DistributedWorker::run() {
    KS_INFO("Starting execution of DistributedWorker '" << name << "' (poolId = " << poolId << ")");
    while (!stopRequested) {
        alive("_getting_core");
        Computing::RunningJob job("DistributedWorker " + name);
        if (!takeCore(job))
            break;
        KS_TRACE(name << ": added running job");
        alive("_got_core");
        do {
            processOneTask();
        } while (!stopRequested && !waitForInput && !releaseCoresAfterEachTask);
        job.remove();
        KS_TRACE(name << ": removed running job.");
        std::unique_lock<std::mutex> lock(stateMutex);
        if (stopRequested)
            break;
        unsigned int waitMs = 0;
        if (!waitForInput) {
            waitMs = randomCoreWaitMs();
            KS_TRACE(name << ": giving time to other thread/processes to get core. Waiting for "
                          << waitMs << "ms before retrying...");
        } else {
            waitForInput = false;
            waitMs = impl->getInputWaitIntervalS() * 1000;
            KS_TRACE(name << ": no input available. Waiting for " << waitMs
                          << "ms before retrying...");
        }
        waitUnlessStopped(lock, std::chrono::milliseconds(waitMs));
    }
    joinAborts();
    KS_INFO("Execution of DistributedWorkerThread '" << name << "' ended.");
}

void DistributedWorker::joinAborts() {
    std::vector<std::thread> sent;
    {
        std::lock_guard<std::mutex> lock(requestMutex);
        sent.swap(aborts);
    }
    for (auto& abort : sent)
        abort.join();
}

void DistributedWorker::processOneTask() {
    RequestEncoder request("GetDistributedWorkerInputRequest");
    request.addElement("poolId", poolId, c_indent);
    request.addElement("name", name, c_indent);
    {
        std::lock_guard<std::mutex> lock(requestMutex);
        if (stopRequested) {
            KS_INFO("Worker '" << name << "' is stopping: cancel getting input.");
            return;
        }
        currentRequestId = request.getId();
    }
    std::shared_ptr<Reply> reply;
    try {
        reply = client->handleRequest(request, nullptr, "");
    } catch (const std::exception& e) {
        {
            std::lock_guard<std::mutex> lock(requestMutex);
            currentRequestId.clear();
        }
        KS_ERROR("Error getting input for worker '" << name << "' (exception). Stopping worker...\n"
                                                    << e.what());
        stopRequested = true;
        return;
    }
    {
        std::lock_guard<std::mutex> lock(requestMutex);
        currentRequestId.clear();
    }
    if (!reply) {
        KS_ERROR("Error getting input for worker '" << name
                                                    << "' (null reply). Stopping worker...");
        stopRequested = true;
        return;
    }
    if (reply->getType() != impl->getInputReplyType()) {
        KS_ERROR("Error getting input for worker '" << name << "' (unexpected reply type '"
                                                    << reply->getType()
                                                    << "'). Stopping worker...");
        stopRequested = true;
        return;
    }
    const std::string status = reply->getElement("status");
    if (status == "WAIT") {
        KS_INFO("Worker '" << name << "' waiting for next input...");
        std::lock_guard<std::mutex> lock(stateMutex);
        waitForInput = true;
        return;
    }
    if (status == "STOP") {
        KS_INFO("Stopping worker '" << name << "'...");
        stopRequested = true;
        return;
    }
    // Any other status counts as input.
    KS_INFO("Input for worker '" << name << "' recived.");
    const std::string taskId = reply->getElement("taskId");
    KS_INFO("Worker '" << name << "' calling doWork() for task " << taskId << "...");
    std::shared_ptr<RequestEncoder> result;
    std::string errorText;
    try {
        result = impl->doWork(this, reply);
    } catch (const KsExceptionNested& e) {
        KS_ERROR("KsExceptionNested while worker '" << name << "' called doWork():\n" << e.what());
        errorText = e.what();
    } catch (const std::exception& e) {
        KS_ERROR("std::exception while worker '" << name << "' called doWork():\n" << e.what());
        errorText = e.what();
    } catch (...) {
        KS_ERROR("Unknown exception while worker '" << name << "' called doWork()");
        errorText = "Unknown exception";
    }
    KS_INFO("Worker '" << name << "' calling doWork() done.");
    if (!result) {
        result = std::make_shared<RequestEncoder>("DistributedWorkerResultRequest");
        result->addElement("poolId", poolId, c_indent);
        result->addElement("taskId", taskId, c_indent);
        result->addElement("status", "ERROR", c_indent);
        // Escaped once more: the pool unescapes the element's text after parsing.
        result->addElement("errorMessage",
                           XmlUtils::toXml(errorText.empty() ? "empty reply" : errorText),
                           c_indent);
    }
    sendResult(taskId, result);
}

void DistributedWorker::sendResult(const std::string& taskId,
                                   std::shared_ptr<RequestEncoder> result) {
    try {
        {
            std::lock_guard<std::mutex> lock(requestMutex);
            currentRequestId = result->getId();
        }
        std::shared_ptr<Reply> reply = client->handleRequest(*result, nullptr, "");
        {
            std::lock_guard<std::mutex> lock(requestMutex);
            currentRequestId.clear();
        }
        // A pool that is gone can't take the result, and has no more work either.
        if (!reply)
            throw std::runtime_error("no reply");
        if (auto unreachable = std::dynamic_pointer_cast<RequestServerUnreachableReply>(reply))
            throw std::runtime_error(unreachable->getErrorMessage());
        KS_INFO("Results from worker '" << name << "' for task " << taskId << " sent");
    } catch (const std::exception& e) {
        {
            std::lock_guard<std::mutex> lock(requestMutex);
            currentRequestId.clear();
        }
        KS_ERROR("Exception sending results from worker '" << name << "' for task " << taskId
                                                           << ". Stopping worker...\n"
                                                           << e.what());
        stopRequested = true;
    }
}

void DistributedWorker::stop() {
    std::lock_guard<std::mutex> stateLock(stateMutex);
    KS_TRACE("Stopping worker " << name);
    {
        std::lock_guard<std::mutex> lock(requestMutex);
        // Set first, so that no new request starts after the cancel below.
        stopRequested = true;
        if (!currentRequestId.empty()) {
            KS_TRACE("Cancelling request " << currentRequestId);
            // On its own thread: the pool may be the process that stopped answering, and the
            // stop of a worker must not wait for a socket timeout.
            aborts.emplace_back(
                [client = client, id = currentRequestId] { client->abortRequest(id); });
            if (RequestServer* server = RequestServer::getInstance(-1, 0))
                server->getReplyHandler().cancellReceiveReply(currentRequestId);
        }
    }
    coreCondition.notify_all();
    impl->stopWork();
}

DistributedWorker::~DistributedWorker() {
    joinAborts();
}

} // namespace Kestrane
