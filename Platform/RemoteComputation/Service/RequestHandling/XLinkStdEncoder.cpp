#include "Platform/RemoteComputation/Service/RequestHandling/XLinkStdEncoder.h"

#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoder.h"

namespace Kestrane {

std::shared_ptr<std::string> XLinkStdEncoder::encode(const std::string& name, const char* value,
                                                     uint64_t size, bool nameAsTag) {
    auto element = XLinkDataEncoder::encode<char>(name, std::string(), nullptr, size, nameAsTag,
                                                  XLinkProtocol::plain, value, false);
    if (size == 0) {
        static const std::string zero = " dataSize=\"0\"";
        std::size_t at = element->find(zero);
        if (at != std::string::npos)
            element->replace(at, zero.size(), " dataSize=\"unknown\"");
    }
    return element;
}

std::shared_ptr<std::string> XLinkStdEncoder::encode(const std::string& name,
                                                     const std::string& value, uint64_t size,
                                                     bool nameAsTag) {
    return encode(name, value.c_str(), size, nameAsTag);
}

} // namespace Kestrane
