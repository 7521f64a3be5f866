#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/Attachment.h"

#include <cstdint>
#include <string>

namespace Kestrane {

// An archiver's byte buffer beside a message. The block is not owned: whoever
// made the link frees it.
class ArchAttachment : public Attachment {
public:
    ArchAttachment(const std::string& id, unsigned char* data, unsigned long size);

    unsigned char* getData() const { return m_data; }
    uint32_t getDataSize() const { return m_dataSize; }
    // XLinkUtils::getAddressString of the block.
    std::string getAddressString(bool withHash) const;

private:
    unsigned char* m_data;
    uint32_t m_dataSize;
};

} // namespace Kestrane
