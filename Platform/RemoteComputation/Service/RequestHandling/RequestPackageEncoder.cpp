#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/PackageFormat.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

namespace Kestrane {

std::atomic<uint32_t> RequestPackageEncoder::s_nextSerial{0};

const std::string& RequestPackageEncoder::getClientId() {
    static const std::string clientId = UniqueID::generateId();
    return clientId;
}

RequestPackageEncoder::RequestPackageEncoder(const std::string& request,
                                             const std::string& requestClientId,
                                             const std::string& origin)
    : m_request(request), m_origin(origin), m_requestClientId(requestClientId) {}

std::string RequestPackageEncoder::getEncodedRequestPackage() const {
    uint32_t serial = s_nextSerial++;
    std::string text = PackageFormat::opening("KS_RequestPackage");
    text += " version=\"" + PackageFormat::c_version + "\"\n";
    text += " serial=\"" + std::to_string(serial) + "\"\n";
    text += " timestamp=\"" + PackageFormat::timestamp() + "\"\n";
    text += " clientId=\"" + getClientId() + "\"\n";
    text += " requestClientId=\"" + m_requestClientId + "\"\n";
    if (m_replyExpected) {
        RequestServer* server = RequestServer::getInstance(-1, 0);
        if (!server)
            throw KsExceptionNested(("Cannot ask for a reply: this process has no RequestServer. " +
                                     RequestServer::getErrorMessage())
                                        .c_str(),
                                    "RequestHandling",
                                    "Kestrane::RequestPackageEncoder::getEncodedRequestPackage",
                                    __FILE__, __LINE__);
        text += " replyHost=\"" + server->getHostName() + "\"\n";
        text += " replyPort=\"" + std::to_string(server->getPort()) + "\"\n";
    }
    text += " origin=\"" +
            (m_origin.empty() ? std::string("RemoteRequestConnector@127.0.0.1") : m_origin) +
            "\"\n";
    text += std::string(" progressUpdates=\"") + (m_sendProgressUpdates ? "1" : "0") + "\"\n";
    text += std::string(" replyExpected=\"") + (m_replyExpected ? "1" : "0") + "\">\n";
    text += m_request;
    text += "</KS_RequestPackage>\n";
    return text;
}

} // namespace Kestrane
