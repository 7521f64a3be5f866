#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequest.h"

#include <string>

namespace Kestrane {

// A worker asks its pool for the next task; the pool answers with the input, "WAIT" or "STOP".
class GetDistributedWorkerInputRequest : public DistributedWorkerRequest {
public:
    explicit GetDistributedWorkerInputRequest(const xercesc::DOMElement* element);
    ~GetDistributedWorkerInputRequest() override;

    // The worker's name, which binds the task it gets to it.
    const std::string& getName() const { return m_name; }

private:
    std::string m_name;
};

} // namespace Kestrane
