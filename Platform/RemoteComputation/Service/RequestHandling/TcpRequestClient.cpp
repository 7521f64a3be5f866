#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ArchAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/BinarySocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HdfsAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HostAndUserId.h"
#include "Platform/RemoteComputation/Service/RequestHandling/JobSchedulerRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LocalRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerConnectionException.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SendFileSocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/UnsharedTmpDir.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractJobLog.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <boost/algorithm/string/predicate.hpp>
#include <boost/lexical_cast.hpp>

#include <cstdlib>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

const char* const c_source = "TcpRequestClient";
const char* const c_sendFunction = "Kestrane::TcpRequestClient::sendRequest";
const char* const c_reconnectFunction = "Kestrane::TcpRequestClient::reconnectRequest";
const std::string c_hostAndUserPrefix = "HOST_AND_USER_ID ";

std::string describeHost(const std::string& prefix, const HostInfo& host) {
    return prefix + host.toString();
}

std::string textBetween(const std::string& text, size_t from, size_t to) {
    return text.substr(from, to == std::string::npos ? std::string::npos : to - from);
}
// The command that announces a memory block, then the block, which this road consumes.
void sendBlock(Computing::Socket& socket, const std::string& label, const std::string& command,
               BlockAttachment& attachment) {
    SocketPacket::send(
        "C", command + attachment.getId() + " " + std::to_string(attachment.getDataSize()), socket,
        label);
    BinarySocketPacket::send(reinterpret_cast<char*>(attachment.getData()),
                             attachment.getDataSize(), socket, label);
    attachment.freeBlock();
}
} // namespace

// ---- construction ----

TcpRequestClient::TcpRequestClient(const std::string& reconnectString)
    : RequestClient("TcpRequestClient"), requestClientId(UniqueID::generateId()) {
    size_t p1 = reconnectString.find(':');
    size_t p2 = p1 == std::string::npos ? p1 : reconnectString.find(':', p1 + 1);
    size_t p3 = p2 == std::string::npos ? p2 : reconnectString.find(':', p2 + 1);
    host.setIpOrName(textBetween(reconnectString, 0, p1));
    std::string portText =
        p1 == std::string::npos ? std::string() : textBetween(reconnectString, p1 + 1, p2);
    host.setRequestServerPort(static_cast<int>(boost::lexical_cast<unsigned int>(portText)));
    if (p2 != std::string::npos)
        clientName = textBetween(reconnectString, p2 + 1, p3);
    if (p3 != std::string::npos)
        starter = RequestServerStarter::createFromReconnectString(reconnectString.substr(p3 + 1));
}

TcpRequestClient::TcpRequestClient(const std::string& name, const HostInfo& host)
    : RequestClient(describeHost("JS_Helper@", host)), requestClientId(UniqueID::generateId()),
      clientName(name), host(host) {
    checkHost();
}

TcpRequestClient::TcpRequestClient(const std::string& name,
                                   std::shared_ptr<RequestServerStarter> starter)
    : RequestClient(name + "@" + starter->getDescription()),
      requestClientId(UniqueID::generateId()), clientName(name), starter(std::move(starter)) {}

TcpRequestClient::TcpRequestClient(const std::string& name,
                                   std::shared_ptr<RequestServerStarter> starter,
                                   const HostInfo& givenHost)
    : RequestClient(name + "@" + starter->getDescription()),
      requestClientId(UniqueID::generateId()), clientName(name), starter(std::move(starter)) {
    host = givenHost;
    checkHost();
    host = HostInfo();
    if (givenHost.hasPublisherPort())
        host.setPublisherPort(givenHost.getPublisherPort());
}

void TcpRequestClient::checkHost() const {
    if (!host.hasNameOrIp() || !host.hasRequestServerPort())
        KS_FATAL("HostInfo does not contain a valid requestserver port: " << host.toString());
}

TcpRequestClient::~TcpRequestClient() {
    KS_TRACE("Deleting TcpRequestClient " << requestClientId << "...");
}

std::string TcpRequestClient::getReconnectString() const {
    return host.getIpOrName() + ":" + std::to_string(host.getRequestServerPort()) + ":" +
           clientName + ":" + starter->getReconnectString();
}

void TcpRequestClient::clearReconnect() {
    host.clear();
    requestClientId = UniqueID::generateId();
}

bool TcpRequestClient::isLocal() const {
    return std::dynamic_pointer_cast<LocalRequestServerStarter>(starter) != nullptr;
}

bool TcpRequestClient::isRequestPending(const std::string&, bool&, std::string&, unsigned long&,
                                        std::string&) {
    return true;
}

// ---- connection ----

Computing::ClientSocket* TcpRequestClient::connectToRequestServer(std::string& errorMessage) {
    boost::lock_guard<boost::mutex> lock(connectMutex);
    if (!host.hasNameOrIp() || !host.hasRequestServerPort()) {
        if (!starter) {
            KS_ERROR("Can't start request server (" << host.toString() << ")");
            errorMessage = "Can't start request server.";
            return nullptr;
        }
        if (!starter->startRequestServer()) {
            KS_WARN("Can't start request server: " << starter->getErrorMessage());
            errorMessage = starter->getErrorMessage();
            return nullptr;
        }
        host.setIpOrName(starter->getRequestServerHost());
        host.setRequestServerPort(static_cast<int>(starter->getRequestServerPort()));
    }
    std::unique_ptr<Computing::ClientSocket> socket;
    const std::string port = std::to_string(host.getRequestServerPort());
    try {
        socket = std::make_unique<Computing::ClientSocket>();
        KS_TRACE("Connecting to request server on host '"
                 << host.getName() << "' at '" << host.getIpOrName() << "' on port '" << port
                 << "'...");
        socket->connect(host.getIpOrName(), host.getRequestServerPort());
        KS_TRACE("Connected to request server on host '"
                 << host.getName() << "' at '" << host.getIpOrName() << "' on port '" << port
                 << "'.\nTrying to ping request server");
    } catch (const Computing::Error& e) {
        KS_WARN("Error connecting to RequestServer " << m_description
                                                     << ". Exception: " << e.what());
        errorMessage = "Exception trying to connect to " + m_description + ".\n" + e.what();
        return nullptr;
    } catch (...) {
        KS_WARN("Unknown exception connecting to RequestServer " << m_description << ".");
        errorMessage = "Unknown exception trying to connect to " + m_description + "n";
        return nullptr;
    }
    if (!pingRequestServer(socket.get(), errorMessage))
        return nullptr;
    KS_TRACE("Successfully connected and pinged " << m_description);
    return socket.release();
}

bool TcpRequestClient::pingRequestServer(Computing::ClientSocket* socket,
                                         std::string& errorMessage) {
    const std::string label = getDescription();
    try {
        SocketPacket::send("C", "PING", *socket, label);
        std::shared_ptr<SocketPacket> answer;
        try {
            answer = SocketPacket::receive(*socket, label);
        } catch (const Computing::Error&) {
            throw;
        } catch (const std::exception&) {
            // A peer that closed before answering leaves no packet.
        }
        if (!answer) {
            SocketPacket::send("C", "CLOSE_CONNECTION", *socket, label);
            KS_ERROR("NULL reply received when pinging " << m_description);
            errorMessage = "No reply received when trying to ping " + m_description + ".";
            return false;
        }
        if (answer->getType() == "C" && *answer->getData() == "PONG")
            return true;
        SocketPacket::send("C", "CLOSE_CONNECTION", *socket, label);
        KS_ERROR("Unexpected reply received when pinging " << m_description << ": "
                                                           << answer->toString());
        errorMessage = "Unexpected reply received when pinging " + m_description + ".";
        return false;
    } catch (const Computing::Error& e) {
        KS_WARN("Error trying to ping RequestServer " << m_description
                                                      << ". Exception: " << e.what());
        errorMessage = "Exception trying to ping " + m_description + ".\n" + e.what();
    } catch (...) {
        KS_WARN("Unknown exception trying to ping RequestServer " << m_description << ".");
        errorMessage = "Unknown exception trying to ping " + m_description + ".";
    }
    return false;
}

// ---- sending ----

bool TcpRequestClient::hasSameHostAndUserId(Computing::ClientSocket& socket,
                                            const std::string& label) {
    SocketPacket::send("C", "GET_HOST_AND_USER_ID", socket, label);
    std::shared_ptr<SocketPacket> answer;
    try {
        answer = SocketPacket::receive(socket, label);
    } catch (const Computing::Error&) {
        throw;
    } catch (const std::exception&) {
    }
    std::string remote;
    bool good = answer && answer->getType() == "C" &&
                boost::starts_with(*answer->getData(), c_hostAndUserPrefix);
    if (good) {
        remote = answer->getData()->substr(c_hostAndUserPrefix.size());
        good = HostAndUserId::isValid(remote);
    }
    if (!good) {
        KS_ERROR("Unexpected reply to GET_HOST_AND_USER_ID: " << (answer ? answer->toString()
                                                                         : std::string("NULL")));
        throw RequestHandlingException(
            "Error sending request: unexpected reply to GET_HOST_AND_USER_ID!", c_source,
            "Kestrane::TcpRequestClient::hasSameHostAndUserId", __FILE__, __LINE__);
    }
    // Exact, case included: "HOST#user" and "host#user" may be different machines or accounts
    // for the file system, and a wrong "same" would leave the peer without its files.
    const std::string local = HostAndUserId().toString();
    bool same = local == remote;
    KS_TRACE("Checking if files have to be transferred\nLocal  HostAndUserId: "
             << local << "\nRemote HostAndUserId: " << remote
             << "\nhasSameHostAndUserId = " << (same ? "true" : "false"));
    return same;
}

void TcpRequestClient::sendRequest(const RequestEncoder& request,
                                   std::shared_ptr<Progress> progress,
                                   const std::string& remoteDirName,
                                   std::shared_ptr<AbstractJobLog> jobLog) {
    sendRequest(request.getEncodedRequest(), std::move(progress), true, remoteDirName,
                std::move(jobLog));
}

void TcpRequestClient::sendRequest(const std::string& request, std::shared_ptr<Progress> progress,
                                   bool replyExpected, const std::string& remoteDirName,
                                   std::shared_ptr<AbstractJobLog> jobLog) {
    std::string connectError;
    std::unique_ptr<Computing::ClientSocket> socket(connectToRequestServer(connectError));
    if (!socket) {
        std::string message =
            "Error sending request: can't connect to request server!\n" + connectError;
        KS_ERROR(message);
        throw RequestServerConnectionException(message.c_str(), c_source, c_sendFunction, __FILE__,
                                               __LINE__);
    }
    const std::string label = getDescription();
    auto failWith = [&](const std::string& message, const std::exception& cause) {
        KS_ERROR(message);
        if (jobLog)
            jobLog->logMessage(message, -1, true);
        socket.reset();
        throw RequestHandlingException(cause, message.c_str(), c_source, c_sendFunction, __FILE__,
                                       __LINE__);
    };
    std::shared_ptr<std::vector<std::shared_ptr<Attachment>>> attachments;
    std::string copy = request;
    bool hasFileAttachments = false;
    try {
        attachments = createAttachments(copy, hasFileAttachments);
    } catch (const KsExceptionNested& e) {
        std::string message = "Error sending request: exception while creating attachments!";
        KS_ERROR(message << "\n" << e.log());
        if (jobLog)
            jobLog->logMessage(message + "\n" + e.log(), -1, true);
        socket.reset();
        throw RequestHandlingException(e, message.c_str(), c_source, c_sendFunction, __FILE__,
                                       __LINE__);
    }
    RequestPackageEncoder packageEncoder(copy, requestClientId, "");
    packageEncoder.setSendProgressUpdates(progress != nullptr);
    packageEncoder.setReplyExpected(replyExpected);
    const std::string package = packageEncoder.getEncodedRequestPackage();

    try {
        if (attachments && !attachments->empty()) {
            bool transferFileAttachments = false;
            if (hasFileAttachments) {
                transferFileAttachments = !hasSameHostAndUserId(*socket, label);
                KS_TRACE("transferFileAttachments = " << transferFileAttachments);
            }
            for (auto& attachment : *attachments) {
                if (auto file = std::dynamic_pointer_cast<FileAttachment>(attachment)) {
                    const std::string path = file->getFileName().toString();
                    if (!transferFileAttachments && !file->getForceFileTransfer()) {
                        KS_TRACE("Not transfering file: id=" << file->getId()
                                                             << ", filePath=" << path);
                        file->setFileTransfered(false);
                        continue;
                    }
                    KS_TRACE("File size: " << FileUtilities::getFileSize(file->getFileName())
                                           << " (" << path << ").");
                    KS_TRACE("Sending file: id=" << file->getId() << ", filePath=" << path
                                                 << "...");
                    std::shared_ptr<SendFileSocketPacket> packet;
                    {
                        boost::lock_guard<boost::mutex> lock(sendMutex);
                        if (sendCancelled) {
                            KS_INFO("Send request cancelled: skipping send!");
                            // No "CLOSE_CONNECTION": the conversation just ends, and the
                            // server sees its peer go.
                            return;
                        }
                        packet = std::make_shared<SendFileSocketPacket>(
                            requestClientId, file->getId(), file->getFileName(), true,
                            remoteDirName, true, jobLog);
                        currentFilePacket = packet;
                    }
                    if (!packet->send(*socket, label)) {
                        bool cancelled;
                        {
                            boost::lock_guard<boost::mutex> lock(sendMutex);
                            cancelled = sendCancelled;
                        }
                        std::string message =
                            (cancelled ? "Sending request cancelled: " : "Error sending file: ") +
                            packet->getErrorMessage();
                        if (cancelled)
                            KS_INFO(message);
                        else
                            KS_ERROR(message);
                        socket.reset();
                        if (jobLog)
                            jobLog->logMessage(message, -1, true);
                        throw RequestHandlingException(message.c_str(), c_source, c_sendFunction,
                                                       __FILE__, __LINE__);
                    }
                    file->setFileTransfered(packet->getFileCopied());
                    KS_TRACE("File size: " << FileUtilities::getFileSize(file->getFileName())
                                           << " (" << path << ").");
                    boost::lock_guard<boost::mutex> lock(sendMutex);
                    currentFilePacket.reset();
                } else if (auto hdfs = std::dynamic_pointer_cast<HdfsAttachment>(attachment)) {
                    KS_TRACE("Sending HdfsAttachement: id=" << hdfs->getId() << ", dataSize="
                                                            << hdfs->getDataSize());
                    sendBlock(*socket, label, "HDFS ", *hdfs);
                } else if (auto arch = std::dynamic_pointer_cast<ArchAttachment>(attachment)) {
                    KS_TRACE("Sending ArchAttachment: id=" << arch->getId()
                                                           << ", dataSize=" << arch->getDataSize());
                    sendBlock(*socket, label, "ARCH ", *arch);
                } else {
                    KS_ERROR("Unknown attachment type. Id=" << attachment->getId());
                }
            }
        }
        SocketPacket::send("RQ", package, *socket, label);
        SocketPacket::send("C", "CLOSE_CONNECTION", *socket, label);
        socket->closeAfterPeer();
    } catch (const Computing::Error& e) {
        failWith(std::string("Error sending request: exception while sending!\n") + e.what(), e);
    }
}

std::shared_ptr<std::vector<std::shared_ptr<Attachment>>>
TcpRequestClient::createAttachments(std::string& request, bool& hasFileAttachments) {
    return Attachment::createAttachments(request, hasFileAttachments, true);
}

std::shared_ptr<Reply> TcpRequestClient::handleRequest(const std::string& request,
                                                       unsigned int maxWaitTime,
                                                       const std::string& requestId,
                                                       std::shared_ptr<Progress> progress,
                                                       const std::string& remoteDirName) {
    sendRequest(request, progress, true, remoteDirName, nullptr);
    FileName path;
    if (!remoteDirName.empty())
        path = UnsharedTmpDir(remoteDirName).getPath();
    return waitForReply(requestId, progress, nullptr, maxWaitTime, path);
}

std::shared_ptr<Reply> TcpRequestClient::waitForReply(const std::string& requestId,
                                                      std::shared_ptr<Progress> progress,
                                                      std::shared_ptr<AbstractJobLog> jobLog,
                                                      unsigned int maxWaitTime,
                                                      const FileName& replyAttachmentPath) {
    RequestServer* server = RequestServer::getInstance(-1, 0);
    if (!server) {
        // Replies come back through this process's own server; without it none can arrive.
        std::string message = "No RequestServer in this process to receive the reply: " +
                              RequestServer::getErrorMessage();
        KS_ERROR(message);
        throw RequestServerConnectionException(message.c_str(), c_source,
                                               "Kestrane::TcpRequestClient::handleRequest",
                                               __FILE__, __LINE__);
    }
    auto package = server->getReplyHandler().receiveReply(
        requestId, this, std::move(progress), std::move(jobLog), host.getPublisherPort(),
        propagateAliveMessages, maxWaitTime, replyAttachmentPath);
    return package ? package->getReply() : nullptr;
}

std::shared_ptr<Reply> TcpRequestClient::handleRequest(const RequestEncoder& request,
                                                       unsigned int maxWaitTime) {
    return handleRequest(request.getEncodedRequest(), maxWaitTime, request.getId(), nullptr, "");
}

std::shared_ptr<Reply> TcpRequestClient::handleRequest(const std::string& request,
                                                       const std::string& requestId,
                                                       std::shared_ptr<Progress> progress,
                                                       const std::string& remoteDirName) {
    return handleRequest(request, 0, requestId, std::move(progress), remoteDirName);
}

std::shared_ptr<Reply> TcpRequestClient::handleRequest(const RequestEncoder& request,
                                                       std::shared_ptr<Progress> progress,
                                                       const std::string& remoteDirName) {
    return handleRequest(request.getEncodedRequest(), request.getId(), std::move(progress),
                         remoteDirName);
}

std::shared_ptr<Reply>
TcpRequestClient::reconnectRequest(const std::string& requestId, std::shared_ptr<Progress> progress,
                                   std::shared_ptr<AbstractJobLog> jobLog,
                                   std::shared_ptr<RemoteJobStatusInterface> /*jobStatus*/,
                                   int /*reserved*/, const FileName& replyAttachmentPath) {
    auto exceptionWhileReconnecting = [&] {
        KS_WARN("Exception while reconnectiong to request " << requestId);
        return RequestServerConnectionException("Exception while reconnecting.", "RequestHandling",
                                                c_reconnectFunction, __FILE__, __LINE__);
    };
    std::shared_ptr<Reply> ack;
    try {
        RequestEncoder encoder("ReconnectRequest");
        encoder.addElement("originalRequestId", requestId, "");
        ack = handleRequest(encoder, nullptr, "");
    } catch (...) {
        throw exceptionWhileReconnecting();
    }
    if (!ack || ack->getType() != "AckReply" || ack->getElement("status") != "OK") {
        KS_WARN("Error while reconnectiong to request " << requestId);
        throw RequestServerConnectionException("Error while reconnecting.", "RequestHandling",
                                               c_reconnectFunction, __FILE__, __LINE__);
    }
    try {
        return waitForReply(requestId, std::move(progress), std::move(jobLog), 0,
                            replyAttachmentPath);
    } catch (...) {
        throw exceptionWhileReconnecting();
    }
}

void TcpRequestClient::cancelSendRequest() {
    boost::lock_guard<boost::mutex> lock(sendMutex);
    KS_INFO("Cancelling send request...");
    sendCancelled = true;
    if (currentFilePacket)
        currentFilePacket->cancelSend();
}

// ---- administration ----

void TcpRequestClient::abortRequest(const std::string& requestId) {
    try {
        RequestEncoder encoder("AbortRequest");
        encoder.addElement("requestId", requestId, "");
        sendRequest(encoder.getEncodedRequest(), nullptr, true, "", nullptr);
    } catch (...) {
        KS_WARN("Exception aborting request: Cannot abort request (ignored)..");
    }
}

void TcpRequestClient::abortJob(const std::string& jobId) {
    try {
        RequestEncoder encoder("AbortRequest");
        encoder.addElement("jobId", jobId, "");
        sendRequest(encoder.getEncodedRequest(), nullptr, true, "", nullptr);
    } catch (...) {
        KS_WARN("Exception aborting job: Cannot abort job (ignored)..");
    }
}

void TcpRequestClient::shutdownRequestServer() {
    if (!host.hasRequestServerPort())
        return;
    try {
        sendRequest(RequestEncoder("ShutdownRequest"), nullptr, "", nullptr);
    } catch (const RequestServerConnectionException&) {
        KS_WARN("RequestServerConnectionException while handling ShutdownRequest.");
    } catch (const RequestHandlingException&) {
        KS_WARN("RequestHandlingException while handling ShutdownRequest.");
    } catch (...) {
        KS_WARN("Exception while handling ShutdownRequest.");
    }
    KS_INFO("Stopped request server " << m_description);
    host.clear();
}

std::shared_ptr<Reply> TcpRequestClient::sendGetStatusRequest() {
    auto unreachable = [](const std::string& text) {
        return std::make_shared<RequestServerUnreachableReply>(text);
    };
    try {
        RequestEncoder encoder("GetStatusRequest");
        auto reply = handleRequest(
            encoder, RequestServerConfiguration::getRegisteredInstance()->getMaxGetStatusTime());
        if (!reply) {
            KS_ERROR("No reply to GetStatusRequest.");
            return unreachable("No reply to GetStatusRequest.");
        }
        if (std::dynamic_pointer_cast<RequestServerUnreachableReply>(reply))
            return reply;
        if (auto* element = reply->getDomElement("replyHost"))
            host.setPublisherPort(HostInfo(element).getPublisherPort());
        return reply;
    } catch (const RequestServerConnectionException& e) {
        std::string text =
            std::string("RequestServerConnectionException while handling GetStatusRequest: ") +
            e.what();
        KS_ERROR(text);
        return unreachable(text);
    } catch (const KsExceptionNested& e) {
        KS_ERROR("KsExceptionNested while handling GetStatusRequest: " << e.log());
        return unreachable("KsExceptionNested while handling GetStatusRequest : " + e.log());
    } catch (const std::exception& e) {
        std::string text =
            std::string("std::exception while handling GetStatusRequest: ") + e.what();
        KS_ERROR(text);
        return unreachable(text);
    } catch (...) {
        KS_ERROR("Unknown exception while handling GetStatusRequest!");
        return unreachable("Unknown exception while handling GetStatusRequest!");
    }
}

void TcpRequestClient::killJobSchedulerJob() {
    KS_INFO("Killing jobScheduler job...");
    if (auto jobStarter = std::dynamic_pointer_cast<JobSchedulerRequestServerStarter>(starter))
        jobStarter->killJobSchedulerjob();
    else
        KS_ERROR("Kill failed. RequestServerStarter is not JobSchedulerRequestServerStarter.");
}

} // namespace Kestrane
