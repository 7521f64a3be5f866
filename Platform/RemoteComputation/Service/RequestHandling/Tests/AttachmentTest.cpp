#include "Platform/RemoteComputation/Service/RequestHandling/Attachment.h"

#include "Platform/RemoteComputation/Service/RequestHandling/ArchAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HdfsAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/KSData.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoderArch.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkFileEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTranscoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"

#include "Platform/RemoteComputation/Service/RequestHandling/Tests/XLinkTestSupport.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

using namespace Kestrane;
using namespace KestraneTest;

namespace {

std::string attribute(const std::string& element, const std::string& key) {
    std::string marker = " " + key + "=\"";
    std::size_t at = element.find(marker);
    if (at == std::string::npos)
        return "<absent>";
    at += marker.size();
    return element.substr(at, element.find('"', at) - at);
}

// A file of this test process, removed at the end of the test.
class TempFile {
public:
    explicit TempFile(const std::string& leaf)
        : m_path(::testing::TempDir() + "/" + std::to_string(getpid()) + "-" + leaf) {
        std::ofstream out(m_path, std::ios::binary);
        out << "attachment bytes";
    }
    ~TempFile() { std::remove(m_path.c_str()); }
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

std::shared_ptr<std::vector<std::shared_ptr<Attachment>>> create(std::string& text, bool& hasFiles,
                                                                 bool isRequest = false) {
    registerLinkTestSchema();
    return Attachment::createAttachments(text, hasFiles, isRequest);
}

} // namespace

TEST(AttachmentTest, DhaLinkBecomesPortableHdfsAttachment) {
    constexpr std::size_t c_count = 1000;
    double* array = mallocArray<double>(c_count, 3);
    std::vector<double> expected(array, array + c_count);
    std::string element = *XLinkDataEncoder::encode<double>(
        "values", "8-byte double", array, c_count, false, XLinkProtocol::dha, nullptr, false);
    std::string id = attribute(element, "id");
    std::string text = replyText(element);
    bool hasFiles = true;
    LogCapture capture;
    auto attachments = create(text, hasFiles); // frees the array
    EXPECT_FALSE(hasFiles);
    ASSERT_EQ(attachments->size(), 1u);
    auto hdfs = std::dynamic_pointer_cast<HdfsAttachment>(attachments->front());
    ASSERT_TRUE(hdfs);
    EXPECT_EQ(hdfs->getId(), id);

    // The text now holds the hdfs link of that block, under the same id.
    std::size_t at = text.find("<data ");
    ASSERT_NE(at, std::string::npos);
    std::string converted = text.substr(at, text.find('>', at) - at + 1);
    EXPECT_EQ(attribute(converted, "id"), id);
    EXPECT_EQ(attribute(converted, "dataType"), "double");
    EXPECT_EQ(attribute(converted, "dataPtrType"), "unsigned char *");
    EXPECT_EQ(attribute(converted, "href"), "hdfs://" + hdfs->getAddressString(true));
    EXPECT_EQ(attribute(converted, "dataSize"), std::to_string(hdfs->getDataSize()));
    EXPECT_EQ(text.find("dha://"), std::string::npos);
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, "Created HdfsAttachment: id=" + id +
                                              ", dataSize=" + std::to_string(hdfs->getDataSize())));

    // The block made here is the attachment's, until a reader takes it over as a receiver does.
    EXPECT_TRUE(hdfs->ownsBlock());
    hdfs->releaseBlock();
    ASSERT_TRUE(XLinkTranscoder::hdfsToDha(converted, true)); // frees the block
    KSData data(firstData(parseReply(converted)));
    auto* back = static_cast<double*>(data.getDhaPointer());
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(std::vector<double>(back, back + c_count), expected);
    std::free(back);
}

TEST(AttachmentTest, ForcedFileLinkSetsTheForceFlag) {
    TempFile file("forced.bin");
    std::string element = *XLinkFileEncoder::encode("input", FileName(file.path()), false, true);
    std::string text = replyText(element);
    std::string original = text;
    bool hasFiles = false;
    LogCapture capture;
    auto attachments = create(text, hasFiles);
    EXPECT_TRUE(hasFiles);
    EXPECT_EQ(text, original);
    ASSERT_EQ(attachments->size(), 1u);
    auto attachment = std::dynamic_pointer_cast<FileAttachment>(attachments->front());
    ASSERT_TRUE(attachment);
    EXPECT_EQ(attachment->getId(), attribute(element, "id"));
    EXPECT_EQ(attachment->getFileName().toString(), file.path());
    EXPECT_TRUE(attachment->getForceFileTransfer());
    EXPECT_TRUE(attachment->getFileTransfered());
    attachment->setFileTransfered(false);
    EXPECT_FALSE(attachment->getFileTransfered());
    EXPECT_TRUE(capture.containsSubstring("Created FileAttachment: id=" + attachment->getId() +
                                          ", fileName=" + file.path()));

    std::string unforced =
        replyText(*XLinkFileEncoder::encode("input", FileName(file.path()), false, false));
    auto plain = create(unforced, hasFiles);
    ASSERT_EQ(plain->size(), 1u);
    EXPECT_FALSE(std::static_pointer_cast<FileAttachment>(plain->front())->getForceFileTransfer());
}

TEST(AttachmentTest, OrderFollowsTheDocument) {
    TempFile file("ordered.bin");
    int* ints = mallocArray<int>(10, 0);
    auto bytes = std::make_shared<std::vector<unsigned char>>(std::vector<unsigned char>{9, 8});
    std::string archElement = *XLinkDataEncoderArch::encode("data", bytes);
    std::vector<std::string> elements = {
        *XLinkDataEncoder::encode<int>("i", "4-byte int", ints, 10, false, XLinkProtocol::dha,
                                       nullptr, false),
        *XLinkFileEncoder::encode("f", FileName(file.path()), false, false), archElement,
        "<data name=\"nothing\" href=\"ftp://host/x\" dataSize=\"1\" id=\"plain\"/>"};
    std::string text =
        replyText(elements[0] + "\n" + elements[1] + "\n" + elements[2] + "\n" + elements[3]);
    bool hasFiles = false;
    auto attachments = create(text, hasFiles, false);
    EXPECT_TRUE(hasFiles);
    ASSERT_EQ(attachments->size(), 3u);
    EXPECT_TRUE(std::dynamic_pointer_cast<HdfsAttachment>((*attachments)[0]));
    EXPECT_TRUE(std::dynamic_pointer_cast<FileAttachment>((*attachments)[1]));
    auto arch = std::dynamic_pointer_cast<ArchAttachment>((*attachments)[2]);
    ASSERT_TRUE(arch);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ((*attachments)[i]->getId(), attribute(elements[i], "id"));
    EXPECT_EQ(arch->getDataSize(), 2u);
    EXPECT_EQ(arch->getAddressString(true), attribute(archElement, "href").substr(7));

    // An arch link's block stays its maker's; the memory file made from the dha link is the
    // attachment's and goes with it.
    EXPECT_FALSE(arch->ownsBlock());
    EXPECT_TRUE(std::static_pointer_cast<HdfsAttachment>((*attachments)[0])->ownsBlock());
    KSData archData(firstData(parseReply(archElement.replace(0, 5, "<data"))));
    EXPECT_EQ(archData.getArchiverBufferPtr()->size(), 2u);
}

TEST(AttachmentTest, RequestTextsWorkAlike) {
    float* values = mallocArray<float>(5, 1);
    std::string element = *XLinkDataEncoder::encode<float>("v", "4-byte float", values, 5, false,
                                                           XLinkProtocol::dha, nullptr, false);
    std::string text = requestText(element);
    bool hasFiles = true;
    auto attachments = create(text, hasFiles, true);
    EXPECT_FALSE(hasFiles);
    ASSERT_EQ(attachments->size(), 1u);
    auto hdfs = std::static_pointer_cast<HdfsAttachment>(attachments->front());
    EXPECT_NE(text.find("hdfs://" + hdfs->getAddressString(true)), std::string::npos);
    EXPECT_TRUE(hdfs->ownsBlock()); // freed with the attachment
}

TEST(AttachmentTest, MissingFileThrowsFromAttachment) {
    std::string element =
        *XLinkFileEncoder::encode("gone", FileName("/no/such/dir/gone.bin"), false, false);
    std::string text = replyText(element);
    bool hasFiles = true;
    LogCapture capture;
    std::string expected = "Trying to create file FileAttachment for file that does not exist: "
                           "'/no/such/dir/gone.bin'.";
    try {
        create(text, hasFiles);
        FAIL() << "no exception";
    } catch (const KsExceptionNested& e) {
        EXPECT_EQ(std::string(e.what()), expected);
        EXPECT_EQ(e.getSource(), "Attachment");
    }
    EXPECT_FALSE(hasFiles);
    EXPECT_TRUE(capture.contains(LogLevel::Error, expected));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Exception parsing attachments: " + expected));
}

TEST(AttachmentTest, FailedConversionLeavesTheDhaLinkAndMakesNoAttachment) {
    std::string element = "<data id=\"dead\" name=\"n\" dataPtrType=\"8-byte int *\" "
                          "dataType=\"4-byte int\" dataSize=\"4\" href=\"dha://#\"/>";
    std::string text = replyText(element);
    std::string original = text;
    bool hasFiles = true;
    auto attachments = create(text, hasFiles);
    EXPECT_TRUE(attachments->empty());
    EXPECT_EQ(text, original);
}

// Links are acted on only once the whole text has proved valid: a fault after them converts no
// dha block and reports no missing file.
TEST(AttachmentTest, AFaultAfterTheLinksLeavesEveryLinkAlone) {
    constexpr std::size_t c_count = 100;
    double* array = mallocArray<double>(c_count, 3);
    std::vector<double> expected(array, array + c_count);
    std::string dha = *XLinkDataEncoder::encode<double>("values", "8-byte double", array, c_count,
                                                        false, XLinkProtocol::dha, nullptr, false);
    std::string missing =
        *XLinkFileEncoder::encode("gone", FileName("/no/such/dir/gone.bin"), false, false);
    std::string text = replyText(dha + "\n" + missing + "\n<unknown/>");
    const std::string original = text;
    bool hasFiles = true;
    LogCapture capture;
    try {
        create(text, hasFiles);
        ADD_FAILURE() << "an invalid text was accepted";
    } catch (const KsExceptionNested& e) {
        EXPECT_EQ(std::string(e.what()).rfind("Error parsing XML document at line 6, column ", 0),
                  0u)
            << e.what();
    }
    EXPECT_EQ(text, original);
    EXPECT_FALSE(hasFiles);
    EXPECT_FALSE(capture.containsSubstring("does not exist"));
    // The block is still the caller's, untouched.
    EXPECT_EQ(std::vector<double>(array, array + c_count), expected);
    std::free(array);
}

TEST(AttachmentTest, MalformedTextsThrowAndNeverCrash) {
    LogCapture capture;
    const std::vector<std::string> bad = {
        // truncated
        "<reply xsi:type=\"LinkTestReply\">\n<data id=\"x\" href=\"hdfs://#0x1\"",
        // wrong root for a reply document
        "<request xsi:type=\"LinkTestRequest\" "
        "id=\"0123456789ABCDEF-0123456789ABCDEF-0123456789ABCDEF\"/>\n",
        // schema-invalid: an undeclared child
        "<reply xsi:type=\"LinkTestReply\"><unknown/></reply>\n",
        // not XML at all
        "\x01\x02 <<<>>> &&", ""};
    for (const std::string& text : bad) {
        std::string copy = text;
        bool hasFiles = true;
        EXPECT_THROW(create(copy, hasFiles), KsExceptionNested) << text;
        EXPECT_FALSE(hasFiles);
        EXPECT_EQ(copy, text);
    }
    EXPECT_EQ(capture.messages(LogLevel::Error).size(), bad.size());
    EXPECT_TRUE(capture.containsSubstring("Exception parsing attachments: "));
    // A reply text given as a request.
    std::string reply = replyText("");
    bool hasFiles = false;
    EXPECT_THROW(create(reply, hasFiles, true), KsExceptionNested);
}

TEST(AttachmentTest, BadDataSizeOfAnHdfsLinkThrows) {
    std::string text =
        replyText("<data id=\"x\" name=\"n\" dataSize=\"lots\" href=\"hdfs://#0x10\"/>");
    bool hasFiles = false;
    LogCapture capture;
    EXPECT_ANY_THROW(create(text, hasFiles));
    EXPECT_TRUE(capture.containsSubstring("Unknown exception while parsing attachments: "));
}

TEST(AttachmentTest, ConstructorsLogAndKeepTheirFields) {
    LogCapture capture;
    unsigned char block[3] = {1, 2, 3};
    ArchAttachment arch("A", block, 3);
    EXPECT_EQ(arch.getData(), block);
    EXPECT_EQ(arch.getDataSize(), 3u);
    EXPECT_EQ(arch.getAddressString(false), XLinkUtils::getAddressString(block, false));
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Created ArchAttachment: id=A, dataSize=3"));
    HdfsAttachment copy = HdfsAttachment("H", block, 2);
    EXPECT_EQ(copy.getId(), "H");
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Created HdfsAttachment: id=H, dataSize=2"));
    FileAttachment file("F", FileName("/x"), false, true);
    EXPECT_FALSE(file.getFileTransfered());
    EXPECT_TRUE(file.getForceFileTransfer());
    EXPECT_TRUE(capture.containsSubstring("Created FileAttachment: id=F, fileName=/x"));
}

TEST(AttachmentTest, NestedElementsComeInDocumentOrder) {
    TempFile file("nested.bin");
    auto bytes = std::make_shared<std::vector<unsigned char>>(std::vector<unsigned char>{7});
    auto outer = std::make_shared<std::string>(
        *XLinkFileEncoder::encode("outer", FileName(file.path()), false, false));
    std::string inner = *XLinkDataEncoderArch::encode("inner", bytes);
    XLinkUtils::wrapChildIntoXLinkElement(outer, inner);
    char* chars = mallocArray<char>(3, 0);
    std::string last = *XLinkDataEncoder::encode<char>("last", "1-byte char", chars, 3, false,
                                                       XLinkProtocol::dha, nullptr, false);
    std::string text = replyText(*outer + "\n" + last);
    bool hasFiles = false;
    auto attachments = create(text, hasFiles);
    ASSERT_EQ(attachments->size(), 3u);
    EXPECT_EQ((*attachments)[0]->getId(), attribute(*outer, "id"));
    EXPECT_EQ((*attachments)[1]->getId(), attribute(inner, "id"));
    EXPECT_EQ((*attachments)[2]->getId(), attribute(last, "id"));
    auto arch = std::static_pointer_cast<ArchAttachment>((*attachments)[1]);
    auto hdfs = std::static_pointer_cast<HdfsAttachment>((*attachments)[2]);
    std::free(arch->getData());
    EXPECT_TRUE(hdfs->ownsBlock());
}

TEST(AttachmentTest, AnAdoptedBlockIsFreedWithItsAttachmentUnlessHandedOn) {
    // Each block below would be a leak or a double free if the ownership were wrong; the
    // sanitizer build checks both.
    auto* kept = static_cast<unsigned char*>(std::malloc(4));
    {
        HdfsAttachment linked("L", kept, 4);
        EXPECT_FALSE(linked.ownsBlock());
    }
    std::free(kept); // still the maker's
    {
        ArchAttachment adopted("A", static_cast<unsigned char*>(std::malloc(4)), 4);
        adopted.adoptBlock();
        adopted.adoptBlock(); // once is enough: no second owner
        EXPECT_TRUE(adopted.ownsBlock());
    }
    auto* handedOn = static_cast<unsigned char*>(std::malloc(4));
    {
        HdfsAttachment adopted("H", handedOn, 4);
        adopted.adoptBlock();
        adopted.releaseBlock();
        EXPECT_FALSE(adopted.ownsBlock());
        EXPECT_EQ(adopted.getData(), handedOn);
    }
    std::free(handedOn);
    // A road that consumes the data frees the block whoever made it, and only once.
    HdfsAttachment consumed("C", static_cast<unsigned char*>(std::malloc(4)), 4);
    consumed.adoptBlock();
    consumed.freeBlock();
    EXPECT_FALSE(consumed.ownsBlock());
    EXPECT_EQ(consumed.getData(), nullptr);
    HdfsAttachment notOwned("N", static_cast<unsigned char*>(std::malloc(4)), 4);
    notOwned.freeBlock();
    EXPECT_EQ(notOwned.getData(), nullptr);
}
