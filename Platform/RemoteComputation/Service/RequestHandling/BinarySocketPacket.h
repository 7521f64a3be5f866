#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/AbstractSocketPacket.h"

#include <memory>
#include <string>

namespace Kestrane {

// A raw block without framing, following an "HDFS " or "ARCH " command. The block is not owned:
// this class never releases it.
class BinarySocketPacket : public AbstractSocketPacket {
public:
    BinarySocketPacket(char* data, unsigned long size, bool cachePacket);

    bool send(Computing::Socket& socket, const std::string& label) override;
    std::string toString() override;

    char* getData() const { return m_data; }
    unsigned long getSize() const { return m_size; }

    // Reads a block of `size` bytes allocated with malloc; the caller takes it over. Memory grows
    // with the bytes that arrive; a connection that ends before the whole block throws
    // Computing::Error and leaves nothing allocated.
    static std::shared_ptr<BinarySocketPacket>
    receive(unsigned long size, Computing::Socket& socket, const std::string& label);
    static bool send(char* data, unsigned long size, Computing::Socket& socket,
                     const std::string& label);

protected:
    std::string describe(const std::string& kind) const;

    unsigned long m_size;
    char* m_data;
};

} // namespace Kestrane
