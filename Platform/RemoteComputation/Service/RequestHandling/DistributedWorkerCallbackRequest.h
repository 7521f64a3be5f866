#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"

#include <string>

namespace Kestrane {

// A worker process that a job scheduler started tells its pool where it can be reached; only
// then can the pool send it the order to run.
class DistributedWorkerCallbackRequest : public DistributedWorkerRequest {
public:
    explicit DistributedWorkerCallbackRequest(const xercesc::DOMElement* element);
    ~DistributedWorkerCallbackRequest() override;

    // The number the pool gave the job on its command line.
    unsigned int getWorkerId() const { return m_workerId; }
    // Where this worker process's request server and publisher listen.
    const HostInfo& getHost() const { return m_host; }

    // The worker process's side: true when the pool answered "OK" (the run request follows);
    // false when the pool is stopping, answered otherwise or could not be reached, each logged.
    static bool sendCallback(const std::string& poolId, const std::string& poolHost,
                             unsigned int poolPort, unsigned int workerId);

private:
    unsigned int m_workerId;
    HostInfo m_host;
};

} // namespace Kestrane
