#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace Kestrane {

class AbstractRequestHandler;
class Attachment;
class Request;
class RequestServer;

// A decoded request package: the request and its envelope. The remote host is where the reply
// must go: the name the client wrote and the address the connection came from.
class RequestPackage {
public:
    // Parses and validates the text, binds the attachments that arrived beside it (claimed
    // entries leave the map; a null map binds nothing) and decodes the request through the
    // handler. Throws KsExceptionNested, or boost::bad_lexical_cast for a bad number or flag.
    static std::shared_ptr<RequestPackage>
    decode(const std::string& text, const AbstractRequestHandler& handler,
           std::map<std::string, std::shared_ptr<Attachment>>* attachments,
           const std::string& remoteIp, const std::string& localIp);

    // Takes the document over; it is released before the constructor returns.
    RequestPackage(xercesc::DOMDocument* document, xercesc::DOMElement* root,
                   const AbstractRequestHandler& handler, const std::string& remoteIp,
                   const std::string& localIp);
    RequestPackage(const RequestPackage&) = default;
    RequestPackage& operator=(const RequestPackage&) = default;
    virtual ~RequestPackage();

    std::shared_ptr<Request> getRequest() const { return m_request; }
    const std::string& getVersion() const { return m_version; }
    uint32_t getSerial() const { return m_serial; }
    const std::string& getTimestamp() const { return m_timestamp; }
    const std::string& getClientId() const { return m_clientId; }
    const std::string& getRequestClientId() const { return m_requestClientId; }
    const std::string& getOrigin() const { return m_origin; }
    const std::string& getLocalIp() const { return m_localIp; }
    HostInfo getRemoteHost() const { return m_remoteHost; }
    void setRemoteHost(const HostInfo& host) { m_remoteHost = host; }
    RequestServer* getRequestServer() const { return m_requestServer; }
    void setRequestServer(RequestServer* server) { m_requestServer = server; }
    bool getSendProgressUpdates() const { return m_sendProgressUpdates; }
    bool isReplyExpected() const { return m_replyExpected; }
    void setReplyExpected(bool expected);

private:
    std::shared_ptr<Request> m_request;
    std::string m_version;
    uint32_t m_serial = 0;
    std::string m_timestamp;
    std::string m_clientId;
    std::string m_requestClientId;
    std::string m_origin;
    HostInfo m_remoteHost;
    std::string m_localIp;
    bool m_sendProgressUpdates = false;
    bool m_replyExpected = false;
    RequestServer* m_requestServer = nullptr;
};

} // namespace Kestrane
