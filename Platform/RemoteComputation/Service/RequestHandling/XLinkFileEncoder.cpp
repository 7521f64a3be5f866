#include "Platform/RemoteComputation/Service/RequestHandling/XLinkFileEncoder.h"

#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoder.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"

#include <cstring>

namespace Kestrane {

namespace {

uint64_t sizeOrZero(const FileName& file) {
    try {
        if (!file.empty() && FileUtilities::exists(file))
            return FileUtilities::getFileSize(file);
    } catch (...) {
        // A directory or an unreadable entry has no size to announce.
    }
    return 0;
}

} // namespace

std::shared_ptr<std::string> XLinkFileEncoder::encode(const std::string& name, const FileName& file,
                                                      bool nameAsTag, bool forceTransfer) {
    std::string path = file.toString();
    return XLinkDataEncoder::encode<char>(name, std::string(), nullptr, sizeOrZero(file), nameAsTag,
                                          XLinkProtocol::file, path.c_str(), forceTransfer);
}

std::shared_ptr<std::string> XLinkFileEncoder::encode(const std::string& name, const char* path,
                                                      bool nameAsTag) {
    bool exists = path && *path && FileUtilities::exists(FileName(path));
    return XLinkDataEncoder::encode<char>(name, std::string(), nullptr,
                                          exists ? std::strlen(path) : 0, nameAsTag,
                                          XLinkProtocol::file, exists ? path : nullptr, false);
}

} // namespace Kestrane
