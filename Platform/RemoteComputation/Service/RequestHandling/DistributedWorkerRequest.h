#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"

#include <string>

namespace Kestrane {

// Base of the requests that pass between a worker pool and its workers: each names its pool, so
// that one process may serve several pools.
class DistributedWorkerRequest : public Request {
public:
    explicit DistributedWorkerRequest(const xercesc::DOMElement* element);
    ~DistributedWorkerRequest() override;

    const std::string& getPoolId() const { return m_poolId; }

private:
    std::string m_poolId;
};

} // namespace Kestrane
