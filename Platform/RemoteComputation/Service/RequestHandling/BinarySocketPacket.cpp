#include "Platform/RemoteComputation/Service/RequestHandling/BinarySocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <cstdint>
#include <cstdlib>
#include <new>
#include <sstream>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
}

BinarySocketPacket::BinarySocketPacket(char* data, unsigned long size, bool cachePacket)
    : AbstractSocketPacket(cachePacket), m_size(size), m_data(data) {}

bool BinarySocketPacket::send(Computing::Socket& socket, const std::string& label) {
    return send(m_data, m_size, socket, label);
}

std::string BinarySocketPacket::describe(const std::string& kind) const {
    std::ostringstream text;
    text << kind << " dataSize=" << m_size << ", data=0x" << std::hex
         << reinterpret_cast<uintptr_t>(m_data);
    return text.str();
}

std::string BinarySocketPacket::toString() {
    return describe("BINARY");
}

std::shared_ptr<BinarySocketPacket> BinarySocketPacket::receive(unsigned long size,
                                                                Computing::Socket& socket,
                                                                const std::string& label) {
    char* data = static_cast<char*>(std::malloc(size == 0 ? 1 : size));
    if (!data)
        throw std::bad_alloc();
    socket.receiveDataBlock(data, size);
    auto packet = std::make_shared<BinarySocketPacket>(data, size, true);
    KS_TRACE("RECV " << label << " - BINARY dataSize=" << size);
    return packet;
}

bool BinarySocketPacket::send(char* data, unsigned long size, Computing::Socket& socket,
                              const std::string& label) {
    KS_TRACE("SEND " << label << " - BINARY size = " << size);
    socket.sendDataBlock(data, size);
    return true;
}

} // namespace Kestrane
