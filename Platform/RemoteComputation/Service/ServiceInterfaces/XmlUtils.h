#pragma once

#include <xercesc/dom/DOMElement.hpp>
#include <xercesc/util/XercesDefs.hpp>

#include <string>
#include <vector>

namespace Kestrane {

// Static helpers for reading and writing messages through the Xerces DOM. Element lookups go by
// local name, so that they work the same whether the document binds a default namespace or not.
class XmlUtils {
public:
    // The attribute's value, empty when it is absent. A name with the prefix "xsi:" is looked up
    // in the schema instance namespace, whatever prefix the document binds to it.
    static std::string getAttribute(const std::string& name, const xercesc::DOMElement* element);
    static bool hasAttribute(const std::string& name, const xercesc::DOMElement* element);
    // Sets or replaces the attribute.
    static void setAttribute(const std::string& name, const std::string& value,
                             xercesc::DOMElement* element);

    // First child element of that local name, null when there is none.
    static xercesc::DOMElement* getElement(const std::string& name,
                                           const xercesc::DOMElement* parent);
    // All child elements of that local name, in document order.
    static std::vector<xercesc::DOMElement*> getElements(const std::string& name,
                                                         const xercesc::DOMElement* parent);

    // The element's text (all descendant text); empty for a null element.
    static std::string getContent(const xercesc::DOMElement* element);
    // The text of the first child of that name; empty when there is none.
    static std::string getElementContent(const std::string& name,
                                         const xercesc::DOMElement* parent);
    static bool getContentAsBool(const xercesc::DOMElement* element);

    // "true" and "1" in any case, surrounding blanks and line breaks ignored, are true;
    // everything else is false.
    static bool toBool(const std::string& text);

    // Escapes & < > " ' for element content and attribute values.
    static std::string toXml(const std::string& text);
    // Inverse of toXml; also resolves numeric character references (&#65; &#x41;) to UTF-8.
    // Unknown or malformed references stay as they are.
    static std::string fromXml(const std::string& text);

    // Replaces every occurrence in place. The search goes on behind each replacement, so that
    // a replacement is never searched again. An empty `from` changes nothing.
    static void replaceAll(std::string& text, const std::string& from, const std::string& to);

    // UTF-16 text of Xerces to UTF-8; empty for null.
    static std::string transcode(const XMLCh* text);
};

} // namespace Kestrane
