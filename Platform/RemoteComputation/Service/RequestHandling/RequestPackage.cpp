#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/AbstractRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/AttachmentBinder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/PackageDocument.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <boost/lexical_cast.hpp>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

[[noreturn]] void fail(const std::string& message, const char* function) {
    throw KsExceptionNested(message.c_str(), "RequestHandling", function, __FILE__, __LINE__);
}
} // namespace

std::shared_ptr<RequestPackage>
RequestPackage::decode(const std::string& text, const AbstractRequestHandler& handler,
                       std::map<std::string, std::shared_ptr<Attachment>>* attachments,
                       const std::string& remoteIp, const std::string& localIp) {
    const char* function = "Kestrane::RequestPackage::decode";
    if (text.empty()) {
        KS_DEBUG("Error decoding request package: requestPackageString is empty.");
        fail("Error decoding request package: requestPackageString is empty.", function);
    }
    try {
        auto document = PackageDocument::parse(text, attachments);
        xercesc::DOMElement* root = document->getRoot();
        return std::make_shared<RequestPackage>(document->release(), root, handler, remoteIp,
                                                localIp);
    } catch (...) {
        KS_DEBUG("Exception while decoding request package.");
        throw;
    }
}

RequestPackage::RequestPackage(xercesc::DOMDocument* domDocument, xercesc::DOMElement* root,
                               const AbstractRequestHandler& handler, const std::string& remoteIp,
                               const std::string& localIp)
    : m_localIp(localIp) {
    const char* function = "Kestrane::RequestPackage::RequestPackage";
    static const PackageDocument::Words c_words{"KS_RequestPackage",
                                                "The root element is not 'KS_RequestPackage'. ",
                                                "The root element is no 'KS_RequestPackage'.",
                                                "request",
                                                "RequestHandling",
                                                "Kestrane::RequestPackage::RequestPackage"};
    PackageDocument document(domDocument);
    xercesc::DOMElement* requestElement = document.checkedMessage(root, c_words);
    {
        XmlRequest xmlRequest(document.release(), requestElement); // owns the document now
        m_request = handler.decodeRequest(xmlRequest);
        if (!m_request)
            fail("No handler can decode a request of type '" + xmlRequest.getType() + "'.",
                 function);
        m_request->setRequestPackage(this);
        m_version = XmlUtils::getAttribute("version", root);
        m_serial = boost::lexical_cast<uint32_t>(XmlUtils::getAttribute("serial", root));
        m_timestamp = XmlUtils::getAttribute("timestamp", root);
        m_clientId = XmlUtils::getAttribute("clientId", root);
        m_requestClientId = XmlUtils::getAttribute("requestClientId", root);
        m_origin = XmlUtils::getAttribute("origin", root);
        m_sendProgressUpdates =
            boost::lexical_cast<bool>(XmlUtils::getAttribute("progressUpdates", root));
        std::string replyExpected = XmlUtils::getAttribute("replyExpected", root);
        if (!replyExpected.empty()) {
            m_replyExpected = boost::lexical_cast<bool>(replyExpected);
            if (m_replyExpected) {
                m_remoteHost.setName(XmlUtils::getAttribute("replyHost", root));
                m_remoteHost.setIp(remoteIp);
                m_remoteHost.setRequestServerPort(
                    boost::lexical_cast<int>(XmlUtils::getAttribute("replyPort", root)));
            }
        }
    }
    KS_TRACE("m_progressUpdates = " << m_sendProgressUpdates);
}

RequestPackage::~RequestPackage() = default;

void RequestPackage::setReplyExpected(bool expected) {
    KS_TRACE("Setting m_replyExpected to " << expected);
    m_replyExpected = expected;
}

} // namespace Kestrane
