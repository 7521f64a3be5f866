#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Progress.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"
#include "Platform/RemoteComputation/Service/RequestHandling/StandardRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/StandardRequestSchema.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TestSchema.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"

#include <boost/thread/lock_guard.hpp>

#include <cstdlib>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
const char* c_handleFunction = "Kestrane::RequestHandler::handle";

std::string hostDescription() {
    for (const char* variable : {"COMPUTERNAME", "HOST"})
        if (const char* value = std::getenv(variable); value && *value)
            return value;
    return "RequestHandler";
}
} // namespace

RequestHandler* RequestHandler::s_defaultRequestHandler = nullptr;
boost::mutex RequestHandler::s_defaultRequestHandlerMutex;

RequestHandler::RequestHandler(const std::string& name) : AbstractRequestHandler(name) {
    if (m_description.empty())
        m_description = hostDescription();
    auto standard = std::make_shared<StandardRequestHandler>();
    addRequestHandler(standard, StandardRequestSchema());
    // The standard handler answers test requests, whose job ids use these extra elements.
    addRequestSchema(TestSchema());
    m_abortConnection = standard->getAbortRequestSignal().connect(
        Signals::slot(this, &RequestHandler::abortRequest));
}

RequestHandler::~RequestHandler() = default;

RequestHandler* RequestHandler::getDefaultRequestHandler() {
    boost::lock_guard<boost::mutex> lock(s_defaultRequestHandlerMutex);
    if (!s_defaultRequestHandler) {
        s_defaultRequestHandler = new RequestHandler("DefaultRequestHandler");
        KS_TRACE("Created default handler: " << s_defaultRequestHandler);
    }
    return s_defaultRequestHandler;
}

void RequestHandler::addRequestHandler(std::shared_ptr<AbstractRequestHandler> handler,
                                       const AbstractRequestSchema& schema) {
    m_handlers.push_back(handler);
    RequestXmlHelper::getInstance()->addSchema(schema);
    KS_DEBUG("Added '" << handler->getDescription() << "' to RequestHandler " << this);
}

void RequestHandler::addRequestSchema(const AbstractRequestSchema& schema) {
    RequestXmlHelper::getInstance()->addSchema(schema);
}

bool RequestHandler::canHandle(Request* request) {
    for (auto& handler : m_handlers) {
        if (handler->canHandle(request)) {
            KS_TRACE("Found handler");
            return true;
        }
    }
    return false;
}

std::shared_ptr<Request> RequestHandler::decodeRequest(XmlRequest& request) const {
    boost::lock_guard<boost::mutex> lock(m_decodeMutex);
    KS_DEBUG("Decoding request... (type='" << request.getType() << "')");
    for (const auto& handler : m_handlers) {
        KS_TRACE("Trying to decode using '" << handler->getDescription() << "'");
        if (auto decoded = handler->decodeRequest(request)) {
            KS_TRACE("Found handler");
            return decoded;
        }
    }
    KS_DEBUG("No handle found to decode request. type='" << request.getType() << "'");
    return nullptr;
}

std::shared_ptr<std::string> RequestHandler::handle(Request*) {
    KS_ERROR("use RequestHandler::handle(std::shared_ptr<Request> request)");
    return nullptr;
}

std::shared_ptr<std::string> RequestHandler::handleRequest(Request*) {
    throw KsExceptionNested("Can not handle abstract request: Request.", "RequestHandling",
                            "Kestrane::RequestHandler::handleRequest", __FILE__, __LINE__);
}

std::shared_ptr<std::string> RequestHandler::handle(std::shared_ptr<Request> request) {
    const std::string id = request->getId();
    KS_DEBUG("Handling request... type='" << request->getType() << "', id='" << id << "'");
    std::shared_ptr<AbstractRequestHandler> handler;
    for (auto& candidate : m_handlers) {
        if (candidate->canHandle(request.get())) {
            handler = candidate;
            break;
        }
    }
    if (!handler) {
        KS_DEBUG("No handle found for request. type='" << request->getType() << "', id='" << id
                                                       << "'");
        throw KsExceptionNested("No handler available for this request.", "RequestHandling",
                                c_handleFunction, __FILE__, __LINE__);
    }
    KS_TRACE("Found handler");
    bool abortedBefore;
    {
        boost::lock_guard<boost::mutex> lock(m_requestsMutex);
        m_runningRequests[id] = request;
        abortedBefore = m_abortedRequests.count(id) > 0;
    }
    KS_TRACE("Added request");
    if (abortedBefore) {
        KS_INFO("Aborting request " << id);
        request->abort();
    }
    auto finished = [&] {
        boost::lock_guard<boost::mutex> lock(m_requestsMutex);
        m_runningRequests.erase(id);
    };
    std::shared_ptr<std::string> reply;
    try {
        reply = handler->handle(request.get());
    } catch (const KsExceptionNested& e) {
        KS_WARN("KsExceptionNested while handling request: " << e.what());
        finished();
        throw;
    } catch (const KsException& e) {
        KS_WARN("KsException while handling request: " << e.what());
        finished();
        throw;
    } catch (const std::exception& e) {
        KS_WARN("std::exception while handling request: " << e.what());
        finished();
        throw;
    } catch (...) {
        KS_WARN("unknown while handling request");
        finished();
        throw KsExceptionNested("Unknown exception while handling request.", "RequestHandling",
                                c_handleFunction, __FILE__, __LINE__);
    }
    KS_DEBUG("Request handled by handler '" << handler->getDescription() << "'. replyType='"
                                            << (reply ? ReplyEncoder::getType(*reply) : "NULL")
                                            << "', requestId='" << id << "'");
    finished();
    return reply;
}

std::shared_ptr<std::string>
RequestHandler::handle(const std::string& xml, std::shared_ptr<Progress> progress,
                       const std::string& clientDescription,
                       std::shared_ptr<RemoteJobStatusInterface> jobStatus, bool wrap) {
    XmlRequest xmlRequest(xml, wrap);
    std::shared_ptr<Request> request;
    for (auto& handler : m_handlers)
        if ((request = handler->decodeRequest(xmlRequest)))
            break;
    if (!request) {
        KS_WARN("Can't decode request: type = " << xmlRequest.getType());
        return nullptr;
    }
    if (progress) {
        // The connection lives as long as the request; the slot keeps the progress alive.
        request->getLogSignal()
            .connect([progress](const LogMessage& message) { progress->handleLogMessage(message); })
            .releaseWithoutDisconnect();
    }
    if (jobStatus)
        request->setJobStatus(jobStatus);
    request->setClientDescription(clientDescription);
    return handle(request);
}

void RequestHandler::abortRequest(const std::string& requestId) {
    std::shared_ptr<Request> running;
    {
        boost::lock_guard<boost::mutex> lock(m_requestsMutex);
        auto found = m_runningRequests.find(requestId);
        if (found != m_runningRequests.end()) {
            running = found->second;
            KS_DEBUG("Request " << requestId << " found.");
        } else {
            m_abortedRequests.insert(requestId);
            KS_INFO("Request " << requestId << " not found. Added to aborted requests.");
        }
    }
    if (running) {
        KS_INFO("Aborting request " << requestId << "...");
        running->abort();
    }
}

size_t RequestHandler::getRunningRequestCount() {
    boost::lock_guard<boost::mutex> lock(m_requestsMutex);
    return m_runningRequests.size();
}

bool RequestHandler::isAbortedRequestId(const std::string& requestId) {
    boost::lock_guard<boost::mutex> lock(m_requestsMutex);
    return m_abortedRequests.count(requestId) > 0;
}

} // namespace Kestrane
