#include "Platform/RemoteComputation/Service/RequestHandling/AbstractRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ArchAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Attachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HdfsAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Tests/XLinkTestSupport.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <boost/lexical_cast.hpp>
#include <gtest/gtest.h>
#include <xercesc/dom/DOM.hpp>

#include <map>
#include <regex>
#include <string>
#include <vector>

using namespace Kestrane;
using namespace KestraneTest;

namespace {

using AttachmentMap = std::map<std::string, std::shared_ptr<Attachment>>;

const char* const c_id = "0123456789ABCDEF-0123456789ABCDEF-0123456789ABCDEF";

std::string opening(const std::string& root) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<" + root +
           " xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xmlns=\"" +
           RequestXmlHelper::c_namespaceUri + "\"\n";
}

// Takes out the value of one attribute (replacing it by a marker) and returns it.
std::string takeOut(std::string& text, const std::string& attribute) {
    std::smatch match;
    std::regex pattern(" " + attribute + "=\"([^\"]*)\"");
    if (!std::regex_search(text, match, pattern))
        return "<missing>";
    std::string value = match[1];
    text.replace(match.position(0), match.length(0), " " + attribute + "=\"X\"");
    return value;
}

bool isTimestamp(const std::string& text) {
    return std::regex_match(text, std::regex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}"
                                             "(\\.[0-9]{1,6})?"));
}

// Records the data elements of every request that it decodes: a decoded request keeps no DOM.
struct SeenElement {
    std::string id, href, fileTransfered, dataSize;
};

class CapturingHandler : public AbstractRequestHandler {
public:
    CapturingHandler() : AbstractRequestHandler("CapturingHandler") {}
    std::shared_ptr<Request> decodeRequest(XmlRequest& request) const override {
        if (request.getType() != "LinkTestRequest")
            return nullptr;
        seen.clear();
        for (auto element : XmlUtils::getElements("data", request.getRootElement()))
            seen.push_back({XmlUtils::getAttribute("id", element),
                            XmlUtils::getAttribute("href", element),
                            XmlUtils::getAttribute("fileTransfered", element),
                            XmlUtils::getAttribute("dataSize", element)});
        ++decodes;
        return std::make_shared<Request>(request.getRootElement());
    }
    bool canHandle(Request*) override { return true; }
    std::shared_ptr<std::string> handle(Request*) override { return nullptr; }

    mutable std::vector<SeenElement> seen;
    mutable int decodes = 0;
};

std::string dataElement(const std::string& id, const std::string& href) {
    return "<data id=\"" + id + "\" name=\"n\" href=\"" + href + "\"/>";
}

// A request package by hand, so that each attribute can be varied.
std::string requestPackage(const std::string& attributes, const std::string& elements = "") {
    return opening("KS_RequestPackage") + attributes + ">\n" + requestText(elements) +
           "</KS_RequestPackage>\n";
}

const char* const c_plainAttributes = " version=\"5.0.0\"\n serial=\"7\"\n timestamp=\"t\"\n"
                                      " clientId=\"C\"\n requestClientId=\"R\"\n"
                                      " origin=\"O\"\n progressUpdates=\"1\"\n"
                                      " replyExpected=\"0\"";

std::string replyPackage(const std::string& elements, const std::string& serial = "5") {
    return opening("KS_ReplyPackage") + " version=\"5.0.0\"\n serial=\"" + serial +
           "\"\n timestamp=\"t\"\n origin=\"o\">\n" + replyText(elements) + "</KS_ReplyPackage>\n";
}

struct PackageFixture : ::testing::Test {
    void SetUp() override { registerLinkTestSchema(); }
    CapturingHandler handler;

    std::shared_ptr<RequestPackage> decodeRequest(const std::string& text, AttachmentMap* map,
                                                  const std::string& remoteIp = "10.1.2.3") {
        return RequestPackage::decode(text, handler, map, remoteIp, "10.9.9.9");
    }
    std::vector<std::string> replyHrefs(const ReplyPackage& package) {
        std::vector<std::string> hrefs;
        for (auto element : package.getReply()->getDomElements("data"))
            hrefs.push_back(XmlUtils::getAttribute("href", element));
        return hrefs;
    }
};

} // namespace

// ---- encoders ----------------------------------------------------------------------------

TEST(PackageEncoderTest, RequestPackageWithoutReplyByteForByte) {
    const std::string request = requestText("");
    RequestPackageEncoder encoder(request, "REQCLIENT", "me@host");
    encoder.setReplyExpected(false);
    std::string text = encoder.getEncodedRequestPackage();
    std::string serial = takeOut(text, "serial");
    std::string timestamp = takeOut(text, "timestamp");
    EXPECT_TRUE(isTimestamp(timestamp)) << timestamp;
    EXPECT_NO_THROW(boost::lexical_cast<uint32_t>(serial));
    EXPECT_TRUE(UniqueID::isValid(RequestPackageEncoder::getClientId()));
    EXPECT_EQ(text, opening("KS_RequestPackage") + " version=\"5.0.0\"\n serial=\"X\"\n" +
                        " timestamp=\"X\"\n clientId=\"" + RequestPackageEncoder::getClientId() +
                        "\"\n requestClientId=\"REQCLIENT\"\n origin=\"me@host\"\n"
                        " progressUpdates=\"0\"\n replyExpected=\"0\">\n" +
                        request + "</KS_RequestPackage>\n");
}

TEST(PackageEncoderTest, RequestPackageWithReplyNamesTheLocalServer) {
    const std::string request = requestText("");
    RequestPackageEncoder encoder(request, "RC", "");
    encoder.setSendProgressUpdates(true);
    std::string text = encoder.getEncodedRequestPackage();
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    takeOut(text, "serial");
    EXPECT_TRUE(isTimestamp(takeOut(text, "timestamp")));
    EXPECT_EQ(text, opening("KS_RequestPackage") + " version=\"5.0.0\"\n serial=\"X\"\n" +
                        " timestamp=\"X\"\n clientId=\"" + RequestPackageEncoder::getClientId() +
                        "\"\n requestClientId=\"RC\"\n replyHost=\"" + server->getHostName() +
                        "\"\n replyPort=\"" + std::to_string(server->getPort()) +
                        "\"\n origin=\"RemoteRequestConnector@127.0.0.1\"\n"
                        " progressUpdates=\"1\"\n replyExpected=\"1\">\n" +
                        request + "</KS_RequestPackage>\n");
    EXPECT_NE(server->getPort(), 0);
}

TEST(PackageEncoderTest, EveryEncodingConsumesASerial) {
    RequestPackageEncoder encoder(requestText(""), "RC", "o");
    encoder.setReplyExpected(false);
    std::string first = encoder.getEncodedRequestPackage();
    std::string second = encoder.getEncodedRequestPackage();
    uint32_t a = boost::lexical_cast<uint32_t>(takeOut(first, "serial"));
    uint32_t b = boost::lexical_cast<uint32_t>(takeOut(second, "serial"));
    EXPECT_EQ(b, a + 1);
    RequestPackageEncoder other(requestText(""), "RC", "o");
    other.setReplyExpected(false);
    std::string third = other.getEncodedRequestPackage();
    EXPECT_EQ(boost::lexical_cast<uint32_t>(takeOut(third, "serial")), a + 2);
    // Apart from serial and time stamp the two texts are the same.
    takeOut(first, "timestamp");
    takeOut(second, "timestamp");
    EXPECT_EQ(first, second);
}

TEST(PackageEncoderTest, ReplyPackageByteForByte) {
    const std::string reply = replyText("");
    std::string text = ReplyPackageEncoder(reply, -12).getEncodedReplyPackage();
    std::string timestamp = takeOut(text, "timestamp");
    EXPECT_TRUE(isTimestamp(timestamp)) << timestamp;
    EXPECT_EQ(text, opening("KS_ReplyPackage") +
                        " version=\"5.0.0\"\n serial=\"-12\"\n timestamp=\"X\"\n"
                        " origin=\"OrvelConnector@127.0.0.1\">\n" +
                        reply + "</KS_ReplyPackage>\n");
}

TEST_F(PackageFixture, EncodedRequestPackageDecodes) {
    RequestPackageEncoder encoder(requestText(""), "RC", "");
    encoder.setSendProgressUpdates(true);
    std::string text = encoder.getEncodedRequestPackage();
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    auto package = decodeRequest(text, nullptr, "192.168.7.7");
    ASSERT_NE(package, nullptr);
    ASSERT_NE(package->getRequest(), nullptr);
    EXPECT_EQ(package->getRequest()->getId(), c_id);
    EXPECT_EQ(package->getRequest()->getRequestPackage(), package.get());
    EXPECT_EQ(package->getVersion(), "5.0.0");
    EXPECT_EQ(package->getClientId(), RequestPackageEncoder::getClientId());
    EXPECT_EQ(package->getRequestClientId(), "RC");
    EXPECT_EQ(package->getOrigin(), "RemoteRequestConnector@127.0.0.1");
    EXPECT_EQ(package->getLocalIp(), "10.9.9.9");
    EXPECT_TRUE(package->getSendProgressUpdates());
    EXPECT_TRUE(package->isReplyExpected());
    EXPECT_EQ(package->getRemoteHost().getName(), server->getHostName());
    EXPECT_EQ(package->getRemoteHost().getIp(), "192.168.7.7");
    EXPECT_EQ(package->getRemoteHost().getRequestServerPort(), server->getPort());
    EXPECT_EQ(package->getRequestServer(), nullptr);
    EXPECT_TRUE(isTimestamp(package->getTimestamp()));
}

TEST_F(PackageFixture, ReplyPackageRoundTrip) {
    std::string text = ReplyPackageEncoder(replyText(""), 41).getEncodedReplyPackage();
    auto package = ReplyPackage::decode(text, nullptr);
    ASSERT_NE(package, nullptr);
    EXPECT_EQ(package->getSerial(), 41u);
    EXPECT_EQ(package->getVersion(), "5.0.0");
    EXPECT_EQ(package->getOrigin(), "OrvelConnector@127.0.0.1");
    EXPECT_TRUE(isTimestamp(package->getTimestamp()));
    ASSERT_NE(package->getReply(), nullptr);
    EXPECT_EQ(package->getReply()->getType(), "LinkTestReply");
}

// ---- edge cases of the package section ---------------------------------------------------

TEST_F(PackageFixture, MissingReplyExpectedMeansNoReply) {
    std::string attributes = c_plainAttributes;
    attributes.erase(attributes.find("\n replyExpected"));
    attributes += "\n replyHost=\"h\"\n replyPort=\"99\"";
    LogCapture capture;
    auto package = decodeRequest(requestPackage(attributes), nullptr);
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "m_progressUpdates = 1"));
    EXPECT_FALSE(package->isReplyExpected());
    EXPECT_EQ(package->getRemoteHost().getName(), "");
    EXPECT_EQ(package->getRemoteHost().getIp(), "");
    EXPECT_EQ(package->getRemoteHost().getRequestServerPort(), HostInfo().getRequestServerPort());
    EXPECT_EQ(package->getSerial(), 7u);
    EXPECT_EQ(package->getTimestamp(), "t");
    EXPECT_EQ(package->getClientId(), "C");
    EXPECT_EQ(package->getOrigin(), "O");
    EXPECT_TRUE(package->getSendProgressUpdates());
}

TEST_F(PackageFixture, ReplyExpectedZeroLeavesRemoteHostEmpty) {
    std::string attributes = std::string(c_plainAttributes) + "\n replyHost=\"h\" replyPort=\"1\"";
    auto package = decodeRequest(requestPackage(attributes), nullptr);
    EXPECT_FALSE(package->isReplyExpected());
    EXPECT_EQ(package->getRemoteHost().getName(), "");
}

TEST_F(PackageFixture, ProgressUpdatesMustBeOneOrZero) {
    for (std::string value : {"true", ""}) {
        std::string attributes = c_plainAttributes;
        attributes.replace(attributes.find("progressUpdates=\"1\""), 19,
                           "progressUpdates=\"" + value + "\"");
        EXPECT_THROW(decodeRequest(requestPackage(attributes), nullptr), boost::bad_lexical_cast)
            << value;
    }
    std::string absent = c_plainAttributes;
    absent.erase(absent.find(" progressUpdates=\"1\"\n"), 21);
    EXPECT_THROW(decodeRequest(requestPackage(absent), nullptr), boost::bad_lexical_cast);
    std::string zero = c_plainAttributes;
    zero.replace(zero.find("progressUpdates=\"1\""), 19, "progressUpdates=\"0\"");
    EXPECT_FALSE(decodeRequest(requestPackage(zero), nullptr)->getSendProgressUpdates());
}

TEST_F(PackageFixture, ShortHrefsAreSkipped) {
    AttachmentMap map;
    map["A"] = std::make_shared<HdfsAttachment>("A", nullptr, 0);
    map["B"] = std::make_shared<FileAttachment>("B", FileName("/tmp/b"), true, false);
    LogCapture capture;
    decodeRequest(requestPackage(c_plainAttributes,
                                 dataElement("A", "hdfs://") + dataElement("B", "file://")),
                  &map);
    ASSERT_EQ(handler.seen.size(), 2u);
    EXPECT_EQ(handler.seen[0].href, "hdfs://");
    EXPECT_EQ(handler.seen[1].href, "file://");
    EXPECT_EQ(map.size(), 2u);
    EXPECT_FALSE(capture.containsSubstring("attachment for id"));
}

TEST_F(PackageFixture, FileHrefWithThreeSlashesIsAFileLink) {
    AttachmentMap map;
    map["F"] = std::make_shared<FileAttachment>("F", FileName("/recv/f.dat"), false, false);
    decodeRequest(requestPackage(c_plainAttributes, dataElement("F", "file:///orig/f.dat")), &map);
    ASSERT_EQ(handler.seen.size(), 1u);
    EXPECT_EQ(handler.seen[0].href, "file:///" + FileName("/recv/f.dat").toString());
    EXPECT_EQ(handler.seen[0].fileTransfered, "");
    EXPECT_TRUE(map.empty());
}

// The reader of an hdfs block takes the link's dataSize as the block's length: a peer that
// claims more than it sent must not make it read behind the block.
TEST_F(PackageFixture, BoundHdfsLinkCarriesTheSizeOfTheBlockThatArrived) {
    static unsigned char block[64] = {};
    AttachmentMap map;
    map["H"] = std::make_shared<HdfsAttachment>("H", block, sizeof(block));
    decodeRequest(requestPackage(c_plainAttributes,
                                 "<data id=\"H\" name=\"n\" dataSize=\"1000000\" "
                                 "href=\"hdfs://#0\"/>"),
                  &map);
    ASSERT_EQ(handler.seen.size(), 1u);
    EXPECT_EQ(handler.seen[0].href, "hdfs://" + XLinkUtils::getAddressString(block, true));
    EXPECT_EQ(handler.seen[0].dataSize, "64");
    EXPECT_TRUE(map.empty());
}

TEST_F(PackageFixture, OtherSchemesAreLeftAlone) {
    AttachmentMap map;
    map["D"] = std::make_shared<HdfsAttachment>("D", nullptr, 0);
    LogCapture capture;
    decodeRequest(requestPackage(c_plainAttributes, dataElement("D", "dha://#12345678")), &map);
    ASSERT_EQ(handler.seen.size(), 1u);
    EXPECT_EQ(handler.seen[0].href, "dha://#12345678");
    EXPECT_EQ(map.count("D"), 1u);
    EXPECT_FALSE(capture.containsSubstring("attachment for id"));
}

TEST_F(PackageFixture, ElementsWithoutIdAreSkipped) {
    AttachmentMap map;
    map[""] = std::make_shared<HdfsAttachment>("", nullptr, 0);
    decodeRequest(requestPackage(c_plainAttributes, "<data name=\"n\" href=\"hdfs://#0\"/>"), &map);
    ASSERT_EQ(handler.seen.size(), 1u);
    EXPECT_EQ(handler.seen[0].href, "hdfs://#0");
    EXPECT_EQ(map.size(), 1u);
}

TEST_F(PackageFixture, NullAttachmentMapVisitsNothing) {
    LogCapture capture;
    decodeRequest(requestPackage(c_plainAttributes, dataElement("F", "file:///x/y") +
                                                        dataElement("H", "hdfs://#0") +
                                                        dataElement("A", "arch://#0")),
                  nullptr);
    ASSERT_EQ(handler.seen.size(), 3u);
    EXPECT_EQ(handler.seen[0].href, "file:///x/y");
    EXPECT_EQ(handler.seen[1].href, "hdfs://#0");
    EXPECT_EQ(handler.seen[2].href, "arch://#0");
    EXPECT_FALSE(capture.containsSubstring("attachment for id"));

    auto reply = ReplyPackage::decode(replyPackage(dataElement("H", "hdfs://#0")), nullptr);
    EXPECT_EQ(replyHrefs(*reply), std::vector<std::string>{"hdfs://#0"});
}

TEST_F(PackageFixture, NegativeSerialReadsBackWrapped) {
    std::string text = ReplyPackageEncoder(replyText(""), -1).getEncodedReplyPackage();
    EXPECT_NE(text.find(" serial=\"-1\"\n"), std::string::npos);
    EXPECT_EQ(ReplyPackage::decode(text, nullptr)->getSerial(), 4294967295u);
}

// ---- attachments bound while decoding ------------------------------------------------------

TEST_F(PackageFixture, RequestPackageBindsEveryKind) {
    unsigned char hdfsBytes[4] = {1, 2, 3, 4};
    unsigned char archBytes[3] = {5, 6, 7};
    auto copied = std::make_shared<FileAttachment>("F1", FileName("/recv/one.dat"), true, false);
    auto notCopied =
        std::make_shared<FileAttachment>("F2", FileName("/share/two.dat"), false, true);
    auto hdfs = std::make_shared<HdfsAttachment>("H1", hdfsBytes, 4);
    auto arch = std::make_shared<ArchAttachment>("A1", archBytes, 3);
    AttachmentMap map{{"F1", copied},
                      {"F2", notCopied},
                      {"H1", hdfs},
                      {"A1", arch},
                      {"X", std::make_shared<HdfsAttachment>("X", nullptr, 0)}};
    decodeRequest(requestPackage(c_plainAttributes, dataElement("F1", "file:///far/one.dat") +
                                                        dataElement("F2", "file://far/two") +
                                                        dataElement("H1", "hdfs://#00000001") +
                                                        dataElement("A1", "arch://#00000002")),
                  &map);
    ASSERT_EQ(handler.seen.size(), 4u);
    EXPECT_EQ(handler.seen[0].href, "file:///" + FileName("/recv/one.dat").toString());
    EXPECT_EQ(handler.seen[0].fileTransfered, "true");
    EXPECT_EQ(handler.seen[1].href, "file:///" + FileName("/share/two.dat").toString());
    EXPECT_EQ(handler.seen[1].fileTransfered, "");
    EXPECT_EQ(handler.seen[2].href, "hdfs://" + hdfs->getAddressString(true));
    EXPECT_EQ(handler.seen[3].href, "arch://" + arch->getAddressString(true));
    EXPECT_NE(hdfs->getAddressString(true), "#00000001");
    // Only what was not claimed stays.
    ASSERT_EQ(map.size(), 1u);
    EXPECT_EQ(map.begin()->first, "X");
}

TEST_F(PackageFixture, ReplyPackageBindsEveryKind) {
    unsigned char hdfsBytes[4] = {1, 2, 3, 4};
    unsigned char archBytes[3] = {5, 6, 7};
    auto file = std::make_shared<FileAttachment>("F1", FileName("/recv/r.dat"), true, false);
    auto hdfs = std::make_shared<HdfsAttachment>("H1", hdfsBytes, 4);
    auto arch = std::make_shared<ArchAttachment>("A1", archBytes, 3);
    AttachmentMap map{{"F1", file}, {"H1", hdfs}, {"A1", arch}};
    auto package = ReplyPackage::decode(replyPackage(dataElement("F1", "file:///x") +
                                                     dataElement("H1", "hdfs://#1234") +
                                                     dataElement("A1", "arch://#5678")),
                                        &map);
    EXPECT_EQ(replyHrefs(*package),
              (std::vector<std::string>{"file:///" + FileName("/recv/r.dat").toString(),
                                        "hdfs://" + hdfs->getAddressString(true),
                                        "arch://" + arch->getAddressString(true)}));
    auto elements = package->getReply()->getDomElements("data");
    EXPECT_EQ(XmlUtils::getAttribute("fileTransfered", elements[0]), "true");
    EXPECT_TRUE(map.empty());
}

TEST_F(PackageFixture, MissingAttachmentsAreLoggedAndKeepTheirHref) {
    AttachmentMap map;
    LogCapture capture;
    decodeRequest(requestPackage(c_plainAttributes, dataElement("F9", "file:///a/b") +
                                                        dataElement("H9", "hdfs://#77") +
                                                        dataElement("A9", "arch://#88")),
                  &map);
    ASSERT_EQ(handler.seen.size(), 3u);
    EXPECT_EQ(handler.seen[0].href, "file:///a/b");
    EXPECT_EQ(handler.seen[1].href, "hdfs://#77");
    EXPECT_EQ(handler.seen[2].href, "arch://#88");
    EXPECT_TRUE(
        capture.contains(LogLevel::Info, "No file attachment for id F9 (file not transfered)."));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "No hdfs attachment for id H9."));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "No arch attachment for id A9."));

    capture.clear();
    ReplyPackage::decode(replyPackage(dataElement("F8", "file:///a/b") +
                                      dataElement("H8", "hdfs://#77") +
                                      dataElement("A8", "arch://#88")),
                         &map);
    EXPECT_TRUE(
        capture.contains(LogLevel::Info, "No file attachment for id F8 (file not transfered)."));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "No hdfs attachment for id H8."));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "No arch attachment for id A8."));
}

TEST_F(PackageFixture, WrongKindOfAttachmentIsNotBound) {
    unsigned char bytes[2] = {1, 2};
    AttachmentMap map{{"F", std::make_shared<HdfsAttachment>("F", bytes, 2)},
                      {"H", std::make_shared<ArchAttachment>("H", bytes, 2)},
                      {"A", std::make_shared<FileAttachment>("A", FileName("/a"), true, false)}};
    LogCapture capture;
    auto package = ReplyPackage::decode(replyPackage(dataElement("F", "file:///f") +
                                                     dataElement("H", "hdfs://#1") +
                                                     dataElement("A", "arch://#2")),
                                        &map);
    EXPECT_EQ(replyHrefs(*package),
              (std::vector<std::string>{"file:///f", "hdfs://#1", "arch://#2"}));
    EXPECT_EQ(map.size(), 3u);
    EXPECT_TRUE(
        capture.contains(LogLevel::Info, "No file attachment for id F (file not transfered)."));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "No hdfs attachment for id H."));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "No arch attachment for id A."));
}

TEST_F(PackageFixture, RemoteHostFromAttributesAndPeerAddress) {
    std::string attributes = c_plainAttributes;
    attributes.replace(attributes.find("replyExpected=\"0\""), 17,
                       "replyExpected=\"1\" replyHost=\"client.example\" replyPort=\"4711\"");
    auto package = decodeRequest(requestPackage(attributes), nullptr, "172.16.0.5");
    EXPECT_TRUE(package->isReplyExpected());
    EXPECT_EQ(package->getRemoteHost().getName(), "client.example");
    EXPECT_EQ(package->getRemoteHost().getIp(), "172.16.0.5");
    EXPECT_EQ(package->getRemoteHost().getRequestServerPort(), 4711);
}

TEST_F(PackageFixture, SetReplyExpectedLogs) {
    auto package = decodeRequest(requestPackage(c_plainAttributes), nullptr);
    LogCapture capture;
    package->setReplyExpected(true);
    EXPECT_TRUE(package->isReplyExpected());
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Setting m_replyExpected to 1"));
    RequestPackage copy(*package);
    EXPECT_EQ(copy.getRequest(), package->getRequest());
}

// ---- malformed input --------------------------------------------------------------------

namespace {
template <typename F> KsExceptionNested catchNested(F f) {
    try {
        f();
    } catch (const KsExceptionNested& e) {
        return e;
    }
    ADD_FAILURE() << "no KsExceptionNested";
    return KsExceptionNested("none", "", "", "", 0);
}
} // namespace

TEST_F(PackageFixture, EmptyTextsThrow) {
    LogCapture capture;
    auto request = catchNested([&] { decodeRequest("", nullptr); });
    EXPECT_STREQ(request.what(), "Error decoding request package: requestPackageString is empty.");
    EXPECT_EQ(request.getSource(), "RequestHandling");
    EXPECT_TRUE(capture.contains(LogLevel::Debug,
                                 "Error decoding request package: requestPackageString is empty."));
    AttachmentMap map;
    auto reply = catchNested([&] { ReplyPackage::decode("", &map); });
    EXPECT_STREQ(reply.what(), "Error decoding reply package: replyPackageString is empty.");
    EXPECT_EQ(reply.getSource(), "Requesthandling");
    EXPECT_TRUE(capture.contains(LogLevel::Debug,
                                 "Error decoding reply package: replyPackageString is empty."));
}

TEST_F(PackageFixture, TruncatedXmlThrows) {
    std::string request = requestPackage(c_plainAttributes);
    std::string reply = replyPackage("");
    LogCapture capture;
    EXPECT_THROW(decodeRequest(request.substr(0, request.size() / 2), nullptr), KsExceptionNested);
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Exception while decoding request package."));
    EXPECT_THROW(ReplyPackage::decode(reply.substr(0, reply.size() - 5), nullptr),
                 KsExceptionNested);
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Exception while decoding reply package."));
    EXPECT_EQ(handler.decodes, 0);
}

TEST_F(PackageFixture, WrongRootsThrow) {
    LogCapture capture;
    AttachmentMap map;
    auto reply =
        catchNested([&] { ReplyPackage::decode(requestPackage(c_plainAttributes), &map); });
    EXPECT_STREQ(reply.what(), "The root element is no 'KSOrvel_ReplyPackage'.");
    EXPECT_EQ(reply.getSource(), "Requesthandling");
    EXPECT_TRUE(
        capture.contains(LogLevel::Warn, "The root element is not 'KSOrvel_ReplyPackage'. "));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Exception while decoding reply package."));

    auto request = catchNested([&] { decodeRequest(replyPackage(""), nullptr); });
    EXPECT_STREQ(request.what(), "The root element is no 'KS_RequestPackage'.");
    EXPECT_EQ(request.getSource(), "RequestHandling");
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "The root element is not 'KS_RequestPackage'. "));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Exception while decoding request package."));

    // A document that is valid but neither package.
    std::string bare = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<KS_Reply " +
                       RequestXmlHelper::getNamespaceDeclarations() + ">\n" + replyText("") +
                       "</KS_Reply>\n";
    EXPECT_THROW(ReplyPackage::decode(bare, nullptr), KsExceptionNested);
    EXPECT_THROW(decodeRequest(bare, nullptr), KsExceptionNested);
    EXPECT_EQ(handler.decodes, 0);
}

TEST_F(PackageFixture, NullDocumentAndRoot) {
    LogCapture capture;
    auto nullDocument = catchNested([&] { RequestPackage(nullptr, nullptr, handler, "", ""); });
    EXPECT_STREQ(nullDocument.what(), "The domDocument is NULL.");
    auto nullReplyDocument = catchNested([&] { ReplyPackage(nullptr, nullptr); });
    EXPECT_STREQ(nullReplyDocument.what(), "The domDocument is NULL.");
    EXPECT_EQ(nullReplyDocument.getSource(), "Requesthandling");
    EXPECT_EQ(capture.count("The domDocument is NULL."), 2u);

    xercesc::DOMDocument* document =
        RequestXmlHelper::getInstance()->parse(requestPackage(c_plainAttributes));
    auto nullRoot = catchNested([&] { RequestPackage(document, nullptr, handler, "", ""); });
    EXPECT_STREQ(nullRoot.what(), "The root element is NULL.");
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "The root element is NULL."));
}

TEST_F(PackageFixture, SchemaInvalidXmlThrows) {
    std::string request = requestPackage(c_plainAttributes, "<unknown/>");
    std::string reply = replyPackage("<unknown/>");
    EXPECT_THROW(decodeRequest(request, nullptr), KsExceptionNested);
    EXPECT_THROW(ReplyPackage::decode(reply, nullptr), KsExceptionNested);
    std::string unknownAttribute = requestPackage(std::string(c_plainAttributes) + " bogus=\"1\"");
    EXPECT_THROW(decodeRequest(unknownAttribute, nullptr), KsExceptionNested);
    EXPECT_EQ(handler.decodes, 0);
}

TEST_F(PackageFixture, NonNumericNumbersThrow) {
    std::string badSerial = c_plainAttributes;
    badSerial.replace(badSerial.find("serial=\"7\""), 10, "serial=\"seven\"");
    EXPECT_THROW(decodeRequest(requestPackage(badSerial), nullptr), boost::bad_lexical_cast);
    std::string badPort = c_plainAttributes;
    badPort.replace(badPort.find("replyExpected=\"0\""), 17,
                    "replyExpected=\"1\" replyHost=\"h\" replyPort=\"port\"");
    EXPECT_THROW(decodeRequest(requestPackage(badPort), nullptr), boost::bad_lexical_cast);
    EXPECT_THROW(ReplyPackage::decode(replyPackage("", "x1"), nullptr), boost::bad_lexical_cast);
    LogCapture capture;
    EXPECT_THROW(ReplyPackage::decode(replyPackage("", ""), nullptr), boost::bad_lexical_cast);
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Exception while decoding reply package."));
}

TEST_F(PackageFixture, BadDataSizeInReplyThrows) {
    // The reply reads its data elements while the package is being built; the document must
    // not be lost when that fails.
    const std::string element = "<data name=\"d\" dataPtrType=\"p\" dataType=\"t\" "
                                "dataSize=\"many\" href=\"dha://#0\"/>";
    LogCapture capture;
    EXPECT_THROW(ReplyPackage::decode(replyPackage(element), nullptr), boost::bad_lexical_cast);
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Exception while decoding reply package."));
    EXPECT_THROW(Reply::decode(replyText(element)), boost::bad_lexical_cast);
}

TEST_F(PackageFixture, RequestTypeNoHandlerDecodesThrows) {
    class RefusingHandler : public AbstractRequestHandler {
    public:
        RefusingHandler() : AbstractRequestHandler("RefusingHandler") {}
        std::shared_ptr<Request> decodeRequest(XmlRequest&) const override { return nullptr; }
        bool canHandle(Request*) override { return false; }
        std::shared_ptr<std::string> handle(Request*) override { return nullptr; }
    } refusing;
    LogCapture capture;
    EXPECT_THROW(
        RequestPackage::decode(requestPackage(c_plainAttributes), refusing, nullptr, "", ""),
        KsExceptionNested);
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Exception while decoding request package."));
}

// ---- the package made for an unreachable server ----------------------------------------------

TEST(RequestServerUnreachableReplyPackageTest, CarriesOnlyTheReply) {
    RequestServerUnreachableReplyPackage package("server gone");
    ASSERT_NE(package.getReply(), nullptr);
    EXPECT_EQ(package.getReply()->getType(), "RequestServerUnreachableReply");
    auto reply = std::dynamic_pointer_cast<RequestServerUnreachableReply>(package.getReply());
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getErrorMessage(), "server gone");
    EXPECT_EQ(reply->getRequestId(), "");
    EXPECT_EQ(reply->getRootDomElement(), nullptr);
    EXPECT_TRUE(reply->getData().empty());
    EXPECT_FALSE(reply->hasElement("status"));
    EXPECT_EQ(package.getVersion(), "");
    EXPECT_EQ(package.getSerial(), 0u);
    EXPECT_EQ(package.getTimestamp(), "");
    EXPECT_EQ(package.getOrigin(), "");
    ReplyPackage copy(package);
    EXPECT_EQ(copy.getReply(), package.getReply());
}
