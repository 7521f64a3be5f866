#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ConnectionWatch.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HandleConnectionTask.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SendCachedReplyTask.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SendFileSocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ServerRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ServerRequestSchema.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/DeletePathThread.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"

#include <boost/chrono.hpp>

#include <chrono>
#include <sstream>
#include <thread>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
}

bool RequestServer::s_error = false;
std::string RequestServer::s_errorMessage;

RequestServer* RequestServer::getInstance(int shutdownTimeout, unsigned int port) {
    boost::lock_guard<boost::mutex> lock(s_instanceMutex);
    if (s_error) {
        KS_WARN("Returning NULL RequestServer (previous error)");
        return nullptr;
    }
    if (s_instance) {
        KS_TRACE("Returning existing RequestServerinstance (port = " << port << ")");
        return static_cast<RequestServer*>(s_instance);
    }
    KS_INFO("Creating new RequestServer instance (port = " << port << ")...");
    unsigned int portRange = 1;
    auto config = RequestServerConfiguration::getRegisteredInstance();
    if (port == 0 && config->getListenPort() != 0) {
        port = config->getListenPort();
        portRange = config->getPortRange();
        KS_INFO("Using port range from RequestServerConfiguration: listenPort = "
                << port << ", portRange = " << portRange);
    }
    try {
        auto server = new RequestServer(shutdownTimeout, port, portRange);
        s_instance = server;
        server->start(true);
    } catch (const Computing::Error& e) {
        s_errorMessage = std::string("Exception while creating RequestServer: ") + e.what();
        KS_ERROR(s_errorMessage);
        s_error = true;
        return nullptr;
    }
    KS_INFO("Returning new RequestServerinstance (port = " << port << ")");
    return static_cast<RequestServer*>(s_instance);
}

std::string RequestServer::getErrorMessage() {
    boost::lock_guard<boost::mutex> lock(s_instanceMutex);
    return s_errorMessage;
}

RequestServer::RequestServer(int shutdownTimeout, unsigned int port, unsigned int portRange)
    : Thread(""), m_listenSocket(static_cast<int>(port), static_cast<int>(portRange), 1000, "",
                                 ConnectionWatch::silenceLimitSeconds() * 1000) {
    auto config = RequestServerConfiguration::getRegisteredInstance();
    m_hostName = config->getLocalHost();
    m_requestHandler = RequestHandler::getDefaultRequestHandler();
    m_requestHandler->addRequestHandler(std::make_shared<ServerRequestHandler>(this),
                                        ServerRequestSchema());
    if (config->getAutoShutdown())
        m_serverTimeoutThread =
            new ServerTimeoutThread(this, shutdownTimeout >= 1 ? shutdownTimeout : 0);
    m_port = static_cast<uint16_t>(m_listenSocket.getListenPort());
    m_workerPool = new Tasks::WorkerPool(config->getMaxRequestHandlerPoolSize(),
                                         static_cast<Thread::Priority>(2));
    m_connectionPool = std::make_unique<Tasks::WorkerPool>(config->getMaxConnections(),
                                                           static_cast<Thread::Priority>(2));
    m_connectionWatch = std::make_unique<ConnectionWatch>(
        m_listenSocket, config->getConnectionIdleTimeout(), config->getMaxConnections());
    // Started last: the watchdog reads the pool and may stop the server, so both must exist.
    if (m_serverTimeoutThread)
        m_serverTimeoutThread->start(true);
    KS_DEBUG("Created new RequestServer " << this << " on " << m_hostName << ":" << m_port);
}

RequestServer::~RequestServer() {
    KS_DEBUG("Destroying RequestServer " << describe() << "...");
    if (m_serverTimeoutThread) {
        m_serverTimeoutThread->requestStop();
        delete m_serverTimeoutThread;
        m_serverTimeoutThread = nullptr;
    }
    if (m_connectionPool)
        m_connectionPool->waitForAllTasks();
    if (m_workerPool) {
        m_workerPool->waitForAllTasks();
        delete m_workerPool;
        m_workerPool = nullptr;
    }
    m_connectionPool.reset();
    m_connectionWatch.reset();
    DeletePathThread::shutdown();
    KS_DEBUG("RequestServer " << describe() << " destroyed.");
}

std::string RequestServer::describe() const {
    std::ostringstream text;
    text << static_cast<const void*>(this) << " on port " << m_port;
    return text.str();
}

void RequestServer::executeRun() {
    KS_INFO("RequestServer " << describe() << " waiting for connections...");
    const auto handOver = [this](std::shared_ptr<Computing::ServerSocket> socket,
                                 const std::string& peer) {
        if (m_stopping)
            return;
        KS_DEBUG("RequestServer " << describe() << " received connection from " << peer);
        m_connectionPool->addTask(std::make_shared<HandleConnectionTask>(socket, this, peer));
        if (m_serverTimeoutThread)
            m_serverTimeoutThread->setActivity();
    };
    while (!m_stopping) {
        KS_TRACE("RequestServer " << describe() << " waiting for next connection...");
        try {
            m_connectionWatch->waitOnce(handOver, std::chrono::seconds(1));
        } catch (const Computing::Error& e) {
            // Only a broken watch gets here; a pause keeps the loop from spinning on it.
            KS_ERROR("RequestServer " << describe() << ": " << e.what());
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }
    KS_INFO("RequestServer " << describe() << " exiting main loop...");
    // A stopping server refuses what comes now, rather than leave it waiting unanswered until
    // the process ends.
    m_connectionWatch->closeAll();
    m_listenSocket.close();
    shutdownAfterLoop();
}

void RequestServer::shutdownAfterLoop() {
    KS_DEBUG("RequestServer " << describe() << " stopping. Waiting for all workers to finish...");
    // Connections first: they may still queue requests.
    m_connectionPool->waitForAllTasks();
    m_workerPool->waitForAllTasks();
    m_connectionPool->waitForAllTasks();
    DeletePathThread::shutdown();
    if (m_serverTimeoutThread) {
        // The watchdog has nothing left to watch.
        m_serverTimeoutThread->requestStop();
        m_serverTimeoutThread->finalize();
    }
    {
        boost::lock_guard<boost::mutex> lock(m_shutdownMutex);
        m_stopped = true;
        m_shutdownCondition.notify_all();
    }
    KS_DEBUG("RequestServer " << describe() << " stopped.");
}

void RequestServer::stop() {
    KS_DEBUG("Stop RequestServer " << describe());
    {
        boost::lock_guard<boost::mutex> lock(m_shutdownMutex);
        m_stopping = true;
        m_shutdownCondition.notify_all();
    }
    m_connectionWatch->wake();
}

void RequestServer::waitForShutdown() {
    KS_DEBUG("Waiting for shutdown of RequestServer " << describe() << "...");
    {
        boost::unique_lock<boost::mutex> lock(m_shutdownMutex);
        m_shutdownCondition.wait(lock, [this] { return m_stopped; });
    }
    // The accept thread has only its return left; joining it leaves no thread behind at exit.
    finalize();
    KS_DEBUG("Wait for shutdown of RequestServer " << describe() << " finished.");
}

bool RequestServer::isStopped() {
    boost::lock_guard<boost::mutex> lock(m_shutdownMutex);
    return m_stopped;
}

void RequestServer::addTask(std::shared_ptr<Tasks::Task> task) {
    m_workerPool->addTask(std::move(task));
}

void RequestServer::addControlTask(std::shared_ptr<Tasks::Task> task) {
    m_connectionPool->addTask(std::move(task));
}

void RequestServer::addRequestPackage(std::shared_ptr<RequestPackage> package) {
    auto request = package->getRequest();
    {
        boost::lock_guard<boost::mutex> lock(m_requestPackagesMutex);
        m_requestPackages[request->getId()] = package;
    }
    KS_TRACE("Added " << request->getType() << " request " << request->getId());
}

void RequestServer::removeRequestPackage(std::shared_ptr<RequestPackage> package) {
    auto request = package->getRequest();
    {
        boost::lock_guard<boost::mutex> lock(m_requestPackagesMutex);
        m_requestPackages.erase(request->getId());
    }
    KS_TRACE("Removed " << request->getType() << " request " << request->getId());
}

std::shared_ptr<RequestPackage> RequestServer::getRequestPackage(const std::string& requestId) {
    boost::lock_guard<boost::mutex> lock(m_requestPackagesMutex);
    auto found = m_requestPackages.find(requestId);
    return found == m_requestPackages.end() ? nullptr : found->second;
}

std::string RequestServer::getHostName() {
    return m_hostName;
}

void RequestServer::setIp(const std::string& ip) {
    {
        boost::lock_guard<boost::mutex> lock(m_ipMutex);
        m_ip = ip;
    }
    KS_TRACE("IP set to '" << ip << "'");
}

std::string RequestServer::getIp() {
    boost::lock_guard<boost::mutex> lock(m_ipMutex);
    return m_ip;
}

uint16_t RequestServer::getPort() {
    return m_port;
}

bool RequestServer::sendSocketPackets(const std::string& requestId,
                                      std::shared_ptr<SocketPackets> packets,
                                      bool transferFileAttachments,
                                      const std::vector<FileName>& tmpPaths) {
    auto config = RequestServerConfiguration::getRegisteredInstance();
    const unsigned int maxRetry = config->getSendReplyMaxRetry();
    size_t current = 0;
    auto package = getRequestPackage(requestId);
    if (package) {
        // Taken once, under the lock that a reconnect writes it under: a reconnect during the
        // attempts does not reach this loop.
        HostInfo host;
        {
            boost::lock_guard<boost::mutex> lock(m_requestPackagesMutex);
            host = package->getRemoteHost();
        }
        const std::string label = host.toString();
        unsigned int attempt = 0;
        while (attempt <= maxRetry && current < packets->size()) {
            if (attempt > 0) {
                const unsigned int delay = config->getSendReplyRetryDelay();
                KS_INFO("Sending reply failed (" << attempt << "/" << maxRetry << "). Waiting "
                                                 << delay << " seconds to retry...");
                // In seconds: a large setting must not wrap around in milliseconds. A server
                // that is shutting down tries the rest at once instead of outliving its peer.
                boost::unique_lock<boost::mutex> lock(m_shutdownMutex);
                m_shutdownCondition.wait_for(lock, boost::chrono::seconds(delay),
                                             [this] { return m_stopping.load(); });
            }
            ++attempt;
            bool sendFailed = false;
            Computing::ClientSocket socket;
            try {
                socket.connect(host.getIpOrName(), host.getRequestServerPort());
            } catch (const Computing::Error& e) {
                KS_DEBUG("SocketException while creating socket to " << label << ": " << e.what());
                continue;
            }
            bool transfer = false;
            try {
                if (transferFileAttachments) {
                    transfer = !TcpRequestClient::hasSameHostAndUserId(socket, label);
                    KS_TRACE("transferFileAttachments = " << transfer);
                }
                for (; current < packets->size(); ++current) {
                    auto& packet = (*packets)[current];
                    if (auto file = std::dynamic_pointer_cast<SendFileSocketPacket>(packet)) {
                        if (!transfer && !file->getForceTransfer())
                            continue; // the peer reads the file where it is
                        file->setForceTransfer(true);
                    }
                    if (!packet->send(socket, label)) {
                        sendFailed = true;
                        KS_WARN("Sending of packet '" << packet->toString() << "' failed!");
                        break;
                    }
                }
            } catch (const Computing::Error& e) {
                KS_DEBUG("SocketException while sending reply: " << e.what());
            }
            try {
                SocketPacket::send("C", "CLOSE_CONNECTION", socket, label);
                socket.closeAfterPeer();
            } catch (const Computing::Error& e) {
                KS_DEBUG("SocketException while closing connection: " << e.what());
            }
            if (!sendFailed) {
                for (const auto& path : tmpPaths)
                    DeletePathThread::deletePath(path, config->keepTempFiles());
                return true;
            }
        }
        if (attempt >= maxRetry)
            KS_WARN("Max retry limit (" << maxRetry << ") reached!");
    }
    KS_INFO("Caching reply...");
    cacheReply(requestId, *packets, current, transferFileAttachments);
    KS_INFO("Reply for " << requestId << " not sent!");
    return false;
}

void RequestServer::cacheReply(const std::string& requestId, const SocketPackets& packets,
                               size_t current, bool transferFileAttachments) {
    boost::lock_guard<boost::mutex> lock(m_replyCacheMutex);
    auto& entry = m_replyCache[requestId];
    if (!entry) {
        entry = std::make_shared<SocketPackets>();
        m_cacheTransferFileAttachments = transferFileAttachments;
        KS_INFO("Cache for " << requestId << " created.");
    }
    for (; current < packets.size(); ++current) {
        const auto& packet = packets[current];
        if (!packet->cachePacket())
            continue;
        KS_DEBUG("Caching packet for request " << requestId << ": " << packet->toString());
        entry->push_back(packet);
    }
}

bool RequestServer::sendSocketPacket(const std::string& requestId,
                                     std::shared_ptr<AbstractSocketPacket> packet) {
    bool isFile = std::dynamic_pointer_cast<SendFileSocketPacket>(packet) != nullptr;
    auto packets = std::make_shared<SocketPackets>(1, std::move(packet));
    return sendSocketPackets(requestId, packets, isFile, {});
}

bool RequestServer::reconnectRequest(RequestPackage& newPackage,
                                     const std::string& originalRequestId, int& /*retry*/,
                                     bool sendCachedReplies) {
    boost::lock_guard<boost::mutex> cacheLock(m_replyCacheMutex);
    KS_DEBUG("Reconecting request " << originalRequestId << "...");
    {
        boost::lock_guard<boost::mutex> lock(m_requestPackagesMutex);
        auto found = m_requestPackages.find(originalRequestId);
        if (found != m_requestPackages.end()) {
            KS_INFO("Setting new remote host for request "
                    << originalRequestId << " to " << newPackage.getRemoteHost().toString());
            found->second->setRemoteHost(newPackage.getRemoteHost());
        }
    }
    auto cached = m_replyCache.find(originalRequestId);
    if (sendCachedReplies && cached != m_replyCache.end()) {
        auto task = std::make_shared<SendCachedReplyTask>(originalRequestId, cached->second,
                                                          m_cacheTransferFileAttachments);
        m_replyCache.erase(cached);
        addTask(task);
    }
    KS_DEBUG("Request " << originalRequestId << " reconnected.");
    return true;
}

bool RequestServer::ping(const std::string& host, unsigned int port) {
    std::string label = host + ":" + std::to_string(port);
    try {
        Computing::ClientSocket socket;
        socket.connect(host, static_cast<int>(port));
        SocketPacket::send("C", "PING", socket, label);
        auto answer = SocketPacket::receive(socket, label);
        SocketPacket::send("C", "CLOSE_CONNECTION", socket, label);
        socket.closeAfterPeer();
        if (answer->getType() == "C" && *answer->getData() == "PONG")
            return true;
        KS_INFO("Error pinging " << host << ":" << port << ".");
        return false;
    } catch (const std::exception&) {
        // Socket failures and a peer that closed before answering.
        KS_WARN("Exception pinging " << host << ":" << port << ".");
        return false;
    }
}

// ---- ServerTimeoutThread ----

RequestServer::ServerTimeoutThread::ServerTimeoutThread(RequestServer* server, unsigned int timeout)
    : Thread(""),
      m_timeout(timeout != 0
                    ? timeout
                    : RequestServerConfiguration::getRegisteredInstance()->getShutdownTimeout()),
      m_server(server) {}

RequestServer::ServerTimeoutThread::~ServerTimeoutThread() {
    requestStop();
    finalize();
}

void RequestServer::ServerTimeoutThread::setActivity() {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    m_activity = true;
}

void RequestServer::ServerTimeoutThread::requestStop() {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    m_stopRequested = true;
    m_condition.notify_all();
}

void RequestServer::ServerTimeoutThread::executeRun() {
    KS_TRACE("Executing ServerTimeoutThread (timout = " << m_timeout << "s)...");
    boost::unique_lock<boost::mutex> lock(m_mutex);
    while (!m_stopRequested) {
        auto deadline = boost::chrono::steady_clock::now() + boost::chrono::seconds(1);
        m_condition.wait_until(lock, deadline);
        if (m_stopRequested)
            break;
        Tasks::WorkerPool* pool = m_server->getWorkerPool();
        bool busy = m_activity || (pool && pool->getBusyWorkersCount() != 0);
        if (busy) {
            m_activity = false;
            if (m_idleSeconds > 0) {
                KS_DEBUG("RequestServer busy.");
                m_idleSeconds = 0;
            }
        } else {
            ++m_idleSeconds;
            KS_DEBUG("RequestServer idle (" << m_idleSeconds << "/" << m_timeout << ").");
            if (static_cast<uint32_t>(m_idleSeconds) >= m_timeout) {
                KS_INFO("Stopping RequestServer");
                m_server->stop();
                break;
            }
        }
    }
    KS_DEBUG("Stopping ServerTimeoutThread.");
}

} // namespace Kestrane
