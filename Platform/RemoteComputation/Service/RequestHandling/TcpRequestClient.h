#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/RequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <boost/thread/mutex.hpp>

#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

class AbstractJobLog;
class Attachment;
class RemoteJobStatusInterface;
class RequestServerStarter;
class SendFileSocketPacket;

// The network client. Every send opens a fresh connection, pings it, pushes the packets and
// closes it; the reply comes back as a new connection to this process's own RequestServer and is
// collected from its ReplyHandler.
class TcpRequestClient : public RequestClient {
public:
    // Rebuilds a client from getReconnectString(); a non-numeric port throws
    // boost::bad_lexical_cast.
    explicit TcpRequestClient(const std::string& reconnectString);
    TcpRequestClient(const std::string& name, const HostInfo& host);
    TcpRequestClient(const std::string& name, std::shared_ptr<RequestServerStarter> starter);
    TcpRequestClient(const std::string& name, std::shared_ptr<RequestServerStarter> starter,
                     const HostInfo& host);
    TcpRequestClient(const TcpRequestClient&) = delete;
    TcpRequestClient& operator=(const TcpRequestClient&) = delete;
    ~TcpRequestClient() override;

    // ---- sending ----
    // Pushes one request; returns when all packets are out, without waiting for the reply.
    void sendRequest(const std::string& request, std::shared_ptr<Progress> progress,
                     bool replyExpected, const std::string& remoteDirName,
                     std::shared_ptr<AbstractJobLog> jobLog);
    void sendRequest(const RequestEncoder& request, std::shared_ptr<Progress> progress,
                     const std::string& remoteDirName, std::shared_ptr<AbstractJobLog> jobLog);
    // Send and wait; `maxWaitTime` 0 means no limit. A silent server gives a reply of the type
    // RequestServerUnreachableReply; a cancelled wait gives null.
    std::shared_ptr<Reply> handleRequest(const std::string& request, unsigned int maxWaitTime,
                                         const std::string& requestId,
                                         std::shared_ptr<Progress> progress,
                                         const std::string& remoteDirName);
    std::shared_ptr<Reply> handleRequest(const RequestEncoder& request, unsigned int maxWaitTime);
    std::shared_ptr<Reply> handleRequest(const std::string& request, const std::string& requestId,
                                         std::shared_ptr<Progress> progress,
                                         const std::string& remoteDirName) override;
    std::shared_ptr<Reply> handleRequest(const RequestEncoder& request,
                                         std::shared_ptr<Progress> progress,
                                         const std::string& remoteDirName) override;
    // Reattaches to a request that runs on the server: its reply comes to this process.
    std::shared_ptr<Reply> reconnectRequest(const std::string& requestId,
                                            std::shared_ptr<Progress> progress,
                                            std::shared_ptr<AbstractJobLog> jobLog,
                                            std::shared_ptr<RemoteJobStatusInterface> jobStatus,
                                            int reserved, const FileName& replyAttachmentPath);
    // From another thread: ends the file transfer under way and every later one of this client.
    void cancelSendRequest();
    // Asks the peer on `socket` for its host and user; true when they are this process's.
    static bool hasSameHostAndUserId(Computing::ClientSocket& socket, const std::string& label);

    // ---- administration ----
    void abortRequest(const std::string& requestId) override;
    void abortJob(const std::string& jobId);
    void shutdownRequestServer();
    // Never throws: failures come back as a RequestServerUnreachableReply.
    std::shared_ptr<Reply> sendGetStatusRequest();
    // Removes the job of a job scheduler starter from the scheduler; logs an error for any
    // other starter.
    void killJobSchedulerJob();

    std::string getReconnectString() const;
    void clearReconnect();
    // Whether the starter runs the server on this host (a LocalRequestServerStarter); the reply
    // handler then checks the server at the shorter local interval.
    bool isLocal() const;
    // Always true in this version: callers go on waiting.
    bool isRequestPending(const std::string& requestId, bool& running, std::string& status,
                          unsigned long& progress, std::string& message);

    const HostInfo& getHost() const { return host; }
    // How a server is started when none is known; null for a client without one.
    std::shared_ptr<RequestServerStarter> getStarter() const { return starter; }
    int getPublisherPort() const { return host.getPublisherPort(); }
    void setPublisherPort(int port) { host.setPublisherPort(port); }
    void setPropagateAliveMessages(bool propagate) { propagateAliveMessages = propagate; }
    const std::string& getRequestClientId() const { return requestClientId; }
    const std::string& getClientName() const { return clientName; }

protected:
    // The attachments of an outgoing request text, in document order; the text may be
    // rewritten on the way (a dha link becomes an hdfs link). A client whose attachments come
    // from elsewhere overrides this.
    virtual std::shared_ptr<std::vector<std::shared_ptr<Attachment>>>
    createAttachments(std::string& request, bool& hasFileAttachments);

private:
    // Owned by the caller; null on failure, with the reason in `errorMessage`.
    Computing::ClientSocket* connectToRequestServer(std::string& errorMessage);
    bool pingRequestServer(Computing::ClientSocket* socket, std::string& errorMessage);
    void checkHost() const;
    std::shared_ptr<Reply> waitForReply(const std::string& requestId,
                                        std::shared_ptr<Progress> progress,
                                        std::shared_ptr<AbstractJobLog> jobLog,
                                        unsigned int maxWaitTime,
                                        const FileName& replyAttachmentPath);

    std::string requestClientId;
    std::string clientName;
    std::shared_ptr<RequestServerStarter> starter;
    HostInfo host;
    boost::mutex connectMutex;
    boost::mutex sendMutex;
    std::shared_ptr<SendFileSocketPacket> currentFilePacket;
    bool sendCancelled = false;
    bool propagateAliveMessages = false;
};

} // namespace Kestrane
