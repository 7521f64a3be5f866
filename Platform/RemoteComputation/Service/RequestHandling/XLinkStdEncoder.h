#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace Kestrane {

// Writes a link whose href the caller has in hand as text (a plain link). A `size` of 0 is
// written as dataSize="unknown".
class XLinkStdEncoder {
public:
    XLinkStdEncoder() = delete;

    static std::shared_ptr<std::string> encode(const std::string& name, const char* value,
                                               uint64_t size, bool nameAsTag);
    static std::shared_ptr<std::string> encode(const std::string& name, const std::string& value,
                                               uint64_t size, bool nameAsTag);
};

} // namespace Kestrane
