#include "Platform/RemoteComputation/Service/RequestHandling/FileCommand.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace Kestrane;

namespace {
const std::string c_id = "0123456789ABCDEF-0123456789ABCDEF-0123456789ABCDEF";
}

TEST(FileCommandTest, BuildAndParse) {
    std::string payload = FileCommand::build("client42", c_id, "data.bin");
    EXPECT_EQ(payload, "FILE client42 " + c_id + " data.bin");
    FileCommand command;
    ASSERT_TRUE(FileCommand::parse(payload, command));
    EXPECT_EQ(command.directory, "client42");
    EXPECT_EQ(command.fileId, c_id);
    EXPECT_EQ(command.fileName, "data.bin");
}

TEST(FileCommandTest, FileNameMayHoldSpaces) {
    FileCommand command;
    ASSERT_TRUE(FileCommand::parse(FileCommand::build("d", c_id, "my results v2.dat"), command));
    EXPECT_EQ(command.directory, "d");
    EXPECT_EQ(command.fileName, "my results v2.dat");
}

TEST(FileCommandTest, DirectoryWordCannotHoldASpace) {
    // The first space behind position 5 ends the directory word; the rest is cut by position.
    FileCommand command;
    std::string payload = FileCommand::build("my dir", c_id, "f.txt");
    ASSERT_TRUE(FileCommand::parse(payload, command));
    EXPECT_EQ(command.directory, "my");
    EXPECT_EQ(command.fileId, "dir " + c_id.substr(0, 46));
    EXPECT_NE(command.fileName, "f.txt");
}

TEST(FileCommandTest, AcceptanceTest) {
    FileCommand command;
    // 58 bytes: too short.
    std::string shortPayload = "FILE d " + c_id.substr(0, 50) + " ";
    ASSERT_EQ(shortPayload.size(), 58u);
    EXPECT_FALSE(FileCommand::parse(shortPayload, command));
    // 59 bytes: accepted, with an empty file name.
    EXPECT_TRUE(FileCommand::parse(shortPayload + "x", command));
    EXPECT_EQ(command.fileName, "x");
    // Empty directory word: the space stands at position 5.
    EXPECT_FALSE(FileCommand::parse("FILE  " + c_id + " name-long-enough", command));
    // No space behind position 5 at all.
    EXPECT_FALSE(FileCommand::parse("FILE " + std::string(60, 'x'), command));
}

TEST(FileCommandTest, LongDirectoryWordMakesTheCutThrow) {
    FileCommand command;
    // Fewer than 51 characters behind the directory's end: the name cannot be cut.
    std::string payload = "FILE " + std::string(40, 'd') + " " + std::string(20, 'i');
    ASSERT_GE(payload.size(), 59u);
    EXPECT_THROW(FileCommand::parse(payload, command), std::out_of_range);
}
