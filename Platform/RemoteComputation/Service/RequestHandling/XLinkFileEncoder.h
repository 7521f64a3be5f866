#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <memory>
#include <string>

namespace Kestrane {

// Writes file links (href "file:///PATH").
class XLinkFileEncoder {
public:
    XLinkFileEncoder() = delete;

    // dataSize is the file's size, 0 when it does not exist (the link stays valid).
    static std::shared_ptr<std::string> encode(const std::string& name, const FileName& file,
                                               bool nameAsTag, bool forceTransfer);
    // dataSize is the length of the path text when the file exists, not its size; callers of
    // this form rely on that. A missing file gives an invalid element.
    static std::shared_ptr<std::string> encode(const std::string& name, const char* path,
                                               bool nameAsTag);
};

} // namespace Kestrane
