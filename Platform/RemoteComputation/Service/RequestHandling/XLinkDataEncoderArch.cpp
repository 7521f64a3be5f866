#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoderArch.h"

#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoder.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LargeBlockCache.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace Kestrane {

std::shared_ptr<std::string>
XLinkDataEncoderArch::encode(const std::string& name,
                             std::shared_ptr<std::vector<unsigned char>> data) {
    unsigned char* block = nullptr;
    uint64_t size = 0;
    if (data && !data->empty()) {
        size = data->size();
        block = static_cast<unsigned char*>(LargeBlockCache::allocate(data->size()));
        if (!block)
            throw std::bad_alloc();
        std::memcpy(block, data->data(), data->size());
    }
    return XLinkDataEncoder::encode<unsigned char>(
        name, XLinkTypeNames::dataTypeOf<unsigned char>(), block, size, true, XLinkProtocol::arch,
        nullptr, false);
}

} // namespace Kestrane
