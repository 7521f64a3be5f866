#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Progress.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobStatusLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"

#include <boost/chrono.hpp>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

using Clock = boost::chrono::steady_clock;
constexpr int64_t s_shortestWaitMs = 101;
} // namespace

int CallbackRequestHandler::callbackIdCounter = 0;
boost::mutex CallbackRequestHandler::callbackIdMutex;
std::map<std::string, CallbackRequestHandler::Callback> CallbackRequestHandler::callbacks;
std::map<std::string, std::string> CallbackRequestHandler::callbackErrors;
boost::mutex CallbackRequestHandler::callbackMutex;
boost::condition_variable_any CallbackRequestHandler::callbackCondition;

CallbackRequestHandler::CallbackRequestHandler(RequestServer* server)
    : AbstractRequestHandler("CallbackRequestHandler"), server(server) {}

std::shared_ptr<Request> CallbackRequestHandler::decodeRequest(XmlRequest& request) const {
    if (request.getType() != "CallbackRequest")
        return nullptr;
    auto decoded = std::make_shared<CallbackRequest>(request.getRootElement());
    decoded->setSourceString(request.getSourceString());
    return decoded;
}

bool CallbackRequestHandler::canHandle(Request* request) {
    return dynamic_cast<CallbackRequest*>(request) != nullptr;
}

std::shared_ptr<std::string> CallbackRequestHandler::handle(Request* request) {
    const char* function = "Kestrane::CallbackRequestHandler::handle";
    if (!request) {
        KS_ERROR("Can't handle NULL request.");
        throw KsExceptionNested("Can't handle NULL request.", "RequestHandling", function, __FILE__,
                                __LINE__);
    }
    auto* callback = dynamic_cast<CallbackRequest*>(request);
    if (!callback) {
        KS_ERROR("Unsuported request '" << request->getType() << "'.");
        throw KsExceptionNested("Unsuported request", "Requesthandling", function, __FILE__,
                                __LINE__);
    }
    const std::string id = callback->getCallbackId();
    if (!callback->getErrorMessage().empty()) {
        boost::lock_guard<boost::mutex> lock(callbackMutex);
        callbackErrors[id] = callback->getErrorMessage();
        callbackCondition.notify_all();
        return nullptr;
    }
    ReplyEncoder reply("AckReply", *request);
    reply.addElement("status", "OK");
    {
        boost::lock_guard<boost::mutex> lock(callbackMutex);
        callbacks[id] = Callback{callback->getHost(), callback->getPort()};
        callbackCondition.notify_all();
    }
    KS_INFO("Handled CallbackRequest (id=" << id << ") from client "
                                           << request->getClientDescription() << ".");
    return std::make_shared<std::string>(reply.getEncodedReply("   ", "  "));
}

std::string CallbackRequestHandler::createCallbackId() {
    boost::lock_guard<boost::mutex> lock(callbackIdMutex);
    return std::to_string(++callbackIdCounter);
}

unsigned int CallbackRequestHandler::waitForCallback(const std::string& id,
                                                     std::string& errorMessage) {
    const unsigned int timeout =
        RequestServerConfiguration::getRegisteredInstance()->getCallbackTimeout();
    boost::unique_lock<boost::mutex> lock(callbackMutex);
    auto deadline = Clock::now() + boost::chrono::seconds(timeout);
    auto arrived = [&] { return callbacks.count(id) != 0 || callbackErrors.count(id) != 0; };
    while (!arrived()) {
        KS_DEBUG("Waiting for callback " << id);
        int64_t left =
            boost::chrono::duration_cast<boost::chrono::milliseconds>(deadline - Clock::now())
                .count();
        bool timedOut = true;
        if (left < s_shortestWaitMs)
            KS_DEBUG("Skipping short wait: " << left << "ms");
        else
            timedOut = callbackCondition.wait_until(lock, deadline) == boost::cv_status::timeout;
        if (timedOut)
            break;
    }
    if (!arrived()) {
        RequestServer* server = RequestServer::getInstance(-1, 0);
        const std::string localHost = server ? server->getHostName() : std::string();
        KS_WARN("Callback " << id << " NOT received before timeout (" << timeout
                            << " seconds). Is the name of the local host (" << localHost
                            << ") correct?");
        errorMessage = "Callback NOT received before timeout. Is the name of the local host (" +
                       localHost + ") correct?";
        return 0;
    }
    auto error = callbackErrors.find(id);
    if (error != callbackErrors.end()) {
        errorMessage = error->second;
        KS_WARN("Error message for callback received: " << error->second);
    }
    // The subscript leaves an empty entry behind after an error callback, so that a later wait
    // for the id answers 0 at once.
    unsigned int port = callbacks[id].port;
    KS_DEBUG("Callback " << id << " received (port = " << port << ").");
    return port;
}

std::pair<std::string, unsigned int> CallbackRequestHandler::waitForJobSchedulerCallback(
    const std::string& id, const std::string& script, int jobId, std::string& errorMessage,
    std::shared_ptr<Progress> progress) {
    const unsigned int interval =
        RequestServerConfiguration::getRegisteredInstance()->getJSUpdateInterval();
    boost::unique_lock<boost::mutex> lock(callbackMutex);
    Computing::LSFJobStatus status = Computing::LSFJobStatus::Unknown;
    std::string message;
    // A scheduler command may take a while: callbacks are stored meanwhile, and the map is
    // looked at again afterwards.
    auto queryStatus = [&] {
        lock.unlock();
        bool known = Computing::JobStatusLSF().execute(jobId, script, status, message);
        lock.lock();
        if (!known) {
            KS_ERROR("Callback NOT received Error getting job status:\n" << message);
            errorMessage =
                "Error getting status for job " + std::to_string(jobId) + " from job scheduler.";
        }
        return known;
    };
    if (!queryStatus())
        return {};
    KS_TRACE(message);
    // Pending (0) and running (1) jobs may still call back; every later state will not.
    while (callbacks.count(id) == 0 && static_cast<int>(status) <= 1) {
        callbackCondition.wait_until(lock, Clock::now() + boost::chrono::seconds(interval));
        if (!queryStatus())
            return {};
        KS_TRACE("Waiting for callback: " << message);
        if (progress) {
            lock.unlock();
            progress->handleLogMessage(LogMessage("18446744073709551615 Waiting for job scheduler "
                                                  "to start job " +
                                                      std::to_string(jobId) + "...\n" + message +
                                                      "\n",
                                                  LogMessage::Info, "jobLog"));
            lock.lock();
        }
    }
    auto callback = callbacks.find(id);
    if (callback == callbacks.end()) {
        errorMessage = "Error staring job with job scheduler: job not running anymore!";
        KS_ERROR("Callback NOT received Error getting job status:\n" << message);
        return {};
    }
    KS_DEBUG("JobScheduler callback " << id << " received.");
    return {callback->second.host, callback->second.port};
}

} // namespace Kestrane
