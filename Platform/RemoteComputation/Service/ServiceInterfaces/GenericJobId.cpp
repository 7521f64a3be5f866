#include "Platform/RemoteComputation/Service/ServiceInterfaces/GenericJobId.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <algorithm>

namespace Kestrane {

const std::string GenericJobId::c_tag = "-jobId";

GenericJobId::GenericJobId(const std::string& uid, const std::string& name)
    : m_uid(uid), m_name(name) {}

GenericJobId::GenericJobId(const xercesc::DOMElement* element) {
    if (!element)
        return;
    m_uid = XmlUtils::getElementContent("uid", element);
    m_name = XmlUtils::getElementContent("name", element);
}

bool GenericJobId::isValid() const {
    return UniqueID::isValid(m_uid);
}

std::string GenericJobId::toString() const {
    if (!isValid())
        return std::string();
    if (m_name.empty())
        return m_uid;
    std::string name = m_name;
    std::replace(name.begin(), name.end(), ':', '_');
    return m_uid + "." + name;
}

GenericJobId GenericJobId::fromString(std::string& text, std::string& message) {
    // A uid has no '.', so the first one ends it; the name may hold further dots.
    size_t dot = text.find('.');
    std::string uid = text.substr(0, dot);
    std::string name = dot == std::string::npos ? std::string() : text.substr(dot + 1);
    if (!UniqueID::isValid(uid)) {
        message = "Invalid job id '" + text + "': '" + uid + "' is not a unique id.";
        return GenericJobId();
    }
    return GenericJobId(uid, name);
}

std::string GenericJobId::toXml(const std::string& indent, const std::string& indentStep) const {
    if (!isValid())
        return std::string();
    std::string childIndent = indent + indentStep;
    std::string out = indent + "<jobId>\n";
    out += childIndent + "<uid>" + XmlUtils::toXml(m_uid) + "</uid>\n";
    if (!m_name.empty())
        out += childIndent + "<name>" + XmlUtils::toXml(m_name) + "</name>\n";
    out += indent + "</jobId>\n";
    return out;
}

void GenericJobId::toCmd(std::vector<std::string>& args) const {
    if (!isValid())
        return;
    args.push_back(c_tag);
    args.push_back(toString());
}

} // namespace Kestrane
