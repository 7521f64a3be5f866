#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <arpa/inet.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <sstream>

namespace Kestrane {

namespace {

// Ports come from validated xs:int text; anything unreadable counts as no port.
int readPort(const std::string& text) {
    if (text.empty())
        return -1;
    errno = 0;
    char* end = nullptr;
    long value = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || value < INT_MIN || value > INT_MAX)
        return -1;
    return static_cast<int>(value);
}

void appendChild(std::string& out, const std::string& indent, const std::string& name,
                 const std::string& value) {
    out += indent + "<" + name + ">" + XmlUtils::toXml(value) + "</" + name + ">\n";
}

} // namespace

HostInfo::HostInfo(const std::string& ipOrName, const std::string& name) {
    setIpOrName(ipOrName);
    if (!name.empty())
        m_name = name;
}

HostInfo::HostInfo(const xercesc::DOMElement* element) {
    if (!element)
        return;
    m_name = XmlUtils::getElementContent("name", element);
    m_ip = XmlUtils::getElementContent("ip", element);
    m_requestServerPort = readPort(XmlUtils::getElementContent("requestServerPort", element));
    m_publisherPort = readPort(XmlUtils::getElementContent("publisherPort", element));
}

const std::string& HostInfo::getIpOrName() const {
    return m_ip.empty() ? m_name : m_ip;
}

bool HostInfo::isNumericAddress(const std::string& text) {
    unsigned char buffer[sizeof(struct in6_addr)];
    return inet_pton(AF_INET, text.c_str(), buffer) == 1 ||
           inet_pton(AF_INET6, text.c_str(), buffer) == 1;
}

void HostInfo::setIpOrName(const std::string& ipOrName) {
    if (isNumericAddress(ipOrName))
        m_ip = ipOrName;
    else
        m_name = ipOrName;
}

void HostInfo::clear() {
    m_name.clear();
    m_ip.clear();
    m_requestServerPort = -1;
    m_publisherPort = -1;
}

std::string HostInfo::toString() const {
    std::ostringstream text;
    text << "name='" << m_name << "' ip='" << m_ip << "' requestServerPort=" << m_requestServerPort
         << " publisherPort=" << m_publisherPort;
    return text.str();
}

std::string HostInfo::toXmlString(const std::string& name, const std::string& indent,
                                  const std::string& indentStep) const {
    std::string childIndent = indent + indentStep;
    std::string out = indent + "<" + name + ">\n";
    if (!m_name.empty())
        appendChild(out, childIndent, "name", m_name);
    if (!m_ip.empty())
        appendChild(out, childIndent, "ip", m_ip);
    if (hasRequestServerPort())
        appendChild(out, childIndent, "requestServerPort", std::to_string(m_requestServerPort));
    if (hasPublisherPort())
        appendChild(out, childIndent, "publisherPort", std::to_string(m_publisherPort));
    out += indent + "</" + name + ">\n";
    return out;
}

} // namespace Kestrane
