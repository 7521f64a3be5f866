#include "Platform/RemoteComputation/Service/RequestHandling/KSData.h"

#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"

#include "Platform/RemoteComputation/Service/RequestHandling/Tests/XLinkTestSupport.h"

#include <boost/lexical_cast.hpp>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

using namespace Kestrane;
using namespace KestraneTest;

namespace {

KSData dataOf(const std::string& element) {
    Document document = parseReply(element);
    return KSData(firstData(document));
}

KSData withHref(const std::string& href) {
    return dataOf("<data name=\"n\" dataPtrType=\"p\" dataType=\"t\" dataSize=\"1\" href=\"" +
                  href + "\"/>");
}

} // namespace

TEST(KSDataTest, ReadsAllAttributes) {
    KSData data = dataOf("<data id=\"I\" name=\"N\" dataPtrType=\"8-byte int *\" "
                         "dataType=\"4-byte int\" dataSize=\"18446744073709551615\" "
                         "href=\"dha://#0x10\" fileTransfered=\"true\"/>");
    EXPECT_TRUE(data.isValid());
    EXPECT_EQ(data.getTag(), "data");
    EXPECT_EQ(data.getId(), "I");
    EXPECT_EQ(data.getName(), "N");
    EXPECT_EQ(data.getDataPtrType(), "8-byte int *");
    EXPECT_EQ(data.getDataType(), "4-byte int");
    EXPECT_EQ(data.getDataSize(), 18446744073709551615ull);
    EXPECT_EQ(data.getHref(), "dha://#0x10");
    EXPECT_TRUE(data.getFileTransfered());
}

TEST(KSDataTest, DefaultsAreEmptyAndInvalid) {
    KSData data;
    EXPECT_FALSE(data.isValid());
    EXPECT_EQ(data.getId() + data.getName() + data.getHref() + data.getDataType(), "");
    EXPECT_EQ(data.getDataSize(), 0u);
    EXPECT_FALSE(data.getFileTransfered());
}

TEST(KSDataTest, ElementWithoutHrefIsNotValid) {
    KSData data = dataOf("<data id=\"I\" name=\"N\" dataPtrType=\"p\" dataType=\"t\" "
                         "dataSize=\"1\"/>");
    EXPECT_FALSE(data.isValid());
    EXPECT_EQ(data.getName(), "N");
}

TEST(KSDataTest, EachOfTheFiveAttributesIsNeeded) {
    const char* attributes[] = {"name=\"n\"", "dataPtrType=\"p\"", "dataType=\"t\"",
                                "dataSize=\"1\"", "href=\"h\""};
    for (int left = 0; left < 5; ++left) {
        std::string element = "<data id=\"i\"";
        for (int i = 0; i < 5; ++i)
            if (i != left)
                element += std::string(" ") + attributes[i];
        EXPECT_FALSE(dataOf(element + "/>").isValid()) << element;
    }
    // Without id and fileTransfered it is still valid.
    EXPECT_TRUE(dataOf("<data name=\"n\" dataPtrType=\"p\" dataType=\"t\" dataSize=\"0\" "
                       "href=\"h\"/>")
                    .isValid());
}

TEST(KSDataTest, BadDataSizeThrows) {
    for (const char* size : {"abc", "", "12x", "1.5", "99999999999999999999999"}) {
        Document document = parseReply(std::string("<data name=\"n\" dataPtrType=\"p\" "
                                                   "dataType=\"t\" dataSize=\"") +
                                       size + "\" href=\"h\"/>");
        EXPECT_THROW(KSData(firstData(document)), boost::bad_lexical_cast) << size;
    }
}

TEST(KSDataTest, DhaPointerOfEmptyAddressIsNull) {
    EXPECT_EQ(withHref("dha://#").getDhaPointer(), nullptr);
    EXPECT_EQ(withHref("dha://").getDhaPointer(), nullptr);
    int value = 0;
    EXPECT_EQ(withHref("dha://" + XLinkUtils::getAddressString(&value, true)).getDhaPointer(),
              &value);
    EXPECT_EQ(withHref("hdfs://" + XLinkUtils::getAddressString(&value, true)).getDhaPointer(),
              nullptr);
}

TEST(KSDataTest, HdfsPointerNeedsTheHash) {
    EXPECT_EQ(withHref("hdfs://1234").getHdfsPointer(), nullptr);
    int value = 0;
    EXPECT_EQ(withHref("hdfs://" + XLinkUtils::getAddressString(&value, true)).getHdfsPointer(),
              &value);
}

TEST(KSDataTest, FilePathIsTheHrefFromItsNinthCharacter) {
    EXPECT_EQ(withHref("file:///C:/x").getFilePath().toString(), "C:/x");
    EXPECT_EQ(withHref("abcdefghXY").getFilePath().toString(), "XY");
    EXPECT_TRUE(withHref("file:///").getFilePath().empty());
    EXPECT_THROW(withHref("file://").getFilePath(), std::out_of_range);
}

TEST(KSDataTest, SettersAndTheHrefOverloadsThatKeepTheObject) {
    KSData data = withHref("file:///a");
    data.setDataSize(5);
    data.setDataType("t2");
    data.setDataPtrType("p2");
    data.setHref("file:///b");
    EXPECT_EQ(data.getDataSize(), 5u);
    EXPECT_EQ(data.getDataType(), "t2");
    EXPECT_EQ(data.getDataPtrType(), "p2");
    EXPECT_EQ(data.getHref(), "file:///b");
    int value = 0;
    data.setHref(HrefProtocol::dha, &value);
    data.setHref(HrefProtocol::hdfs, std::string("0x10"));
    data.setHref(HrefProtocol::file, std::string("x"));
    EXPECT_EQ(data.getHref(), "file:///b");
}

TEST(KSDataTest, ArchiverBufferIsTakenOnce) {
    auto* block = static_cast<unsigned char*>(std::malloc(4));
    std::memcpy(block, "\x01\x02\xfe\xff", 4);
    KSData data = dataOf("<data name=\"a\" dataPtrType=\"8-byte unsigned char *\" "
                         "dataType=\"1-byte unsigned char\" dataSize=\"4\" href=\"arch://" +
                         XLinkUtils::getAddressString(block, true) + "\"/>");
    auto bytes = data.getArchiverBufferPtr(); // frees the block
    ASSERT_TRUE(bytes);
    EXPECT_EQ(*bytes, (std::vector<unsigned char>{1, 2, 0xfe, 0xff}));
    EXPECT_EQ(data.getHref(), "");
    EXPECT_FALSE(data.getArchiverBufferPtr());
    EXPECT_FALSE(withHref("arch://#").getArchiverBufferPtr());
    EXPECT_FALSE(withHref("dha://#0x10").getArchiverBufferPtr());
}

TEST(KSDataTest, XLinkNodeStringMarksATransferedFileWithFalse) {
    KSData data = dataOf("<data id=\"I\" name=\"N\" dataPtrType=\"P\" dataType=\"T\" "
                         "dataSize=\"3\" href=\"file:///x\" fileTransfered=\"1\"/>");
    EXPECT_EQ(data.getXLinkNodeString(),
              "<data id=\"I\" name=\"N\" dataPtrType=\"P\" dataType=\"T\" dataSize=\"3\" "
              "href=\"file:///x\" fileTransfered=\"false\"/>");
    KSData plain = dataOf("<data id=\"I\" name=\"a&amp;b\" dataPtrType=\"P\" dataType=\"T\" "
                          "dataSize=\"3\" href=\"h\"/>");
    EXPECT_EQ(plain.getXLinkNodeString(),
              "<data id=\"I\" name=\"a&b\" dataPtrType=\"P\" dataType=\"T\" dataSize=\"3\" "
              "href=\"h\"/>");
}

TEST(KSDataTest, CopiesAreIndependent) {
    KSData data = withHref("h1");
    KSData copy = data;
    copy.setHref("h2");
    EXPECT_EQ(data.getHref(), "h1");
    EXPECT_EQ(copy.getHref(), "h2");
    EXPECT_TRUE(copy.isValid());
}
