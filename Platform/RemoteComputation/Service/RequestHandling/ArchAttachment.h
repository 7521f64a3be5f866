#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/BlockAttachment.h"

#include <string>

namespace Kestrane {

// An archiver's byte buffer beside a message. Ownership as for every block
// attachment.
class ArchAttachment : public BlockAttachment {
public:
    ArchAttachment(const std::string& id, unsigned char* data, unsigned long size);
};

} // namespace Kestrane
