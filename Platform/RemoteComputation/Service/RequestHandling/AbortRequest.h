#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"

#include <string>

namespace Kestrane {

// Asks a server to abort a request, named by its id or by the id of its job.
class AbortRequest : public Request {
public:
    explicit AbortRequest(const xercesc::DOMElement* element);
    ~AbortRequest() override;

    // Empty when the element is absent.
    const std::string& getRequestId() const { return m_requestId; }
    const std::string& getJobId() const { return m_jobId; }

private:
    std::string m_requestId;
    std::string m_jobId;
};

} // namespace Kestrane
