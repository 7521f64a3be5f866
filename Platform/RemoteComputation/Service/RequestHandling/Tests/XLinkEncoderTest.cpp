#include "Platform/RemoteComputation/Service/RequestHandling/KSData.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoderArch.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkFileEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkStdEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTypeNames.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include "Platform/RemoteComputation/Service/RequestHandling/Tests/XLinkTestSupport.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <string>

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

std::string idPattern() {
    return "[0-9A-F]{16}-[0-9A-F]{16}-[0-9A-F]{16}";
}

std::string tempFile(const std::string& leaf, const std::string& content) {
    std::string path = ::testing::TempDir() + "/" + std::to_string(getpid()) + "-" + leaf;
    std::ofstream out(path, std::ios::binary);
    out << content;
    return path;
}

} // namespace

TEST(XLinkTypeNamesTest, TheSixTypeTexts) {
    EXPECT_EQ(XLinkTypeNames::dataTypeOf<char>(), "1-byte char");
    EXPECT_EQ(XLinkTypeNames::dataTypeOf<unsigned char>(), "1-byte unsigned char");
    EXPECT_EQ(XLinkTypeNames::dataTypeOf<int>(), "4-byte int");
    EXPECT_EQ(XLinkTypeNames::dataTypeOf<unsigned int>(), "4-byte unsigned int");
    EXPECT_EQ(XLinkTypeNames::dataTypeOf<float>(), "4-byte float");
    EXPECT_EQ(XLinkTypeNames::dataTypeOf<const double>(), "8-byte double");
    EXPECT_EQ(XLinkTypeNames::dataPtrTypeOf<char>(), "8-byte char *");
    EXPECT_EQ(XLinkTypeNames::dataPtrTypeOf<unsigned char>(), "8-byte unsigned char *");
    EXPECT_EQ(XLinkTypeNames::dataPtrTypeOf<int>(), "8-byte int *");
    EXPECT_EQ(XLinkTypeNames::dataPtrTypeOf<unsigned int>(), "8-byte unsigned int *");
    EXPECT_EQ(XLinkTypeNames::dataPtrTypeOf<float>(), "8-byte float *");
    EXPECT_EQ(XLinkTypeNames::dataPtrTypeOf<double>(), "8-byte double *");
}

TEST(XLinkTypeNamesTest, KindsOfTexts) {
    EXPECT_EQ(XLinkTypeNames::kindOfLongText("4-byte unsigned int"), 3);
    EXPECT_EQ(XLinkTypeNames::kindOfLongText("8-byte double *"), 5);
    EXPECT_EQ(XLinkTypeNames::kindOfLongText("double"), XLinkTypeNames::c_otherKind);
    EXPECT_EQ(XLinkTypeNames::kindOfShortName("unsigned char"), 1);
    EXPECT_EQ(XLinkTypeNames::kindOfShortName(""), XLinkTypeNames::c_otherKind);
    EXPECT_EQ(XLinkTypeNames::width(5), 8u);
    EXPECT_EQ(XLinkTypeNames::width(XLinkTypeNames::c_otherKind), 1u);
}

TEST(XLinkDataEncoderTest, DhaElementOfDoubles) {
    double values[3] = {1, 2, 3};
    auto element = XLinkDataEncoder::encode<double>("vec", "8-byte double", values, 3, false,
                                                    XLinkProtocol::dha, nullptr, false);
    std::string expected = "<data id=\"" + idPattern() +
                           "\" name=\"vec\" dataPtrType=\"8-byte double \\*\" "
                           "dataType=\"8-byte double\" dataSize=\"3\" href=\"dha://#[^\"]+\"/>";
    EXPECT_TRUE(std::regex_match(*element, std::regex(expected))) << *element;
    EXPECT_EQ(attribute(*element, "href"), "dha://" + XLinkUtils::getAddressString(values, true));
}

TEST(XLinkDataEncoderTest, NameAsTagAndForceTransfer) {
    int values[2] = {1, 2};
    auto element = XLinkDataEncoder::encode<int>("counts", "4-byte int", values, 2, true,
                                                 XLinkProtocol::hdfs, nullptr, true);
    EXPECT_EQ(element->compare(0, 8, "<counts "), 0) << *element;
    EXPECT_EQ(attribute(*element, "href").compare(0, 8, "hdfs://#"), 0);
    EXPECT_NE(element->find(" href=\"hdfs://#"), std::string::npos);
    std::string tail = " forceTransfer=\"true\"/>";
    EXPECT_EQ(element->substr(element->size() - tail.size()), tail);
}

TEST(XLinkDataEncoderTest, EmptyNameWithNameAsTagWritesData) {
    int value = 1;
    auto element = XLinkDataEncoder::encode<int>("", "4-byte int", &value, 1, true,
                                                 XLinkProtocol::dha, nullptr, false);
    EXPECT_EQ(element->compare(0, 6, "<data "), 0) << *element;
    auto file = XLinkFileEncoder::encode("", FileName("/tmp"), true, false);
    EXPECT_EQ(file->compare(0, 6, "<data "), 0) << *file;
}

TEST(XLinkDataEncoderTest, ArchElementForOtherTypeIsInvalid) {
    double value = 1.0;
    auto element = XLinkDataEncoder::encode<double>("a", "8-byte double", &value, 1, true,
                                                    XLinkProtocol::arch, nullptr, false);
    EXPECT_EQ(*element, "<a id=\"invalid\" name=\"a\" dataPtrType=\"invalid\" "
                        "dataType=\"invalid\" dataSize=\"0\" href=\"invalid\"/>");
}

TEST(XLinkDataEncoderTest, InvalidInputsAndTheirTags) {
    auto noData = XLinkDataEncoder::encode<int>("n", "4-byte int", nullptr, 4, false,
                                                XLinkProtocol::dha, nullptr, true);
    EXPECT_EQ(*noData, "<XLinkData id=\"invalid\" name=\"n\" dataPtrType=\"invalid\" "
                       "dataType=\"invalid\" dataSize=\"0\" href=\"invalid\"/>");
    auto pathButDha = XLinkDataEncoder::encode<int>("n", "4-byte int", nullptr, 4, true,
                                                    XLinkProtocol::hdfs, "/tmp/x", false);
    EXPECT_EQ(attribute(*pathButDha, "id"), "invalid");
    EXPECT_EQ(pathButDha->compare(0, 3, "<n "), 0);
    int value = 3;
    auto fileWithoutPath = XLinkDataEncoder::encode<int>("n", "4-byte int", &value, 1, false,
                                                         XLinkProtocol::file, nullptr, false);
    EXPECT_EQ(attribute(*fileWithoutPath, "id"), "invalid");
}

TEST(XLinkDataEncoderTest, FileAndPlainDropTheTypeAttributes) {
    auto file = XLinkDataEncoder::encode<char>("f", "", nullptr, 10, false, XLinkProtocol::file,
                                               "C:\\dir\\f.bin", false);
    EXPECT_TRUE(std::regex_match(*file, std::regex("<data id=\"" + idPattern() +
                                                   "\" name=\"f\" dataSize=\"10\" "
                                                   "href=\"file:///C:/dir/f.bin\"/>")))
        << *file;
    auto plain = XLinkDataEncoder::encode<char>("p", "", nullptr, 1, false, XLinkProtocol::plain,
                                                "ftp://host/x", false);
    EXPECT_EQ(attribute(*plain, "href"), "ftp://host/x");
    EXPECT_EQ(attribute(*plain, "dataType"), "<absent>");
}

TEST(XLinkStdEncoderTest, ZeroSizeIsWrittenAsUnknown) {
    auto element = XLinkStdEncoder::encode("s", std::string("ftp://host/data"), 0, true);
    EXPECT_TRUE(std::regex_match(*element, std::regex("<s id=\"" + idPattern() +
                                                      "\" name=\"s\" dataSize=\"unknown\" "
                                                      "href=\"ftp://host/data\"/>")))
        << *element;
    auto sized = XLinkStdEncoder::encode("s", "x", 7, false);
    EXPECT_EQ(attribute(*sized, "dataSize"), "7");
    auto missing = XLinkStdEncoder::encode("s", static_cast<const char*>(nullptr), 0, false);
    EXPECT_EQ(attribute(*missing, "id"), "invalid");
    EXPECT_EQ(attribute(*missing, "dataSize"), "unknown");
}

TEST(XLinkFileEncoderTest, ExistingFileHasItsSize) {
    std::string path = tempFile("sized.bin", "0123456789");
    auto element = XLinkFileEncoder::encode("f", FileName(path), true, true);
    EXPECT_EQ(attribute(*element, "dataSize"), "10");
    EXPECT_EQ(attribute(*element, "href"), "file:///" + path);
    EXPECT_EQ(attribute(*element, "forceTransfer"), "true");
    EXPECT_TRUE(UniqueID::isValid(attribute(*element, "id")));
    std::remove(path.c_str());
}

TEST(XLinkFileEncoderTest, MissingFileHasSizeZeroAndIsValid) {
    auto element = XLinkFileEncoder::encode("f", FileName("/no/such/file.bin"), false, false);
    EXPECT_EQ(attribute(*element, "dataSize"), "0");
    EXPECT_TRUE(UniqueID::isValid(attribute(*element, "id"))) << *element;
    EXPECT_EQ(attribute(*element, "href"), "file:////no/such/file.bin");
    EXPECT_EQ(attribute(*element, "forceTransfer"), "<absent>");
}

TEST(XLinkFileEncoderTest, PathFormTakesTheLengthOfThePath) {
    std::string path = tempFile("length.bin", std::string(1000, 'x'));
    auto element = XLinkFileEncoder::encode("f", path.c_str(), false);
    EXPECT_EQ(attribute(*element, "dataSize"), std::to_string(path.size()));
    EXPECT_EQ(attribute(*element, "href"), "file:///" + path);
    std::remove(path.c_str());

    auto missing = XLinkFileEncoder::encode("f", "/no/such/file.bin", false);
    EXPECT_EQ(attribute(*missing, "id"), "invalid");
    EXPECT_EQ(attribute(*missing, "dataSize"), "0");
    EXPECT_EQ(missing->compare(0, 11, "<XLinkData "), 0);
}

TEST(XLinkFileEncoderTest, AmpersandInPathIsEscapedAndReadsBackUnescaped) {
    auto element = XLinkFileEncoder::encode("f", FileName("/tmp/a&b.bin"), false, false);
    EXPECT_EQ(attribute(*element, "href"), "file:////tmp/a&amp;b.bin");
    Document document = parseReply(*element);
    ASSERT_TRUE(document);
    KSData data(firstData(document));
    EXPECT_EQ(data.getHref(), "file:////tmp/a&b.bin");
    EXPECT_EQ(data.getFilePath().toString(), "/tmp/a&b.bin");
}

TEST(XLinkDataEncoderArchTest, CopiesTheBytesIntoABlockTheReceiverFrees) {
    auto bytes =
        std::make_shared<std::vector<unsigned char>>(std::vector<unsigned char>{0, 1, 2, 250, 255});
    auto element = XLinkDataEncoderArch::encode("archive", bytes);
    EXPECT_EQ(element->compare(0, 9, "<archive "), 0);
    EXPECT_EQ(attribute(*element, "dataType"), "1-byte unsigned char");
    EXPECT_EQ(attribute(*element, "dataPtrType"), "8-byte unsigned char *");
    EXPECT_EQ(attribute(*element, "dataSize"), "5");
    Document document = parseReply("<data" + element->substr(8));
    ASSERT_TRUE(document);
    KSData data(firstData(document));
    void* block = XLinkUtils::getAddressFromString(attribute(*element, "href"));
    ASSERT_NE(block, nullptr);
    EXPECT_NE(block, static_cast<void*>(bytes->data()));
    auto back = data.getArchiverBufferPtr(); // frees the block
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, *bytes);
}

TEST(XLinkDataEncoderArchTest, NullOrEmptyVectorGivesInvalidElement) {
    auto none = XLinkDataEncoderArch::encode("a", nullptr);
    EXPECT_EQ(attribute(*none, "id"), "invalid");
    auto empty = XLinkDataEncoderArch::encode("a", std::make_shared<std::vector<unsigned char>>());
    EXPECT_EQ(attribute(*empty, "id"), "invalid");
}
