#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
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

} // namespace Kestrane
