#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"

#include <string>

namespace Kestrane {

// Sent by a queue manager to a job that waits for its turn: starts the job, or cancels it.
class StartQueuedJobRequest : public Request {
public:
    explicit StartQueuedJobRequest(const xercesc::DOMElement* element);
    ~StartQueuedJobRequest() override;

    const std::string& getJobId() const { return m_jobId; }
    // False when the element is absent.
    bool getCancelJob() const { return m_cancelJob; }
    // Empty when the element is absent.
    const std::string& getErrorMessage() const { return m_errorMessage; }

    // The queue manager's side: starts (or with `cancelJob` cancels) the job waiting on the
    // request server at host:port. A start returns only once the job has ended; a cancel does not
    // wait for a reply. Failures come back as false and a log line.
    static bool sendStartQueuedJobRequest(const std::string& host, unsigned int port,
                                          const std::string& jobId, bool cancelJob,
                                          const std::string& errorMessage);

private:
    std::string m_jobId;
    bool m_cancelJob = false;
    std::string m_errorMessage;
};

} // namespace Kestrane
