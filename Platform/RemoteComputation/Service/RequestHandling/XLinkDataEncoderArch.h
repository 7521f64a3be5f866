#pragma once

#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

// Writes an arch link for an archiver's bytes. The bytes are copied into a block from malloc,
// which the receiver of the link frees (KSData::getArchiverBufferPtr, or the sender after the
// send). A null or empty vector gives an invalid element and no block.
class XLinkDataEncoderArch {
public:
    XLinkDataEncoderArch() = delete;

    static std::shared_ptr<std::string> encode(const std::string& name,
                                               std::shared_ptr<std::vector<unsigned char>> data);
};

} // namespace Kestrane
