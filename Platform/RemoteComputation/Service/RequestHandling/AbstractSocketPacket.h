#pragma once

#include <string>

namespace Kestrane {

namespace Computing {
class Socket;
}

// One packet on a request-server connection.
class AbstractSocketPacket {
public:
    explicit AbstractSocketPacket(bool cachePacket) : m_cachePacket(cachePacket) {}
    virtual ~AbstractSocketPacket();
    // Puts the packet on the socket; `label` names the other end for the log lines.
    virtual bool send(Computing::Socket& socket, const std::string& label) = 0;
    virtual std::string toString() = 0;

    // Whether the packet may wait in a reply cache when its delivery fails.
    bool cachePacket() const { return m_cachePacket; }

private:
    bool m_cachePacket;
};

} // namespace Kestrane
