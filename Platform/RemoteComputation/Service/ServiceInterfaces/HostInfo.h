#pragma once

#include <xercesc/dom/DOMElement.hpp>

#include <string>

namespace Kestrane {

// Where a process can be reached: host name, address, and the ports of its request server and
// publisher. A port of -1 (or any value below 1) means none.
class HostInfo {
public:
    HostInfo() = default;
    // The first text goes through setIpOrName; the second, when not empty, is the host name.
    HostInfo(const std::string& ipOrName, const std::string& name);
    // Reads an element of the schema type HostInfo, as toXmlString writes it. A null element
    // gives an empty object.
    explicit HostInfo(const xercesc::DOMElement* element);

    const std::string& getName() const { return m_name; }
    void setName(const std::string& name) { m_name = name; }
    const std::string& getIp() const { return m_ip; }
    void setIp(const std::string& ip) { m_ip = ip; }

    // The address when one is known, else the name.
    const std::string& getIpOrName() const;
    // A numeric IPv4 or IPv6 address is stored as the address, anything else as the name.
    void setIpOrName(const std::string& ipOrName);
    bool hasNameOrIp() const { return !m_name.empty() || !m_ip.empty(); }

    int getRequestServerPort() const { return m_requestServerPort; }
    void setRequestServerPort(int port) { m_requestServerPort = port; }
    bool hasRequestServerPort() const { return m_requestServerPort > 0; }

    int getPublisherPort() const { return m_publisherPort; }
    void setPublisherPort(int port) { m_publisherPort = port; }
    bool hasPublisherPort() const { return m_publisherPort > 0; }

    void clear();

    // One line for log messages.
    std::string toString() const;
    // The element `name` with one child per field that is set, each on a line of its own:
    //   {indent}<name>
    //   {indent}{indentStep}<ip>...</ip>
    //   {indent}</name>
    // Every line ends with a line feed.
    std::string toXmlString(const std::string& name, const std::string& indent,
                            const std::string& indentStep) const;

    static bool isNumericAddress(const std::string& text);

private:
    std::string m_name;
    std::string m_ip;
    int m_requestServerPort = -1;
    int m_publisherPort = -1;
};

} // namespace Kestrane
