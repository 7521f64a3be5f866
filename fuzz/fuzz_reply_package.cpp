// ReplyPackage::decode on arbitrary text, with the schemas of a server registered.

#include "PackageFuzzSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackage.h"
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
        auto package = ReplyPackage::decode(text, &attachments);
        // The reply handler reads the reply of every package that decodes.
        if (!package || !package->getReply())
            __builtin_trap();
        (void)package->getReply()->getType();
    } catch (const KsException&) {
    } catch (const std::exception&) {
        // boost::bad_lexical_cast for a bad serial, as decode documents.
    }
    return 0;
}
