#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/BinarySocketPacket.h"

namespace Kestrane {

// An archive buffer on its way out. Unlike its base it releases the block (with free) as soon as
// it has been sent; a block that was never sent stays with its owner.
class ArchSocketPacket : public BinarySocketPacket {
public:
    ArchSocketPacket(char* data, unsigned long size, bool cachePacket);

    bool send(Computing::Socket& socket, const std::string& label) override;
    std::string toString() override;
};

} // namespace Kestrane
