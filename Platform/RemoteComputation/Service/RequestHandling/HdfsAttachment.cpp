#include "Platform/RemoteComputation/Service/RequestHandling/HdfsAttachment.h"

#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

namespace {
Kestrane::Logging s_logging(__FILE__);
}

namespace Kestrane {

HdfsAttachment::HdfsAttachment(const std::string& id, unsigned char* data, unsigned long size)
    : Attachment(id), m_data(data), m_dataSize(static_cast<uint32_t>(size)) {
    KS_TRACE("Created HdfsAttachment: id=" << id << ", dataSize=" << m_dataSize);
}

std::string HdfsAttachment::getAddressString(bool withHash) const {
    return XLinkUtils::getAddressString(m_data, withHash);
}

} // namespace Kestrane
