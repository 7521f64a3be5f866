#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkFileEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XTagger.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <boost/lexical_cast.hpp>

#include <sstream>

namespace Kestrane {

UniqueID RequestEncoder::s_idGenerator;

namespace {
const std::string c_requestStart = "<request ";
const std::string c_idMark = "id=\"";
const std::string c_coreIdMark = "coreId=\"";
const std::string c_typeMark = "<request xsi:type=\"";

// Inserts a new id behind "<request " of a text that has none.
void ensureId(std::string& text, UniqueID& generator) {
    if (text.find(c_idMark) != std::string::npos)
        return;
    size_t start = text.find(c_requestStart);
    if (start != std::string::npos)
        text.insert(start + c_requestStart.size(), "id=\"" + generator.getUniqueID() + "\" ");
}
} // namespace

RequestEncoder::RequestEncoder() = default;

RequestEncoder::RequestEncoder(const std::string& type)
    : m_id(s_idGenerator.getUniqueID()), m_type(type) {
    addAttribute("id", m_id);
}

RequestEncoder::~RequestEncoder() = default;

std::string RequestEncoder::numberText(const int& value) {
    return boost::lexical_cast<std::string>(value);
}
std::string RequestEncoder::numberText(const unsigned int& value) {
    return boost::lexical_cast<std::string>(value);
}
std::string RequestEncoder::numberText(const uint64_t& value) {
    return boost::lexical_cast<std::string>(value);
}
std::string RequestEncoder::numberText(const float& value) {
    return boost::lexical_cast<std::string>(value);
}
std::string RequestEncoder::numberText(const double& value) {
    return boost::lexical_cast<std::string>(value);
}

void RequestEncoder::addAttribute(const std::string& name, const std::string& value) {
    m_attributes.push_back(name + "=\"" + XmlUtils::toXml(value) + "\"");
    m_bodyHash.clear();
}
void RequestEncoder::addAttribute(const std::string& name, const int& value) {
    m_attributes.push_back(name + "=\"" + numberText(value) + "\"");
}
void RequestEncoder::addAttribute(const std::string& name, const unsigned int& value) {
    m_attributes.push_back(name + "=\"" + numberText(value) + "\"");
}
void RequestEncoder::addAttribute(const std::string& name, const float& value) {
    m_attributes.push_back(name + "=\"" + numberText(value) + "\"");
}
void RequestEncoder::addAttribute(const std::string& name, const double& value) {
    m_attributes.push_back(name + "=\"" + numberText(value) + "\"");
}

void RequestEncoder::addElement(const std::string& name, const std::string& value,
                                const std::string& indent) {
    m_elements.push_back(indent + "<" + name + ">" + XmlUtils::toXml(value) + "</" + name + ">");
    m_bodyHash.clear();
}
void RequestEncoder::addElement(const std::string& name, const int& value,
                                const std::string& indent) {
    addElement(name, numberText(value), indent);
}
void RequestEncoder::addElement(const std::string& name, const unsigned int& value,
                                const std::string& indent) {
    addElement(name, numberText(value), indent);
}
void RequestEncoder::addElement(const std::string& name, const float& value,
                                const std::string& indent) {
    addElement(name, numberText(value), indent);
}
void RequestEncoder::addElement(const std::string& name, const double& value,
                                const std::string& indent) {
    addElement(name, numberText(value), indent);
}
void RequestEncoder::addElement(const std::string& name, const uint64_t& value,
                                const std::string& indent) {
    addElement(name, numberText(value), indent);
}
void RequestEncoder::addElement(const std::string& name, const bool& value,
                                const std::string& indent) {
    addElement(name, std::string(value ? "true" : "false"), indent);
}

void RequestEncoder::addAttributedElement(const std::string& name, const std::string& value,
                                          const Attributes& attributes, const std::string& indent) {
    m_elements.push_back(indent +
                         *XTagger::tag(name, XmlUtils::toXml(value), &attributes, 0, false));
    m_bodyHash.clear();
}
void RequestEncoder::addAttributedElement(const std::string& name, const int& value,
                                          const Attributes& attributes, const std::string& indent) {
    addAttributedElement(name, numberText(value), attributes, indent);
}
void RequestEncoder::addAttributedElement(const std::string& name, const unsigned int& value,
                                          const Attributes& attributes, const std::string& indent) {
    addAttributedElement(name, numberText(value), attributes, indent);
}
void RequestEncoder::addAttributedElement(const std::string& name, const float& value,
                                          const Attributes& attributes, const std::string& indent) {
    addAttributedElement(name, numberText(value), attributes, indent);
}
void RequestEncoder::addAttributedElement(const std::string& name, const double& value,
                                          const Attributes& attributes, const std::string& indent) {
    addAttributedElement(name, numberText(value), attributes, indent);
}

void RequestEncoder::addFilePath(const std::string& name, const FileName& file, bool forceTransfer,
                                 const std::string& indent) {
    m_elements.push_back(indent + *XLinkFileEncoder::encode(name, file, true, forceTransfer));
    m_bodyHash.clear();
}

void RequestEncoder::addText(const std::string& text, const std::string& indent, bool perLine) {
    if (!perLine) {
        m_elements.push_back(indent + text);
    } else {
        std::istringstream lines(text);
        std::string line, entry;
        while (std::getline(lines, line))
            entry += indent + line + "\n";
        m_elements.push_back(entry);
    }
    m_bodyHash.clear();
}

std::string RequestEncoder::encode(size_t firstAttribute, bool withCoreId) const {
    if (m_type.empty())
        return std::string();
    std::string text = c_typeMark + m_type + "\"";
    for (size_t i = firstAttribute; i < m_attributes.size(); ++i) {
        if (!withCoreId && m_attributes[i].find("coreId") != std::string::npos)
            continue;
        text += " " + m_attributes[i];
    }
    if (m_elements.empty())
        return text + "/>";
    text += ">\n";
    for (const auto& element : m_elements)
        text += element + "\n";
    return text + "</request>";
}

std::string RequestEncoder::getEncodedRequest() const {
    std::string text = encode(0, true);
    if (!text.empty())
        ensureId(text, s_idGenerator);
    return text;
}

std::string RequestEncoder::getEncodedUndecoratedRequest() const {
    return encode(1, false);
}

const std::string& RequestEncoder::getBodyHash() const {
    if (m_bodyHash.empty())
        m_bodyHash = getBodyHash(getEncodedRequest());
    return m_bodyHash;
}

std::string RequestEncoder::getBodyHash(const std::string& text) {
    if (text.empty())
        return std::string();
    std::string copy = XmlUtils::fromXml(text);
    static const std::pair<const char*, const char*> c_replacements[] = {
        {"\n", ""},    {"\r", ""},     {"\t", ""},   {"    ", " "}, {"   ", " "},
        {"  ", " "},   {" <", "<"},    {"< ", "<"},  {" >", ">"},   {"> ", ">"},
        {"< /", "</"}, {"< / ", "</"}, {"</ ", "</"}};
    for (const auto& replacement : c_replacements)
        XmlUtils::replaceAll(copy, replacement.first, replacement.second);
    size_t end = copy.find("</request>");
    if (end == std::string::npos)
        return std::string();
    size_t start = copy.find('>');
    if (start == std::string::npos || start >= end)
        return std::string();
    std::string body = copy.substr(start + 1, end - start - 1);
    return body.empty() ? std::string() : TigerHash::tHash(body);
}

std::string RequestEncoder::getRequestId(const std::string& text) {
    size_t pos = text.find(c_idMark);
    if (pos == std::string::npos || text.size() <= pos + 54 || text[pos + 54] != '"')
        return std::string();
    return text.substr(pos + 4, 50);
}

std::string RequestEncoder::getRequestType(const std::string& text) {
    // Without the marker the failed search's position wraps around to offset 18.
    size_t start = text.find(c_typeMark) + c_typeMark.size();
    size_t end = text.find('"', start);
    return text.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

void RequestEncoder::setCoreId(std::string& text, const std::string& coreId) {
    ensureId(text, s_idGenerator);
    size_t core = text.find(c_coreIdMark);
    if (core != std::string::npos) {
        text.replace(core + c_coreIdMark.size(), 50, coreId);
        return;
    }
    if (coreId.empty())
        return;
    size_t id = text.find(c_idMark);
    if (id != std::string::npos && id + 55 <= text.size())
        text.insert(id + 55, " coreId=\"" + coreId + "\"");
}

std::string RequestEncoder::getDecoratedRequest(std::string& text, const std::string& coreId) {
    std::string copy = text;
    setCoreId(copy, coreId);
    return copy;
}

ResultRequestEncoder::ResultRequestEncoder(const std::string& type, const std::string& postVar,
                                           int procStep, int layer, const char* aux,
                                           const char* text)
    : RequestEncoder(type) {
    if (text && *text)
        addText(text, "   ", false);
    addAttribute("postVar", postVar);
    addAttribute("procStep", numberText(procStep));
    addAttribute("layer", numberText(layer));
    if (aux && *aux)
        addElement("aux", std::string(aux), "   ");
}

} // namespace Kestrane
