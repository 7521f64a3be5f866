#include "Platform/RemoteComputation/Service/RequestHandling/HdfsAttachment.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

namespace {
Kestrane::Logging s_logging(__FILE__);
}

namespace Kestrane {

HdfsAttachment::HdfsAttachment(const std::string& id, unsigned char* data, unsigned long size)
    : BlockAttachment(id, data, size) {
    KS_TRACE("Created HdfsAttachment: id=" << id << ", dataSize=" << getDataSize());
}

} // namespace Kestrane
