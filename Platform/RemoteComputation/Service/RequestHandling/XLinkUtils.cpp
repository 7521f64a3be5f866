#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"

#include <cstdio>

namespace Kestrane {

std::string XLinkUtils::getAddressString(const void* address, bool withHash) {
    if (!address)
        return std::string();
    char buffer[32];
    std::snprintf(buffer, sizeof(buffer), "%p", address);
    return withHash ? "#" + std::string(buffer) : std::string(buffer);
}

void* XLinkUtils::getAddressFromString(const std::string& text) {
    if (text.empty())
        return nullptr;
    std::string rest = text;
    std::size_t hash = rest.find('#');
    if (hash != std::string::npos)
        rest = rest.substr(hash + 1);
    std::size_t quote = rest.find('"');
    if (quote != std::string::npos)
        rest = rest.substr(0, quote);
    if (rest.empty())
        return nullptr;
    void* address = nullptr;
    if (std::sscanf(rest.c_str(), "%p", &address) != 1)
        return nullptr;
    return address;
}

std::string XLinkUtils::getFilePathUrl(FileName file, bool withScheme) {
    if (file.empty())
        return std::string();
    return withScheme ? "file:///" + file.toString() : file.toString();
}

FileName XLinkUtils::getFilePathFromUrlString(const std::string& text) {
    if (text.empty())
        return FileName();
    static const std::string scheme = "file:///";
    std::size_t start = text.find(scheme);
    start = start == std::string::npos ? 0 : start + scheme.size();
    std::size_t quote = text.find('"', start);
    std::string path =
        text.substr(start, quote == std::string::npos ? std::string::npos : quote - start);
    return path.empty() ? FileName() : FileName(path);
}

void XLinkUtils::wrapChildIntoXLinkElement(std::shared_ptr<std::string> element,
                                           const std::string& content) {
    if (!element)
        return;
    std::string& text = *element;
    std::size_t open = text.find('<');
    if (open == std::string::npos)
        return;
    // The tag ends at the first blank; "<tag/>" without attributes ends it at the slash.
    std::size_t end = text.find_first_of(" \t\r\n/>", open + 1);
    std::string tag =
        text.substr(open + 1, end == std::string::npos ? std::string::npos : end - open - 1);
    if (tag.empty())
        return;
    std::size_t close = text.rfind("/>");
    if (close == std::string::npos || close < open)
        return;
    text.replace(close, 1, ">" + content + "</" + tag);
}

} // namespace Kestrane
