#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Task.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

class AbstractJobLog;
class KsExceptionNested;
class Attachment;
class RequestServer;
class SocketPacket;

// Reads the packets of one accepted connection in a loop and dispatches them, until the peer
// closes the conversation, falls silent for the idle timeout, or something goes wrong. Runs on a
// connection thread of the server, once the connection has something to read. The same task
// serves a connection that brings a request and one that brings a reply back.
class HandleConnectionTask : public Tasks::Task {
public:
    HandleConnectionTask(std::shared_ptr<Computing::ServerSocket> socket,
                         RequestServer* requestServer);
    // With the peer's address as the accept found it.
    HandleConnectionTask(std::shared_ptr<Computing::ServerSocket> socket,
                         RequestServer* requestServer, const std::string& clientAddress);
    ~HandleConnectionTask() override;

    void execute() override;

private:
    enum class Next { Continue, Leave };

    void readLoop();
    Next dispatch(const std::shared_ptr<SocketPacket>& packet);
    Next dispatchCommand(const std::shared_ptr<SocketPacket>& packet);

    void handleRequestPacket(std::shared_ptr<SocketPacket> packet);
    void handleReplyPacket(std::shared_ptr<SocketPacket> packet);
    void handleProgressPacket(std::shared_ptr<SocketPacket> packet);
    bool handleFilePacket(std::shared_ptr<SocketPacket> packet);
    bool handleHdfsPacket(std::shared_ptr<SocketPacket> packet);
    bool handleArchPacket(std::shared_ptr<SocketPacket> packet);
    bool handleReplyIdPacket(std::shared_ptr<SocketPacket> packet);
    bool handleForwardCallbackPacket(std::shared_ptr<SocketPacket> packet);
    // The common part of the "HDFS " and "ARCH " rows: the block after the command.
    template <typename BlockAttachment>
    bool receiveBlock(const SocketPacket& packet, const std::string& kind);
    // The one reply that travels on the connection of its request.
    void refuseRequestPackage(const KsExceptionNested& reason);

    std::string m_clientAddress;
    std::shared_ptr<Computing::ServerSocket> m_socket;
    RequestServer* m_requestServer;
    std::shared_ptr<AbstractJobLog> m_jobLog;
    std::map<std::string, std::shared_ptr<Attachment>> m_attachments;
    // Nothing adds to it; each entry would become a temporary path of the request.
    std::vector<std::string> m_tmpPaths;
    FileName m_replyAttachmentPath;
};

} // namespace Kestrane
