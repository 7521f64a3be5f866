#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace Kestrane;
using TestSupport::TempDir;

TEST(FileUtilitiesTest, ExistsAndIsDirectory) {
    TempDir dir;
    FileName file = FileName(dir.path()) / "f.txt";
    EXPECT_TRUE(FileUtilities::exists(dir.path()));
    EXPECT_TRUE(FileUtilities::isDirectory(dir.path()));
    EXPECT_FALSE(FileUtilities::exists(file));
    EXPECT_FALSE(FileUtilities::isDirectory(file));
    TestSupport::writeFile(file.toString(), "abc");
    EXPECT_TRUE(FileUtilities::exists(file));
    EXPECT_FALSE(FileUtilities::isDirectory(file));
}

TEST(FileUtilitiesTest, DanglingLinkExistsOnlyWithoutFollowing) {
    TempDir dir;
    std::string link = dir.file("link");
    ASSERT_EQ(::symlink(dir.file("missing").c_str(), link.c_str()), 0);
    EXPECT_FALSE(FileUtilities::exists(link, true));
    EXPECT_TRUE(FileUtilities::exists(link, false));
}

TEST(FileUtilitiesTest, IsEmpty) {
    TempDir dir;
    EXPECT_TRUE(FileUtilities::isEmpty(dir.path()));
    std::string file = dir.file("f");
    TestSupport::writeFile(file, "");
    EXPECT_TRUE(FileUtilities::isEmpty(file));
    EXPECT_FALSE(FileUtilities::isEmpty(dir.path()));
    TestSupport::writeFile(file, "x");
    EXPECT_FALSE(FileUtilities::isEmpty(file));
    EXPECT_FALSE(FileUtilities::isEmpty(dir.file("missing")));
}

TEST(FileUtilitiesTest, FileSize) {
    TempDir dir;
    std::string file = dir.file("sized");
    TestSupport::writeFile(file, std::string(1234, 'z'));
    EXPECT_EQ(FileUtilities::getFileSize(file), 1234u);
}

TEST(FileUtilitiesTest, FileSizeOfMissingFileThrowsNamingIt) {
    TempDir dir;
    std::string missing = dir.file("missing");
    try {
        FileUtilities::getFileSize(missing);
        FAIL() << "no exception";
    } catch (const KsExceptionNested& e) {
        EXPECT_EQ(e.getSource(), "FileUtilities");
        EXPECT_NE(std::string(e.what()).find(missing), std::string::npos) << e.what();
    }
}

TEST(FileUtilitiesTest, AvailableSpace) {
    TempDir dir;
    EXPECT_GT(FileUtilities::getAvailableSpace(dir.path()), 0u);
    EXPECT_THROW(FileUtilities::getAvailableSpace(dir.file("no/such/dir")), KsExceptionNested);
}

TEST(FileUtilitiesTest, CreateDirectoriesMakesParents) {
    TempDir dir;
    FileName deep = FileName(dir.path()) / "a" / "b" / "c";
    FileUtilities::createDirectories(deep);
    EXPECT_TRUE(FileUtilities::isDirectory(deep));
    EXPECT_NO_THROW(FileUtilities::createDirectories(deep)) << "an existing directory is fine";
}

TEST(FileUtilitiesTest, CreateDirectoriesBelowAFileThrows) {
    TempDir dir;
    std::string file = dir.file("plain");
    TestSupport::writeFile(file, "x");
    EXPECT_THROW(FileUtilities::createDirectories(FileName(file) / "sub"), KsExceptionNested);
}

TEST(FileUtilitiesTest, RemoveFileAndTree) {
    TempDir dir;
    FileName file = FileName(dir.path()) / "f";
    TestSupport::writeFile(file.toString(), "x");
    EXPECT_TRUE(FileUtilities::remove(file));
    EXPECT_FALSE(FileUtilities::exists(file));
    EXPECT_FALSE(FileUtilities::remove(file)) << "nothing left to remove";

    FileName tree = FileName(dir.path()) / "tree";
    FileUtilities::createDirectories(tree / "x" / "y");
    TestSupport::writeFile((tree / "x" / "y" / "z.txt").toString(), "data");
    EXPECT_TRUE(FileUtilities::remove(tree));
    EXPECT_FALSE(FileUtilities::exists(tree));
}
