#include "Platform/RemoteComputation/Service/RequestHandling/HandleRequestTask.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ArchAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ArchSocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HdfsAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Publisher.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SendFileSocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <cstdlib>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

const std::string c_indent = "   ";
const std::string c_elementIndent = "  ";

std::string taskName(const RequestPackage& package) {
    auto request = package.getRequest();
    return "HandleRequestTask: type=" + request->getType() + ", id=" + request->getId();
}
} // namespace

HandleRequestTask::HandleRequestTask(std::shared_ptr<RequestPackage> package,
                                     RequestHandler* handler, RequestServer* server)
    : Tasks::Task(taskName(*package)), requestPackage(std::move(package)), requestHandler(handler),
      requestServer(server) {
    auto request = requestPackage->getRequest();
    // Lives as long as the request: every log message of the request leaves the process.
    Publisher* publisher = Publisher::getInstance();
    Signals::Connection connection =
        request->getLogSignal().connect(Signals::slot(publisher, &Publisher::publishLogMessage));
    // A Connection disconnects when it goes; this one must stay for the life of the request.
    connection.releaseWithoutDisconnect();
    KS_DEBUG("Created HandleRequestTask for request with type = '"
             << request->getType() << "' and id = '" << request->getId() << "'.");
}

HandleRequestTask::~HandleRequestTask() = default;

template <typename Add> std::string HandleRequestTask::exceptionReply(Add add) const {
    ReplyEncoder encoder("ExceptionReply", *requestPackage->getRequest());
    add(encoder);
    return encoder.getEncodedReply(c_indent, c_elementIndent);
}

std::string HandleRequestTask::handleRequest() {
    auto request = requestPackage->getRequest();
    try {
        auto reply = requestHandler->handle(request);
        if (reply && !reply->empty())
            return *reply;
        KS_ERROR("Request handler returned an empty reply.");
        KsExceptionNested empty("Request handler returned an empty reply.", "RequestHandling",
                                "Kestrane::HandleRequestTask::execute", __FILE__, __LINE__);
        return exceptionReply([&](ReplyEncoder& e) { e.addKsException(empty); });
    } catch (const KsExceptionNested& e) {
        KS_ERROR("KsExceptionNested while handling request: " << e.log());
        return exceptionReply([&](ReplyEncoder& r) { r.addKsException(e); });
    } catch (const KsException& e) {
        KS_ERROR("KsException while handling request: " << e.what());
        return exceptionReply([&](ReplyEncoder& r) { r.addKsException(e); });
    } catch (const std::exception& e) {
        KS_ERROR("std::exception while handling request: " << e.what());
        return exceptionReply([&](ReplyEncoder& r) { r.addException(&e); });
    } catch (...) {
        KS_ERROR("unknown while handling request");
        return exceptionReply([&](ReplyEncoder& r) { r.addException(nullptr); });
    }
}

void HandleRequestTask::execute() {
    KS_DEBUG("Starting execution of " << getName());
    auto request = requestPackage->getRequest();
    std::string reply = handleRequest();
    if (!requestPackage->isReplyExpected()) {
        KS_TRACE("Ignoring reply for " << getName());
    } else {
        KS_TRACE("Sending reply for " << getName());
        prepareAndSend(std::move(reply));
    }
    requestServer->removeRequestPackage(requestPackage);
}

void HandleRequestTask::prepareAndSend(std::string reply) {
    auto request = requestPackage->getRequest();
    const std::string& id = request->getId();
    auto packets = std::make_shared<RequestServer::SocketPackets>();
    bool hasFiles = false;
    try {
        packets->push_back(std::make_shared<SocketPacket>("C", "REPLY_ID " + id, true));
        auto attachments = Attachment::createAttachments(reply, hasFiles, false);
        for (auto& attachment : *attachments) {
            if (auto file = std::dynamic_pointer_cast<FileAttachment>(attachment)) {
                packets->push_back(std::make_shared<SendFileSocketPacket>(
                    requestPackage->getClientId(), file->getId(), file->getFileName(), true,
                    "Reply_" + id.substr(0, 10), file->getForceFileTransfer(), nullptr));
            } else if (auto arch = std::dynamic_pointer_cast<ArchAttachment>(attachment)) {
                KS_TRACE("Sending ArchAttachment: id=" << arch->getId()
                                                       << ", dataSize=" << arch->getDataSize());
                packets->push_back(std::make_shared<SocketPacket>(
                    "C", "ARCH " + arch->getId() + " " + std::to_string(arch->getDataSize()),
                    true));
                packets->push_back(std::make_shared<ArchSocketPacket>(
                    reinterpret_cast<char*>(arch->getData()), arch->getDataSize(), true));
            } else if (auto hdfs = std::dynamic_pointer_cast<HdfsAttachment>(attachment)) {
                KS_TRACE("Sending HdfsAttachement: id=" << hdfs->getId()
                                                        << ", dataSize=" << hdfs->getDataSize());
                packets->push_back(std::make_shared<SocketPacket>(
                    "C", "HDFS " + hdfs->getId() + " " + std::to_string(hdfs->getDataSize()),
                    true));
                // The attachment lives as long as the packet, which may wait in the reply cache;
                // it frees the block only if the library made it.
                packets->push_back(std::shared_ptr<BinarySocketPacket>(
                    new BinarySocketPacket(reinterpret_cast<char*>(hdfs->getData()),
                                           hdfs->getDataSize(), true),
                    [hdfs](BinarySocketPacket* packet) { delete packet; }));
            } else {
                KS_ERROR("Unknown attachment type. Id=" << attachment->getId());
            }
        }
    } catch (const KsExceptionNested& e) {
        KS_WARN("KsExceptionNested while preparing reply: " << e.log());
        reply = exceptionReply([&](ReplyEncoder& r) { r.addKsException(e); });
    } catch (const std::exception& e) {
        KS_WARN("std::exception while preparing reply: " << e.what());
        reply = exceptionReply([&](ReplyEncoder& r) { r.addException(&e); });
    } catch (...) {
        KS_WARN("unknown while preparing reply");
        reply = exceptionReply([&](ReplyEncoder& r) { r.addException(nullptr); });
    }
    try {
        ++serial;
        std::string package = ReplyPackageEncoder(reply, serial).getEncodedReplyPackage();
        packets->push_back(std::make_shared<SocketPacket>("RP", package, true));
        requestServer->sendSocketPackets(id, packets, hasFiles, request->getTmpPaths());
    } catch (const KsExceptionNested& e) {
        KS_WARN("KsExceptionNested while sending reply: " << e.log());
    } catch (const std::exception& e) {
        KS_WARN("std::exception while sending reply: " << e.what());
    } catch (...) {
        KS_WARN("unknown while sending reply");
    }
}

std::shared_ptr<ReplyEncoder> HandleRequestTask::createProgressUpdate() const {
    return std::make_shared<ReplyEncoder>("ProgressUpdate", *requestPackage->getRequest());
}

void HandleRequestTask::sendProgressUpdate(ReplyEncoder& encoder) {
    boost::lock_guard<boost::mutex> lock(serialMutex);
    serial = serial + 1;
    std::string xml = encoder.getEncodedReply(c_indent, c_elementIndent);
    std::string package = ReplyPackageEncoder(xml, serial).getEncodedReplyPackage();
    auto packet = std::make_shared<SocketPacket>("PR", package, false);
    if (!requestServer->sendSocketPacket(requestPackage->getRequest()->getId(), packet)) {
        KS_WARN("Error sending progress update!");
        serial = serial - 1;
    }
}

} // namespace Kestrane
