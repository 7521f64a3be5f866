#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequestHandlerImpl.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerResultRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RunDistributedWorkerRequest.h"

#include <atomic>
#include <cstdint>

namespace Kestrane {

class RequestEncoder;

// The waits and limits of a run: the master reads them from the environment (tests shorten
// them) and passes them to its workers inside the run request.
struct PrimeCountTiming {
    unsigned int coreCheckIntervalS = 1;
    unsigned int inputWaitIntervalS = 1;
    unsigned int poolMaxAliveAge = 60;
    // Off: nothing in a worker acts on a still master, and the watch would warn at every poll.
    unsigned int poolMaxChangeAge = 0;
    unsigned int workerMaxAliveAge = 30;
    unsigned int workerMaxChangeAge = 600;

    // KS_POOL_DEMO_CORE_CHECK_S, KS_POOL_DEMO_INPUT_WAIT_S, KS_POOL_DEMO_POOL_MAX_ALIVE_AGE,
    // KS_POOL_DEMO_POOL_MAX_CHANGE_AGE, KS_POOL_DEMO_WORKER_MAX_ALIVE_AGE,
    // KS_POOL_DEMO_WORKER_MAX_CHANGE_AGE; whole seconds, 0 switches an age check off.
    static PrimeCountTiming fromEnvironment();
    // The worker's part, in the run request's elements.
    void addTo(RequestEncoder& request) const;
};

// The prime counter's run request: the base elements and the timing.
class PrimeCountRunRequest : public RunDistributedWorkerRequest {
public:
    static const std::string c_type; // "RunPrimeCountWorkerRequest"
    explicit PrimeCountRunRequest(const xercesc::DOMElement* element);
    const PrimeCountTiming& getTiming() const { return timing; }

private:
    PrimeCountTiming timing;
};

// The prime counter's result: the base elements, the count and the worker's process id.
class PrimeCountResultRequest : public DistributedWorkerResultRequest {
public:
    explicit PrimeCountResultRequest(const xercesc::DOMElement* element);
    uint64_t getPrimes() const { return primes; }
    unsigned int getWorkerPid() const { return workerPid; }

private:
    uint64_t primes = 0;
    unsigned int workerPid = 0;
};

// The worker side of the prime counter: counts the primes of the range that the input names.
// Registered in the master too, where it decodes the counter's results.
class PrimeCountWorker : public DistributedWorkerRequestHandlerImpl {
public:
    static const std::string c_inputReplyType; // "PrimeCountInputReply"
    static const std::string c_resultType;     // "PrimeCountResultRequest"

    std::shared_ptr<Request> decodeRequest(XmlRequest& request) override;
    bool canHandle(Request* request) override;
    std::shared_ptr<RequestEncoder> doWork(DistributedWorker* worker,
                                           std::shared_ptr<Reply> input) override;
    // A task is a short range, so that a running count ends soon by itself.
    void stopWork() override {}
    const std::string& getInputReplyType() override { return c_inputReplyType; }
    unsigned int getCoreCheckIntervalS() const override { return coreCheckIntervalS; }
    unsigned int getInputWaitIntervalS() const override { return inputWaitIntervalS; }
    unsigned int getPoolMaxAliveAge() const override { return poolMaxAliveAge; }
    unsigned int getPoolMaxChangeAge() const override { return poolMaxChangeAge; }

private:
    // From the last run request: one pool per worker process.
    std::atomic<unsigned int> coreCheckIntervalS{PrimeCountTiming().coreCheckIntervalS};
    std::atomic<unsigned int> inputWaitIntervalS{PrimeCountTiming().inputWaitIntervalS};
    std::atomic<unsigned int> poolMaxAliveAge{PrimeCountTiming().poolMaxAliveAge};
    std::atomic<unsigned int> poolMaxChangeAge{PrimeCountTiming().poolMaxChangeAge};
};

} // namespace Kestrane
