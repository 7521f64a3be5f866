#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/AbstractRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/StartQueuedJobRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TestRequestHandler.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Signals.h"

#include <map>
#include <mutex>
#include <string>

namespace Kestrane {

// Part of every RequestHandler: answers abort requests by emitting a signal that the owning
// handler turns into an abort of the running request, and forwards test, queued-job and worker
// pool requests to their handlers.
class StandardRequestHandler : public AbstractRequestHandler, public Signals::Trackable {
public:
    using AbortRequestSignal = Signals::Signal<void(const std::string&)>;

    StandardRequestHandler();
    ~StandardRequestHandler() override;

    std::shared_ptr<Request> decodeRequest(XmlRequest& request) const override;
    bool canHandle(Request* request) override;
    std::shared_ptr<std::string> handle(Request* request) override;

    AbortRequestSignal& getAbortRequestSignal() { return m_abortRequestSignal; }
    // For hosts: the request that runs a job, so that an abort can name the job.
    void addRequestIdForJobId(const std::string& jobId, const std::string& requestId);

private:
    AbortRequestSignal m_abortRequestSignal;
    TestRequestHandler m_testRequestHandler;
    StartQueuedJobRequestHandler m_startQueuedJobRequestHandler;
    // Aborts by job id come on several threads at once.
    std::map<std::string, std::string> m_requestIdsByJobId;
    std::mutex m_requestIdsMutex;
};

} // namespace Kestrane
