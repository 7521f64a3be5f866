#include "Platform/RemoteComputation/Service/RequestHandling/StartQueuedJobRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/StartQueuedJobRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <boost/chrono.hpp>
#include <boost/thread/lock_types.hpp>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
const char* c_function = "Kestrane::StartQueuedJobRequestHandler::handle";
} // namespace

std::set<std::string> StartQueuedJobRequestHandler::s_startedJobIds;
std::set<std::string> StartQueuedJobRequestHandler::s_cancelledJobIds;
std::set<std::string> StartQueuedJobRequestHandler::s_abortedJobIds;
std::set<std::string> StartQueuedJobRequestHandler::s_endedJobIds;
std::map<std::string, std::string> StartQueuedJobRequestHandler::s_errorMessages;
boost::mutex StartQueuedJobRequestHandler::s_startedJobIdsMutex;
boost::condition_variable_any StartQueuedJobRequestHandler::s_startJobCondition;
boost::condition_variable_any StartQueuedJobRequestHandler::s_jobEndedCondition;

StartQueuedJobRequestHandler::StartQueuedJobRequestHandler()
    : AbstractRequestHandler("StartQueuedJobRequestHandler") {}

StartQueuedJobRequestHandler::~StartQueuedJobRequestHandler() = default;

std::shared_ptr<Request> StartQueuedJobRequestHandler::decodeRequest(XmlRequest& request) const {
    if (request.getType() != "StartQueuedJobRequest")
        return nullptr;
    auto decoded = std::make_shared<StartQueuedJobRequest>(request.getRootElement());
    decoded->setSourceString(request.getSourceString());
    return decoded;
}

bool StartQueuedJobRequestHandler::canHandle(Request* request) {
    return dynamic_cast<StartQueuedJobRequest*>(request) != nullptr;
}

std::shared_ptr<std::string> StartQueuedJobRequestHandler::handle(Request* request) {
    if (!request) {
        KS_ERROR("Can't handle NULL request.");
        throw KsExceptionNested("Can't handle NULL request.", "Requesthandling", c_function,
                                __FILE__, __LINE__);
    }
    auto start = dynamic_cast<StartQueuedJobRequest*>(request);
    if (!start) {
        KS_ERROR("Unsuported request '" << request->getType() << "'.");
        throw KsExceptionNested("Unsuported request", "Requesthandling", c_function, __FILE__,
                                __LINE__);
    }
    const std::string& jobId = start->getJobId();
    {
        boost::unique_lock<boost::mutex> lock(s_startedJobIdsMutex);
        if (start->getCancelJob()) {
            s_cancelledJobIds.insert(jobId);
            if (!start->getErrorMessage().empty())
                s_errorMessages[jobId] = start->getErrorMessage();
        } else {
            s_startedJobIds.insert(jobId);
        }
        s_startJobCondition.notify_all();
    }
    {
        // jobEnded may have come between the two locks: the set test sees that.
        boost::unique_lock<boost::mutex> lock(s_startedJobIdsMutex);
        while (s_startedJobIds.count(jobId) && !s_abortedJobIds.count(jobId) &&
               !s_cancelledJobIds.count(jobId) && !s_endedJobIds.count(jobId)) {
            KS_TRACE("Waiting for queued job ended " << jobId);
            s_jobEndedCondition.wait(lock);
        }
    }
    ReplyEncoder reply("AckReply", *request);
    reply.addElement("status", "OK");
    return std::make_shared<std::string>(reply.getEncodedReply("   ", "  "));
}

bool StartQueuedJobRequestHandler::waitForStartJobRequest(const std::string& jobId,
                                                          unsigned int timeoutSec) {
    using Clock = boost::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + boost::chrono::seconds(timeoutSec);
    boost::unique_lock<boost::mutex> lock(s_startedJobIdsMutex);
    while (!s_startedJobIds.count(jobId) && !s_abortedJobIds.count(jobId) &&
           !s_cancelledJobIds.count(jobId)) {
        KS_DEBUG("Waiting for StartJobRequest for jobId " << jobId << ", timeout " << timeoutSec
                                                          << "s");
        const auto left =
            boost::chrono::duration_cast<boost::chrono::milliseconds>(deadline - Clock::now())
                .count();
        bool timedOut;
        if (left < 101) {
            KS_DEBUG("Skipping short wait: " << left << "ms");
            timedOut = true;
        } else {
            timedOut = s_startJobCondition.wait_until(lock, deadline) == boost::cv_status::timeout;
        }
        if (timedOut) {
            KS_WARN("StartJobRequest " << jobId << " NOT received before timeout (" << timeoutSec
                                       << "sec).");
            return false;
        }
    }
    if (s_abortedJobIds.count(jobId)) {
        KS_DEBUG("Wait for StartJobRequest for jobId " << jobId << " aborted.");
        return false;
    }
    if (s_cancelledJobIds.count(jobId)) {
        KS_DEBUG("StartJobRequest for jobId " << jobId << " received: job cancelled.");
        return true;
    }
    KS_DEBUG("StartJobRequest for jobId " << jobId << " received.");
    return true;
}

std::string StartQueuedJobRequestHandler::getErrorMessage(const std::string& jobId) {
    boost::unique_lock<boost::mutex> lock(s_startedJobIdsMutex);
    auto found = s_errorMessages.find(jobId);
    if (found == s_errorMessages.end())
        return std::string();
    std::string message = found->second;
    s_errorMessages.erase(found);
    return message;
}

void StartQueuedJobRequestHandler::abortWaitingJob(const std::string& jobId) {
    KS_TRACE("Aborting wait for job " << jobId << "...");
    boost::unique_lock<boost::mutex> lock(s_startedJobIdsMutex);
    s_abortedJobIds.insert(jobId);
    s_startJobCondition.notify_all();
}

void StartQueuedJobRequestHandler::jobEnded(const std::string& jobId) {
    KS_TRACE("Queued job ended " << jobId);
    boost::unique_lock<boost::mutex> lock(s_startedJobIdsMutex);
    auto found = s_startedJobIds.find(jobId);
    if (found == s_startedJobIds.end())
        return;
    s_startedJobIds.erase(found);
    s_endedJobIds.insert(jobId);
    s_jobEndedCondition.notify_all();
}

} // namespace Kestrane
