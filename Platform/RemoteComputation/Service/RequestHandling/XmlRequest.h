#pragma once

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>

#include <string>

namespace Kestrane {

// A parsed `request` element, which a handler turns into its own Request class. It owns its
// document; a copy shares the pointers and owns nothing, so the original must outlive it.
class XmlRequest {
public:
    // Parses the text (validating it); with `wrap` the text is a bare request element.
    XmlRequest(const std::string& text, bool wrap);
    // Takes both over; the source string stays empty.
    XmlRequest(xercesc::DOMDocument* document, xercesc::DOMElement* request);
    // A copy shares the pointers and never releases the document.
    XmlRequest(const XmlRequest& other);
    XmlRequest& operator=(const XmlRequest& other);
    ~XmlRequest();

    std::string getId() const;
    std::string getType() const;
    xercesc::DOMElement* getRootElement() const { return m_request; }
    const std::string& getSourceString() const { return m_sourceString; }

    // The document that holds a bare request element for parsing.
    static std::string wrap(const std::string& requestText);

private:
    std::string m_sourceString;
    xercesc::DOMDocument* m_document = nullptr;
    xercesc::DOMElement* m_request = nullptr;
    bool m_ownsDocument = true;
};

} // namespace Kestrane
