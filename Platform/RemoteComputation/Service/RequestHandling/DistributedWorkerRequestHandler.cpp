#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequestHandler.h"

#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorker.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerCallbackRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerPool.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequestHandlerImpl.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerResultRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/GetDistributedWorkerInputRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcessWatcher.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RunDistributedWorkerRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Thread.h"

#include <unistd.h>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
const char* c_function = "Kestrane::DistributedWorkerRequestHandler::handle";
const char* c_indent = "  ";
const char* c_elementIndent = "   ";
// Time given to the workers' stop before the process ends.
const unsigned int c_shutdownGraceMs = 10000;

[[noreturn]] void throwUnsupported(const Request& request) {
    KS_ERROR("Unsuported request '" << request.getType() << "'.");
    throw KsExceptionNested("Unsupported request", "Requesthandling", c_function, __FILE__,
                            __LINE__);
}

} // namespace

std::shared_ptr<std::string>
DistributedWorkerRequestHandler::statusReply(const std::string& type, const Request& request,
                                             const std::string& status) {
    ReplyEncoder reply(type, request);
    reply.addElement("status", status);
    return std::make_shared<std::string>(reply.getEncodedReply(c_indent, c_elementIndent));
}

std::shared_ptr<DistributedWorkerRequestHandler> DistributedWorkerRequestHandler::s_instance;
boost::mutex DistributedWorkerRequestHandler::s_mutex;

DistributedWorkerRequestHandler::DistributedWorkerRequestHandler()
    : AbstractRequestHandler("DistributedWorkerRequestHandler") {}

DistributedWorkerRequestHandler::~DistributedWorkerRequestHandler() {
    m_shutdownConnection.disconnect();
    delete m_poolWatcher;
}

std::shared_ptr<DistributedWorkerRequestHandler> DistributedWorkerRequestHandler::getInstance() {
    boost::lock_guard<boost::mutex> lock(s_mutex);
    if (!s_instance)
        s_instance.reset(new DistributedWorkerRequestHandler());
    return s_instance;
}

void DistributedWorkerRequestHandler::addImplementation(
    std::shared_ptr<DistributedWorkerRequestHandlerImpl> impl) {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    m_implementations.push_back(std::move(impl));
}

std::shared_ptr<Request> DistributedWorkerRequestHandler::decodeRequest(XmlRequest& request) const {
    const std::string& type = request.getType();
    if (type == "DistributedWorkerCallbackRequest")
        return std::make_shared<DistributedWorkerCallbackRequest>(request.getRootElement());
    if (type == "GetDistributedWorkerInputRequest")
        return std::make_shared<GetDistributedWorkerInputRequest>(request.getRootElement());
    if (type == "DistributedWorkerResultRequest")
        return std::make_shared<DistributedWorkerResultRequest>(request.getRootElement());
    for (const auto& impl : m_implementations)
        if (auto decoded = impl->decodeRequest(request))
            return decoded;
    return nullptr;
}

bool DistributedWorkerRequestHandler::canHandle(Request* request) {
    return dynamic_cast<DistributedWorkerRequest*>(request) != nullptr;
}

std::shared_ptr<std::string> DistributedWorkerRequestHandler::handle(Request* request) {
    if (!request) {
        KS_ERROR("Can't handle NULL request.");
        throw KsExceptionNested("Can't handle NULL request.", "Requesthandling", c_function,
                                __FILE__, __LINE__);
    }
    if (!dynamic_cast<DistributedWorkerRequest*>(request))
        throwUnsupported(*request);
    if (auto callback = dynamic_cast<DistributedWorkerCallbackRequest*>(request))
        return handleCallbackRequest(callback);
    if (auto run = dynamic_cast<RunDistributedWorkerRequest*>(request))
        return handleRunWorkerRequest(run);
    if (auto input = dynamic_cast<GetDistributedWorkerInputRequest*>(request))
        return handleGetInputRequest(input);
    if (auto result = dynamic_cast<DistributedWorkerResultRequest*>(request))
        return handleResultRequest(result);
    throwUnsupported(*request);
}

std::shared_ptr<std::string>
DistributedWorkerRequestHandler::handleCallbackRequest(DistributedWorkerCallbackRequest* request) {
    std::shared_ptr<std::string> reply;
    if (!DistributedWorkerPool::callExistingPool(
            request->getPoolId(),
            [&](DistributedWorkerPool& pool) { reply = pool.callbackReceived(request); }))
        return statusReply("AckReply", *request, "POOL_NOT_FOUND");
    return reply;
}

std::shared_ptr<std::string>
DistributedWorkerRequestHandler::handleGetInputRequest(GetDistributedWorkerInputRequest* request) {
    std::shared_ptr<std::string> reply;
    // The base type, whatever the program's own: a worker that expects another type stops.
    if (!DistributedWorkerPool::callExistingPool(
            request->getPoolId(),
            [&](DistributedWorkerPool& pool) { reply = pool.getInput(request); }))
        return statusReply("GetDistributedWorkerInputReply", *request, "POOL_NOT_FOUND");
    return reply;
}

std::shared_ptr<std::string>
DistributedWorkerRequestHandler::handleResultRequest(DistributedWorkerResultRequest* request) {
    std::shared_ptr<std::string> reply;
    if (!DistributedWorkerPool::callExistingPool(
            request->getPoolId(),
            [&](DistributedWorkerPool& pool) { reply = pool.handleResult(*request); }))
        return statusReply("AckReply", *request, "POOL_NOT_FOUND");
    return reply;
}

std::shared_ptr<std::string>
DistributedWorkerRequestHandler::handleRunWorkerRequest(RunDistributedWorkerRequest* request) {
    std::shared_ptr<DistributedWorkerRequestHandlerImpl> impl;
    {
        boost::lock_guard<boost::mutex> lock(m_mutex);
        for (const auto& candidate : m_implementations)
            if (candidate->canHandle(request)) {
                impl = candidate;
                break;
            }
    }
    if (!impl)
        throwUnsupported(*request);
    // The request's sender is the pool.
    HostInfo poolHost;
    if (RequestPackage* package = request->getRequestPackage())
        poolHost = package->getRemoteHost();
    auto client = std::make_shared<TcpRequestClient>("DistributedWorkerPool", poolHost);
    // Shared, so that a stop arriving through a signal finds the worker alive.
    auto worker = std::make_shared<DistributedWorker>(
        impl, request->getName(), request->getPoolId(), request->getJobId(), request->getCores(),
        request->getReleaseCoresAfterEachTask(), client);

    Signals::Connection watcherConnection;
    {
        boost::lock_guard<boost::mutex> lock(m_mutex);
        if (!m_poolWatcher) {
            if (client->getPublisherPort() <= 0)
                client->sendGetStatusRequest();
            m_poolWatcher = new LivingProcessWatcher(
                client->getHost(), static_cast<int>(impl->getPoolMaxAliveAge()),
                static_cast<int>(impl->getPoolMaxChangeAge()), false);
            m_poolWatcher->start();
            watcherConnection = m_poolWatcher->maxAliveAgeExceeded().connect(
                Signals::slot(worker, &DistributedWorker::stop));
            m_shutdownConnection = m_poolWatcher->maxAliveAgeExceeded().connect(
                Signals::Slot<void()>([this] { shutdown(); }));
        }
    }
    // One watch of the pool per process is enough: without the publisher port the worker's
    // requests don't each start a watch of their own, which costs a subscription and a thread
    // per request. A pool that falls silent stops the workers through the process's watch, and
    // that stop cancels a request that waits.
    client->setPublisherPort(-1);
    Signals::Connection abortConnection =
        request->getAbortSignal().connect(Signals::slot(worker, &DistributedWorker::stop));
    {
        boost::lock_guard<boost::mutex> lock(m_mutex);
        m_runningWorkers.insert(worker);
    }
    worker->run();
    {
        boost::lock_guard<boost::mutex> lock(m_mutex);
        m_runningWorkers.erase(worker);
        m_workerEnded.notify_all();
    }
    watcherConnection.disconnect();
    abortConnection.disconnect();
    return statusReply("AckReply", *request, request->isAborted() ? "ABORTED" : "OK");
}

bool DistributedWorkerRequestHandler::stopWorkers(std::chrono::milliseconds limit) {
    std::set<std::shared_ptr<DistributedWorker>> running;
    {
        boost::lock_guard<boost::mutex> lock(m_mutex);
        running = m_runningWorkers;
    }
    // Outside the lock: a stop ends a run, which takes the lock to leave the set.
    for (const auto& worker : running)
        worker->stop();
    boost::unique_lock<boost::mutex> lock(m_mutex);
    return m_workerEnded.wait_for(lock, boost::chrono::milliseconds(limit.count()),
                                  [this] { return m_runningWorkers.empty(); });
}

void DistributedWorkerRequestHandler::shutdown() {
    KS_FATAL("Orvel main not running anymore! Killing process...");
    Logging::flush();
    Thread::sleep(c_shutdownGraceMs);
    Logging::flush();
    // Other threads are still at work: static destructors must not run under them.
    ::_exit(1);
}

} // namespace Kestrane
