#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/AbstractRequestHandler.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Signals.h"

#include <boost/chrono.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Kestrane {

class DistributedWorkerCallbackRequest;
class DistributedWorker;
class DistributedWorkerRequestHandlerImpl;
class DistributedWorkerResultRequest;
class GetDistributedWorkerInputRequest;
class LivingProcessWatcher;
class RunDistributedWorkerRequest;

// The door through which the worker protocol enters a process. In a pool's process it passes
// callbacks, input requests and results to the pool they name; in a worker process it runs a
// worker for each run request, on the request's thread, with the program's implementation, and
// watches the pool's heartbeat: a worker process must not outlive its pool.
class DistributedWorkerRequestHandler : public AbstractRequestHandler {
public:
    ~DistributedWorkerRequestHandler() override;
    DistributedWorkerRequestHandler(const DistributedWorkerRequestHandler&) = delete;
    DistributedWorkerRequestHandler& operator=(const DistributedWorkerRequestHandler&) = delete;

    static std::shared_ptr<DistributedWorkerRequestHandler> getInstance();

    // Appends; a program calls this at start, once per kind of worker.
    void addImplementation(std::shared_ptr<DistributedWorkerRequestHandlerImpl> impl);

    // The three requests of the pool's side by type; any other type is offered to the
    // implementations in order. Null when nobody knows the type.
    std::shared_ptr<Request> decodeRequest(XmlRequest& request) const override;
    bool canHandle(Request* request) override;
    // A run request blocks here for the worker's whole life. Throws KsExceptionNested for a null
    // request, one of another kind, and a run request that no implementation takes.
    std::shared_ptr<std::string> handle(Request* request) override;

    // Stops every worker of this process (a signal to end it) and waits up to `limit` for their
    // run requests to end; false if some still run then. The server must still accept meanwhile:
    // a worker may wait for the reply to a result it has sent.
    bool stopWorkers(std::chrono::milliseconds limit);

    // The reply of the worker protocol that carries only a status, as both of its ends encode
    // it.
    static std::shared_ptr<std::string> statusReply(const std::string& type, const Request& request,
                                                    const std::string& status);

private:
    DistributedWorkerRequestHandler();
    std::shared_ptr<std::string> handleCallbackRequest(DistributedWorkerCallbackRequest* request);
    std::shared_ptr<std::string> handleRunWorkerRequest(RunDistributedWorkerRequest* request);
    std::shared_ptr<std::string> handleGetInputRequest(GetDistributedWorkerInputRequest* request);
    std::shared_ptr<std::string> handleResultRequest(DistributedWorkerResultRequest* request);
    // The pool's process fell silent: nothing is left to work for.
    void shutdown();

    std::vector<std::shared_ptr<DistributedWorkerRequestHandlerImpl>> m_implementations;
    LivingProcessWatcher* m_poolWatcher = nullptr;
    boost::mutex m_mutex;
    Signals::Connection m_shutdownConnection;
    std::set<std::shared_ptr<DistributedWorker>> m_runningWorkers;
    boost::condition_variable m_workerEnded;

    static std::shared_ptr<DistributedWorkerRequestHandler> s_instance;
    static boost::mutex s_mutex;
};

} // namespace Kestrane
