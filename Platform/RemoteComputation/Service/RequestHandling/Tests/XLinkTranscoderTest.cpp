#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTranscoder.h"

#include "Platform/RemoteComputation/Service/RequestHandling/KSData.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTypeNames.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HierarchicalDataFile.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include "Platform/RemoteComputation/Service/RequestHandling/Tests/XLinkTestSupport.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

using namespace Kestrane;
using namespace KestraneTest;

namespace {

// The parts of a link, to pass to the field forms and compare before and after.
struct Link {
    std::string id, dataPtrType, dataType, href;
    uint64_t dataSize = 0;
    bool operator==(const Link& o) const {
        return id == o.id && dataPtrType == o.dataPtrType && dataType == o.dataType &&
               href == o.href && dataSize == o.dataSize;
    }
};

template <typename T> Link dhaLink(const T* array, uint64_t count) {
    Link link;
    link.id = UniqueID::generateId();
    link.dataPtrType = XLinkTypeNames::dataPtrTypeOf<T>();
    link.dataType = XLinkTypeNames::dataTypeOf<T>();
    link.dataSize = count;
    link.href = "dha://" + XLinkUtils::getAddressString(array, true);
    return link;
}

bool dhaToHdfs(Link& l, bool freeSource, int level = 3) {
    return XLinkTranscoder::dhaToHdfs(l.id, l.dataPtrType, l.dataType, l.dataSize, l.href,
                                      freeSource, level);
}
bool hdfsToDha(Link& l, bool freeSource) {
    return XLinkTranscoder::hdfsToDha(l.id, l.dataPtrType, l.dataType, l.dataSize, l.href,
                                      freeSource);
}
bool dhaToFile(Link& l, bool freeSource, FileName* file) {
    return XLinkTranscoder::dhaToFile(l.id, l.dataPtrType, l.dataType, l.dataSize, l.href,
                                      freeSource, file);
}
bool fileToDha(Link& l, bool removeSource, FileName* file) {
    return XLinkTranscoder::fileToDha(l.id, l.dataPtrType, l.dataType, l.dataSize, l.href,
                                      removeSource, file);
}
bool hdfsToFile(Link& l, bool freeSource, FileName* file) {
    return XLinkTranscoder::hdfsToFile(l.id, l.dataPtrType, l.dataType, l.dataSize, l.href,
                                       freeSource, file);
}
bool fileToHdfs(Link& l, bool removeSource, FileName* file) {
    return XLinkTranscoder::fileToHdfs(l.id, l.dataPtrType, l.dataType, l.dataSize, l.href,
                                       removeSource, file);
}

void* addressOf(const Link& l) {
    return XLinkUtils::getAddressFromString(l.href);
}

// A directory of this test process, removed at the end of the test.
class TempDir {
public:
    TempDir()
        : m_path(::testing::TempDir() + "/xlink-" + std::to_string(getpid()) + "-" +
                 std::to_string(s_counter++)) {
        FileUtilities::createDirectories(m_path);
    }
    ~TempDir() { FileUtilities::remove(m_path); }
    FileName path() const { return m_path; }

private:
    static int s_counter;
    FileName m_path;
};
int TempDir::s_counter = 0;

template <typename T> class XLinkRoundTripTest : public ::testing::Test {};
using ElementTypes = ::testing::Types<char, unsigned char, int, unsigned int, float, double>;
TYPED_TEST_SUITE(XLinkRoundTripTest, ElementTypes);

} // namespace

TYPED_TEST(XLinkRoundTripTest, DhaToHdfsAndBackGivesAnEqualArray) {
    constexpr std::size_t c_count = 3000;
    TypeParam* array = mallocArray<TypeParam>(c_count, 7);
    std::vector<TypeParam> expected(array, array + c_count);
    Link link = dhaLink(array, c_count);
    std::string id = link.id;

    ASSERT_TRUE(dhaToHdfs(link, true)); // frees the array
    EXPECT_EQ(link.id, id);
    EXPECT_EQ(link.dataPtrType, "unsigned char *");
    EXPECT_EQ(link.dataType, XLinkTypeNames::shortName(XLinkTypeKind<TypeParam>::value));
    EXPECT_GT(link.dataSize, c_count * sizeof(TypeParam));
    EXPECT_EQ(link.href.compare(0, 8, "hdfs://#"), 0);

    ASSERT_TRUE(hdfsToDha(link, true)); // frees the block
    EXPECT_EQ(link.dataPtrType, XLinkTypeNames::dataPtrTypeOf<TypeParam>());
    EXPECT_EQ(link.dataType, XLinkTypeNames::dataTypeOf<TypeParam>());
    EXPECT_EQ(link.dataSize, c_count);
    auto* back = static_cast<TypeParam*>(addressOf(link));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(std::vector<TypeParam>(back, back + c_count), expected);
    std::free(back);
}

TYPED_TEST(XLinkRoundTripTest, DhaToFileAndBackGivesAnEqualArray) {
    constexpr std::size_t c_count = 1234;
    TempDir dir;
    TypeParam* array = mallocArray<TypeParam>(c_count, -3);
    std::vector<TypeParam> expected(array, array + c_count);
    Link link = dhaLink(array, c_count);

    FileName file = dir.path();
    ASSERT_TRUE(dhaToFile(link, true, &file)); // frees the array
    EXPECT_EQ(file.toString(), dir.path().toString() + "/" + link.id + ".dhadmp");
    EXPECT_EQ(link.dataPtrType, "FILE *");
    EXPECT_EQ(link.href, "file:///" + file.toString());
    EXPECT_EQ(link.dataType, XLinkTypeNames::dataTypeOf<TypeParam>());
    EXPECT_EQ(FileUtilities::getFileSize(file), c_count * sizeof(TypeParam));

    FileName used;
    ASSERT_TRUE(fileToDha(link, true, &used)); // removes the file
    EXPECT_TRUE(used.empty());
    EXPECT_FALSE(FileUtilities::exists(file));
    EXPECT_EQ(link.dataPtrType, XLinkTypeNames::dataPtrTypeOf<TypeParam>());
    EXPECT_EQ(link.dataSize, c_count);
    auto* back = static_cast<TypeParam*>(addressOf(link));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(std::vector<TypeParam>(back, back + c_count), expected);
    std::free(back);
}

TEST(XLinkTranscoderTest, DhaToHdfsAndBackGivesANewArrayWithLongTypeTexts) {
    double* array = mallocArray<double>(64, 9);
    Link link = dhaLink(array, 64);
    link.dataType = "8-byte double";
    ASSERT_TRUE(dhaToHdfs(link, false)); // the array stays
    EXPECT_EQ(link.dataType, "double");
    ASSERT_TRUE(hdfsToDha(link, true));
    auto* back = static_cast<double*>(addressOf(link));
    ASSERT_NE(back, nullptr);
    EXPECT_NE(back, array);
    EXPECT_EQ(link.dataType, "8-byte double");
    EXPECT_EQ(link.dataPtrType, "8-byte double *");
    EXPECT_EQ(std::vector<double>(back, back + 64), std::vector<double>(array, array + 64));
    std::free(back);
    std::free(array);
}

TEST(XLinkTranscoderTest, CompressedLevelsGoThereAndBackToo) {
    for (int level : {0, 6, 9}) {
        int* array = mallocArray<int>(50000, level);
        std::vector<int> expected(array, array + 50000);
        Link link = dhaLink(array, 50000);
        ASSERT_TRUE(dhaToHdfs(link, true, level));
        if (level > 3)
            EXPECT_LT(link.dataSize, 50000u * sizeof(int) / 4) << level;
        else
            EXPECT_GT(link.dataSize, 50000u * sizeof(int)) << level;
        ASSERT_TRUE(hdfsToDha(link, true));
        auto* back = static_cast<int*>(addressOf(link));
        EXPECT_EQ(std::vector<int>(back, back + 50000), expected) << level;
        std::free(back);
    }
}

TEST(XLinkTranscoderTest, HdfsToFileAndBackKeepsTheData) {
    TempDir dir;
    double* array = mallocArray<double>(500, 11);
    std::vector<double> expected(array, array + 500);
    Link link = dhaLink(array, 500);
    ASSERT_TRUE(dhaToHdfs(link, true));
    uint64_t blockSize = link.dataSize;

    FileName file = dir.path();
    ASSERT_TRUE(hdfsToFile(link, true, &file)); // frees the block
    EXPECT_EQ(file.toString(), dir.path().toString() + "/" + link.id + ".hdf");
    EXPECT_EQ(link.dataPtrType, "FILE *");
    EXPECT_EQ(link.dataType, "double");
    EXPECT_EQ(FileUtilities::getFileSize(file), blockSize);

    FileName used;
    ASSERT_TRUE(fileToHdfs(link, false, &used));
    EXPECT_EQ(used, file);
    EXPECT_TRUE(FileUtilities::exists(file));
    EXPECT_EQ(link.dataPtrType, "unsigned char *");
    EXPECT_EQ(link.href.compare(0, 8, "hdfs://#"), 0);
    EXPECT_EQ(link.dataSize, blockSize);

    ASSERT_TRUE(hdfsToDha(link, true));
    auto* back = static_cast<double*>(addressOf(link));
    EXPECT_EQ(std::vector<double>(back, back + 500), expected);
    std::free(back);
}

// A block found by the fuzz target fuzz_hdfs: 9 KB whose dataset root/d1 claims 2.7e14
// elements. The conversion allocated that many before reading a byte.
TEST(XLinkTranscoderTest, HdfsToDhaRefusesACountTheBlockCannotHold) {
    std::ifstream in(KS_SOURCE_DIR "/fuzz/regressions/fuzz_hdfs/huge-dataset-count.h5",
                     std::ios::binary);
    ASSERT_TRUE(in);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_FALSE(bytes.empty());
    auto* block = static_cast<unsigned char*>(std::malloc(bytes.size()));
    std::memcpy(block, bytes.data(), bytes.size());
    Link link{"d1", "unsigned char *", "double",
              "hdfs://" + XLinkUtils::getAddressString(block, true), bytes.size()};
    const Link before = link;
    EXPECT_FALSE(hdfsToDha(link, true));
    EXPECT_EQ(link, before);
    std::free(block); // not freed by the failed conversion
}

TEST(XLinkTranscoderTest, HdfsToDhaFailsWhenTheDatasetIsNotTheId) {
    int* array = mallocArray<int>(10, 0);
    Link link = dhaLink(array, 10);
    ASSERT_TRUE(dhaToHdfs(link, true));
    Link renamed = link;
    renamed.id = UniqueID::generateId();
    Link before = renamed;
    EXPECT_FALSE(hdfsToDha(renamed, true));
    EXPECT_EQ(renamed, before);
    // The block was not freed: the right id still converts it.
    ASSERT_TRUE(hdfsToDha(link, true));
    std::free(addressOf(link));
}

TEST(XLinkTranscoderTest, MixedTypesWriteRawBytesAndKeepDataType) {
    double* array = mallocArray<double>(16, 1);
    Link link = dhaLink(array, 16);
    link.dataType = "4-byte int";
    ASSERT_TRUE(dhaToHdfs(link, false));
    EXPECT_EQ(link.dataType, "4-byte int");
    EXPECT_EQ(link.dataPtrType, "unsigned char *");

    // Read back as what it is: 16 chars, the first 16 bytes of the array.
    int handle = 0;
    void* block = addressOf(link);
    ASSERT_EQ(KSHLopenMemoryFile(block, handle), 1);
    uint64_t count = 0;
    ASSERT_EQ(KSHLgetSizeOfDataset(handle, "root", link.id.c_str(), count), 1);
    EXPECT_EQ(count, 16u);
    std::vector<unsigned char> bytes(16);
    ASSERT_EQ(KSHLreadCharDataset(handle, "root", link.id.c_str(), bytes.data()), 1);
    KSHLcloseFile(handle);
    EXPECT_EQ(std::memcmp(bytes.data(), array, 16), 0);

    // Unknown short type on the way back: bytes as unsigned char.
    ASSERT_TRUE(hdfsToDha(link, true));
    EXPECT_EQ(link.dataType, "1-byte unsigned char");
    EXPECT_EQ(link.dataPtrType, "8-byte unsigned char *");
    EXPECT_EQ(link.dataSize, 16u);
    EXPECT_EQ(std::memcmp(addressOf(link), array, 16), 0);
    std::free(addressOf(link));
    std::free(array);
}

TEST(XLinkTranscoderTest, FileToDhaWithoutDhaInThePathFails) {
    TempDir dir;
    FileName path = dir.path() / "data.bin";
    {
        std::ofstream out(path.toString(), std::ios::binary);
        out << "12345678";
    }
    Link link{"id", "FILE *", "4-byte int", "file:///" + path.toString(), 2};
    Link before = link;
    FileName used("unchanged");
    EXPECT_FALSE(fileToDha(link, true, &used));
    EXPECT_EQ(link, before);
    EXPECT_EQ(used.toString(), "unchanged");
    EXPECT_TRUE(FileUtilities::exists(path));
}

TEST(XLinkTranscoderTest, DhaToFileIntoGivenDirectoryReturnsThePath) {
    TempDir dir;
    int* array = mallocArray<int>(4, 0);
    Link link = dhaLink(array, 4);
    FileName file = dir.path();
    ASSERT_TRUE(dhaToFile(link, false, &file));
    EXPECT_EQ(file.toString(), dir.path().toString() + "/" + link.id + ".dhadmp");
    EXPECT_TRUE(FileUtilities::exists(file));
    std::ifstream in(file.toString(), std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_EQ(bytes.size(), 16u);
    EXPECT_EQ(std::memcmp(bytes.data(), array, 16), 0);
    std::free(array);
}

TEST(XLinkTranscoderTest, TmpPathComesFromTmpWhenKsTmpIsUnset) {
    // Puts the variables back for the tests that follow in the same process.
    struct Restore {
        std::string name;
        bool was;
        std::string value;
        explicit Restore(const char* n) : name(n), was(std::getenv(n) != nullptr) {
            if (was)
                value = std::getenv(n);
        }
        ~Restore() {
            if (was)
                setenv(name.c_str(), value.c_str(), 1);
            else
                unsetenv(name.c_str());
        }
    } restoreKsTmp("KS_TMP"), restoreTmp("TMP");
    TempDir dir;
    unsetenv("KS_TMP");
    setenv("TMP", dir.path().toString().c_str(), 1);
    int* array = mallocArray<int>(2, 0);
    Link link = dhaLink(array, 2);
    ASSERT_TRUE(dhaToFile(link, true, nullptr));
    std::string expected = dir.path().toString() + "/" + link.id + ".dhadmp";
    EXPECT_EQ(link.href, "file:///" + expected);
    EXPECT_TRUE(FileUtilities::exists(FileName(expected)));

    // KS_TMP comes first.
    TempDir other;
    setenv("KS_TMP", other.path().toString().c_str(), 1);
    FileName empty;
    int* second = mallocArray<int>(2, 0);
    Link next = dhaLink(second, 2);
    ASSERT_TRUE(dhaToFile(next, true, &empty));
    EXPECT_EQ(empty.toString(), other.path().toString() + "/" + next.id + ".dhadmp");
}

TEST(XLinkTranscoderTest, FailuresLeaveTheArguments) {
    int* array = mallocArray<int>(8, 0);
    Link good = dhaLink(array, 8);

    auto unchanged = [](Link link, bool (*convert)(Link&)) {
        Link before = link;
        bool result = convert(link);
        return !result && link == before;
    };
    // Empty href, size 0, wrong scheme, null address.
    Link noHref = good;
    noHref.href.clear();
    EXPECT_TRUE(unchanged(noHref, [](Link& l) { return dhaToHdfs(l, true); }));
    Link noSize = good;
    noSize.dataSize = 0;
    EXPECT_TRUE(unchanged(noSize, [](Link& l) { return dhaToHdfs(l, true); }));
    EXPECT_TRUE(unchanged(noSize, [](Link& l) { return dhaToFile(l, true, nullptr); }));
    EXPECT_TRUE(unchanged(good, [](Link& l) { return hdfsToDha(l, true); }));
    EXPECT_TRUE(unchanged(good, [](Link& l) { return hdfsToFile(l, true, nullptr); }));
    EXPECT_TRUE(unchanged(good, [](Link& l) { return fileToDha(l, true, nullptr); }));
    EXPECT_TRUE(unchanged(good, [](Link& l) { return fileToHdfs(l, true, nullptr); }));
    Link nullAddress = good;
    nullAddress.href = "dha://#";
    EXPECT_TRUE(unchanged(nullAddress, [](Link& l) { return dhaToHdfs(l, true); }));
    // A type outside the table cannot be dumped.
    Link odd = good;
    odd.dataType = "2-byte short";
    EXPECT_TRUE(unchanged(odd, [](Link& l) { return dhaToFile(l, true, nullptr); }));
    // An hdfs link with a wrong pointer type, and one whose block is no data file.
    std::vector<unsigned char> junk(1024, 0x11);
    Link notHdf{"id", "unsigned char *", "int",
                "hdfs://" + XLinkUtils::getAddressString(junk.data(), true), 1024};
    EXPECT_TRUE(unchanged(notHdf, [](Link& l) { return hdfsToDha(l, true); }));
    EXPECT_TRUE(unchanged(notHdf, [](Link& l) { return hdfsToFile(l, true, nullptr); }));
    notHdf.dataPtrType = "8-byte int *";
    EXPECT_TRUE(unchanged(notHdf, [](Link& l) { return hdfsToDha(l, true); }));
    // Missing files.
    Link missing{"id", "FILE *", "4-byte int", "file:////no/such/x.dhadmp", 2};
    EXPECT_TRUE(unchanged(missing, [](Link& l) { return fileToDha(l, true, nullptr); }));
    missing.href = "file:////no/such/x.hdf";
    EXPECT_TRUE(unchanged(missing, [](Link& l) { return fileToHdfs(l, true, nullptr); }));
    // A directory that cannot be written into.
    FileName nowhere("/no/such/directory");
    Link link = good;
    EXPECT_FALSE(dhaToFile(link, true, &nowhere));
    EXPECT_EQ(link, good);
    EXPECT_EQ(nowhere.toString(), "/no/such/directory");
    std::free(array); // never freed by a failed conversion
}

TEST(XLinkTranscoderTest, EmptyFileFailsOnlyForAByteCountOfOne) {
    TempDir dir;
    FileName path = dir.path() / "empty.dhadmp";
    { std::ofstream out(path.toString()); }
    Link one{"id", "FILE *", "1-byte char", "file:///" + path.toString(), 1};
    Link before = one;
    EXPECT_FALSE(fileToDha(one, false, nullptr));
    EXPECT_EQ(one, before);
    // Two bytes asked of an empty file: the quirk lets it through, and nothing compares the
    // file's length with the count, so the array is there, all zero.
    Link two = one;
    two.dataSize = 2;
    ASSERT_TRUE(fileToDha(two, false, nullptr));
    auto* bytes = static_cast<unsigned char*>(addressOf(two));
    EXPECT_EQ(bytes[0], 0);
    EXPECT_EQ(bytes[1], 0);
    EXPECT_EQ(two.dataSize, 2u);
    EXPECT_EQ(two.href.rfind("dha://#", 0), 0u);
    std::free(bytes);
}

TEST(XLinkTranscoderTest, AShortFileGivesItsBytesAndZerosAfterThem) {
    TempDir dir;
    FileName path = dir.path() / "short.dhadmp";
    {
        std::ofstream out(path.toString(), std::ios::binary);
        out.write("\x01\x02\x03", 3);
    }
    // Two 4-byte ints asked of a 3-byte file.
    Link link{"id", "FILE *", "4-byte int", "file:///" + path.toString(), 2};
    FileName used;
    ASSERT_TRUE(fileToDha(link, false, &used));
    EXPECT_EQ(used.toString(), path.toString());
    EXPECT_EQ(link.dataSize, 2u);
    auto* bytes = static_cast<unsigned char*>(addressOf(link));
    const unsigned char expected[8] = {1, 2, 3, 0, 0, 0, 0, 0};
    EXPECT_EQ(std::memcmp(bytes, expected, sizeof expected), 0);
    std::free(bytes);
}

TEST(XLinkTranscoderTest, EmptyIdGetsANewOne) {
    float* array = mallocArray<float>(3, 0);
    Link link = dhaLink(array, 3);
    link.id.clear();
    ASSERT_TRUE(dhaToHdfs(link, true));
    EXPECT_EQ(link.id.size(), 50u);
    ASSERT_TRUE(hdfsToDha(link, true));
    std::free(addressOf(link));
}

TEST(XLinkTranscoderTest, TextFormsRewriteTheElement) {
    int* array = mallocArray<int>(6, 5);
    std::vector<int> expected(array, array + 6);
    std::string element = *XLinkDataEncoder::encode<int>("ints", "4-byte int", array, 6, false,
                                                         XLinkProtocol::dha, nullptr, false);
    std::string original = element;
    ASSERT_TRUE(XLinkTranscoder::dhaToHdfs(element, true, 3));
    EXPECT_NE(element.find(" dataPtrType=\"unsigned char *\""), std::string::npos) << element;
    EXPECT_NE(element.find(" dataType=\"int\""), std::string::npos);
    EXPECT_NE(element.find(" href=\"hdfs://#"), std::string::npos);
    EXPECT_EQ(element.substr(0, 70), original.substr(0, 70)); // tag, id, name stay

    // The wrong source protocol for the text form.
    std::string copy = element;
    EXPECT_FALSE(XLinkTranscoder::dhaToHdfs(copy, true, 3));
    EXPECT_EQ(copy, element);

    ASSERT_TRUE(XLinkTranscoder::hdfsToDha(element, true));
    EXPECT_NE(element.find(" dataSize=\"6\""), std::string::npos);
    EXPECT_NE(element.find(" dataType=\"4-byte int\""), std::string::npos);
    KSData data(firstData(parseReply(element)));
    auto* back = static_cast<int*>(data.getDhaPointer());
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(std::vector<int>(back, back + 6), expected);

    TempDir dir;
    FileName file = dir.path();
    ASSERT_TRUE(XLinkTranscoder::dhaToFile(element, true, &file));
    EXPECT_NE(element.find(" dataPtrType=\"FILE *\""), std::string::npos);
    EXPECT_NE(element.find(" href=\"file:///" + file.toString() + "\""), std::string::npos);
    ASSERT_TRUE(XLinkTranscoder::fileToHdfs(element, true, nullptr) == false); // not .hdf
    ASSERT_TRUE(XLinkTranscoder::fileToDha(element, true, nullptr));
    KSData again(firstData(parseReply(element)));
    back = static_cast<int*>(again.getDhaPointer());
    EXPECT_EQ(std::vector<int>(back, back + 6), expected);
    std::free(back);
}

TEST(XLinkTranscoderTest, TextFormsNeedNameAndDataSize) {
    int* array = mallocArray<int>(2, 0);
    std::string href = "dha://" + XLinkUtils::getAddressString(array, true);
    std::string noName = "<data id=\"x\" dataPtrType=\"8-byte int *\" dataType=\"4-byte int\" "
                         "dataSize=\"2\" href=\"" +
                         href + "\"/>";
    std::string copy = noName;
    EXPECT_FALSE(XLinkTranscoder::dhaToHdfs(copy, true, 3));
    EXPECT_EQ(copy, noName);
    std::string noSize = "<data id=\"x\" name=\"n\" dataPtrType=\"8-byte int *\" "
                         "dataType=\"4-byte int\" href=\"" +
                         href + "\"/>";
    copy = noSize;
    EXPECT_FALSE(XLinkTranscoder::dhaToHdfs(copy, true, 3));
    EXPECT_EQ(copy, noSize);
    std::free(array);
}

TEST(XLinkTranscoderTest, ParseSplitsAnElement) {
    int value = 0;
    std::string element = "<data id=\"I\" name=\"a&amp;b\" dataPtrType=\"8-byte int *\" "
                          "dataType=\"4-byte int\" dataSize=\"12\" href=\"dha://" +
                          XLinkUtils::getAddressString(&value, true) + "\"/>";
    XLinkProtocol protocol = XLinkProtocol::plain;
    std::string scheme, href, id, name, ptrType, type;
    uint64_t size = 0;
    void* address = nullptr;
    FileName file;
    ASSERT_TRUE(XLinkTranscoder::parse(element, protocol, scheme, href, id, name, ptrType, size,
                                       type, &address, &file));
    EXPECT_EQ(protocol, XLinkProtocol::dha);
    EXPECT_EQ(scheme, "dha://");
    EXPECT_EQ(id, "I");
    EXPECT_EQ(name, "a&b");
    EXPECT_EQ(ptrType, "8-byte int *");
    EXPECT_EQ(type, "4-byte int");
    EXPECT_EQ(size, 12u);
    EXPECT_EQ(address, &value);

    std::string fileElement = "<data name=\"f\" dataSize=\"1\" href=\"file:///C:/x.dhadmp\"/>";
    ASSERT_TRUE(XLinkTranscoder::parse(fileElement, protocol, scheme, href, id, name, ptrType, size,
                                       type, &address, &file));
    EXPECT_EQ(protocol, XLinkProtocol::file);
    EXPECT_EQ(scheme, "file://");
    EXPECT_EQ(file.toString(), "C:/x.dhadmp");
    EXPECT_EQ(id, "");

    for (const char* other : {"ftp://host/x", "hdfs://#0x10", "arch://#0x20"}) {
        std::string e = std::string("<d href=\"") + other + "\"/>";
        ASSERT_TRUE(XLinkTranscoder::parse(e, protocol, scheme, href, id, name, ptrType, size, type,
                                           &address, &file))
            << other;
    }
    EXPECT_EQ(protocol, XLinkProtocol::arch);
    EXPECT_EQ(address, reinterpret_cast<void*>(0x20));
}

TEST(XLinkTranscoderTest, ParseRejectsMalformedElements) {
    XLinkProtocol protocol = XLinkProtocol::dha;
    std::string scheme = "s", href = "h", id = "i", name = "n", ptrType = "p", type = "t";
    uint64_t size = 77;
    void* address = nullptr;
    FileName file("f");
    for (std::string bad :
         {std::string("<data name=\"n\" dataSize=\"1\"/>"),
          std::string("<data href=\"/plain/path\"/>"), std::string("<data href=\"://x\"/>"),
          std::string("<data href=\"dha://#0x10"),
          std::string("<data href=\"dha://#0x10\" dataSize=\"12abc\"/>"),
          std::string("<data href=\"dha://#0x10\" dataSize=\"-1\"/>"),
          std::string("<data href=\"dha://#0x10\" dataSize=\"\"/>"),
          std::string("<data href=\"dha://#0x10\" dataSize=\"99999999999999999999999\"/>"),
          std::string("<da"), std::string()}) {
        EXPECT_FALSE(XLinkTranscoder::parse(bad, protocol, scheme, href, id, name, ptrType, size,
                                            type, &address, &file))
            << bad;
    }
    EXPECT_EQ(protocol, XLinkProtocol::dha);
    EXPECT_EQ(scheme + href + id + name + ptrType + type, "shinpt");
    EXPECT_EQ(size, 77u);
    EXPECT_EQ(file.toString(), "f");
    // Text forms refuse them as well, and unknown schemes.
    for (std::string bad : {std::string("<data name=\"n\" dataSize=\"x\" href=\"dha://#0x10\"/>"),
                            std::string("<data name=\"n\" dataSize=\"1\" href=\"ftp://h/x\"/>"),
                            std::string("<data name=\"n\" dataSize=\"1\" href=\"dha://#0x10")}) {
        std::string copy = bad;
        EXPECT_FALSE(XLinkTranscoder::dhaToHdfs(copy, true, 3)) << bad;
        EXPECT_FALSE(XLinkTranscoder::hdfsToDha(copy, true)) << bad;
        EXPECT_FALSE(XLinkTranscoder::fileToDha(copy, true, nullptr)) << bad;
        EXPECT_EQ(copy, bad);
    }
}

TEST(XLinkTranscoderTest, KSDataFormWritesTheLinkBack) {
    unsigned int* array = mallocArray<unsigned int>(9, 2);
    std::vector<unsigned int> expected(array, array + 9);
    std::string element = *XLinkDataEncoder::encode<unsigned int>(
        "u", "4-byte unsigned int", array, 9, false, XLinkProtocol::dha, nullptr, false);
    ASSERT_TRUE(XLinkTranscoder::dhaToHdfs(element, true, 3));
    KSData data(firstData(parseReply(element)));
    ASSERT_TRUE(data.isValid());
    ASSERT_TRUE(XLinkTranscoder::hdfsToDha(data, true));
    EXPECT_EQ(data.getDataType(), "4-byte unsigned int");
    EXPECT_EQ(data.getDataPtrType(), "8-byte unsigned int *");
    EXPECT_EQ(data.getDataSize(), 9u);
    auto* back = static_cast<unsigned int*>(data.getDhaPointer());
    EXPECT_EQ(std::vector<unsigned int>(back, back + 9), expected);
    std::free(back);
    KSData copy = data;
    EXPECT_FALSE(XLinkTranscoder::hdfsToDha(data, true)); // now a dha link
    EXPECT_EQ(data.getHref(), copy.getHref());
}
