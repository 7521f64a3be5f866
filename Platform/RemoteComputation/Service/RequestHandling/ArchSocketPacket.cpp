#include "Platform/RemoteComputation/Service/RequestHandling/ArchSocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LargeBlockCache.h"

#include <cstdlib>

namespace Kestrane {

ArchSocketPacket::ArchSocketPacket(char* data, unsigned long size, bool cachePacket)
    : BinarySocketPacket(data, size, cachePacket) {}

bool ArchSocketPacket::send(Computing::Socket& socket, const std::string& label) {
    bool result = BinarySocketPacket::send(socket, label);
    LargeBlockCache::release(m_data);
    m_data = nullptr; // never released twice
    return result;
}

std::string ArchSocketPacket::toString() {
    return describe("ARCH");
}

} // namespace Kestrane
