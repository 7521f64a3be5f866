#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <boost/lexical_cast.hpp>

#include <cstring>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

// Reads single bytes up to, and not including, the next space; stops early when a read fails.
std::string readWord(Computing::Socket& socket) {
    std::string word;
    char c;
    while (socket.receiveDataBlock(&c, 1) && c != ' ')
        word += c;
    return word;
}
} // namespace

SocketPacket::SocketPacket(const std::string& type, const std::string& data, bool cachePacket)
    : AbstractSocketPacket(cachePacket), m_type(type), m_data(std::make_shared<std::string>(data)) {
}

SocketPacket::SocketPacket(const std::string& type, std::shared_ptr<std::string> data,
                           bool cachePacket)
    : AbstractSocketPacket(cachePacket), m_type(type),
      m_data(data ? std::move(data) : std::make_shared<std::string>()) {}

bool SocketPacket::send(Computing::Socket& socket, const std::string& label) {
    return send(m_type, *m_data, socket, label);
}

std::string SocketPacket::toString() {
    return m_type + " " + *m_data;
}

std::string SocketPacket::loggedData(const std::string& data) {
    if (data.size() < c_maxLoggedData)
        return data;
    return data.substr(0, c_maxLoggedData) + "...";
}

uint32_t SocketPacket::parseLength(const std::string& text) {
    // lexical_cast to a 32-bit unsigned takes one sign and wraps a negative value.
    return boost::lexical_cast<uint32_t>(text);
}

bool SocketPacket::send(const std::string& type, const std::string& data, Computing::Socket& socket,
                        const std::string& label) {
    // The payload is a text: a NUL ends it.
    size_t length = std::strlen(data.c_str());
    std::string head = type + " ";
    socket.sendDataBlock(head.data(), head.size(), true);
    std::string lengthText = boost::lexical_cast<std::string>(length) + " ";
    socket.sendDataBlock(lengthText.data(), lengthText.size(), true);
    KS_DEBUG("SEND " << label << " - " << type << " " << loggedData(data));
    socket.sendDataBlock(data.data(), length);
    return true;
}

std::shared_ptr<SocketPacket> SocketPacket::receive(Computing::Socket& socket,
                                                    const std::string& label) {
    std::string type = readWord(socket);
    std::string lengthText = readWord(socket);
    uint32_t length = parseLength(lengthText);
    auto data = std::make_shared<std::string>();
    // The memory grows with what arrives: a lying length costs nothing up front.
    socket.receiveDataBlock(*data, length);
    size_t nul = data->find('\0');
    if (nul != std::string::npos)
        data->resize(nul);
    KS_DEBUG("RECV " << label << " - " << type << " " << loggedData(*data));
    return std::make_shared<SocketPacket>(type, data, true);
}

bool SocketPacket::receiveCloseConnection(Computing::Socket& socket, const std::string& label) {
    KS_TRACE("Waiting for CLOSE_CONNECTION...");
    auto packet = receive(socket, label);
    if (packet->getType() != "C") {
        KS_ERROR("Expecting type C, not" << packet->getType());
        return false;
    }
    if (*packet->getData() != "CLOSE_CONNECTION") {
        KS_ERROR("Expecting CLOSE_CONNECTION, not " << *packet->getData());
        return false;
    }
    return true;
}

} // namespace Kestrane
