#pragma once

// What the two package targets share: the handler chain and schemas of a server (the default
// handler with its standard and test schemas, plus the data-element types of the link tests),
// and attachments waiting under the ids that the seeds use, so that binding runs too.

#include "FuzzSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/ArchAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Attachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HdfsAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Tests/XLinkTestSupport.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <map>
#include <memory>
#include <string>

namespace KestraneFuzz {

using AttachmentMap = std::map<std::string, std::shared_ptr<Kestrane::Attachment>>;

inline Kestrane::RequestHandler& serverHandlerChain() {
    static Kestrane::RequestHandler* handler = [] {
        Kestrane::RequestHandler* chain = Kestrane::RequestHandler::getDefaultRequestHandler();
        KestraneTest::registerLinkTestSchema();
        return chain;
    }();
    return *handler;
}

// Fresh attachments for every input: binding takes the claimed ones out of the map. The blocks
// are static, since no attachment owns its block.
inline AttachmentMap waitingAttachments() {
    static unsigned char hdfsBlock[64] = {0x89, 'H', 'D', 'F', '\r', '\n', 0x1a, '\n'};
    static unsigned char archBlock[16] = {'a', 'r', 'c', 'h'};
    AttachmentMap map;
    map["F"] = std::make_shared<Kestrane::FileAttachment>("F", Kestrane::FileName("/recv/f.dat"),
                                                          false, false);
    map["H"] = std::make_shared<Kestrane::HdfsAttachment>("H", hdfsBlock, sizeof(hdfsBlock));
    map["A"] = std::make_shared<Kestrane::ArchAttachment>("A", archBlock, sizeof(archBlock));
    return map;
}

} // namespace KestraneFuzz
