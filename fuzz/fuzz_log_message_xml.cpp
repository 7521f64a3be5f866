// LogMessageXml::create on the root element of any well-formed document.

#include "FuzzSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/LogMessageXml.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"

#include <xercesc/dom/DOMElement.hpp>

#include <exception>

using namespace Kestrane;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    KestraneFuzz::quietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    KestraneFuzz::Document document = KestraneFuzz::parsePlain(KestraneFuzz::text(data, size));
    if (!document || !document->getDocumentElement())
        return 0;
    try {
        LogMessage message = LogMessageXml::create(document->getDocumentElement());
        // What was read must be writable again: progress updates carry it on.
        (void)LogMessageXml::toXml(message);
    } catch (const KsException&) {
    } catch (const std::exception&) {
        // boost::bad_lexical_cast for a time stamp that is no number.
    }
    return 0;
}
