#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/Attachment.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LargeBlockCache.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

namespace Kestrane {

// A memory block beside a message (an hdfs memory file or an archiver's buffer). A block named by
// a link is its maker's: the attachment only points at it. A block the library made itself (a
// conversion of a dha link, a block read from a connection) is adopted, and then freed with the
// attachment unless it was handed on to a reader first. So a block that nobody takes is freed,
// and a host program's own block is never freed behind its back.
class BlockAttachment : public Attachment {
public:
    unsigned char* getData() const { return m_data; }
    uint32_t getDataSize() const { return m_dataSize; }
    // XLinkUtils::getAddressString of the block.
    std::string getAddressString(bool withHash) const;

    // The attachment frees the block when it dies (the library made it).
    void adoptBlock();
    // The block goes to whoever now holds its link; the attachment no longer frees it.
    void releaseBlock();
    // Frees the block now, whoever made it (a road that consumes the data), and forgets it.
    void freeBlock();
    bool ownsBlock() const { return m_owned != nullptr; }

protected:
    BlockAttachment(const std::string& id, unsigned char* data, unsigned long size);

private:
    struct Free {
        void operator()(unsigned char* block) const { LargeBlockCache::release(block); }
    };

    unsigned char* m_data;
    uint32_t m_dataSize;
    std::unique_ptr<unsigned char, Free> m_owned;
};

} // namespace Kestrane
