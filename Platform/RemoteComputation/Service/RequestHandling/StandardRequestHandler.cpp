#include "Platform/RemoteComputation/Service/RequestHandling/StandardRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/AbortRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/StartQueuedJobRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TestRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
const char* c_function = "Kestrane::StandardRequestHandler::handle";
} // namespace

StandardRequestHandler::StandardRequestHandler()
    : AbstractRequestHandler("StandardRequestHandler") {}

StandardRequestHandler::~StandardRequestHandler() = default;

std::shared_ptr<Request> StandardRequestHandler::decodeRequest(XmlRequest& request) const {
    if (auto decoded = m_testRequestHandler.decodeRequest(request))
        return decoded;
    if (auto decoded = m_startQueuedJobRequestHandler.decodeRequest(request))
        return decoded;
    if (auto decoded = DistributedWorkerRequestHandler::getInstance()->decodeRequest(request))
        return decoded;
    if (request.getType() != "AbortRequest")
        return nullptr;
    auto decoded = std::make_shared<AbortRequest>(request.getRootElement());
    decoded->setSourceString(request.getSourceString());
    return decoded;
}

bool StandardRequestHandler::canHandle(Request* request) {
    if (dynamic_cast<TestRequest*>(request))
        return m_testRequestHandler.canHandle(request);
    if (dynamic_cast<AbortRequest*>(request))
        return true;
    if (dynamic_cast<StartQueuedJobRequest*>(request))
        return m_startQueuedJobRequestHandler.canHandle(request);
    if (dynamic_cast<DistributedWorkerRequest*>(request))
        return DistributedWorkerRequestHandler::getInstance()->canHandle(request);
    return false;
}

std::shared_ptr<std::string> StandardRequestHandler::handle(Request* request) {
    if (!request) {
        KS_ERROR("Can't handle NULL request.");
        throw KsExceptionNested("Can't handle NULL request.", "Requesthandling", c_function,
                                __FILE__, __LINE__);
    }
    if (dynamic_cast<TestRequest*>(request))
        return m_testRequestHandler.handle(request);
    if (dynamic_cast<StartQueuedJobRequest*>(request))
        return m_startQueuedJobRequestHandler.handle(request);
    if (dynamic_cast<DistributedWorkerRequest*>(request))
        return DistributedWorkerRequestHandler::getInstance()->handle(request);
    if (auto abort = dynamic_cast<AbortRequest*>(request)) {
        KS_TRACE("Sending signal to abort request " << abort->getRequestId() << "...");
        std::string id = abort->getRequestId();
        if (id.empty()) {
            std::lock_guard<std::mutex> lock(m_requestIdsMutex);
            id = m_requestIdsByJobId[abort->getJobId()];
        }
        m_abortRequestSignal(id);
        KS_TRACE("Signal to abort request " << abort->getRequestId() << " sent.");
        ReplyEncoder reply("AckReply", *request);
        reply.addElement("status", "OK");
        return std::make_shared<std::string>(reply.getEncodedReply("   ", "  "));
    }
    KS_ERROR("Unsuported request '" << request->getType() << "'.");
    throw KsExceptionNested("Unsuported request", "Requesthandling", c_function, __FILE__,
                            __LINE__);
}

void StandardRequestHandler::addRequestIdForJobId(const std::string& jobId,
                                                  const std::string& requestId) {
    std::lock_guard<std::mutex> lock(m_requestIdsMutex);
    m_requestIdsByJobId[jobId] = requestId;
}

} // namespace Kestrane
