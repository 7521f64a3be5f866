#include "Platform/RemoteComputation/Service/RequestHandling/ServerRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DisconnectRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/GetStatusRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Publisher.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReconnectRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ShutdownRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingUtility.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

const char* const c_function = "Kestrane::ServerRequestHandler::handle";
const std::string c_indent = "   ";
const std::string c_elementIndent = "  ";

template <typename T> std::shared_ptr<Request> decodeAs(const XmlRequest& request) {
    auto decoded = std::make_shared<T>(request.getRootElement());
    decoded->setSourceString(request.getSourceString());
    return decoded;
}

std::string acknowledge(const Request& request) {
    ReplyEncoder reply("AckReply", request);
    reply.addElement("status", "OK");
    return reply.getEncodedReply(c_indent, c_elementIndent);
}
} // namespace

ServerRequestHandler::ServerRequestHandler(RequestServer* server)
    : AbstractRequestHandler("ServerRequestHandler"), server(server),
      callbackRequestHandler(new CallbackRequestHandler(server)) {}

ServerRequestHandler::~ServerRequestHandler() {
    delete callbackRequestHandler;
}

std::shared_ptr<Request> ServerRequestHandler::decodeRequest(XmlRequest& request) const {
    if (auto decoded = callbackRequestHandler->decodeRequest(request))
        return decoded;
    const std::string type = request.getType();
    if (type == "GetStatusRequest")
        return decodeAs<GetStatusRequest>(request);
    if (type == "ShutdownRequest")
        return decodeAs<ShutdownRequest>(request);
    if (type == "DisconnectRequest")
        return decodeAs<DisconnectRequest>(request);
    if (type == "ReconnectRequest")
        return decodeAs<ReconnectRequest>(request);
    return nullptr;
}

bool ServerRequestHandler::canHandle(Request* request) {
    return callbackRequestHandler->canHandle(request) || dynamic_cast<GetStatusRequest*>(request) ||
           dynamic_cast<ShutdownRequest*>(request) || dynamic_cast<DisconnectRequest*>(request) ||
           dynamic_cast<ReconnectRequest*>(request);
}

std::shared_ptr<std::string> ServerRequestHandler::handle(Request* request) {
    if (!request) {
        KS_ERROR("Can't handle NULL request.");
        throw KsExceptionNested("Can't handle NULL request.", "RequestHandling", c_function,
                                __FILE__, __LINE__);
    }
    if (callbackRequestHandler->canHandle(request))
        return callbackRequestHandler->handle(request);
    if (dynamic_cast<GetStatusRequest*>(request))
        return std::make_shared<std::string>(handleGetStatus(*request));
    if (dynamic_cast<ShutdownRequest*>(request)) {
        // Only starts the shutdown, which waits for this task; the reply still goes out.
        server->stop();
        return std::make_shared<std::string>(acknowledge(*request));
    }
    if (dynamic_cast<DisconnectRequest*>(request))
        return std::make_shared<std::string>(acknowledge(*request));
    if (auto* reconnect = dynamic_cast<ReconnectRequest*>(request)) {
        // Only a request that came over a connection says where the replies are to go now.
        RequestPackage* package = request->getRequestPackage();
        if (!package) {
            const std::string text =
                "ReconnectRequest without a connection: nowhere to send the replies of request " +
                reconnect->getOriginalRequestId();
            KS_ERROR(text);
            ReplyEncoder reply("ExceptionReply", *request);
            reply.addKsException(
                KsExceptionNested(text.c_str(), "Requesthandling", c_function, __FILE__, __LINE__));
            return std::make_shared<std::string>(reply.getEncodedReply("   ", "  "));
        }
        int retry = -1;
        server->reconnectRequest(*package, reconnect->getOriginalRequestId(), retry, true);
        return std::make_shared<std::string>(acknowledge(*request));
    }
    KS_ERROR("Unsuported request '" << request->getType() << "'.");
    throw KsExceptionNested("Unsuported request", "Requesthandling", c_function, __FILE__,
                            __LINE__);
}

std::string ServerRequestHandler::handleGetStatus(Request& request) {
    RequestPackage* package = request.getRequestPackage();
    const std::string localIp = package ? package->getLocalIp() : std::string();
    // A server learns its own address from the first status query that reaches it from outside.
    if (!localIp.empty() && localIp != "127.0.0.1" && localIp != server->getIp())
        server->setIp(localIp);

    ReplyEncoder reply("GetStatusReply", request);
    reply.addElement("status", "OK");
    reply.addElement("version", BuildInformation::getGitRevision());
    if (!server->getExecutableName().empty())
        reply.addElement("executableName", server->getExecutableName());
    if (server->getJobId().isValid())
        reply.addText(server->getJobId().toXml("", c_indent));
    reply.addElement("availableTmpStorage", std::to_string(getAvailableTmpSpace()));
    HostInfo requestHost = package ? package->getRemoteHost() : HostInfo();
    reply.addTextLines(requestHost.toXmlString("requestHost", "", c_indent));
    HostInfo replyHost;
    replyHost.setName(server->getHostName());
    replyHost.setIp(localIp);
    replyHost.setRequestServerPort(server->getPort());
    replyHost.setPublisherPort(Publisher::getInstance()->getPort());
    reply.addTextLines(replyHost.toXmlString("replyHost", "", c_indent));
    reply.addElement("timeStamp", std::to_string(ComputingUtility::getTimeStamp()));
    return reply.getEncodedReply(c_indent, c_elementIndent);
}

int64_t ServerRequestHandler::getAvailableTmpSpace() {
    try {
        FileName path = PathConfiguration::getKsPathTmp();
        if (!FileUtilities::exists(path, false)) {
            KS_WARN("Path does not exist: " << path.toString());
            return -1;
        }
        if (!FileUtilities::isDirectory(path))
            path = path.getParentPath();
        return static_cast<int64_t>(FileUtilities::getAvailableSpace(path));
    } catch (const std::exception& e) {
        KS_WARN("FileNameException: " << e.what());
        return -1;
    }
}

} // namespace Kestrane
