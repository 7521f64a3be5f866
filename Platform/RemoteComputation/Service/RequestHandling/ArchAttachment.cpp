#include "Platform/RemoteComputation/Service/RequestHandling/ArchAttachment.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

namespace {
Kestrane::Logging s_logging(__FILE__);
}

namespace Kestrane {

ArchAttachment::ArchAttachment(const std::string& id, unsigned char* data, unsigned long size)
    : BlockAttachment(id, data, size) {
    KS_TRACE("Created ArchAttachment: id=" << id << ", dataSize=" << getDataSize());
}

} // namespace Kestrane
