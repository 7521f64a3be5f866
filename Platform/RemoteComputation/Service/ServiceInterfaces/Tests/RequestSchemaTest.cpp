#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>
#include <xercesc/dom/DOMNode.hpp>

#include <gtest/gtest.h>

#include <memory>

using namespace Kestrane;

namespace {

struct DocumentReleaser {
    void operator()(xercesc::DOMDocument* document) const { document->release(); }
};
using Document = std::unique_ptr<xercesc::DOMDocument, DocumentReleaser>;

// Types that use every base type, so that the base can be exercised inside real messages.
class SchemaTestFragment : public AbstractRequestSchema {
public:
    SchemaTestFragment() {
        m_schemaText += R"(
  <!-- SchemaTestFragment -->
  <xs:complexType name="SchemaTestRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:Request">
        <xs:sequence>
          <xs:element name="command" type="xs:string"/>
          <xs:element name="jobId" type="ksrq:KSJobId" minOccurs="0"/>
          <xs:element name="host" type="ksrq:HostInfo" minOccurs="0"/>
          <xs:element name="file" type="ksrq:KSData" minOccurs="0" maxOccurs="unbounded"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>
  <xs:complexType name="SchemaTestReply">
    <xs:complexContent>
      <xs:extension base="ksrq:Reply">
        <xs:sequence>
          <xs:element name="exceptionStr" type="xs:string" minOccurs="0"/>
          <xs:element name="exception" type="ksrq:KSException" minOccurs="0"/>
          <xs:element name="soloRunJobStatus" type="ksrq:SoloRunJobStatus" minOccurs="0"/>
          <xs:element name="contourJobStatus" type="ksrq:ContourJobStatus" minOccurs="0"/>
          <xs:element name="orvelJobStatus" type="ksrq:OrvelJobStatus" minOccurs="0"/>
          <xs:element name="feedbackLoopJobStatus" type="ksrq:FeedbackLoopJobStatus"
                      minOccurs="0"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>
)";
    }
};

class RequestSchemaTest : public ::testing::Test {
protected:
    void SetUp() override { RequestXmlHelper::getInstance()->addSchema(SchemaTestFragment()); }

    static std::string declaration() { return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"; }
    static std::string namespaces() { return RequestXmlHelper::getNamespaceDeclarations(); }

    static std::string requestDocument(const std::string& request) {
        return declaration() + "<KS_Request " + namespaces() + ">\n" + request +
               "\n</KS_Request>\n";
    }
    static std::string replyDocument(const std::string& reply) {
        return declaration() + "<KS_Reply " + namespaces() + ">\n" + reply + "\n</KS_Reply>\n";
    }
    static std::string testRequest(const std::string& id, const std::string& body) {
        return "<request xsi:type=\"SchemaTestRequest\" id=\"" + id + "\">\n" + body +
               "\n</request>";
    }

    static Document parse(const std::string& text) {
        return Document(RequestXmlHelper::getInstance()->parse(text));
    }

    // Parses a text that must be rejected and returns the exception's message.
    static std::string rejection(const std::string& text) {
        try {
            Document document = parse(text);
        } catch (const KsExceptionNested& e) {
            EXPECT_EQ(e.getSource(), "RequestHandling");
            return e.getMessage();
        }
        ADD_FAILURE() << "Document was accepted: " << text;
        return std::string();
    }

    static void expectPositionNamed(const std::string& message) {
        EXPECT_NE(message.find("line "), std::string::npos) << message;
        EXPECT_NE(message.find("column "), std::string::npos) << message;
    }
};

} // namespace

TEST_F(RequestSchemaTest, RequestPackageWithAllAttributesIsValid) {
    std::string text = declaration() + "<KS_RequestPackage " + namespaces() +
                       "\n version=\"5.0.0\"\n serial=\"17\"\n timestamp=\"2026-11-22T02:00:00\"\n"
                       " clientId=\"" +
                       UniqueID::generateId() + "\"\n requestClientId=\"x\"\n replyHost=\"h\"\n" +
                       " replyPort=\"4711\"\n origin=\"o@127.0.0.1\"\n progressUpdates=\"0\"\n" +
                       " replyExpected=\"1\">\n" +
                       testRequest(UniqueID::generateId(), "<command>run</command>") +
                       "</KS_RequestPackage>\n";
    Document document = parse(text);
    xercesc::DOMElement* root = document->getDocumentElement();
    EXPECT_EQ(XmlUtils::transcode(root->getLocalName()), "KS_RequestPackage");
    EXPECT_EQ(XmlUtils::getAttribute("replyPort", root), "4711");
    xercesc::DOMElement* request = XmlUtils::getElement("request", root);
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(XmlUtils::getAttribute("xsi:type", request), "SchemaTestRequest");
    EXPECT_EQ(XmlUtils::getElementContent("command", request), "run");
}

TEST_F(RequestSchemaTest, PackageAttributesArePermissive) {
    // The package decoders judge these values; the schema lets them through.
    std::string text = declaration() + "<KS_RequestPackage " + namespaces() +
                       " serial=\"-1\" progressUpdates=\"true\" replyExpected=\"\">\n" +
                       testRequest(UniqueID::generateId(), "<command/>") + "</KS_RequestPackage>\n";
    EXPECT_NE(parse(text), nullptr);
    std::string withoutAttributes = declaration() + "<KS_RequestPackage " + namespaces() + ">" +
                                    testRequest(UniqueID::generateId(), "<command/>") +
                                    "</KS_RequestPackage>";
    EXPECT_NE(parse(withoutAttributes), nullptr);
}

TEST_F(RequestSchemaTest, ReplyPackageIsValid) {
    std::string text = declaration() + "<KS_ReplyPackage " + namespaces() +
                       "\n version=\"5.0.0\"\n serial=\"-1\"\n timestamp=\"t\"\n"
                       " origin=\"OrvelConnector@127.0.0.1\">\n"
                       "   <reply xsi:type=\"SchemaTestReply\" requestId=\"" +
                       UniqueID::generateId() + "\" />\n</KS_ReplyPackage>\n";
    Document document = parse(text);
    xercesc::DOMElement* reply = XmlUtils::getElement("reply", document->getDocumentElement());
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(XmlUtils::getAttribute("xsi:type", reply), "SchemaTestReply");
}

TEST_F(RequestSchemaTest, PackageRejectsUnknownAttribute) {
    std::string text = declaration() + "<KS_ReplyPackage " + namespaces() +
                       " colour=\"red\"><reply requestId=\"" + UniqueID::generateId() +
                       "\"/></KS_ReplyPackage>";
    rejection(text);
}

TEST_F(RequestSchemaTest, WrappingRootsAreValid) {
    EXPECT_NE(parse(requestDocument(testRequest(UniqueID::generateId(), "<command>x</command>"))),
              nullptr);
    EXPECT_NE(parse(replyDocument("<reply requestId=\"" + UniqueID::generateId() + "\"/>")),
              nullptr);
}

TEST_F(RequestSchemaTest, KSUidAcceptsTheNullId) {
    EXPECT_EQ(UniqueID::c_nullId, "0000000000000000-0000000000000000-0000000000000000");
    EXPECT_NE(parse(requestDocument(testRequest(UniqueID::c_nullId, "<command/>"))), nullptr);
    EXPECT_NE(parse(replyDocument("<reply requestId=\"" + UniqueID::c_nullId + "\"/>")), nullptr);
}

TEST_F(RequestSchemaTest, KSUidRejectsLowerCaseAndWrongLengths) {
    std::string id = UniqueID::generateId();
    std::string lower = "abcdef0123456789-0123456789ABCDEF-0123456789ABCDEF";
    ASSERT_EQ(lower.size(), 50u);
    expectPositionNamed(rejection(requestDocument(testRequest(lower, "<command/>"))));
    expectPositionNamed(rejection(requestDocument(testRequest(id.substr(0, 49), "<command/>"))));
    expectPositionNamed(rejection(requestDocument(testRequest(id + "0", "<command/>"))));
    // Groups of the wrong length with the right total.
    rejection(requestDocument(
        testRequest("000000000000000-00000000000000000-0000000000000000", "<command/>")));
    rejection(replyDocument("<reply requestId=\"" + id + " \"/>"));
}

TEST_F(RequestSchemaTest, RequestWithoutTypeIsRejected) {
    std::string message =
        rejection(requestDocument("<request id=\"" + UniqueID::generateId() + "\"/>"));
    expectPositionNamed(message);
}

TEST_F(RequestSchemaTest, RequestWithoutIdIsRejected) {
    rejection(requestDocument("<request xsi:type=\"SchemaTestRequest\"><command/></request>"));
}

TEST_F(RequestSchemaTest, RequestOfUndeclaredTypeIsRejected) {
    rejection(requestDocument("<request xsi:type=\"NoSuchRequest\" id=\"" + UniqueID::generateId() +
                              "\"/>"));
}

TEST_F(RequestSchemaTest, CoreIdIsOptional) {
    std::string id = UniqueID::generateId();
    std::string request = "<request xsi:type=\"SchemaTestRequest\" id=\"" + id + "\" coreId=\"" +
                          UniqueID::generateId() + "\"><command/></request>";
    EXPECT_NE(parse(requestDocument(request)), nullptr);
}

TEST_F(RequestSchemaTest, JobStatusTypesAcceptAnyContent) {
    std::string reply =
        "<reply xsi:type=\"SchemaTestReply\" requestId=\"" + UniqueID::generateId() +
        "\">\n"
        "<soloRunJobStatus state=\"running\" progress=\"0.5\">text<step n=\"1\"><x/></step>"
        "<undeclared xmlns=\"urn:other\">y</undeclared></soloRunJobStatus>\n"
        "<contourJobStatus/>\n"
        "<orvelJobStatus anything=\"goes\"><a><b><c>deep</c></b></a></orvelJobStatus>\n"
        "<feedbackLoopJobStatus>just text</feedbackLoopJobStatus>\n"
        "</reply>";
    Document document = parse(replyDocument(reply));
    xercesc::DOMElement* replyElement =
        XmlUtils::getElement("reply", document->getDocumentElement());
    xercesc::DOMElement* solo = XmlUtils::getElement("soloRunJobStatus", replyElement);
    ASSERT_NE(solo, nullptr);
    EXPECT_EQ(XmlUtils::getAttribute("state", solo), "running");
    EXPECT_EQ(XmlUtils::getElements("step", solo).size(), 1u);
    EXPECT_EQ(XmlUtils::getContent(XmlUtils::getElement("feedbackLoopJobStatus", replyElement)),
              "just text");
}

TEST_F(RequestSchemaTest, NestedExceptionIsValid) {
    std::string reply = "<reply xsi:type=\"SchemaTestReply\" requestId=\"" +
                        UniqueID::generateId() +
                        "\" >\n"
                        "  <exceptionStr>outer &lt;failure&gt;</exceptionStr>\n"
                        "  <exception>\n"
                        "   <type>Kestrane::KsExceptionNested</type>\n"
                        "   <message>outer</message>\n"
                        "   <name>KsExceptionNested</name>\n"
                        "   <source>RequestHandling</source>\n"
                        "   <file>a.cpp</file>\n"
                        "   <function>f()</function>\n"
                        "   <line>12</line>\n"
                        "   <innerException>\n"
                        "      <type>Kestrane::KsExceptionNested</type>\n"
                        "      <message>middle</message>\n"
                        "      <name>KsExceptionNested</name>\n"
                        "      <source>RequestHandling</source>\n"
                        "      <file>b.cpp</file>\n"
                        "      <function>g()</function>\n"
                        "      <line>34</line>\n"
                        "      <innerException>\n"
                        "         <type>std::runtime_error</type>\n"
                        "         <message>inner</message>\n"
                        "      </innerException>\n"
                        "   </innerException>\n"
                        "  </exception>\n"
                        "</reply>\n";
    Document document = parse(replyDocument(reply));
    xercesc::DOMElement* exception = XmlUtils::getElement(
        "exception", XmlUtils::getElement("reply", document->getDocumentElement()));
    ASSERT_NE(exception, nullptr);
    xercesc::DOMElement* inner = XmlUtils::getElement("innerException", exception);
    xercesc::DOMElement* innermost = XmlUtils::getElement("innerException", inner);
    EXPECT_EQ(XmlUtils::getElementContent("message", inner), "middle");
    EXPECT_EQ(XmlUtils::getElementContent("message", innermost), "inner");
    EXPECT_EQ(XmlUtils::getElement("innerException", innermost), nullptr);
}

TEST_F(RequestSchemaTest, ExceptionOfUnknownKindHasNoMessage) {
    // An unknown exception object is written with its type alone.
    std::string reply = "<reply xsi:type=\"SchemaTestReply\" requestId=\"" +
                        UniqueID::generateId() + "\"><exception><type>t</type></exception></reply>";
    xercesc::DOMDocument* document = RequestXmlHelper::getInstance()->parse(replyDocument(reply));
    ASSERT_NE(document, nullptr);
    document->release();
    std::string noType = "<reply xsi:type=\"SchemaTestReply\" requestId=\"" +
                         UniqueID::generateId() +
                         "\"><exception><message>m</message></exception></reply>";
    expectPositionNamed(rejection(replyDocument(noType)));
}

TEST_F(RequestSchemaTest, WrongElementOrderIsRejected) {
    std::string reply = "<reply xsi:type=\"SchemaTestReply\" requestId=\"" +
                        UniqueID::generateId() +
                        "\">\n<exception><message>m</message><type>t</type></exception>\n</reply>";
    expectPositionNamed(rejection(replyDocument(reply)));

    std::string swapped = "<reply xsi:type=\"SchemaTestReply\" requestId=\"" +
                          UniqueID::generateId() +
                          "\">\n<contourJobStatus/>\n<soloRunJobStatus/>\n</reply>";
    std::string message = rejection(replyDocument(swapped));
    expectPositionNamed(message);
    // The content of an element is judged at its end tag, on line 6 of the document.
    EXPECT_NE(message.find("line 6"), std::string::npos) << message;
}

TEST_F(RequestSchemaTest, MalformedXmlIsRejectedWithPosition) {
    std::string message =
        rejection(declaration() + "<KS_Reply " + namespaces() + ">\n<reply></KS_Reply>\n");
    expectPositionNamed(message);
    EXPECT_NE(message.find("line 3"), std::string::npos) << message;

    expectPositionNamed(rejection("this is not XML"));
    expectPositionNamed(rejection(""));
    expectPositionNamed(rejection(declaration() + "<KS_Reply " + namespaces() + ">"));
    expectPositionNamed(rejection("<a b=\"1></a>"));
}

TEST_F(RequestSchemaTest, WrongRootIsRejected) {
    expectPositionNamed(rejection(declaration() + "<KS_Unknown " + namespaces() + "/>"));
    // The right name without the namespace is another element.
    expectPositionNamed(rejection("<KS_Reply><reply/></KS_Reply>"));
    // A type of the schema is no root.
    expectPositionNamed(rejection("<HostInfo " + namespaces() + "/>"));
}

TEST_F(RequestSchemaTest, ParserSurvivesManyFailures) {
    for (int i = 0; i < 50; ++i)
        rejection("<broken");
    EXPECT_NE(parse(replyDocument("<reply requestId=\"" + UniqueID::generateId() + "\"/>")),
              nullptr);
}

TEST_F(RequestSchemaTest, ElementOnlyContentHasElementChildrenOnly) {
    std::string request = testRequest(UniqueID::generateId(),
                                      "  <command>a b</command>\n  <!-- a comment -->\n"
                                      "  <jobId>\n    <uid>" +
                                          UniqueID::generateId() + "</uid>\n  </jobId>\n\n\t  ");
    Document document = parse(requestDocument(request));
    xercesc::DOMElement* root = document->getDocumentElement();
    xercesc::DOMElement* requestElement = XmlUtils::getElement("request", root);
    for (const xercesc::DOMElement* parent :
         {root, requestElement, XmlUtils::getElement("jobId", requestElement)}) {
        ASSERT_NE(parent, nullptr);
        for (xercesc::DOMNode* child = parent->getFirstChild(); child;
             child = child->getNextSibling())
            EXPECT_EQ(child->getNodeType(), xercesc::DOMNode::ELEMENT_NODE);
    }
    // Text inside simple content is kept as it is.
    EXPECT_EQ(XmlUtils::getElementContent("command", XmlUtils::getElement("request", root)), "a b");
}

TEST_F(RequestSchemaTest, DataElementAttributesAndContent) {
    std::string request =
        testRequest(UniqueID::generateId(),
                    "<command>c</command>\n"
                    "<file id=\"" +
                        UniqueID::generateId() +
                        "\" name=\"f\" dataPtrType=\"FILE *\" dataType=\"unsigned char\" "
                        "dataSize=\"unknown\" href=\"file:///tmp/x\" fileTransfered=\"true\" "
                        "forceTransfer=\"1\"/>\n"
                        "<file name=\"g\">text<any><thing/></any></file>");
    Document document = parse(requestDocument(request));
    auto files = XmlUtils::getElements(
        "file", XmlUtils::getElement("request", document->getDocumentElement()));
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(XmlUtils::getAttribute("dataSize", files[0]), "unknown");
    EXPECT_TRUE(XmlUtils::toBool(XmlUtils::getAttribute("fileTransfered", files[0])));
    EXPECT_EQ(XmlUtils::getElements("any", files[1]).size(), 1u);

    rejection(requestDocument(
        testRequest(UniqueID::generateId(), "<command/><file unknownAttribute=\"x\"/>")));
}
