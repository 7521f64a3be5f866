// RequestPackage::decode on arbitrary text, through the handler chain of a server.

#include "PackageFuzzSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackage.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"

#include <exception>

using namespace Kestrane;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    KestraneFuzz::quietLogging();
    KestraneFuzz::serverHandlerChain();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = KestraneFuzz::text(data, size);
    KestraneFuzz::AttachmentMap attachments = KestraneFuzz::waitingAttachments();
    try {
        auto package = RequestPackage::decode(text, KestraneFuzz::serverHandlerChain(),
                                              &attachments, "127.0.0.1", "127.0.0.1");
        // A package that decodes must carry a request: the server dereferences it at once.
        if (!package || !package->getRequest())
            __builtin_trap();
    } catch (const KsException&) {
    } catch (const std::exception&) {
        // boost::bad_lexical_cast for a bad number or flag, as decode documents.
    }
    return 0;
}
