#pragma once

#include <memory>
#include <string>

namespace Kestrane {

class DistributedWorker;
class Reply;
class Request;
class RequestEncoder;
class XmlRequest;

// What a program supplies to run workers in its processes: it decodes its own run request, does
// one task on the input the pool sent, and can cut a task short. The intervals have defaults
// that suit production; tests shorten them.
class DistributedWorkerRequestHandlerImpl {
public:
    virtual ~DistributedWorkerRequestHandlerImpl();

    // The program's run request, or null when the type is not its own.
    virtual std::shared_ptr<Request> decodeRequest(XmlRequest& request) = 0;
    // True when this implementation runs workers for that run request.
    virtual bool canHandle(Request* request) = 0;
    // Does one task; returns the complete result request (type "DistributedWorkerResultRequest"
    // or derived, with poolId, taskId and status), or null, which the worker reports as an
    // error. May throw: the worker reports the text and goes on.
    virtual std::shared_ptr<RequestEncoder> doWork(DistributedWorker* worker,
                                                   std::shared_ptr<Reply> input) = 0;
    // Called from another thread: makes a running doWork return soon.
    virtual void stopWork() = 0;
    // Type of the input reply that the pool sends; any other type stops the worker.
    virtual const std::string& getInputReplyType() = 0;
    // Seconds: base of the waits for a free core (the wait is 0.5 to 1 times this).
    virtual unsigned int getCoreCheckIntervalS() const { return 10; }
    // Seconds to pause after the pool answered "WAIT".
    virtual unsigned int getInputWaitIntervalS() const { return 10; }
    // Seconds of silence of the pool's process after which its workers stop and the process
    // ends.
    virtual unsigned int getPoolMaxAliveAge() const { return 60; }
    // Seconds without a change of the pool's heartbeat, with the same consequence.
    virtual unsigned int getPoolMaxChangeAge() const { return 300; }

protected:
    DistributedWorkerRequestHandlerImpl() = default;
};

} // namespace Kestrane
