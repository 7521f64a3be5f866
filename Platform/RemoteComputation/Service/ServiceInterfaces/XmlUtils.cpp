#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XercesPlatform.h"

#include <xercesc/dom/DOMAttr.hpp>
#include <xercesc/dom/DOMNode.hpp>

#include <cctype>
#include <cstdint>
#include <cstring>

namespace Kestrane {

namespace {

const char* const c_xsiPrefix = "xsi:";
const char* const c_xsiNamespace = "http://www.w3.org/2001/XMLSchema-instance";

// Local name of an element; documents built without namespaces only have a node name.
const XMLCh* localNameOf(const xercesc::DOMNode* node) {
    const XMLCh* name = node->getLocalName();
    return name ? name : node->getNodeName();
}

bool isXsiName(const std::string& name) {
    return name.compare(0, std::strlen(c_xsiPrefix), c_xsiPrefix) == 0;
}

const XMLCh* attributeValue(const std::string& name, const xercesc::DOMElement* element) {
    if (!element)
        return nullptr;
    XercesString qualified(name);
    const xercesc::DOMAttr* attribute = element->getAttributeNode(qualified);
    if (!attribute && isXsiName(name)) {
        XercesString uri(c_xsiNamespace);
        XercesString local(name.substr(std::strlen(c_xsiPrefix)));
        attribute = element->getAttributeNodeNS(uri, local);
    }
    return attribute ? attribute->getValue() : nullptr;
}

void appendUtf8(std::string& out, uint32_t codePoint) {
    if (codePoint < 0x80) {
        out += static_cast<char>(codePoint);
    } else if (codePoint < 0x800) {
        out += static_cast<char>(0xC0 | (codePoint >> 6));
        out += static_cast<char>(0x80 | (codePoint & 0x3F));
    } else if (codePoint < 0x10000) {
        out += static_cast<char>(0xE0 | (codePoint >> 12));
        out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (codePoint & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (codePoint >> 18));
        out += static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (codePoint & 0x3F));
    }
}

// Reads "#65" or "#x41" (the text between '&' and ';'); false for anything that is not a
// character XML allows.
bool parseCharacterReference(const std::string& reference, uint32_t& codePoint) {
    if (reference.size() < 2 || reference[0] != '#')
        return false;
    bool hex = reference[1] == 'x' || reference[1] == 'X';
    size_t start = hex ? 2 : 1;
    if (start >= reference.size() || reference.size() - start > 8)
        return false;
    uint32_t value = 0;
    for (size_t i = start; i < reference.size(); ++i) {
        char c = reference[i];
        uint32_t digit;
        if (c >= '0' && c <= '9')
            digit = static_cast<uint32_t>(c - '0');
        else if (hex && c >= 'a' && c <= 'f')
            digit = static_cast<uint32_t>(c - 'a' + 10);
        else if (hex && c >= 'A' && c <= 'F')
            digit = static_cast<uint32_t>(c - 'A' + 10);
        else
            return false;
        value = value * (hex ? 16 : 10) + digit;
    }
    if (value == 0 || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
        return false;
    codePoint = value;
    return true;
}

} // namespace

std::string XmlUtils::getAttribute(const std::string& name, const xercesc::DOMElement* element) {
    return transcode(attributeValue(name, element));
}

bool XmlUtils::hasAttribute(const std::string& name, const xercesc::DOMElement* element) {
    return attributeValue(name, element) != nullptr;
}

void XmlUtils::setAttribute(const std::string& name, const std::string& value,
                            xercesc::DOMElement* element) {
    if (!element)
        return;
    element->setAttribute(XercesString(name), XercesString(value));
}

xercesc::DOMElement* XmlUtils::getElement(const std::string& name,
                                          const xercesc::DOMElement* parent) {
    if (!parent)
        return nullptr;
    XercesString wanted(name);
    for (xercesc::DOMElement* child = parent->getFirstElementChild(); child;
         child = child->getNextElementSibling()) {
        if (xercesc::XMLString::equals(localNameOf(child), wanted))
            return child;
    }
    return nullptr;
}

std::vector<xercesc::DOMElement*> XmlUtils::getElements(const std::string& name,
                                                        const xercesc::DOMElement* parent) {
    std::vector<xercesc::DOMElement*> result;
    if (!parent)
        return result;
    XercesString wanted(name);
    for (xercesc::DOMElement* child = parent->getFirstElementChild(); child;
         child = child->getNextElementSibling()) {
        if (xercesc::XMLString::equals(localNameOf(child), wanted))
            result.push_back(child);
    }
    return result;
}

std::string XmlUtils::getContent(const xercesc::DOMElement* element) {
    if (!element)
        return std::string();
    return transcode(element->getTextContent());
}

std::string XmlUtils::getElementContent(const std::string& name,
                                        const xercesc::DOMElement* parent) {
    return getContent(getElement(name, parent));
}

bool XmlUtils::getContentAsBool(const xercesc::DOMElement* element) {
    return toBool(getContent(element));
}

bool XmlUtils::toBool(const std::string& text) {
    const char* blanks = " \t\r\n";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos)
        return false;
    size_t last = text.find_last_not_of(blanks);
    std::string word = text.substr(first, last - first + 1);
    for (char& c : word)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return word == "true" || word == "1";
}

std::string XmlUtils::toXml(const std::string& text) {
    std::string result;
    result.reserve(text.size());
    for (char c : text) {
        switch (c) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '"':
            result += "&quot;";
            break;
        case '\'':
            result += "&apos;";
            break;
        default:
            result += c;
        }
    }
    return result;
}

std::string XmlUtils::fromXml(const std::string& text) {
    // One pass from left to right, so that "&amp;lt;" becomes "&lt;" and not "<".
    std::string result;
    result.reserve(text.size());
    size_t pos = 0;
    while (pos < text.size()) {
        size_t amp = text.find('&', pos);
        if (amp == std::string::npos) {
            result.append(text, pos, std::string::npos);
            break;
        }
        result.append(text, pos, amp - pos);
        size_t semicolon = text.find(';', amp + 1);
        // Longest reference is "&#x10FFFF;"; a farther ';' belongs to something else.
        if (semicolon == std::string::npos || semicolon - amp > 10) {
            result += '&';
            pos = amp + 1;
            continue;
        }
        std::string reference = text.substr(amp + 1, semicolon - amp - 1);
        uint32_t codePoint = 0;
        if (reference == "amp")
            result += '&';
        else if (reference == "lt")
            result += '<';
        else if (reference == "gt")
            result += '>';
        else if (reference == "quot")
            result += '"';
        else if (reference == "apos")
            result += '\'';
        else if (parseCharacterReference(reference, codePoint))
            appendUtf8(result, codePoint);
        else {
            result += '&';
            pos = amp + 1;
            continue;
        }
        pos = semicolon + 1;
    }
    return result;
}

void XmlUtils::replaceAll(std::string& text, const std::string& from, const std::string& to) {
    if (from.empty())
        return;
    size_t pos = 0;
    while ((pos = text.find(from, pos)) != std::string::npos) {
        text.replace(pos, from.size(), to);
        pos += to.size();
    }
}

std::string XmlUtils::transcode(const XMLCh* text) {
    return toUtf8(text);
}

} // namespace Kestrane
