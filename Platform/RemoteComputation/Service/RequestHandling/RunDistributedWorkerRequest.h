#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/GenericJobId.h"

#include <string>

namespace Kestrane {

// The pool's order to a worker process to run one worker. A program derives its own request
// type (and class) from this one, with the elements its work needs; the request stays open for
// the worker's whole life, so that its reply tells the pool that the worker has ended.
class RunDistributedWorkerRequest : public DistributedWorkerRequest {
public:
    explicit RunDistributedWorkerRequest(const xercesc::DOMElement* element);
    ~RunDistributedWorkerRequest() override;

    const std::string& getName() const { return m_name; }
    const GenericJobId& getJobId() const { return m_jobId; }
    // Cores that the worker takes from the host's core accounting while it works.
    unsigned int getCores() const { return m_cores; }
    bool getReleaseCoresAfterEachTask() const { return m_releaseCores; }

private:
    std::string m_name;
    GenericJobId m_jobId;
    unsigned int m_cores;
    bool m_releaseCores;
};

} // namespace Kestrane
