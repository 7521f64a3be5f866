#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/RequestClient.h"

namespace Kestrane {

class RemoteJobStatusInterface;
class RequestHandler;

// Handles a request in this process, on the calling thread: no socket, no thread, no transfer.
class LocalRequestClient : public RequestClient {
public:
    // A null handler means the process's default handler.
    explicit LocalRequestClient(RequestHandler* handler);
    LocalRequestClient(const std::string& description, RequestHandler* handler);

    std::shared_ptr<Reply> handleRequest(const RequestEncoder& request,
                                         std::shared_ptr<Progress> progress,
                                         const std::string& jobName) override;
    std::shared_ptr<Reply> handleRequest(const std::string& request, const std::string& requestId,
                                         std::shared_ptr<Progress> progress,
                                         const std::string& jobName) override;
    // Null when the handler gives no reply text; the handler's exceptions pass unchanged.
    std::shared_ptr<Reply>
    handleRequestJobStatus(const std::string& request, const std::string& requestId,
                           std::shared_ptr<Progress> progress, const std::string& jobName,
                           std::shared_ptr<RemoteJobStatusInterface> jobStatus);
    std::shared_ptr<Reply>
    handleRequestJobStatus(const RequestEncoder& request, std::shared_ptr<Progress> progress,
                           const std::string& jobName,
                           std::shared_ptr<RemoteJobStatusInterface> jobStatus);
    // From a second thread while the first waits in handleRequest.
    void abortRequest(const std::string& requestId) override;

    RequestHandler* getRequestHandler() const { return m_requestHandler; }

private:
    RequestHandler* m_requestHandler;
};

} // namespace Kestrane
