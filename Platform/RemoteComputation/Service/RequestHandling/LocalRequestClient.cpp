#include "Platform/RemoteComputation/Service/RequestHandling/LocalRequestClient.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"

namespace Kestrane {

LocalRequestClient::LocalRequestClient(RequestHandler* handler)
    : LocalRequestClient("LocalRequestClient", handler) {}

LocalRequestClient::LocalRequestClient(const std::string& description, RequestHandler* handler)
    : RequestClient(description),
      m_requestHandler(handler ? handler : RequestHandler::getDefaultRequestHandler()) {}

std::shared_ptr<Reply> LocalRequestClient::handleRequest(const RequestEncoder& request,
                                                         std::shared_ptr<Progress> progress,
                                                         const std::string& jobName) {
    return handleRequestJobStatus(request, progress, jobName, nullptr);
}

std::shared_ptr<Reply> LocalRequestClient::handleRequest(const std::string& request,
                                                         const std::string& requestId,
                                                         std::shared_ptr<Progress> progress,
                                                         const std::string& jobName) {
    return handleRequestJobStatus(request, requestId, progress, jobName, nullptr);
}

std::shared_ptr<Reply>
LocalRequestClient::handleRequestJobStatus(const std::string& request, const std::string&,
                                           std::shared_ptr<Progress> progress, const std::string&,
                                           std::shared_ptr<RemoteJobStatusInterface> jobStatus) {
    // The dispatcher always sees this client under its fixed name.
    auto reply = m_requestHandler->handle(request, progress, "LocalRequestClient", jobStatus, true);
    return reply ? Reply::decode(*reply) : nullptr;
}

std::shared_ptr<Reply> LocalRequestClient::handleRequestJobStatus(
    const RequestEncoder& request, std::shared_ptr<Progress> progress, const std::string& jobName,
    std::shared_ptr<RemoteJobStatusInterface> jobStatus) {
    return handleRequestJobStatus(request.getEncodedRequest(), request.getId(), progress, jobName,
                                  jobStatus);
}

void LocalRequestClient::abortRequest(const std::string& requestId) {
    m_requestHandler->abortRequest(requestId);
}

} // namespace Kestrane
