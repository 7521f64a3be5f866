#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandlingException.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerConnectionException.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerStartupException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace Kestrane;

namespace {

const std::string c_id = "0123456789ABCDEF-0123456789ABCDEF-0123456789ABCDEF";

// A reply type that carries data elements, for the text operations.
class ReplyTestSchema : public AbstractRequestSchema {
public:
    ReplyTestSchema() {
        m_schemaText = "<!-- ReplyTestSchema -->\n"
                       "<xs:complexType name=\"DataTestReply\">\n"
                       " <xs:complexContent><xs:extension base=\"ksrq:Reply\">\n"
                       "  <xs:sequence><xs:element name=\"data\" type=\"ksrq:KSData\" "
                       "minOccurs=\"0\" maxOccurs=\"unbounded\"/></xs:sequence>\n"
                       " </xs:extension></xs:complexContent>\n"
                       "</xs:complexType>\n";
    }
};

void registerSchema() {
    static bool done = [] {
        RequestXmlHelper::getInstance()->addSchema(ReplyTestSchema());
        return true;
    }();
    (void)done;
}

} // namespace

TEST(ReplyEncoderTest, EmptyReplyHasABlankBeforeTheEnd) {
    ReplyEncoder encoder("T", "R");
    EXPECT_EQ(encoder.getEncodedReply("", ""), "<reply xsi:type=\"T\" requestId=\"R\" />\n");
    EXPECT_EQ(encoder.getEncodedReply("   ", "  "),
              "   <reply xsi:type=\"T\" requestId=\"R\" />\n");
}

TEST(ReplyEncoderTest, AttributesInTheOrderOfTheirNames) {
    ReplyEncoder encoder("T", "a<b");
    encoder.addAttribute("zeta", "1");
    encoder.addAttribute("alpha", 2);
    encoder.addAttribute("zeta", "3"); // replaces
    EXPECT_EQ(encoder.getEncodedReply("", ""),
              "<reply xsi:type=\"T\" alpha=\"2\" requestId=\"a&lt;b\" zeta=\"3\" />\n");
}

TEST(ReplyEncoderTest, ElementsWithIndents) {
    ReplyEncoder encoder("AckReply", c_id);
    encoder.addElement("status", "OK");
    encoder.addElement("count", 42);
    encoder.addElement("note", std::string("x & y"));
    encoder.addTextLines("<a/>\n<b/>");
    encoder.addText("<c/>");
    EXPECT_EQ(encoder.getEncodedReply("   ", "  "),
              "   <reply xsi:type=\"AckReply\" requestId=\"" + c_id +
                  "\" >\n     <status>OK</status>\n     <count>42</count>\n"
                  "     <note>x &amp; y</note>\n     <a/>\n     <b/>\n     <c/>\n   </reply>\n");
}

TEST(ReplyEncoderTest, DoublesHaveSixSignificantDigits) {
    ReplyEncoder encoder("T", "R");
    encoder.addElement("a", 0.1);
    encoder.addElement("b", 1.23456789);
    std::string text = encoder.getEncodedReply("", "");
    EXPECT_NE(text.find("<a>0.1</a>"), std::string::npos);
    EXPECT_NE(text.find("<b>1.23457</b>"), std::string::npos);
}

TEST(ReplyEncoderTest, NestedExceptionGoesDeeper) {
    KsExceptionNested inner("disk full", "Files", "Kestrane::F::write", "F.cpp", 7);
    KsExceptionNested outer(inner, "cannot save", "RequestHandling", "Kestrane::S::save", "S.cpp",
                            12);
    std::string xml = ReplyEncoder::exceptionToXml(outer, "   ", "   ");
    EXPECT_EQ(xml, "   <type>Kestrane::KsExceptionNested</type>\n"
                   "   <message>cannot save</message>\n"
                   "   <name>KsExceptionNested</name>\n"
                   "   <source>RequestHandling</source>\n"
                   "   <file>S.cpp</file>\n"
                   "   <function>Kestrane::S::save</function>\n"
                   "   <line>12</line>\n"
                   "   <innerException>\n"
                   "      <type>Kestrane::KsExceptionNested</type>\n"
                   "      <message>disk full</message>\n"
                   "      <name>KsExceptionNested</name>\n"
                   "      <source>Files</source>\n"
                   "      <file>F.cpp</file>\n"
                   "      <function>Kestrane::F::write</function>\n"
                   "      <line>7</line>\n"
                   "   </innerException>\n");
}

TEST(ReplyEncoderTest, PlainKsExceptionStopsAfterMessage) {
    KsException plain("just a & message");
    EXPECT_EQ(ReplyEncoder::exceptionToXml(plain, "  ", "  "),
              "  <type>Kestrane::KsException</type>\n  <message>just a &amp; message</message>\n");
}

TEST(ReplyEncoderTest, StdAndUnknownExceptions) {
    std::runtime_error error("bad <thing>");
    EXPECT_EQ(ReplyEncoder::exceptionToXml(error, "", ""),
              "<type>std::runtime_error</type>\n<message>bad &lt;thing&gt;</message>\n");
    EXPECT_EQ(ReplyEncoder::exceptionToXml(static_cast<const void*>(nullptr), "", ""),
              "<type>Unknown</type>\n");
    EXPECT_EQ(ReplyEncoder::exceptionToXml(static_cast<const void*>(&error), "", ""),
              "<type>void const*</type>\n");
}

TEST(ReplyEncoderTest, ExceptionEntryLayout) {
    ReplyEncoder encoder("ExceptionReply", c_id);
    KsExceptionNested e("failed", "RequestHandling", "Kestrane::X::y", "X.cpp", 3);
    encoder.addKsException(e);
    std::string text = encoder.getEncodedReply("", "");
    EXPECT_NE(text.find(">\n<exceptionStr>" + e.log() +
                        "</exceptionStr>\n<exception>\n"
                        "   <type>Kestrane::KsExceptionNested</type>\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("   <line>3</line>\n</exception>\n\n</reply>\n"), std::string::npos);
    ReplyEncoder other("ExceptionReply", c_id);
    other.addStdException(std::logic_error("oops"));
    other.addException(nullptr);
    std::string text2 = other.getEncodedReply("", "");
    EXPECT_NE(text2.find("<exceptionStr>oops</exceptionStr>"), std::string::npos);
    EXPECT_NE(text2.find("<exceptionStr>void const*</exceptionStr>\n<exception>\n"
                         "   <type>Unknown</type>\n</exception>"),
              std::string::npos);
}

TEST(ReplyEncoderTest, GetType) {
    EXPECT_EQ(ReplyEncoder::getType("<reply xsi:type=\"AckReply\" requestId=\"x\"/>"), "AckReply");
    EXPECT_EQ(ReplyEncoder::getType("<reply requestId=\"x\"/>"), "");
    EXPECT_EQ(ReplyEncoder::getType("<reply xsi:type=\"Open"), "");
    EXPECT_EQ(ReplyEncoder::getType(""), "");
}

TEST(ReplyEncoderTest, AttachmentIdsAndHrefMapping) {
    registerSchema();
    LogCapture capture;
    std::string reply = "<reply xsi:type=\"DataTestReply\" requestId=\"" + c_id +
                        "\">\n"
                        "<data id=\"F1\" name=\"f\" href=\"file:///tmp/x.dat\"/>\n"
                        "<data id=\"H1\" name=\"h\" href=\"hdfs://#0x1234\"/>\n"
                        "<data id=\"A1\" name=\"a\" href=\"arch://#0x99\"/>\n"
                        "<data id=\"S1\" name=\"s\" href=\"file://\"/>\n"
                        "<data name=\"noid\" href=\"file:///tmp/y\"/>\n"
                        "</reply>\n";
    EXPECT_EQ(ReplyEncoder::getAttachmentIds(reply), (std::vector<std::string>{"F1", "H1"}));
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Found 2 ids."));
    auto mapping = ReplyEncoder::createHrefMapping(reply);
    EXPECT_EQ(mapping.size(), 2u);
    EXPECT_EQ(mapping["F1"], "tmp/x.dat");
    EXPECT_EQ(mapping["H1"], "#0x1234");
    // A whole document is taken as it is.
    EXPECT_EQ(ReplyEncoder::getAttachmentIds(ReplyEncoder::wrap(reply)).size(), 2u);
}

TEST(ReplyEncoderTest, TextOperationsOnMalformedReplies) {
    registerSchema();
    LogCapture capture;
    std::string truncated = "<reply xsi:type=\"DataTestReply\" requestId=\"" + c_id + "\"><data";
    EXPECT_THROW(ReplyEncoder::getAttachmentIds(truncated), KsExceptionNested);
    EXPECT_THROW(ReplyEncoder::createHrefMapping(truncated), KsExceptionNested);
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Exception while creating Href mappings."));
    std::string undeclared = "<reply xsi:type=\"NoSuchReply\" requestId=\"" + c_id + "\"/>";
    EXPECT_THROW(ReplyEncoder::getAttachmentIds(undeclared), KsExceptionNested);
}

TEST(RequestHandlingExceptionTest, NamesInnerAndCriticalFlag) {
    std::runtime_error cause("refused");
    RequestServerConnectionException e(cause, "Can't connect", "TcpRequestClient",
                                       "Kestrane::TcpRequestClient::sendRequest", "T.cpp", 5);
    EXPECT_EQ(e.getName(), "RequestServerConnectionException");
    EXPECT_STREQ(e.what(), "Can't connect");
    ASSERT_NE(e.getInnerException(), nullptr);
    EXPECT_STREQ(e.getInnerException()->what(), "refused");
    try {
        throw e;
    } catch (const RequestHandlingException& caught) {
        EXPECT_EQ(caught.getName(), "RequestServerConnectionException");
        EXPECT_EQ(caught.getSource(), "TcpRequestClient");
    }
    KsExceptionNested nested("inner", "s", "f", "file", 1);
    RequestHandlingException wrapped(nested, "outer", "RequestHandling", "g", "file", 2);
    EXPECT_EQ(wrapped.getName(), "RequestHandlingException");
    ASSERT_NE(wrapped.getInnerException(), nullptr);
    EXPECT_EQ(wrapped.getInnerException()->getName(), "KsExceptionNested");
    RequestServerStartupException startup("no start", true, "s", "f", "file", 3);
    EXPECT_TRUE(startup.isCriticalError());
    EXPECT_FALSE(RequestServerStartupException().isCriticalError());
    RequestServerStartupException softened(startup, false);
    EXPECT_FALSE(softened.isCriticalError());
    EXPECT_STREQ(softened.what(), "no start");
    auto copy = startup.clone();
    EXPECT_EQ(copy->getName(), "RequestServerStartupException");
}
