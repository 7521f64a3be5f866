#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <regex>
#include <stdexcept>

using namespace Kestrane;

namespace {

// A request type for these tests: any elements in any order.
class EncoderTestSchema : public AbstractRequestSchema {
public:
    EncoderTestSchema() {
        m_schemaText = "<!-- EncoderTestSchema -->\n"
                       "<xs:complexType name=\"EncoderTestRequest\">\n"
                       " <xs:complexContent><xs:extension base=\"ksrq:Request\">\n"
                       "  <xs:sequence><xs:any processContents=\"skip\" minOccurs=\"0\" "
                       "maxOccurs=\"unbounded\"/></xs:sequence>\n"
                       "  <xs:anyAttribute processContents=\"skip\"/>\n"
                       " </xs:extension></xs:complexContent>\n"
                       "</xs:complexType>\n";
    }
};

void registerSchema() {
    static bool done = [] {
        RequestXmlHelper::getInstance()->addSchema(EncoderTestSchema());
        return true;
    }();
    (void)done;
}

const std::regex c_idPattern("[0-9A-F]{16}-[0-9A-F]{16}-[0-9A-F]{16}");

class DecodedRequest : public Request {
public:
    explicit DecodedRequest(const xercesc::DOMElement* element) : Request(element) {}
};

} // namespace

TEST(RequestEncoderTest, EmptyRequestHasTypeAndId) {
    RequestEncoder encoder("X");
    std::string text = encoder.getEncodedRequest();
    std::smatch match;
    ASSERT_TRUE(
        std::regex_match(text, match, std::regex("<request xsi:type=\"X\" id=\"(.{50})\"/>")));
    EXPECT_TRUE(std::regex_match(match[1].str(), c_idPattern));
    EXPECT_EQ(match[1].str(), encoder.getId());
}

TEST(RequestEncoderTest, DefaultEncoderGivesEmptyTexts) {
    RequestEncoder encoder;
    EXPECT_EQ(encoder.getEncodedRequest(), "");
    EXPECT_EQ(encoder.getEncodedUndecoratedRequest(), "");
    EXPECT_EQ(encoder.getId(), "");
}

TEST(RequestEncoderTest, ElementsEndWithoutLineFeed) {
    RequestEncoder encoder("Y");
    encoder.addAttribute("mode", "a<b");
    encoder.addElement("name", std::string("x & y"), "   ");
    encoder.addElement("count", 7, "   ");
    std::string text = encoder.getEncodedRequest();
    EXPECT_EQ(text, "<request xsi:type=\"Y\" id=\"" + encoder.getId() +
                        "\" mode=\"a&lt;b\">\n   <name>x &amp; y</name>\n   <count>7</count>\n"
                        "</request>");
}

TEST(RequestEncoderTest, NumberRule) {
    EXPECT_EQ(RequestEncoder::numberText(-12), "-12");
    EXPECT_EQ(RequestEncoder::numberText(4000000000u), "4000000000");
    EXPECT_EQ(RequestEncoder::numberText(uint64_t(18446744073709551615ull)),
              "18446744073709551615");
    EXPECT_EQ(RequestEncoder::numberText(0.1f), "0.100000001");
    EXPECT_EQ(RequestEncoder::numberText(0.1), "0.10000000000000001");
    EXPECT_EQ(RequestEncoder::numberText(std::numeric_limits<double>::infinity()), "inf");
    EXPECT_EQ(RequestEncoder::numberText(-std::numeric_limits<double>::infinity()), "-inf");
    std::string nan = RequestEncoder::numberText(std::nan(""));
    EXPECT_TRUE(nan == "nan" || nan == "-nan") << nan;
    RequestEncoder encoder("N");
    encoder.addAttribute("f", 1.5f);
    encoder.addAttribute("d", 2.25);
    encoder.addAttribute("i", -3);
    encoder.addAttribute("u", 3u);
    EXPECT_NE(encoder.getEncodedRequest().find(" f=\"1.5\" d=\"2.25\" i=\"-3\" u=\"3\"/>"),
              std::string::npos);
}

TEST(RequestEncoderTest, AttributedElementAndText) {
    RequestEncoder encoder("Z");
    encoder.addAttributedElement("value", std::string("a&b"), {{"unit", "m"}, {"k", "v"}}, "  ");
    encoder.addAttributedElement("empty", std::string(), {{"a", "1"}}, "");
    encoder.addAttributedElement("n", 5, {}, "");
    encoder.addText("<ready/>", " ", false);
    encoder.addText("<a>\n<b/>\n</a>", "    ", true);
    std::string text = encoder.getEncodedRequest();
    EXPECT_NE(text.find(">\n  <value unit=\"m\" k=\"v\">a&amp;b</value>\n<empty a=\"1\"></empty>\n"
                        "<n>5</n>\n <ready/>\n    <a>\n    <b/>\n    </a>\n\n</request>"),
              std::string::npos)
        << text;
}

TEST(RequestEncoderTest, ResultRequestEncoder) {
    ResultRequestEncoder encoder("ResultRequest", "temp", 3, -1, "extra", "<text/>");
    EXPECT_EQ(encoder.getEncodedRequest(),
              "<request xsi:type=\"ResultRequest\" id=\"" + encoder.getId() +
                  "\" postVar=\"temp\" procStep=\"3\" layer=\"-1\">\n   <text/>\n   "
                  "<aux>extra</aux>\n</request>");
    ResultRequestEncoder bare("ResultRequest", "p", 0, 0, nullptr, "");
    EXPECT_EQ(bare.getEncodedRequest(), "<request xsi:type=\"ResultRequest\" id=\"" + bare.getId() +
                                            "\" postVar=\"p\" procStep=\"0\" layer=\"0\"/>");
}

TEST(RequestEncoderTest, SetCoreIdInsertsBehindTheId) {
    RequestEncoder encoder("C");
    std::string text = encoder.getEncodedRequest();
    std::string core(50, 'C');
    RequestEncoder::setCoreId(text, core);
    EXPECT_EQ(text,
              "<request xsi:type=\"C\" id=\"" + encoder.getId() + "\" coreId=\"" + core + "\"/>");
    EXPECT_EQ(RequestEncoder::getRequestId(text), encoder.getId());
}

TEST(RequestEncoderTest, SetCoreIdReplacesInPlace) {
    RequestEncoder encoder("C");
    std::string text = encoder.getEncodedRequest();
    RequestEncoder::setCoreId(text, std::string(50, 'A'));
    RequestEncoder::setCoreId(text, std::string(50, 'B'));
    EXPECT_EQ(text, "<request xsi:type=\"C\" id=\"" + encoder.getId() + "\" coreId=\"" +
                        std::string(50, 'B') + "\"/>");
    // An empty value replaces the 50 characters by nothing.
    RequestEncoder::setCoreId(text, "");
    EXPECT_EQ(text, "<request xsi:type=\"C\" id=\"" + encoder.getId() + "\" coreId=\"\"/>");
}

TEST(RequestEncoderTest, EmptyCoreIdOnTextWithoutOneChangesNothing) {
    RequestEncoder encoder("C");
    std::string text = encoder.getEncodedRequest();
    std::string before = text;
    RequestEncoder::setCoreId(text, "");
    EXPECT_EQ(text, before);
    // A text without an id gets one.
    std::string noId = "<request xsi:type=\"C\"/>";
    RequestEncoder::setCoreId(noId, "");
    std::smatch match;
    ASSERT_TRUE(
        std::regex_match(noId, match, std::regex("<request id=\"(.{50})\" xsi:type=\"C\"/>")))
        << noId;
    EXPECT_TRUE(std::regex_match(match[1].str(), c_idPattern));
}

TEST(RequestEncoderTest, DecoratedRequestLeavesArgumentAlone) {
    RequestEncoder encoder("C");
    std::string text = encoder.getEncodedRequest();
    std::string copy = text;
    std::string decorated = RequestEncoder::getDecoratedRequest(text, std::string(50, 'D'));
    EXPECT_EQ(text, copy);
    EXPECT_NE(decorated.find("coreId=\"" + std::string(50, 'D') + "\""), std::string::npos);
}

TEST(RequestEncoderTest, RequestIdNeedsFiftyCharacters) {
    EXPECT_EQ(RequestEncoder::getRequestId("<request xsi:type=\"C\" id=\"short\"/>"), "");
    EXPECT_EQ(RequestEncoder::getRequestId("<request id=\"" + std::string(51, 'A') + "\"/>"), "");
    EXPECT_EQ(RequestEncoder::getRequestId("<request id=\"" + std::string(50, 'A') + "\"/>"),
              std::string(50, 'A'));
    EXPECT_EQ(RequestEncoder::getRequestId("no id at all"), "");
    EXPECT_EQ(RequestEncoder::getRequestId(""), "");
}

TEST(RequestEncoderTest, RequestTypeAndItsMissingGuard) {
    EXPECT_EQ(RequestEncoder::getRequestType("<request xsi:type=\"GetStatusRequest\" id=\"x\"/>"),
              "GetStatusRequest");
    // Without the marker the search counts from offset 18.
    EXPECT_EQ(RequestEncoder::getRequestType("0123456789ABCDEFGHxyz\"rest"), "xyz");
    EXPECT_THROW(RequestEncoder::getRequestType("too short"), std::out_of_range);
}

TEST(RequestEncoderTest, UndecoratedTextsAndBodyHashesOfEqualRequests) {
    RequestEncoder a("Same"), b("Same");
    for (RequestEncoder* e : {&a, &b}) {
        e->addAttribute("coreId", std::string(50, 'E'));
        e->addAttribute("level", 2);
        e->addElement("value", 1.25, "   ");
    }
    EXPECT_NE(a.getId(), b.getId());
    EXPECT_EQ(a.getEncodedUndecoratedRequest(), b.getEncodedUndecoratedRequest());
    EXPECT_EQ(a.getEncodedUndecoratedRequest(),
              "<request xsi:type=\"Same\" level=\"2\">\n   <value>1.25</value>\n</request>");
    EXPECT_EQ(a.getBodyHash(), b.getBodyHash());
    EXPECT_EQ(a.getBodyHash().size(), 48u);
}

TEST(RequestEncoderTest, BodyHashIgnoresWhitespace) {
    std::string tight = "<request xsi:type=\"T\" id=\"I\"><a>1</a><b x=\"2\"/></request>";
    std::string loose = "<request xsi:type=\"T\" id=\"J\" >\n\t<a>1</a>  \r\n   <b x=\"2\"/>\n"
                        "      \t\t </request>";
    EXPECT_EQ(RequestEncoder::getBodyHash(tight), RequestEncoder::getBodyHash(loose));
    EXPECT_EQ(RequestEncoder::getBodyHash(tight), TigerHash::tHash("<a>1</a><b x=\"2\"/>"));
    EXPECT_EQ(RequestEncoder::getBodyHash(""), "");
    EXPECT_EQ(RequestEncoder::getBodyHash("<request xsi:type=\"T\"/>"), "");
    EXPECT_EQ(RequestEncoder::getBodyHash("<request xsi:type=\"T\"></request>"), "");
    RequestEncoder empty("T");
    EXPECT_EQ(empty.getBodyHash(), "");
}

TEST(XmlRequestTest, ParsesAndValidatesAWrappedRequest) {
    registerSchema();
    RequestEncoder encoder("EncoderTestRequest");
    encoder.addElement("anything", std::string("v"), "  ");
    XmlRequest request(encoder.getEncodedRequest(), true);
    EXPECT_EQ(request.getId(), encoder.getId());
    EXPECT_EQ(request.getType(), "EncoderTestRequest");
    EXPECT_EQ(request.getSourceString(), encoder.getEncodedRequest());
    ASSERT_NE(request.getRootElement(), nullptr);
    DecodedRequest decoded(request.getRootElement());
    EXPECT_EQ(decoded.getId(), encoder.getId());
    EXPECT_EQ(decoded.getType(), "EncoderTestRequest");
    EXPECT_EQ(decoded.getClientDescription(), "UNKNOWN");
    XmlRequest copy(request); // a copy shares, and releases nothing
    EXPECT_EQ(copy.getRootElement(), request.getRootElement());
}

TEST(XmlRequestTest, MalformedInputThrows) {
    registerSchema();
    LogCapture capture;
    try {
        XmlRequest request("", true);
        FAIL();
    } catch (const KsExceptionNested& e) {
        EXPECT_STREQ(e.what(), "Error creating XmlRequest: requestString is empty.");
        EXPECT_EQ(e.getSource(), "RequestHandling");
    }
    EXPECT_TRUE(
        capture.contains(LogLevel::Debug, "Error creating XmlRequest: requestString is empty."));
    std::string valid = RequestEncoder("EncoderTestRequest").getEncodedRequest();
    for (const std::string& bad :
         {valid.substr(0, valid.size() / 2), std::string("<request/>"),
          std::string("<request xsi:type=\"UndeclaredRequest\" id=\"" + UniqueID::generateId() +
                      "\"/>"),
          std::string("<request xsi:type=\"EncoderTestRequest\" id=\"bad id\"/>"),
          std::string("plain text")}) {
        EXPECT_THROW(XmlRequest(bad, true), KsExceptionNested) << bad;
    }
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Exception while parsing XmlRequest."));
    // A whole document without a request element.
    EXPECT_THROW(XmlRequest("<?xml version=\"1.0\"?><KS_Reply " +
                                RequestXmlHelper::getNamespaceDeclarations() + "/>",
                            false),
                 KsExceptionNested);
}

TEST(RequestTest, AbortLogSignalsAndDestruction) {
    registerSchema();
    LogCapture capture;
    RequestEncoder encoder("EncoderTestRequest");
    XmlRequest xml(encoder.getEncodedRequest(), true);
    std::string destroyedId;
    int aborts = 0;
    std::vector<std::string> texts;
    {
        DecodedRequest request(xml.getRootElement());
        auto c1 = request.getAbortSignal().connect([&] { ++aborts; });
        auto c2 =
            request.getLogSignal().connect([&](const LogMessage& m) { texts.push_back(m.text()); });
        request.getDestroyedSignal()
            .connect([&](const std::string& id) { destroyedId = id; })
            .releaseWithoutDisconnect();
        EXPECT_FALSE(request.isAborted());
        request.sendLogMessage(LogMessage("step 1", LogMessage::Info, "g"));
        request.abort();
        EXPECT_TRUE(request.isAborted());
        EXPECT_EQ(aborts, 1);
        c2.releaseWithoutDisconnect();
        c1.releaseWithoutDisconnect();
    }
    EXPECT_EQ(texts, std::vector<std::string>{"step 1"});
    EXPECT_EQ(destroyedId, encoder.getId());
    EXPECT_TRUE(
        capture.contains(LogLevel::Info, "Aborting EncoderTestRequest " + encoder.getId() + "..."));
}

TEST(RequestTest, Fingerprint) {
    registerSchema();
    XmlRequest xml(RequestEncoder("EncoderTestRequest").getEncodedRequest(), true);
    DecodedRequest request(xml.getRootElement());
    request.setClientDescription("client");
    EXPECT_EQ(request.getFingerprint(false), TigerHash::tHash("clientEncoderTestRequest"));
    request.setSourceString("<source/>");
    EXPECT_EQ(request.getFingerprint(false), TigerHash::tHash("<source/>"));
    EXPECT_EQ(request.getFingerprint(true), TigerHash::tHash("clientEncoderTestRequest"));
    request.addTmpPath(FileName("/tmp/a"));
    ASSERT_EQ(request.getTmpPaths().size(), 1u);
}
