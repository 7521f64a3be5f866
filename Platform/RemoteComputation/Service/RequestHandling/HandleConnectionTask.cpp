#include "Platform/RemoteComputation/Service/RequestHandling/HandleConnectionTask.h"
#include "Platform/RemoteComputation/Service/RequestHandling/AbortRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ArchAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/BinarySocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ConnectionWatch.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DisconnectRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileTransferAliveThread.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileTransferProgressThread.h"
#include "Platform/RemoteComputation/Service/RequestHandling/GetStatusRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HandleRequestTask.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HdfsAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HostAndUserId.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReconnectRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerErrorLogger.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ShutdownRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/UnsharedTmpDir.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractJobLog.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileReceiver.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <boost/algorithm/string/predicate.hpp>

#include <filesystem>
#include <system_error>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

std::string clientAddressOf(const std::shared_ptr<Computing::ServerSocket>& socket) {
    return socket ? socket->getClientIPaddress() : std::string();
}

// The server's own short requests: they must get through while long work fills the pool.
bool isControlRequest(const Request& request) {
    return dynamic_cast<const AbortRequest*>(&request) ||
           dynamic_cast<const GetStatusRequest*>(&request) ||
           dynamic_cast<const ShutdownRequest*>(&request) ||
           dynamic_cast<const DisconnectRequest*>(&request) ||
           dynamic_cast<const ReconnectRequest*>(&request);
}

// A name of one directory entry: no path, no way up.
bool isPlainName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

// Takes away a directory made for a reception that left nothing in it.
void removeIfUnused(const FileName& incomingFilesDir) {
    // A new directory holds the identity file of its owner from the start; beside that it must
    // be empty.
    std::error_code error;
    for (const auto& entry :
         std::filesystem::directory_iterator(incomingFilesDir.toNativeString(), error)) {
        if (entry.path().filename().string() != HostAndUserId::c_fileName)
            return;
    }
    if (error)
        return;
    KS_TRACE("Deleting dir for incoming files: " << incomingFilesDir.toString());
    FileUtilities::remove(incomingFilesDir);
}
} // namespace

HandleConnectionTask::HandleConnectionTask(std::shared_ptr<Computing::ServerSocket> socket,
                                           RequestServer* requestServer)
    : HandleConnectionTask(socket, requestServer, clientAddressOf(socket)) {}

HandleConnectionTask::HandleConnectionTask(std::shared_ptr<Computing::ServerSocket> socket,
                                           RequestServer* requestServer,
                                           const std::string& clientAddress)
    : Tasks::Task("HandleConnectionTask from " + clientAddress), m_clientAddress(clientAddress),
      m_socket(std::move(socket)), m_requestServer(requestServer) {}

HandleConnectionTask::~HandleConnectionTask() = default;

void HandleConnectionTask::execute() {
    KS_TRACE("Handling connection from " << m_clientAddress << "...");
    try {
        readLoop();
    } catch (const KsExceptionNested& e) {
        KS_ERROR("KsExceptionNested handling connection from " << m_clientAddress << ": "
                                                               << e.log());
    } catch (const std::exception& e) {
        KS_ERROR("std::exception handling connection from " << m_clientAddress << ": " << e.what());
    } catch (...) {
        KS_ERROR("Exception handling connection from " << m_clientAddress << "!");
    }
    KS_TRACE("Connection from " << m_clientAddress << " handled.");
}

void HandleConnectionTask::readLoop() {
    for (;;) {
        std::shared_ptr<SocketPacket> packet;
        try {
            packet = SocketPacket::receive(*m_socket, m_clientAddress);
        } catch (...) {
            if (!m_socket->receiveTimedOut())
                throw;
        }
        // A packet cut short by the time limit is no packet: the peer fell silent.
        if (m_socket->receiveTimedOut()) {
            KS_WARN("Closing idle connection from " << m_clientAddress << ": nothing received for "
                                                    << ConnectionWatch::silenceLimitSeconds()
                                                    << " s");
            return;
        }
        KS_TRACE("Packet received (type = " << packet->getType() << ")");
        if (dispatch(packet) == Next::Leave)
            return;
    }
}

HandleConnectionTask::Next
HandleConnectionTask::dispatch(const std::shared_ptr<SocketPacket>& packet) {
    const std::string& type = packet->getType();
    if (type == "RQ") {
        handleRequestPacket(packet);
        return Next::Continue;
    }
    if (type == "RP") {
        handleReplyPacket(packet);
        return Next::Continue;
    }
    if (type == "PR") {
        handleProgressPacket(packet);
        return Next::Continue;
    }
    if (type == "C")
        return dispatchCommand(packet);
    KS_ERROR("Unknown packet type: " << type << " " << *packet->getData());
    return Next::Leave;
}

HandleConnectionTask::Next
HandleConnectionTask::dispatchCommand(const std::shared_ptr<SocketPacket>& packet) {
    const std::string& data = *packet->getData();
    if (data == "PING") {
        KS_DEBUG("Ping packet received.");
        SocketPacket::send("C", "PONG", *m_socket, m_clientAddress);
        return Next::Continue;
    }
    if (data == "CLOSE_CONNECTION") {
        KS_TRACE("Connection from " << m_clientAddress << " closed by remote host.");
        return Next::Leave;
    }
    if (data == "GET_HOST_AND_USER_ID") {
        KS_TRACE("GET_HOST_AND_USER_ID packet received.");
        SocketPacket::send("C", "HOST_AND_USER_ID " + HostAndUserId().toString(), *m_socket,
                           m_clientAddress);
        return Next::Continue;
    }
    using Handler = bool (HandleConnectionTask::*)(std::shared_ptr<SocketPacket>);
    struct Row {
        const char* prefix;
        Handler handler;
        const char* failure;
    };
    static const Row rows[] = {
        {"FILE ", &HandleConnectionTask::handleFilePacket, "Error receiving file packet."},
        {"HDFS ", &HandleConnectionTask::handleHdfsPacket, "Error receiving hdfs packet."},
        {"ARCH ", &HandleConnectionTask::handleArchPacket, "Error receiving arch packet."},
        {"FORWARD_CALLBACK ", &HandleConnectionTask::handleForwardCallbackPacket,
         "Error receiving forward callback packet."},
        {"REPLY_ID ", &HandleConnectionTask::handleReplyIdPacket, "Error receiving reply packet."},
    };
    for (const Row& row : rows) {
        if (!boost::starts_with(data, row.prefix))
            continue;
        if ((this->*row.handler)(packet))
            return Next::Continue;
        KS_ERROR(row.failure);
        return Next::Leave;
    }
    KS_ERROR("Unknown command: " << packet->getType() << " " << data);
    return Next::Leave;
}

// ---- packages ----

void HandleConnectionTask::handleRequestPacket(std::shared_ptr<SocketPacket> packet) {
    KS_TRACE("Handling request packet...");
    try {
        // The peer's address is known since the accept; our own end's is asked for here.
        const std::string serverIp = m_socket->getServerIPaddress();
        RequestHandler* handler = m_requestServer->getRequestHandler();
        auto package = RequestPackage::decode(*packet->getData(), *handler, &m_attachments,
                                              m_clientAddress, serverIp);
        package->setRequestServer(m_requestServer);
        auto request = package->getRequest();
        request->setClientDescription(m_clientAddress);
        m_requestServer->addRequestPackage(package);
        for (const auto& path : m_tmpPaths)
            request->addTmpPath(FileName(path));
        // The connection goes on reading at once; it does not wait for the request.
        auto task = std::make_shared<HandleRequestTask>(package, handler, m_requestServer);
        if (isControlRequest(*request))
            m_requestServer->addControlTask(std::move(task));
        else
            m_requestServer->addTask(std::move(task));
    } catch (const KsExceptionNested& e) {
        refuseRequestPackage(e);
    }
}

void HandleConnectionTask::refuseRequestPackage(const KsExceptionNested& reason) {
    // No request id is known for a package that could not be read.
    ReplyEncoder encoder("InvalidPackageReply", UniqueID::c_nullId);
    encoder.addElement("errorMessage", "error decoding request package");
    encoder.addKsException(reason);
    const std::string xml = encoder.getEncodedReply("   ", "  ");
    KS_DEBUG("Sending reply:\n" << xml);
    SocketPacket::send("RP", xml, *m_socket, m_clientAddress);
}

void HandleConnectionTask::handleReplyPacket(std::shared_ptr<SocketPacket> packet) {
    KS_TRACE("Handling reply packet...");
    try {
        auto package = ReplyPackage::decode(*packet->getData(), &m_attachments);
        if (m_jobLog)
            m_jobLog->logMessage("Finished retrieving results.\n\n", -1, true);
        m_requestServer->getReplyHandler().handleReply(package);
    } catch (const KsExceptionNested&) {
        KS_ERROR("Error decoding replyPacket: " << *packet->getData());
    }
}

void HandleConnectionTask::handleProgressPacket(std::shared_ptr<SocketPacket> packet) {
    KS_TRACE("Handling progress packet...");
    try {
        auto package = ReplyPackage::decode(*packet->getData(), &m_attachments);
        m_requestServer->getReplyHandler().handleProgress(package);
    } catch (const KsExceptionNested&) {
        KS_ERROR("Error decoding progress packet: " << *packet->getData());
    }
}

// ---- commands ----

bool HandleConnectionTask::handleReplyIdPacket(std::shared_ptr<SocketPacket> packet) {
    KS_TRACE("Handling reply id...");
    const std::string& data = *packet->getData();
    if (data.size() != 59) {
        KS_ERROR("Invalid reply id packet received: " << packet->getType() << " " << data);
        return false;
    }
    const std::string requestId = data.substr(9);
    ReplyHandler& replyHandler = m_requestServer->getReplyHandler();
    m_jobLog = replyHandler.getReplyJobLog(requestId);
    if (m_jobLog)
        m_jobLog->logMessage("Retrieving results...\n", -1, true);
    m_replyAttachmentPath = replyHandler.getReplyAttachmentPath(requestId);
    if (!m_replyAttachmentPath.empty()) {
        const std::string path = m_replyAttachmentPath.toNativeString();
        const std::string fallback = "\nReply attachments for request " + requestId +
                                     " will be stored in default location (*tmp/Reply_*).";
        if (FileUtilities::exists(m_replyAttachmentPath, false)) {
            if (FileUtilities::isDirectory(m_replyAttachmentPath)) {
                KS_DEBUG("Reply attachments for request " << requestId << " will be stored in '"
                                                          << m_replyAttachmentPath.toString()
                                                          << "'.");
                return true;
            }
            KS_ERROR("Reply attachment path '" << path << "' is not a directory!" << fallback);
        } else {
            KS_ERROR("Reply attachment path '" << path << "' does not exist!" << fallback);
        }
        m_replyAttachmentPath.clear();
    }
    KS_DEBUG("Reply attachments for request "
             << requestId << " will be stored in default location (*tmp/Reply_*).");
    return true;
}

bool HandleConnectionTask::handleFilePacket(std::shared_ptr<SocketPacket> packet) {
    KS_TRACE("Handling file packet...");
    const std::string& data = *packet->getData();
    size_t pos = data.size() < 59 ? std::string::npos : data.find(' ', 5);
    if (pos == std::string::npos || pos == 5) {
        KS_ERROR("Invalid file attachment packet received: " << packet->getType() << " " << data);
        return false;
    }
    const std::string tmpDirNameStr = data.substr(5, pos - 5);
    // A directory word that leaves too little behind it throws std::out_of_range here.
    const std::string fileId = data.substr(pos + 1, UniqueID::c_length);
    const std::string originalFileNameStr = data.substr(pos + 52);
    // Joined to this host's temporary directory: a peer must not reach out of it. (The file
    // receiver checks the file name.)
    if (!isPlainName(tmpDirNameStr)) {
        KS_ERROR("Invalid file attachment packet received: " << packet->getType() << " " << data);
        return false;
    }
    KS_TRACE("fileId = " << fileId);
    KS_TRACE("tmpDirNameStr = " << tmpDirNameStr);
    KS_TRACE("originalFileNameStr = " << originalFileNameStr);
    FileName incomingFilesDir;
    // Only a directory that this reception made may be taken away again; a reply attachment
    // directory belongs to the caller, and an existing one may serve other transfers.
    bool dirMadeForIt = false;
    if (!m_replyAttachmentPath.empty()) {
        incomingFilesDir = m_replyAttachmentPath;
    } else {
        const FileName plainDir = PathConfiguration::getKsPathTmp() / tmpDirNameStr;
        const bool existed = FileUtilities::exists(plainDir, false);
        incomingFilesDir = UnsharedTmpDir(tmpDirNameStr).getPath();
        dirMadeForIt = !existed && incomingFilesDir == plainDir;
    }
    const std::string directory = incomingFilesDir.toString();
    KS_TRACE("incomingFilesDir = " << directory);
    KS_TRACE("Receiving file " << originalFileNameStr << "...");

    auto config = RequestServerConfiguration::getRegisteredInstance();
    Computing::FileReceiver receiver(m_socket->getSocket(), config->getParallelFileTransfer(),
                                     config->getFileCopyBlockSize());
    std::unique_ptr<FileTransferThread> companion;
    if (m_jobLog)
        companion =
            std::make_unique<FileTransferProgressThread>(*m_jobLog, originalFileNameStr, receiver);
    else
        companion = std::make_unique<FileTransferAliveThread>(receiver);
    companion->start(true);
    bool copied = false;
    const bool received = receiver.execute(originalFileNameStr, directory, copied);
    companion->cancel();
    companion->finalize();
    if (!received) {
        const std::string message = "Error receiving file " + originalFileNameStr + " to " +
                                    directory + ":\n" + receiver.getErrorMessage();
        KS_ERROR(message);
        if (auto* errorLogger = m_requestServer->getErrorLogger())
            errorLogger->logError(message);
        if (dirMadeForIt)
            removeIfUnused(incomingFilesDir);
        return false;
    }
    if (copied) {
        FileName path = incomingFilesDir / originalFileNameStr;
        KS_TRACE("File received (copied): " << path.toString());
        m_attachments[fileId] = std::make_shared<FileAttachment>(data, path, true, false);
    } else {
        // The file stayed where it was, and this side reads it there: the command carries only
        // the leaf name, the receiver knows the sender's path.
        const std::string path =
            receiver.getSenderPath().empty() ? originalFileNameStr : receiver.getSenderPath();
        KS_TRACE("File received (not copied): " << path);
        m_attachments[fileId] =
            std::make_shared<FileAttachment>(data, FileName(path), false, false);
        if (dirMadeForIt)
            removeIfUnused(incomingFilesDir);
    }
    return true;
}

template <typename Kind>
bool HandleConnectionTask::receiveBlock(const SocketPacket& packet, const std::string& kind) {
    KS_TRACE("Handling " << kind << " packet...");
    const std::string& data = *packet.getData();
    if (data.size() <= 58) {
        KS_ERROR("Invalid " << kind << " attachment packet received: " << packet.getType() << " "
                            << data);
        return false;
    }
    const std::string id = data.substr(5, UniqueID::c_length);
    const uint32_t size = SocketPacket::parseLength(data.substr(56));
    auto block = BinarySocketPacket::receive(size, *m_socket, m_clientAddress);
    auto attachment =
        std::make_shared<Kind>(id, reinterpret_cast<unsigned char*>(block->getData()), size);
    // Freed with the connection unless a message's link takes it (a repeated id frees the first).
    attachment->adoptBlock();
    m_attachments[id] = attachment;
    return true;
}

bool HandleConnectionTask::handleHdfsPacket(std::shared_ptr<SocketPacket> packet) {
    return receiveBlock<HdfsAttachment>(*packet, "hdfs");
}

bool HandleConnectionTask::handleArchPacket(std::shared_ptr<SocketPacket> packet) {
    return receiveBlock<ArchAttachment>(*packet, "arch");
}

bool HandleConnectionTask::handleForwardCallbackPacket(std::shared_ptr<SocketPacket> packet) {
    KS_TRACE("Handling forward callback packet...");
    const std::string& data = *packet->getData();
    if (data.size() < 18) {
        KS_ERROR("Invalid forward callback packet received: " << packet->getType() << " " << data);
        return false;
    }
    const bool sent = CallbackRequest::sendCallbackRequest(data.substr(17), "");
    SocketPacket::send("C", sent ? "OK" : "ERROR", *m_socket, m_clientAddress);
    return true;
}

} // namespace Kestrane
