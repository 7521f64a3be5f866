#include "Platform/RemoteComputation/Service/RequestHandling/BinarySocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LargeBlockCache.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/MemoryAdvice.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <sstream>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

// Grows `data`, which holds `done` bytes, by `chunk` bytes made present for the receive; frees it
// and throws when there is no memory.
char* grow(char* data, unsigned long done, unsigned long chunk) {
    char* grown = static_cast<char*>(std::realloc(data, done + chunk));
    if (!grown) {
        std::free(data);
        throw std::bad_alloc();
    }
    populateForWrite(grown + done, chunk);
    return grown;
}
} // namespace

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
    // The block grows with what arrives: a size that a peer only claims (up to 4 GB in a
    // 60-byte command) must not reserve memory, and a block that never comes whole must not stay
    // behind as an attachment of uninitialised bytes. A kept block that fits reserves nothing
    // new, so it takes the whole.
    constexpr unsigned long c_step = 1 << 20;
    char* data = static_cast<char*>(LargeBlockCache::take(size));
    const bool kept = data != nullptr;
    if (!kept)
        data = static_cast<char*>(std::malloc(1));
    if (!data)
        throw std::bad_alloc();
    unsigned long done = 0;
    while (done < size) {
        const unsigned long chunk = kept ? size : std::min(size - done, std::max(c_step, done));
        if (!kept)
            data = grow(data, done, chunk);
        if (!socket.receiveDataBlock(data + done, chunk)) {
            LargeBlockCache::release(data);
            throw Computing::Error(
                "receive of a block of " + std::to_string(size) + " bytes from " + label,
                "the connection ended after fewer than " + std::to_string(done + chunk) + " bytes");
        }
        done += chunk;
    }
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
