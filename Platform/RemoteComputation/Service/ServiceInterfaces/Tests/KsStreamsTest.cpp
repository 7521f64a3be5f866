#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsStreams.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <gtest/gtest.h>

using namespace Kestrane;
using TestSupport::TempDir;

TEST(KsStreamsTest, ModeValues) {
    EXPECT_EQ(KsOpenMode::in, 1);
    EXPECT_EQ(KsOpenMode::out, 2);
    EXPECT_EQ(KsOpenMode::trunc, 16);
    EXPECT_EQ(KsOpenMode::out | KsOpenMode::trunc, 18);
    EXPECT_EQ(KsOpenMode::toStd(1), std::ios_base::in);
    EXPECT_EQ(KsOpenMode::toStd(2), std::ios_base::out);
    EXPECT_EQ(KsOpenMode::toStd(18), std::ios_base::out | std::ios_base::trunc);
    EXPECT_EQ(KsOpenMode::toStd(8 | 2), std::ios_base::out | std::ios_base::app);
    EXPECT_EQ(KsOpenMode::toStd(32 | 1), std::ios_base::in | std::ios_base::binary);
}

TEST(KsStreamsTest, WriteWithMode18ThenReadWithMode1) {
    TempDir dir;
    FileName file = FileName(dir.path()) / "data.txt";
    TestSupport::writeFile(file.toString(), "old content that is longer");
    {
        KsOfstream out(file, 18);
        ASSERT_TRUE(out.is_open());
        out << "line one\n" << 42 << "\n";
        out.close();
        EXPECT_FALSE(out.is_open());
    }
    EXPECT_EQ(TestSupport::readFile(file.toString()), "line one\n42\n");

    KsIfstream in(file, 1);
    ASSERT_TRUE(in.is_open());
    std::string first;
    int number = 0;
    std::getline(in, first);
    in >> number;
    EXPECT_EQ(first, "line one");
    EXPECT_EQ(number, 42);
    in.close();
    EXPECT_FALSE(in.is_open());
}

TEST(KsStreamsTest, AppendKeepsContent) {
    TempDir dir;
    FileName file = FileName(dir.path()) / "log.txt";
    TestSupport::writeFile(file.toString(), "a");
    {
        KsOfstream out(file, KsOpenMode::out | KsOpenMode::app);
        out << "b";
    }
    EXPECT_EQ(TestSupport::readFile(file.toString()), "ab");
}

TEST(KsStreamsTest, ByteOrderMarkIsWrittenFirst) {
    TempDir dir;
    FileName file = FileName(dir.path()) / "bom.txt";
    {
        KsOfstream out(file, 18, KsOfstream::Utf8ByteOrderMark);
        out << "x";
    }
    EXPECT_EQ(TestSupport::readFile(file.toString()), "\xEF\xBB\xBFx");
}

TEST(KsStreamsTest, MissingFileDoesNotOpen) {
    TempDir dir;
    KsIfstream in(FileName(dir.path()) / "missing", 1);
    EXPECT_FALSE(in.is_open());
    KsOfstream out(FileName(dir.path()) / "no" / "dir" / "f", 18);
    EXPECT_FALSE(out.is_open());
}
