#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Kestrane;

namespace {

struct DocumentReleaser {
    void operator()(xercesc::DOMDocument* document) const { document->release(); }
};
using Document = std::unique_ptr<xercesc::DOMDocument, DocumentReleaser>;

// A fragment declaring one request type with a single string element.
class NamedRequestSchema : public AbstractRequestSchema {
public:
    NamedRequestSchema(const std::string& type, const std::string& element) {
        m_schemaText += "  <!-- " + type + "Schema -->\n";
        m_schemaText += "  <xs:complexType name=\"" + type +
                        "\">\n"
                        "    <xs:complexContent>\n"
                        "      <xs:extension base=\"ksrq:Request\">\n"
                        "        <xs:sequence>\n"
                        "          <xs:element name=\"" +
                        element +
                        "\" type=\"xs:string\"/>\n"
                        "        </xs:sequence>\n"
                        "      </xs:extension>\n"
                        "    </xs:complexContent>\n"
                        "  </xs:complexType>\n";
    }
};

// A fragment declaring a request type whose attribute `mode` defaults to "fast".
class DefaultedAttributeSchema : public AbstractRequestSchema {
public:
    DefaultedAttributeSchema() {
        m_schemaText += "  <!-- DefaultedAttributeSchema -->\n"
                        "  <xs:complexType name=\"DefaultedRequest\">\n"
                        "    <xs:complexContent>\n"
                        "      <xs:extension base=\"ksrq:Request\">\n"
                        "        <xs:sequence>\n"
                        "          <xs:element name=\"value\" type=\"xs:string\"/>\n"
                        "        </xs:sequence>\n"
                        "        <xs:attribute name=\"mode\" type=\"xs:string\" "
                        "default=\"fast\"/>\n"
                        "      </xs:extension>\n"
                        "    </xs:complexContent>\n"
                        "  </xs:complexType>\n";
    }
};

class EmptySchema : public AbstractRequestSchema {};

class BrokenSchema : public AbstractRequestSchema {
public:
    BrokenSchema() {
        m_schemaText += "  <!-- BrokenSchema -->\n"
                        "  <xs:complexType name=\"BrokenRequest\">\n"
                        "    <xs:complexContent>\n"
                        "      <xs:extension base=\"ksrq:NoSuchBase\"/>\n"
                        "    </xs:complexContent>\n"
                        "  </xs:complexType>\n";
    }
};

std::string requestDocument(const std::string& type, const std::string& element,
                            const std::string& value) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<KS_Request " +
           RequestXmlHelper::getNamespaceDeclarations() + ">\n<request xsi:type=\"" + type +
           "\" id=\"" + UniqueID::generateId() + "\">\n   <" + element + ">" + value + "</" +
           element + ">\n</request>\n</KS_Request>\n";
}

std::string replyDocument() {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<KS_Reply " +
           RequestXmlHelper::getNamespaceDeclarations() + ">\n<reply requestId=\"" +
           UniqueID::generateId() + "\"/>\n</KS_Reply>\n";
}

bool parses(const std::string& text) {
    try {
        Document document(RequestXmlHelper::getInstance()->parse(text));
        return document != nullptr;
    } catch (const KsExceptionNested&) {
        return false;
    }
}

// What a scan saw: for each element, its attributes as name=value, in their order.
std::vector<std::string> scanned(const std::string& text) {
    std::vector<std::string> elements;
    RequestXmlHelper::getInstance()->scan(text, [&](const xercesc::Attributes& attributes) {
        std::string element;
        for (XMLSize_t i = 0; i < attributes.getLength(); ++i)
            element += (i ? " " : "") + XmlUtils::transcode(attributes.getQName(i)) + "=" +
                       XmlUtils::transcode(attributes.getValue(i));
        elements.push_back(element);
    });
    return elements;
}

std::string parseFailure(const std::string& text) {
    try {
        Document document(RequestXmlHelper::getInstance()->parse(text));
    } catch (const KsExceptionNested& e) {
        return e.getMessage();
    }
    return "";
}

} // namespace

TEST(RequestXmlHelperTest, NamespaceConstants) {
    EXPECT_STREQ(RequestXmlHelper::c_namespaceUri,
                 "http://schemas.kestrane.net/remote-computation/KSRequests.xsd");
    EXPECT_STREQ(RequestXmlHelper::c_xsiNamespaceUri, "http://www.w3.org/2001/XMLSchema-instance");
    EXPECT_EQ(RequestXmlHelper::getNamespaceDeclarations(),
              "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
              "xmlns=\"http://schemas.kestrane.net/remote-computation/KSRequests.xsd\"");
}

TEST(RequestXmlHelperTest, SingletonIsOneObject) {
    RequestXmlHelper* first = RequestXmlHelper::getInstance();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, RequestXmlHelper::getInstance());
}

TEST(RequestXmlHelperTest, SchemaTextHoldsBaseAndPrefixes) {
    std::string schema = RequestXmlHelper::getInstance()->getSchemaText();
    EXPECT_NE(schema.find("targetNamespace=\"" + std::string(RequestXmlHelper::c_namespaceUri)),
              std::string::npos);
    EXPECT_NE(schema.find("xmlns:ksrq=\"" + std::string(RequestXmlHelper::c_namespaceUri)),
              std::string::npos);
    EXPECT_NE(schema.find("elementFormDefault=\"qualified\""), std::string::npos);
    EXPECT_NE(schema.find("name=\"KS_RequestPackage\""), std::string::npos);
}

TEST(RequestXmlHelperTest, AddingFragmentMakesDocumentValid) {
    RequestXmlHelper* helper = RequestXmlHelper::getInstance();
    std::string document = requestDocument("LateRequest", "payload", "late");
    EXPECT_FALSE(parses(document));

    uint64_t version = helper->getSchemaVersion();
    helper->addSchema(NamedRequestSchema("LateRequest", "payload"));
    EXPECT_EQ(helper->getSchemaVersion(), version + 1);
    EXPECT_NE(helper->getSchemaText().find("<!-- LateRequestSchema -->"), std::string::npos);

    Document parsed(helper->parse(document));
    xercesc::DOMElement* request = XmlUtils::getElement("request", parsed->getDocumentElement());
    EXPECT_EQ(XmlUtils::getElementContent("payload", request), "late");
    // The new type still checks its content.
    EXPECT_FALSE(parses(requestDocument("LateRequest", "other", "x")));
}

TEST(RequestXmlHelperTest, SameFragmentTwiceChangesNothing) {
    RequestXmlHelper* helper = RequestXmlHelper::getInstance();
    NamedRequestSchema schema("TwiceRequest", "value");
    helper->addSchema(schema);
    uint64_t version = helper->getSchemaVersion();
    NamedRequestSchema copy = schema;
    EXPECT_NO_THROW(helper->addSchema(copy));
    EXPECT_EQ(helper->getSchemaVersion(), version);
    EXPECT_TRUE(parses(requestDocument("TwiceRequest", "value", "v")));
}

TEST(RequestXmlHelperTest, EmptyFragmentChangesNothing) {
    RequestXmlHelper* helper = RequestXmlHelper::getInstance();
    uint64_t version = helper->getSchemaVersion();
    EmptySchema empty;
    EXPECT_EQ(empty.getSchemaText(), "");
    helper->addSchema(empty);
    EXPECT_EQ(helper->getSchemaVersion(), version);
}

TEST(RequestXmlHelperTest, BrokenFragmentIsRefusedAndSchemaStaysUsable) {
    RequestXmlHelper* helper = RequestXmlHelper::getInstance();
    uint64_t version = helper->getSchemaVersion();
    std::string schemaBefore = helper->getSchemaText();
    LogCapture capture;
    try {
        helper->addSchema(BrokenSchema());
        FAIL() << "A fragment with an undeclared base type was accepted.";
    } catch (const KsExceptionNested& e) {
        EXPECT_EQ(e.getSource(), "RequestHandling");
        EXPECT_NE(e.getMessage().find("Invalid request schema"), std::string::npos);
        EXPECT_NE(e.getMessage().find("line "), std::string::npos);
        EXPECT_TRUE(capture.contains(LogLevel::Error, e.getMessage()));
    }
    EXPECT_EQ(helper->getSchemaVersion(), version);
    EXPECT_EQ(helper->getSchemaText(), schemaBefore);
    EXPECT_TRUE(parses(replyDocument()));
    // A good fragment after the broken one still goes in.
    helper->addSchema(NamedRequestSchema("AfterBrokenRequest", "value"));
    EXPECT_TRUE(parses(requestDocument("AfterBrokenRequest", "value", "v")));
}

TEST(RequestXmlHelperTest, ParseFailureIsLoggedAtDebugLevel) {
    LogCapture capture;
    try {
        Document document(RequestXmlHelper::getInstance()->parse("<KS_Reply"));
        FAIL() << "Malformed text was accepted.";
    } catch (const KsExceptionNested& e) {
        EXPECT_TRUE(capture.contains(LogLevel::Debug, e.getMessage()));
        EXPECT_EQ(e.getMessage().rfind("Error parsing XML document at line 1, column ", 0), 0u)
            << e.getMessage();
    }
}

// The source file goes to peers in exception XML: it names the file inside the repository,
// nothing of the machine that built the library.
TEST(RequestXmlHelperTest, ExceptionNamesItsSourceRelativeToTheRepository) {
    try {
        Document document(RequestXmlHelper::getInstance()->parse("<KS_Reply"));
        FAIL() << "Malformed text was accepted.";
    } catch (const KsExceptionNested& e) {
        EXPECT_EQ(e.getFile(),
                  "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.cpp");
    }
}

// A document type declaration is skipped, not read: the entities it declares, outside or
// inside, do not exist, so nothing is fetched and nothing expands.
TEST(RequestXmlHelperTest, EntitiesOfADocumentTypeDeclarationAreUnknown) {
    RequestXmlHelper* helper = RequestXmlHelper::getInstance();
    helper->addSchema(NamedRequestSchema("EntityRequest", "value"));
    const std::vector<std::pair<std::string, std::string>> declarations{
        {"secret", "<!ENTITY secret SYSTEM \"file:///etc/hostname\">"},
        {"inner", "<!ENTITY inner \"expanded\">"}};
    for (const auto& [name, declaration] : declarations) {
        std::string text = requestDocument("EntityRequest", "value", "[&" + name + ";]");
        text.insert(text.find('\n') + 1, "<!DOCTYPE KS_Request [\n" + declaration + "\n]>\n");
        const std::string expected = "Error parsing XML document at line 7, column " +
                                     std::string(name == "secret" ? "20" : "19") + ": entity '" +
                                     name + "' not found";
        EXPECT_EQ(parseFailure(text), expected);
        try {
            helper->scan(text, [](const xercesc::Attributes&) {});
            ADD_FAILURE() << "The scan accepted " << text;
        } catch (const KsExceptionNested& e) {
            EXPECT_EQ(e.getMessage(), expected);
        }
    }
    // Without a reference the declaration changes nothing.
    std::string text = requestDocument("EntityRequest", "value", "plain");
    text.insert(text.find('\n') + 1, "<!DOCTYPE KS_Request [\n<!ENTITY unused \"x\">\n]>\n");
    Document document(helper->parse(text));
    xercesc::DOMElement* request = XmlUtils::getElement("request", document->getDocumentElement());
    EXPECT_EQ(XmlUtils::getElementContent("value", request), "plain");
}

TEST(RequestXmlHelperTest, DocumentOutlivesSchemaChange) {
    RequestXmlHelper* helper = RequestXmlHelper::getInstance();
    Document early(helper->parse(replyDocument()));
    helper->addSchema(NamedRequestSchema("OutlivingRequest", "value"));
    // This parse replaces the thread's parser and drops the pool the early document came from.
    Document late(helper->parse(requestDocument("OutlivingRequest", "value", "v")));
    xercesc::DOMElement* reply = XmlUtils::getElement("reply", early->getDocumentElement());
    ASSERT_NE(reply, nullptr);
    EXPECT_TRUE(UniqueID::isValid(XmlUtils::getAttribute("requestId", reply)));
}

TEST(RequestXmlHelperTest, ConcurrentParsingWhileFragmentsAreAdded) {
    RequestXmlHelper* helper = RequestXmlHelper::getInstance();
    helper->addSchema(NamedRequestSchema("ConcurrentBaseRequest", "value"));

    const int threadCount = 8;
    const int fragmentCount = 6;
    std::atomic<bool> adding{true};
    std::atomic<int> parsed{0};
    std::atomic<int> wronglyRejected{0};
    std::atomic<int> wronglyAccepted{0};

    std::vector<std::thread> parsers;
    for (int t = 0; t < threadCount; ++t) {
        parsers.emplace_back([&, t] {
            // Keep going until the adder is done, and at least a fixed number of rounds.
            for (int round = 0; round < 200 || adding; ++round) {
                std::string text =
                    (round + t) % 2
                        ? replyDocument()
                        : requestDocument("ConcurrentBaseRequest", "value", std::to_string(round));
                try {
                    Document document(helper->parse(text));
                    if (document && document->getDocumentElement())
                        ++parsed;
                    else
                        ++wronglyRejected;
                } catch (const KsExceptionNested&) {
                    ++wronglyRejected;
                }
                if (round % 10 == 0) {
                    // Failures on the way must not disturb the thread's parser.
                    try {
                        Document document(helper->parse("<KS_Reply"));
                        ++wronglyAccepted;
                    } catch (const KsExceptionNested&) {
                    }
                }
            }
        });
    }
    std::thread adder([&] {
        for (int i = 0; i < fragmentCount; ++i) {
            helper->addSchema(NamedRequestSchema("ConcurrentRequest" + std::to_string(i), "value"));
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        adding = false;
    });
    adder.join();
    for (std::thread& thread : parsers)
        thread.join();

    EXPECT_EQ(wronglyRejected, 0);
    EXPECT_EQ(wronglyAccepted, 0);
    EXPECT_GE(parsed, threadCount * 200);
    for (int i = 0; i < fragmentCount; ++i)
        EXPECT_TRUE(parses(requestDocument("ConcurrentRequest" + std::to_string(i), "value", "x")))
            << i;
}

TEST(RequestXmlHelperTest, ScanSeesEachElementsAttributesInDocumentOrderWithDefaults) {
    RequestXmlHelper* helper = RequestXmlHelper::getInstance();
    helper->addSchema(DefaultedAttributeSchema());
    std::string text = requestDocument("DefaultedRequest", "value", "v");
    std::string id = text.substr(text.find(" id=\"") + 5, 50);
    ASSERT_TRUE(UniqueID::isValid(id)) << id;

    // The root's namespace declarations are no attributes; `mode` comes from the schema.
    EXPECT_EQ(scanned(text), (std::vector<std::string>{
                                 "", "xsi:type=DefaultedRequest id=" + id + " mode=fast", ""}));
    // The document that parse() builds has the same default.
    Document document(helper->parse(text));
    xercesc::DOMElement* request = XmlUtils::getElement("request", document->getDocumentElement());
    EXPECT_EQ(XmlUtils::getAttribute("mode", request), "fast");

    std::string fastOverridden = text;
    fastOverridden.insert(fastOverridden.find(" id=\""), " mode=\"slow\"");
    EXPECT_EQ(scanned(fastOverridden)[1], "xsi:type=DefaultedRequest mode=slow id=" + id);
}

TEST(RequestXmlHelperTest, ScanFailsAsParseDoesAfterSeeingTheElementsBeforeTheFault) {
    RequestXmlHelper* helper = RequestXmlHelper::getInstance();
    helper->addSchema(NamedRequestSchema("ScannedRequest", "value"));
    std::string invalid = requestDocument("ScannedRequest", "value", "v");
    invalid.insert(invalid.find("</request>"), "<extra/>");
    const std::vector<std::string> faulty{invalid, "<KS_Reply", "",
                                          "<KS_Reply " +
                                              RequestXmlHelper::getNamespaceDeclarations() +
                                              "><reply requestId=\"x\"/></KS_Reply>"};
    for (const std::string& text : faulty) {
        std::string expected = parseFailure(text);
        ASSERT_FALSE(expected.empty()) << text;
        int seen = 0;
        LogCapture capture;
        try {
            helper->scan(text, [&](const xercesc::Attributes&) { ++seen; });
            ADD_FAILURE() << "Faulty text was accepted: " << text;
        } catch (const KsExceptionNested& e) {
            EXPECT_EQ(e.getMessage(), expected);
            EXPECT_TRUE(capture.contains(LogLevel::Debug, expected));
        }
        if (text == invalid) {
            EXPECT_EQ(seen, 3); // the root, the request and its value came before <extra/>
        }
    }
}

TEST(RequestXmlHelperTest, AnExceptionOfTheReaderGoesThroughAndTheParserServesOn) {
    RequestXmlHelper* helper = RequestXmlHelper::getInstance();
    for (int i = 0; i < 8; ++i) {
        EXPECT_THROW(helper->scan(replyDocument(),
                                  [](const xercesc::Attributes&) {
                                      throw std::runtime_error("reader gave up");
                                  }),
                     std::runtime_error);
    }
    EXPECT_EQ(scanned(replyDocument()).size(), 2u);
    EXPECT_TRUE(parses(replyDocument()));
}

TEST(RequestXmlHelperTest, ConcurrentScansAndParsesOfEveryKind) {
    RequestXmlHelper* helper = RequestXmlHelper::getInstance();
    helper->addSchema(NamedRequestSchema("ConcurrentScanRequest", "value"));
    const int threadCount = 6;
    const int rounds = 150;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < rounds; ++round) {
                std::string request =
                    requestDocument("ConcurrentScanRequest", "value", std::to_string(round));
                switch ((round + t) % 4) {
                case 0:
                    if (scanned(request).size() != 3)
                        ++wrong;
                    break;
                case 1:
                    if (scanned(replyDocument()).size() != 2)
                        ++wrong;
                    break;
                case 2:
                    if (!parses(request))
                        ++wrong;
                    break;
                default:
                    try {
                        helper->scan("<KS_Reply", [](const xercesc::Attributes&) {});
                        ++wrong;
                    } catch (const KsExceptionNested&) {
                    }
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST(AbstractRequestSchemaTest, CopyAndMoveKeepTheText) {
    NamedRequestSchema schema("CopiedRequest", "value");
    const std::string text = schema.getSchemaText();
    EXPECT_NE(text.find("<!-- CopiedRequestSchema -->"), std::string::npos);
    NamedRequestSchema copy(schema);
    EXPECT_EQ(copy.getSchemaText(), text);
    NamedRequestSchema moved(std::move(copy));
    EXPECT_EQ(moved.getSchemaText(), text);
    NamedRequestSchema assigned("Other", "x");
    assigned = schema;
    EXPECT_EQ(assigned.getSchemaText(), text);
    const AbstractRequestSchema& base = moved;
    EXPECT_EQ(base.getSchemaText(), text);
}
