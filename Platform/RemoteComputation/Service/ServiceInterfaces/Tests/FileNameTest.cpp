#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <gtest/gtest.h>

using namespace Kestrane;

TEST(FileNameTest, EmptyByDefault) {
    FileName name;
    EXPECT_TRUE(name.empty());
    EXPECT_EQ(name.toString(), "");
    EXPECT_EQ(name.getLeafName(), "");
    EXPECT_TRUE(name.getParentPath().empty());
    EXPECT_TRUE(FileName(static_cast<const char*>(nullptr)).empty());
}

TEST(FileNameTest, ConstructorsGiveTheSamePath) {
    std::string text = "/tmp/a/b.txt";
    FileName fromString(text);
    FileName fromChars("/tmp/a/b.txt");
    FileName copy(fromString);
    FileName assigned;
    assigned = fromChars;
    EXPECT_EQ(fromString.toString(), text);
    EXPECT_EQ(fromChars, fromString);
    EXPECT_EQ(copy, fromString);
    EXPECT_EQ(assigned, fromString);
    EXPECT_EQ(fromString.toNativeString(), text);
    EXPECT_NE(fromString, FileName("/tmp/a/c.txt"));
}

TEST(FileNameTest, BackslashesBecomeForwardSlashes) {
    FileName name(std::string("dir\\sub\\file.txt"));
    EXPECT_EQ(name.toString(), "dir/sub/file.txt");
    EXPECT_EQ(name.getLeafName(), "file.txt");
}

TEST(FileNameTest, AppendingComponents) {
    FileName base("/tmp");
    FileName joined = base / "a" / "b.txt";
    EXPECT_EQ(joined.toString(), "/tmp/a/b.txt");
    EXPECT_EQ(base.toString(), "/tmp") << "operator/ leaves the left side alone";

    FileName withSlash("/tmp/");
    EXPECT_EQ((withSlash / "x").toString(), "/tmp/x");
    EXPECT_EQ((base / "/x").toString(), "/tmp/x");
    EXPECT_EQ((base / "").toString(), "/tmp");

    FileName empty;
    empty /= "rel";
    EXPECT_EQ(empty.toString(), "rel");

    FileName& self = (base /= "y");
    EXPECT_EQ(&self, &base);
    EXPECT_EQ(base.toString(), "/tmp/y");
}

TEST(FileNameTest, LeafAndParent) {
    FileName name("/tmp/dir/file.txt");
    EXPECT_EQ(name.getLeafName(), "file.txt");
    EXPECT_EQ(name.getParentPath().toString(), "/tmp/dir");
    EXPECT_EQ(name.getParentPath().getParentPath().toString(), "/tmp");
    EXPECT_EQ(FileName("/tmp").getParentPath().toString(), "/");
    EXPECT_EQ(FileName("/tmp/dir/").getLeafName(), "dir");
    EXPECT_EQ(FileName("/tmp/dir/").getParentPath().toString(), "/tmp");
    EXPECT_EQ(FileName("file").getLeafName(), "file");
    EXPECT_TRUE(FileName("file").getParentPath().empty());
    EXPECT_EQ(FileName("a/b").getParentPath().toString(), "a");
}

TEST(FileNameTest, ClearEmpties) {
    FileName name("/x/y");
    name.clear();
    EXPECT_TRUE(name.empty());
    EXPECT_EQ(name.toString(), "");
}
