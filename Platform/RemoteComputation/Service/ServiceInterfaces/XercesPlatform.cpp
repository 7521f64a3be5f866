#include "Platform/RemoteComputation/Service/ServiceInterfaces/XercesPlatform.h"

#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/TransService.hpp>

#include <cstring>
#include <memory>
#include <mutex>

namespace Kestrane {

void XercesPlatform::ensureInitialized() {
    static std::once_flag once;
    std::call_once(once, [] { xercesc::XMLPlatformUtils::Initialize(); });
}

XercesString::XercesString(const std::string& text) : XercesString(text.c_str()) {}

XercesString::XercesString(const char* text) {
    XercesPlatform::ensureInitialized();
    xercesc::TranscodeFromStr utf16(reinterpret_cast<const XMLByte*>(text), std::strlen(text),
                                    "UTF-8");
    m_text = xercesc::XMLString::replicate(utf16.str());
}

XercesString::~XercesString() {
    xercesc::XMLString::release(&m_text);
}

std::string toUtf8(const XMLCh* text) {
    if (!text)
        return std::string();
    XercesPlatform::ensureInitialized();
    xercesc::TranscodeToStr utf8(text, "UTF-8");
    return std::string(reinterpret_cast<const char*>(utf8.str()), utf8.length());
}

} // namespace Kestrane
