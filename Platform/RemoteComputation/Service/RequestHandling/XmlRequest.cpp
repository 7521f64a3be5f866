#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
const char* c_function = "Kestrane::XmlRequest::XmlRequest";
} // namespace

std::string XmlRequest::wrap(const std::string& requestText) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<KS_Request " +
           RequestXmlHelper::getNamespaceDeclarations() + ">\n" + requestText + "</KS_Request>\n";
}

XmlRequest::XmlRequest(const std::string& text, bool wrapText) : m_sourceString(text) {
    if (text.empty()) {
        KS_DEBUG("Error creating XmlRequest: requestString is empty.");
        throw KsExceptionNested("Error creating XmlRequest: requestString is empty.",
                                "RequestHandling", c_function, __FILE__, __LINE__);
    }
    try {
        m_document = RequestXmlHelper::getInstance()->parse(wrapText ? wrap(text) : text);
        xercesc::DOMElement* root = m_document ? m_document->getDocumentElement() : nullptr;
        m_request = root ? XmlUtils::getElement("request", root) : nullptr;
        if (!m_request)
            throw KsExceptionNested("Error creating XmlRequest: request element not found.",
                                    "RequestHandling", c_function, __FILE__, __LINE__);
    } catch (...) {
        KS_DEBUG("Exception while parsing XmlRequest.");
        if (m_document)
            m_document->release();
        m_document = nullptr;
        throw;
    }
}

XmlRequest::XmlRequest(xercesc::DOMDocument* document, xercesc::DOMElement* request)
    : m_document(document), m_request(request) {}

XmlRequest::XmlRequest(const XmlRequest& other)
    : m_sourceString(other.m_sourceString), m_document(other.m_document),
      m_request(other.m_request), m_ownsDocument(false) {}

XmlRequest& XmlRequest::operator=(const XmlRequest& other) {
    if (this != &other) {
        if (m_ownsDocument && m_document && m_document != other.m_document)
            m_document->release();
        m_sourceString = other.m_sourceString;
        m_document = other.m_document;
        m_request = other.m_request;
        m_ownsDocument = false;
    }
    return *this;
}

XmlRequest::~XmlRequest() {
    if (m_ownsDocument && m_document)
        m_document->release();
}

std::string XmlRequest::getId() const {
    return XmlUtils::getAttribute("id", m_request);
}

std::string XmlRequest::getType() const {
    return XmlUtils::getAttribute("xsi:type", m_request);
}

} // namespace Kestrane
