#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <boost/lexical_cast.hpp>

#include <cstdlib>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

int portOf(const std::string& text) {
    // Rubbish reads as 0, as strtol does.
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}
} // namespace

CallbackRequest::CallbackRequest(const xercesc::DOMElement* element)
    : Request(element), callbackId(XmlUtils::getElementContent("callbackId", element)) {
    if (auto* error = XmlUtils::getElement("errorMessage", element)) {
        errorMessage = XmlUtils::getContent(error);
        return;
    }
    port = boost::lexical_cast<unsigned int>(XmlUtils::getElementContent("port", element));
    host = XmlUtils::getElementContent("host", element);
}

CallbackRequest::~CallbackRequest() = default;

bool CallbackRequest::sendCallbackRequest(const std::string& callback,
                                          const std::string& errorMessage) {
    size_t first = callback.find(':');
    if (first == std::string::npos) {
        KS_WARN("Invalid callback string (first ':' not found): \"" << callback << "\"");
        return false;
    }
    size_t second = callback.find(':', first + 1);
    if (second == std::string::npos) {
        KS_WARN("Invalid callback string (second ':' not found): \"" << callback << "\"");
        return false;
    }
    size_t third = callback.find(':', second + 1);
    RequestServer* server = RequestServer::getInstance(-1, 0);
    HostInfo hostInfo;
    std::string id;
    hostInfo.setName(callback.substr(0, first));
    if (third != std::string::npos) {
        hostInfo.setIp(callback.substr(first + 1, second - first - 1));
        hostInfo.setRequestServerPort(portOf(callback.substr(second + 1, third - second - 1)));
        id = callback.substr(third + 1);
        // The address by which the waiter is reached tells which of ours to announce.
        if (server)
            server->setIp(hostInfo.getIp());
    } else {
        hostInfo.setRequestServerPort(portOf(callback.substr(first + 1, second - first - 1)));
        id = callback.substr(second + 1);
    }
    KS_DEBUG("Callback string: \"" << callback << "\"");
    const std::string target = hostInfo.toString();
    try {
        RequestEncoder encoder("CallbackRequest");
        encoder.addElement("callbackId", id, "");
        if (!errorMessage.empty()) {
            encoder.addElement("errorMessage", errorMessage, "");
            TcpRequestClient client("CallbackTo", hostInfo);
            client.sendRequest(encoder.getEncodedRequest(), nullptr, false, "", nullptr);
            return false;
        }
        if (!server)
            throw KsExceptionNested("No RequestServer in this process", "RequestHandling",
                                    "Kestrane::CallbackRequest::sendCallbackRequest", __FILE__,
                                    __LINE__);
        const std::string ownName = server->getHostName();
        const unsigned int ownPort = server->getPort();
        encoder.addElement("host", ownName, "");
        encoder.addElement("port", ownPort, "");
        TcpRequestClient client("CallbackTo", hostInfo);
        auto reply = client.handleRequest(encoder, nullptr, "");
        if (!reply) {
            KS_ERROR("Invalid reply received for CallbackRequest to " << target << " with id '"
                                                                      << id << "'.");
            return false;
        }
        if (reply->getType() != "AckReply") {
            KS_ERROR("Unexpected reply type received for CallbackRequest to "
                     << target << " with id '" << id << "': " << reply->getType());
            return false;
        }
        const std::string status = reply->getElement("status");
        if (status != "OK") {
            KS_ERROR("Unexpected reply status received for CallbackRequest to "
                     << target << " with id '" << id << "': " << status);
            return false;
        }
        KS_INFO("Callback sent to " << target << " (id=" << id << ", local=" << ownName << ":"
                                    << ownPort << ").");
        return true;
    } catch (const KsExceptionNested& e) {
        KS_ERROR("Exception while sending CallbackRequest to " << target << " with id '" << id
                                                               << "': " << e.what());
    } catch (const std::exception& e) {
        KS_ERROR("Exception while sending CallbackRequest to " << target << " with id '" << id
                                                               << "': " << e.what());
    } catch (...) {
        KS_ERROR("Exception while sending CallbackRequest to " << target << " with id '" << id
                                                               << "'. RequestServer not running?");
    }
    return false;
}

bool CallbackRequest::forwardCallback(const std::string& callback, const std::string& host,
                                      unsigned int port) {
    const std::string where = host + ":" + std::to_string(port) + " (" + callback + ").";
    KS_INFO("Forwarding callback to " << where);
    const std::string label = host + std::to_string(port);
    try {
        Computing::ClientSocket socket;
        socket.connect(host, static_cast<int>(port));
        SocketPacket::send("C", "FORWARD_CALLBACK " + callback, socket, label);
        auto answer = SocketPacket::receive(socket, label);
        SocketPacket::send("C", "CLOSE_CONNECTION", socket, label);
        socket.closeAfterPeer();
        if (answer && answer->getType() == "C" && *answer->getData() == "OK")
            return true;
        KS_WARN("Error forwarding callback to " << where);
    } catch (...) {
        KS_WARN("Exception forwarding callback to " << where);
    }
    return false;
}

} // namespace Kestrane
