#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ArchAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HdfsAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Tests/XLinkTestSupport.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTranscoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTypeNames.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Kestrane;
using namespace KestraneTest;

namespace {

const char* const c_id = "0123456789ABCDEF-0123456789ABCDEF-0123456789ABCDEF";

std::shared_ptr<Reply> decodeElements(const std::string& elements) {
    registerLinkTestSchema();
    return Reply::decode("<reply xsi:type=\"LinkTestReply\" requestId=\"" + std::string(c_id) +
                         "\">\n" + elements + "\n</reply>\n");
}

template <typename T> std::string dhaElement(const std::string& name, const T* data, uint64_t n) {
    return *XLinkDataEncoder::encode<T>(name, XLinkTypeNames::dataTypeOf<T>(), data, n, false,
                                        XLinkProtocol::dha, nullptr, false);
}

// An element that holds the array as a memory file; the array itself is freed.
template <typename T> std::string hdfsElement(const std::string& name, T* mallocked, uint64_t n) {
    std::string element = dhaElement<T>(name, mallocked, n);
    EXPECT_TRUE(XLinkTranscoder::dhaToHdfs(element, true, 3)) << element;
    EXPECT_NE(element.find("hdfs://"), std::string::npos) << element;
    return element;
}

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

template <typename T> T* typed(Reply& reply, const std::string& name);
template <> char* typed<char>(Reply& reply, const std::string& name) {
    return reply.getCharArray(name);
}
template <> unsigned char* typed<unsigned char>(Reply& reply, const std::string& name) {
    return reply.getUnsignedCharArray(name);
}
template <> int* typed<int>(Reply& reply, const std::string& name) {
    return reply.getIntArray(name);
}
template <> unsigned int* typed<unsigned int>(Reply& reply, const std::string& name) {
    return reply.getUnsignedIntArray(name);
}
template <> float* typed<float>(Reply& reply, const std::string& name) {
    return reply.getFloatArray(name);
}
template <> double* typed<double>(Reply& reply, const std::string& name) {
    return reply.getDoubleArray(name);
}

// Every getter but the one of T gives null for an element of T.
template <typename T> int otherGettersThatAnswer(Reply& reply, const std::string& name) {
    int answers = 0;
    if (!std::is_same<T, char>::value && reply.getCharArray(name))
        ++answers;
    if (!std::is_same<T, unsigned char>::value && reply.getUnsignedCharArray(name))
        ++answers;
    if (!std::is_same<T, int>::value && reply.getIntArray(name))
        ++answers;
    if (!std::is_same<T, unsigned int>::value && reply.getUnsignedIntArray(name))
        ++answers;
    if (!std::is_same<T, float>::value && reply.getFloatArray(name))
        ++answers;
    if (!std::is_same<T, double>::value && reply.getDoubleArray(name))
        ++answers;
    return answers;
}

template <typename T> void checkDhaGetter() {
    const uint64_t n = 5;
    T* data = mallocArray<T>(n, 3);
    auto reply = decodeElements(dhaElement<T>("arr", data, n));
    EXPECT_EQ(typed<T>(*reply, "arr"), data);
    EXPECT_EQ(typed<T>(*reply, ""), data);
    EXPECT_EQ(typed<T>(*reply, "other"), nullptr);
    EXPECT_EQ(otherGettersThatAnswer<T>(*reply, "arr"), 0);
    EXPECT_EQ(reply->getArraySize("arr", XLinkTypeNames::dataTypeOf<T>()), n);
    std::free(data);
}

template <typename T> void checkHdfsGetter() {
    const uint64_t n = 6;
    T* data = mallocArray<T>(n, 7);
    std::vector<T> expected(data, data + n);
    auto reply = decodeElements(hdfsElement<T>("mem", data, n));
    EXPECT_EQ(otherGettersThatAnswer<T>(*reply, "mem"), 0);
    T* first = typed<T>(*reply, "mem");
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(typed<T>(*reply, "mem"), first); // converted once
    EXPECT_EQ(std::vector<T>(first, first + n), expected);
    EXPECT_EQ(reply->getArraySize("mem", ""), n);
    ASSERT_EQ(reply->getData().size(), 1u);
    EXPECT_EQ(reply->getData()[0].getHref().substr(0, 6), "dha://");
    EXPECT_EQ(reply->getData()[0].getDataType(), XLinkTypeNames::dataTypeOf<T>());
    std::free(first);
}

} // namespace

// ---- decode and element access -------------------------------------------------------------

TEST(ReplyTest, DecodeErrors) {
    LogCapture capture;
    try {
        Reply::decode("");
        ADD_FAILURE() << "no exception";
    } catch (const KsExceptionNested& e) {
        EXPECT_STREQ(e.what(), "Error decoding reply: replyString is empty.");
        EXPECT_EQ(e.getSource(), "RequestHandling");
    }
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Error decoding reply: replyString is empty."));
    EXPECT_THROW(Reply::decode("<reply xsi:type=\"AckReply\""), KsExceptionNested);
    EXPECT_THROW(Reply::decode("<nonsense/>"), KsExceptionNested);
}

TEST(ReplyTest, ElementsByName) {
    ReplyEncoder encoder("LinkTestReply", c_id);
    encoder.addText("<data name=\"a\">first</data>");
    encoder.addText("<data name=\"b\">second</data>");
    registerLinkTestSchema();
    auto reply = Reply::decode(encoder.getEncodedReply("   ", "  "));
    EXPECT_EQ(reply->getType(), "LinkTestReply");
    EXPECT_EQ(reply->getRequestId(), c_id);
    EXPECT_EQ(reply->getAttribute("requestId"), c_id);
    EXPECT_EQ(reply->getElement("data"), "first");
    EXPECT_EQ(reply->getElements("data"), (std::vector<std::string>{"first", "second"}));
    EXPECT_TRUE(reply->hasElement("data"));
    EXPECT_FALSE(reply->hasElement("status"));
    EXPECT_EQ(reply->getElement("status"), "");
    EXPECT_TRUE(reply->getElements("status").empty());
    EXPECT_EQ(reply->getDomElements("data").size(), 2u);
    EXPECT_EQ(reply->getDomElement("data"), reply->getDomElements("data")[0]);
    EXPECT_NE(reply->getRootDomElement(), nullptr);
    // Elements without the link attributes are no data elements.
    EXPECT_TRUE(reply->getData().empty());
    auto first = reply->getKSData("data");
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->getName(), "a");
    EXPECT_FALSE(first->isValid());
    EXPECT_EQ(reply->getKSData("status"), nullptr);
    auto all = reply->getKSDatas("data");
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[1]->getName(), "b");
    EXPECT_TRUE(reply->getKSDatas("status").empty());
}

TEST(ReplyTest, OnlyValidDataElementsAreKept) {
    int values[2] = {1, 2};
    auto reply = decodeElements(
        "<data name=\"noHref\" dataPtrType=\"p\" dataType=\"t\" dataSize=\"1\"/>" +
        dhaElement<int>("good", values, 2) +
        "<data name=\"noSize\" dataPtrType=\"p\" dataType=\"t\" href=\"dha://#0\"/>" +
        "<data dataPtrType=\"p\" dataType=\"t\" dataSize=\"1\" href=\"dha://#0\"/>");
    ASSERT_EQ(reply->getData().size(), 1u);
    EXPECT_EQ(reply->getData()[0].getName(), "good");
    EXPECT_EQ(reply->getKSDatas("data").size(), 4u);
}

TEST(ReplyTest, FilePaths) {
    auto reply = decodeElements("<data name=\"f\" href=\"file:///C:/x\"/>"
                                "<data name=\"g\" href=\"file:////tmp/some/file.txt\"/>");
    EXPECT_EQ(reply->getFilePath("data").toString(), "C:/x");
    EXPECT_EQ(reply->getKSDatas("data")[1]->getFilePath().toString(), "/tmp/some/file.txt");
    EXPECT_EQ(reply->getFilePath("missing").toString(), "");
    auto shortHref = decodeElements("<data name=\"f\" href=\"file://\"/>");
    EXPECT_THROW(shortHref->getFilePath("data"), std::out_of_range);
}

// ---- typed arrays ---------------------------------------------------------------------------

TEST(ReplyTest, EncoderArraysAreFound) {
    int ints[3] = {4, -5, 6};
    double doubles[2] = {0.5, -2.25};
    ReplyEncoder encoder("LinkTestReply", c_id);
    encoder.addIntArrayElement("ints", ints, 3);
    encoder.addDoubleArrayElement("doubles", doubles, 2);
    registerLinkTestSchema();
    auto reply = Reply::decode(encoder.getEncodedReply("   ", "  "));
    ASSERT_EQ(reply->getData().size(), 2u);
    EXPECT_EQ(reply->getData()[0].getTag(), "data");
    EXPECT_EQ(reply->getIntArray("ints"), ints);
    EXPECT_EQ(reply->getDoubleArray("doubles"), doubles);
    EXPECT_EQ(reply->getIntArray(""), ints);
    EXPECT_EQ(reply->getDoubleArray(""), doubles);
    EXPECT_EQ(reply->getIntArray("doubles"), nullptr);
    EXPECT_EQ(reply->getDoubleArray("ints"), nullptr);
    EXPECT_EQ(reply->getArraySize("ints", ""), 3u);
    EXPECT_EQ(reply->getArraySize("doubles", "8-byte double"), 2u);
    EXPECT_EQ(reply->getArraySize("doubles", "4-byte int"), 0u);
    EXPECT_EQ(reply->getArraySize("", ""), 0u);
    EXPECT_EQ(reply->getArraySize("nothing", ""), 0u);
}

TEST(ReplyTest, SixGettersOnDhaElements) {
    checkDhaGetter<char>();
    checkDhaGetter<unsigned char>();
    checkDhaGetter<int>();
    checkDhaGetter<unsigned int>();
    checkDhaGetter<float>();
    checkDhaGetter<double>();
}

TEST(ReplyTest, SixGettersOnMemoryFiles) {
    checkHdfsGetter<char>();
    checkHdfsGetter<unsigned char>();
    checkHdfsGetter<int>();
    checkHdfsGetter<unsigned int>();
    checkHdfsGetter<float>();
    checkHdfsGetter<double>();
}

TEST(ReplyTest, ArraySizeConvertsMemoryFile) {
    int* data = mallocArray<int>(4, 1);
    auto reply = decodeElements(hdfsElement<int>("m", data, 4));
    // A memory file carries the short type name and the size of its block in bytes.
    ASSERT_EQ(reply->getData().size(), 1u);
    EXPECT_EQ(reply->getData()[0].getDataType(), "int");
    EXPECT_EQ(reply->getArraySize("m", "4-byte int"), 0u);
    EXPECT_NE(reply->getData()[0].getHdfsPointer(), nullptr);
    EXPECT_EQ(reply->getArraySize("m", "int"), 4u);
    EXPECT_EQ(reply->getData()[0].getHdfsPointer(), nullptr);
    EXPECT_EQ(reply->getArraySize("m", "4-byte int"), 4u);
    int* converted = reply->getIntArray("m");
    ASSERT_NE(converted, nullptr);
    EXPECT_EQ(reply->getIntArray("m"), converted);
    std::free(converted);
}

TEST(ReplyTest, NameFilterTakesTheNamedElement) {
    int a[2] = {1, 2};
    int b[3] = {3, 4, 5};
    double c[1] = {1.5};
    auto reply = decodeElements(dhaElement<double>("c", c, 1) + dhaElement<int>("a", a, 2) +
                                dhaElement<int>("b", b, 3));
    EXPECT_EQ(reply->getIntArray(""), a);
    EXPECT_EQ(reply->getIntArray("a"), a);
    EXPECT_EQ(reply->getIntArray("b"), b);
    EXPECT_EQ(reply->getIntArray("c"), nullptr);
    EXPECT_EQ(reply->getDoubleArray(""), c);
    EXPECT_EQ(reply->getArraySize("b", ""), 3u);
    EXPECT_EQ(reply->getArraySize("a", "4-byte int"), 2u);
}

TEST(ReplyTest, ShortTypeNameIsFoundAndRejected) {
    int a[2] = {1, 2};
    int b[2] = {3, 4};
    std::string shortA = dhaElement<int>("a", a, 2);
    replaceAll(shortA, "dataType=\"4-byte int\"", "dataType=\"int\"");
    ASSERT_NE(shortA.find("dataType=\"int\""), std::string::npos) << shortA;
    // The first match decides: a later element with the long name is not reached.
    auto reply = decodeElements(shortA + dhaElement<int>("b", b, 2));
    EXPECT_EQ(reply->getIntArray(""), nullptr);
    EXPECT_EQ(reply->getIntArray("a"), nullptr);
    EXPECT_EQ(reply->getIntArray("b"), b);

    // A memory file says "int" too; it is converted, and the conversion writes the long name,
    // so its array is accepted.
    int* data = mallocArray<int>(3, 2);
    std::string memory = hdfsElement<int>("m", data, 3);
    ASSERT_NE(memory.find("dataType=\"int\""), std::string::npos) << memory;
    auto converted = decodeElements(memory);
    int* array = converted->getIntArray("m");
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(converted->getData()[0].getDataType(), "4-byte int");
    EXPECT_EQ(converted->getIntArray("m"), array);
    std::free(array);
}

TEST(ReplyTest, EmptyOrNullArraysAreRejected) {
    int a[1] = {1};
    std::string empty = dhaElement<int>("e", a, 1);
    replaceAll(empty, "dataSize=\"1\"", "dataSize=\"0\"");
    auto reply = decodeElements(empty + "<data name=\"n\" dataPtrType=\"" +
                                XLinkTypeNames::dataPtrTypeOf<int>() +
                                "\" dataType=\"4-byte int\" dataSize=\"2\" href=\"dha://#0\"/>");
    EXPECT_EQ(reply->getIntArray("e"), nullptr);
    EXPECT_EQ(reply->getIntArray("n"), nullptr);
    EXPECT_EQ(reply->getArraySize("n", ""), 0u);
}

// ---- reply directory ------------------------------------------------------------------------

TEST(ReplyTest, ReplyTmpDirName) {
    EXPECT_EQ(Reply::getReplyTmpDirName(c_id), "Reply_0123456789");
    EXPECT_EQ(Reply::getReplyTmpDirName("abc"), "Reply_abc");
    EXPECT_EQ(Reply::getReplyTmpDirName(""), "Reply_");
    EXPECT_EQ(Reply::getReplyTmpDir("abc").toString(),
              (PathConfiguration::getKsPathTmp() / "Reply_abc").toString());
    auto reply = decodeElements("");
    EXPECT_EQ(reply->getReplyTmpDirName(), "Reply_0123456789");
}

TEST(ReplyTest, DeleteReplyTmpDir) {
    std::string id = UniqueID::generateId();
    registerLinkTestSchema();
    auto reply = Reply::decode("<reply xsi:type=\"LinkTestReply\" requestId=\"" + id + "\"/>\n");
    FileName dir = reply->getReplyTmpDir();
    ASSERT_FALSE(FileUtilities::exists(dir));
    LogCapture capture;
    reply->deleteReplyTmpDir();
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Reply tmp dir '" + dir.toString() +
                                                      "' does not exist: nothing to delete."));
    FileUtilities::createDirectories(dir);
    ASSERT_TRUE(FileUtilities::exists(dir));
    capture.clear();
    reply->deleteReplyTmpDir();
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, "Deleting reply tmp dir '" + dir.toString() + "'..."));
    for (int i = 0; i < 200 && FileUtilities::exists(dir); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_FALSE(FileUtilities::exists(dir));
}

// ---- ReplyEncoder::updateAttachments --------------------------------------------------------

TEST(UpdateAttachmentsReplyTest, FileAndHdfsHrefsAreRewritten) {
    unsigned char bytes[4] = {1, 2, 3, 4};
    auto hdfs = std::make_shared<HdfsAttachment>("H", bytes, 4);
    std::map<std::string, std::shared_ptr<Attachment>> map{
        {"F", std::make_shared<FileAttachment>("F", FileName("/recv/f.txt"), true, false)},
        {"H", hdfs},
        {"A", std::make_shared<ArchAttachment>("A", bytes, 4)}};
    std::string text = replyText("<data id=\"F\" name=\"f\" href=\"file:///remote/f.txt\"/>\n"
                                 "<data id=\"H\" name=\"h\" href=\"hdfs://#99\"/>\n"
                                 "<data id=\"A\" name=\"a\" href=\"arch://#98\"/>");
    registerLinkTestSchema();
    ReplyEncoder::updateAttachments(text, map);
    EXPECT_EQ(text, replyText("<data id=\"F\" name=\"f\" href=\"file:///" +
                              FileName("/recv/f.txt").toString() + "\"/>\n" +
                              "<data id=\"H\" name=\"h\" href=\"hdfs://" +
                              XLinkUtils::getAddressString(bytes, true) + "\"/>\n" +
                              "<data id=\"A\" name=\"a\" href=\"arch://#98\"/>"));
    // The map is left as it was.
    EXPECT_EQ(map.size(), 3u);
}

TEST(UpdateAttachmentsReplyTest, MissingMappingsAreLogged) {
    unsigned char bytes[1] = {1};
    std::map<std::string, std::shared_ptr<Attachment>> map{
        {"W", std::make_shared<ArchAttachment>("W", bytes, 1)},
        {"V", std::make_shared<FileAttachment>("V", FileName("/v"), false, false)}};
    std::string text = replyText("<data id=\"M\" name=\"f\" href=\"file:///remote/f\"/>\n"
                                 "<data id=\"W\" name=\"f\" href=\"file:///remote/g\"/>\n"
                                 "<data id=\"N\" name=\"h\" href=\"hdfs://#99\"/>\n"
                                 "<data id=\"V\" name=\"h\" href=\"hdfs://#98\"/>");
    const std::string original = text;
    registerLinkTestSchema();
    LogCapture capture;
    ReplyEncoder::updateAttachments(text, map);
    EXPECT_EQ(text, original);
    EXPECT_TRUE(capture.contains(LogLevel::Error, "No mapping for id M (FILE_XLNK type)."));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "No mapping for id W (FILE_XLNK type)."));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "No hdfs attachment for id N."));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "No hdfs attachment for id V."));
}

TEST(UpdateAttachmentsReplyTest, SharedHrefChangesFirstOccurrenceEachTime) {
    std::map<std::string, std::shared_ptr<Attachment>> map{
        {"B", std::make_shared<FileAttachment>("B", FileName("/second"), true, false)},
        {"A", std::make_shared<FileAttachment>("A", FileName("/first"), true, false)}};
    std::string text = replyText("<data id=\"A\" name=\"a\" href=\"file:///same\"/>\n"
                                 "<data id=\"B\" name=\"b\" href=\"file:///same\"/>");
    registerLinkTestSchema();
    ReplyEncoder::updateAttachments(text, map);
    EXPECT_EQ(text, replyText("<data id=\"A\" name=\"a\" href=\"file:///" +
                              FileName("/first").toString() + "\"/>\n" +
                              "<data id=\"B\" name=\"b\" href=\"file:///" +
                              FileName("/second").toString() + "\"/>"));

    // When the first replacement contains the old href, the second element changes the first
    // occurrence again: the one that the first element just wrote.
    std::map<std::string, std::shared_ptr<Attachment>> growing{
        {"A", std::make_shared<FileAttachment>("A", FileName("/same/x"), true, false)},
        {"B", std::make_shared<FileAttachment>("B", FileName("/other"), true, false)}};
    std::string nested = replyText("<data id=\"A\" name=\"a\" href=\"file:////same\"/>\n"
                                   "<data id=\"B\" name=\"b\" href=\"file:////same\"/>");
    ReplyEncoder::updateAttachments(nested, growing);
    EXPECT_EQ(nested, replyText("<data id=\"A\" name=\"a\" href=\"file:////other/x\"/>\n"
                                "<data id=\"B\" name=\"b\" href=\"file:////same\"/>"));
}

TEST(UpdateAttachmentsReplyTest, MalformedTextThrows) {
    std::map<std::string, std::shared_ptr<Attachment>> map;
    std::string text = "<reply xsi:type=\"LinkTestReply\"";
    LogCapture capture;
    EXPECT_THROW(ReplyEncoder::updateAttachments(text, map), KsExceptionNested);
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Exception while updating attachments."));
}

// ---- a reply that no server wrote -------------------------------------------------------------

TEST(RequestServerUnreachableReplyTest, TypeAndMessage) {
    RequestServerUnreachableReply reply("no server");
    EXPECT_EQ(reply.getType(), "RequestServerUnreachableReply");
    EXPECT_EQ(reply.getErrorMessage(), "no server");
    EXPECT_EQ(reply.getRequestId(), "");
    EXPECT_EQ(reply.getElement("x"), "");
    EXPECT_EQ(reply.getKSData("x"), nullptr);
    EXPECT_EQ(reply.getIntArray(""), nullptr);
}
