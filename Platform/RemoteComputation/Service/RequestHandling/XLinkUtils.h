#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <memory>
#include <string>

namespace Kestrane {

// Conversions between addresses, paths and href texts of data links.
class XLinkUtils {
public:
    XLinkUtils() = delete;

    // Empty for null; otherwise the address as %p prints it, "#" in front with `withHash`.
    static std::string getAddressString(const void* address, bool withHash);
    // Null for an empty text. Reads behind the first '#' and in front of the first '"', so that
    // a whole href or an attribute value with its quote will do. Only meaningful in the process
    // that wrote the text.
    static void* getAddressFromString(const std::string& text);
    // Empty for an empty name; otherwise the path, "file:///" in front with `withScheme`.
    static std::string getFilePathUrl(FileName file, bool withScheme);
    // The path behind the first "file:///" (or the whole text without one) up to the next '"'.
    static FileName getFilePathFromUrlString(const std::string& text);
    // Turns the empty element <TAG .../> in `element` into <TAG ...>content</TAG>. A text
    // without a tag stays as it is.
    static void wrapChildIntoXLinkElement(std::shared_ptr<std::string> element,
                                          const std::string& content);
};

} // namespace Kestrane
