#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/XercesPlatform.h"

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace Kestrane::TestXml {

struct DocumentReleaser {
    void operator()(xercesc::DOMDocument* document) const { document->release(); }
};
using Document = std::unique_ptr<xercesc::DOMDocument, DocumentReleaser>;

// A namespace-aware parse without a schema, so that readers of DOM elements are tested on their
// own, also on documents a schema would refuse. A parse error fails the calling test.
inline Document parsePlain(const std::string& text) {
    XercesPlatform::ensureInitialized();
    xercesc::XercesDOMParser parser;
    parser.setDoNamespaces(true);
    xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(text.data()), text.size(),
                                      "test document", false);
    parser.parse(source);
    EXPECT_EQ(parser.getErrorCount(), 0u) << text;
    return Document(parser.adoptDocument());
}

} // namespace Kestrane::TestXml
