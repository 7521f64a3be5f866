// The text side of data links: splitting an element into its parts and the href helpers. Only
// parsing: no address read from the text is ever followed.

#include "FuzzSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/XLinkProtocol.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTranscoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <exception>
#include <memory>

using namespace Kestrane;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    KestraneFuzz::quietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input = KestraneFuzz::text(data, size);
    // A NUL splits the input into the element and the content to wrap into it.
    const size_t nul = input.find('\0');
    const std::string element = input.substr(0, nul);
    const std::string content = nul == std::string::npos ? std::string() : input.substr(nul + 1);

    std::string parsed = element;
    XLinkProtocol protocol = XLinkProtocol::plain;
    std::string scheme, href, id, name, dataPtrType, dataType;
    uint64_t dataSize = 0;
    void* address = nullptr;
    FileName file;
    if (XLinkTranscoder::parse(parsed, protocol, scheme, href, id, name, dataPtrType, dataSize,
                               dataType, &address, &file)) {
        // What parse hands back must be a part of the element.
        if (href.empty() || scheme.empty() || href.compare(0, scheme.size(), scheme) != 0)
            __builtin_trap();
    }

    (void)XLinkUtils::getAddressFromString(element);
    FileName path = XLinkUtils::getFilePathFromUrlString(element);
    (void)XLinkUtils::getFilePathUrl(path, true);

    auto wrapped = std::make_shared<std::string>(element);
    XLinkUtils::wrapChildIntoXLinkElement(wrapped, content);
    return 0;
}
