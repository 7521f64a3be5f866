#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/XLinkProtocol.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTypeNames.h"

#include <cstdint>
#include <memory>
#include <string>

namespace Kestrane {

// Writes one data element, the one writer behind all link encoders. The element is
// <TAG id="..." name="..." dataPtrType="..." dataType="..." dataSize="..." href="..."/>, TAG
// being the name with `nameAsTag` (and a name), else "data".
//
// An input that cannot make a link (no data and no path, an arch link of another type than
// "1-byte unsigned char", a file or plain link without path) gives an element whose attributes
// say "invalid", tagged "XLinkData" unless the name is the tag.
class XLinkDataEncoder {
public:
    XLinkDataEncoder() = delete;

    // `data` is the array for dha, hdfs and arch links; `path` the file or plain href for the
    // others. `count` becomes dataSize.
    template <typename T>
    static std::shared_ptr<std::string>
    encode(const std::string& name, const std::string& dataType, const T* data, uint64_t count,
           bool nameAsTag, XLinkProtocol protocol, const char* path, bool forceTransfer) {
        return write(name, dataType, XLinkTypeNames::dataPtrTypeOf<T>(), data, count, nameAsTag,
                     protocol, path, forceTransfer);
    }

private:
    static std::shared_ptr<std::string> write(const std::string& name, const std::string& dataType,
                                              const std::string& dataPtrType, const void* data,
                                              uint64_t count, bool nameAsTag,
                                              XLinkProtocol protocol, const char* path,
                                              bool forceTransfer);
};

} // namespace Kestrane
