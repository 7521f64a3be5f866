#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/BlockAttachment.h"

#include <string>

namespace Kestrane {

// A memory block holding a hierarchical data file, beside a message. Ownership as for every block
// attachment.
class HdfsAttachment : public BlockAttachment {
public:
    HdfsAttachment(const std::string& id, unsigned char* data, unsigned long size);
};

} // namespace Kestrane
