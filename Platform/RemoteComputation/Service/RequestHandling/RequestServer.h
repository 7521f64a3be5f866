#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/ReplyHandler.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestServer.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/GenericJobId.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Thread.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/WorkerPool.h"

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

class AbstractSocketPacket;
class ConnectionWatch;
class RequestHandler;
class RequestPackage;
class RequestServerErrorLogger;

// The one TCP server of a process. It owns the listening socket, the accept thread, a pool of
// worker threads for request tasks, threads for connections and control requests (so that a
// ping, a status query or an abort never waits behind long work), and an optional idle watchdog.
// Made by getInstance(), never by a host.
class RequestServer : public Thread, private AbstractRequestServer {
public:
    // The idle watchdog: once a second it looks whether anything is going on, and stops the
    // server after `timeout` idle seconds in a row.
    class ServerTimeoutThread : public Thread {
    public:
        ServerTimeoutThread(RequestServer* server, unsigned int timeout);
        ~ServerTimeoutThread() override;
        void executeRun() override;
        void finalizeRun() override {}
        // A connection came in.
        void setActivity();
        void requestStop();
        unsigned int getTimeout() const { return m_timeout; }

    private:
        uint32_t m_timeout;
        int32_t m_idleSeconds = 0;
        bool m_activity = false;
        boost::condition_variable_any m_condition;
        boost::mutex m_mutex;
        RequestServer* m_server;
        bool m_stopRequested = false;
    };

    // The process's server, created and started at the first call; null after a failed first
    // creation (for the life of the process). `port` 0: the configuration decides.
    static RequestServer* getInstance(int shutdownTimeout, unsigned int port);
    static std::string getErrorMessage();
    // Whether a request server answers at host:port; needs no running server here.
    static bool ping(const std::string& host, unsigned int port);

    // Starts the shutdown and returns at once.
    void stop();
    // Blocks until the accept thread has finished everything.
    void waitForShutdown();
    bool isStopped();
    void addTask(std::shared_ptr<Tasks::Task> task);
    // For short work that must not queue behind requests: connections, control requests.
    void addControlTask(std::shared_ptr<Tasks::Task> task);

    // The registry of requests under execution, keyed by request id: where their replies go.
    void addRequestPackage(std::shared_ptr<RequestPackage> package);
    void removeRequestPackage(std::shared_ptr<RequestPackage> package);
    // Null when the id is not registered.
    std::shared_ptr<RequestPackage> getRequestPackage(const std::string& requestId);
    RequestHandler* getRequestHandler() const { return m_requestHandler; }
    ReplyHandler& getReplyHandler() { return m_replyHandler; }

    using SocketPackets = std::vector<std::shared_ptr<AbstractSocketPacket>>;
    // Delivers a reply's packets on a new connection to the client's own server, with retries;
    // what cannot be delivered waits in the reply cache. True when the delivery counts as done.
    bool sendSocketPackets(const std::string& requestId, std::shared_ptr<SocketPackets> packets,
                           bool transferFileAttachments, const std::vector<FileName>& tmpPaths);
    bool sendSocketPacket(const std::string& requestId,
                          std::shared_ptr<AbstractSocketPacket> packet);
    // Points a running request's reply at the new package's client, and sends what is cached for
    // it. Always true; `retry` is not used.
    bool reconnectRequest(RequestPackage& newPackage, const std::string& originalRequestId,
                          int& retry, bool sendCachedReplies);
    // The computation job that this process is; invalid by default.
    const GenericJobId& getJobId() const { return m_jobId; }
    void setJobId(const GenericJobId& jobId) { m_jobId = jobId; }

    std::string getHostName() override;
    void setIp(const std::string& ip) override;
    std::string getIp() override;
    uint16_t getPort() override;

    RequestServerErrorLogger* getErrorLogger() const { return m_errorLogger; }
    void setErrorLogger(RequestServerErrorLogger* logger) { m_errorLogger = logger; }
    const std::string& getExecutableName() const { return m_executableName; }
    void setExecutableName(const std::string& name) { m_executableName = name; }
    ServerTimeoutThread* getServerTimeoutThread() const { return m_serverTimeoutThread; }
    Tasks::WorkerPool* getWorkerPool() const { return m_workerPool; }

    void executeRun() override;
    void finalizeRun() override {}

private:
    RequestServer(int shutdownTimeout, unsigned int port, unsigned int portRange);
    ~RequestServer() override;
    std::string describe() const;
    void shutdownAfterLoop();
    void cacheReply(const std::string& requestId, const SocketPackets& packets, size_t current,
                    bool transferFileAttachments);

    ServerTimeoutThread* m_serverTimeoutThread = nullptr;
    Computing::ListenSocket m_listenSocket;
    uint16_t m_port = 0;
    std::string m_hostName;
    boost::mutex m_ipMutex;
    std::string m_ip;
    RequestHandler* m_requestHandler = nullptr;
    Tasks::WorkerPool* m_workerPool = nullptr;
    // One thread per busy connection, up to the connection limit; idle threads are kept.
    std::unique_ptr<Tasks::WorkerPool> m_connectionPool;
    std::unique_ptr<ConnectionWatch> m_connectionWatch;
    std::atomic<bool> m_stopping{false};
    bool m_stopped = false;
    boost::condition_variable_any m_shutdownCondition;
    boost::mutex m_shutdownMutex;
    std::map<std::string, std::shared_ptr<RequestPackage>> m_requestPackages;
    boost::mutex m_requestPackagesMutex;
    GenericJobId m_jobId;
    std::string m_executableName;
    RequestServerErrorLogger* m_errorLogger = nullptr;
    std::map<std::string, std::shared_ptr<SocketPackets>> m_replyCache;
    bool m_cacheTransferFileAttachments = false;
    boost::mutex m_replyCacheMutex;
    ReplyHandler m_replyHandler;

    static bool s_error;
    static std::string s_errorMessage;
};

} // namespace Kestrane
