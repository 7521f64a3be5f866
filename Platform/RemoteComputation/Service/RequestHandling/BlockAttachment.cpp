#include "Platform/RemoteComputation/Service/RequestHandling/BlockAttachment.h"

#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"

namespace Kestrane {

BlockAttachment::BlockAttachment(const std::string& id, unsigned char* data, unsigned long size)
    : Attachment(id), m_data(data), m_dataSize(static_cast<uint32_t>(size)) {}

std::string BlockAttachment::getAddressString(bool withHash) const {
    return XLinkUtils::getAddressString(m_data, withHash);
}

void BlockAttachment::adoptBlock() {
    if (!m_owned)
        m_owned.reset(m_data);
}

void BlockAttachment::releaseBlock() {
    m_owned.release();
}

void BlockAttachment::freeBlock() {
    if (m_owned)
        m_owned.reset();
    else
        LargeBlockCache::release(m_data);
    m_data = nullptr;
}

} // namespace Kestrane
