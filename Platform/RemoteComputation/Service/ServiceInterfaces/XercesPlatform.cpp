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

// Names and most values in our messages are ASCII, where UTF-8 and UTF-16 have the same code
// points: those are widened or narrowed in place instead of going through a transcoder made by
// name for each string. Anything else goes to Xerces.
XercesString::XercesString(const char* text) {
    XercesPlatform::ensureInitialized();
    const size_t length = std::strlen(text);
    m_text = static_cast<XMLCh*>(
        xercesc::XMLPlatformUtils::fgMemoryManager->allocate((length + 1) * sizeof(XMLCh)));
    for (size_t i = 0; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte >= 0x80) {
            xercesc::XMLString::release(&m_text);
            xercesc::TranscodeFromStr utf16(reinterpret_cast<const XMLByte*>(text), length,
                                            "UTF-8");
            m_text = xercesc::XMLString::replicate(utf16.str());
            return;
        }
        m_text[i] = static_cast<XMLCh>(byte);
    }
    m_text[length] = 0;
}

XercesString::~XercesString() {
    xercesc::XMLString::release(&m_text);
}

std::string toUtf8(const XMLCh* text) {
    if (!text)
        return std::string();
    const XMLSize_t length = xercesc::XMLString::stringLen(text);
    std::string narrow(length, '\0');
    for (XMLSize_t i = 0; i < length; ++i) {
        if (text[i] >= 0x80) {
            XercesPlatform::ensureInitialized();
            xercesc::TranscodeToStr utf8(text, length, "UTF-8");
            return std::string(reinterpret_cast<const char*>(utf8.str()), utf8.length());
        }
        narrow[i] = static_cast<char>(text[i]);
    }
    return narrow;
}

} // namespace Kestrane
