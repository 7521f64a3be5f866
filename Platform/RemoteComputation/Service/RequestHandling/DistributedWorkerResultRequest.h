#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequest.h"

#include <string>

namespace Kestrane {

// A worker's result for one task. A program whose results carry elements of their own derives
// its result type and class from this one, and decodes it in its
// DistributedWorkerRequestHandlerImpl: the XML is gone once the request is decoded.
class DistributedWorkerResultRequest : public DistributedWorkerRequest {
public:
    explicit DistributedWorkerResultRequest(const xercesc::DOMElement* element);
    ~DistributedWorkerResultRequest() override;

    const std::string& getTaskId() const { return m_taskId; }
    // "OK", or "ERROR" when the work failed; the program may use other words.
    const std::string& getStatus() const { return m_status; }
    // Empty when the element is absent.
    const std::string& getErrorMessage() const { return m_errorMessage; }

private:
    std::string m_taskId;
    std::string m_status;
    std::string m_errorMessage;
};

} // namespace Kestrane
