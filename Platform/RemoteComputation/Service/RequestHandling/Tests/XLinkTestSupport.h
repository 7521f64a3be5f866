#pragma once

// Helpers shared by the data link tests: a schema fragment with request and reply types that
// carry data elements, documents around such elements, and arrays from malloc.

#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>

#include <cstdlib>
#include <memory>
#include <string>
#include <type_traits>

namespace KestraneTest {

class LinkTestSchema : public Kestrane::AbstractRequestSchema {
public:
    LinkTestSchema() {
        for (const char* kind : {"Request", "Reply"}) {
            m_schemaText += std::string("  <!-- LinkTest") + kind + "Schema -->\n" +
                            "  <xs:complexType name=\"LinkTest" + kind +
                            "\">\n"
                            "    <xs:complexContent>\n"
                            "      <xs:extension base=\"ksrq:" +
                            kind +
                            "\">\n"
                            "        <xs:sequence>\n"
                            "          <xs:element name=\"data\" type=\"ksrq:KSData\" "
                            "minOccurs=\"0\" maxOccurs=\"unbounded\"/>\n"
                            "        </xs:sequence>\n"
                            "      </xs:extension>\n"
                            "    </xs:complexContent>\n"
                            "  </xs:complexType>\n";
        }
    }
};

inline void registerLinkTestSchema() {
    Kestrane::RequestXmlHelper::getInstance()->addSchema(LinkTestSchema());
}

// The text of a reply holding these elements, as createAttachments expects it.
inline std::string replyText(const std::string& elements) {
    return "<reply xsi:type=\"LinkTestReply\">\n" + elements + "\n</reply>\n";
}

inline std::string requestText(const std::string& elements) {
    return "<request xsi:type=\"LinkTestRequest\" "
           "id=\"0123456789ABCDEF-0123456789ABCDEF-0123456789ABCDEF\">\n" +
           elements + "\n</request>\n";
}

struct DocumentReleaser {
    void operator()(xercesc::DOMDocument* document) const { document->release(); }
};
using Document = std::unique_ptr<xercesc::DOMDocument, DocumentReleaser>;

// Parses a reply holding the elements, validated like every message.
inline Document parseReply(const std::string& elements) {
    registerLinkTestSchema();
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<KS_Reply " +
                       Kestrane::RequestXmlHelper::getNamespaceDeclarations() + ">\n" +
                       replyText(elements) + "</KS_Reply>\n";
    return Document(Kestrane::RequestXmlHelper::getInstance()->parse(text));
}

// The first data element of a parsed reply.
inline xercesc::DOMElement* firstData(const Document& document) {
    xercesc::DOMElement* reply =
        Kestrane::XmlUtils::getElement("reply", document->getDocumentElement());
    return reply ? Kestrane::XmlUtils::getElement("data", reply) : nullptr;
}

// Values that differ along the array and are negative in places (bit patterns above 127 for
// the byte types); fractions for the floating types.
template <typename T> T* mallocArray(std::size_t count, int seed) {
    T* array = static_cast<T*>(std::malloc(count * sizeof(T)));
    for (std::size_t i = 0; i < count; ++i) {
        array[i] = static_cast<T>(static_cast<int>(i % 97) * 3 - 40 + seed);
        if constexpr (std::is_floating_point<T>::value)
            array[i] += static_cast<T>(0.25);
    }
    return array;
}

} // namespace KestraneTest
