#include "Platform/RemoteComputation/Service/RequestHandling/HostAndUserId.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingUtility.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

using namespace Kestrane;
using Kestrane::TestSupport::readFile;
using Kestrane::TestSupport::TempDir;
using Kestrane::TestSupport::writeFile;

namespace {

std::string localText() {
    return Computing::Utility::getHostName() + "#" + Computing::Utility::getUserName();
}

// An identity of any text, read back from a file as another process would have left it.
std::shared_ptr<HostAndUserId> identityOf(const std::string& text) {
    TempDir dir;
    writeFile(dir.file("hostAndUser.id"), text);
    return HostAndUserId::load(dir.path());
}

} // namespace

TEST(HostAndUserIdTest, FileNameConstant) {
    EXPECT_EQ(HostAndUserId::c_fileName, "hostAndUser.id");
}

TEST(HostAndUserIdTest, DefaultIsLocalHostAndUser) {
    const HostAndUserId local;
    EXPECT_EQ(local.toString(), localText());
    EXPECT_TRUE(HostAndUserId::isValid(local.toString()));
    EXPECT_TRUE(local == HostAndUserId());
    EXPECT_FALSE(local != HostAndUserId());
}

TEST(HostAndUserIdTest, ValueSemantics) {
    std::shared_ptr<HostAndUserId> other = identityOf("otherhost#otheruser");
    ASSERT_TRUE(other);
    HostAndUserId copy(*other);
    EXPECT_EQ(copy.toString(), "otherhost#otheruser");
    HostAndUserId assigned;
    EXPECT_NE(assigned, copy);
    assigned = copy;
    EXPECT_EQ(assigned, copy);
    HostAndUserId moved(std::move(copy));
    EXPECT_EQ(moved.toString(), "otherhost#otheruser");
    HostAndUserId moveAssigned;
    moveAssigned = std::move(moved);
    EXPECT_EQ(moveAssigned.toString(), "otherhost#otheruser");
    EXPECT_TRUE(moveAssigned != HostAndUserId());
}

TEST(HostAndUserIdTest, SecondHashBelongsToUserName) {
    LogCapture capture;
    EXPECT_TRUE(HostAndUserId::isValid("a#b#c"));
    EXPECT_TRUE(capture.messages(LogLevel::Warn).empty());
    // The whole text is the identity: host "a", user "b#c".
    std::shared_ptr<HostAndUserId> loaded = identityOf("a#b#c");
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->toString(), "a#b#c");
    EXPECT_NE(*loaded, *identityOf("a#b"));
}

TEST(HostAndUserIdTest, EmptyHostNameIsInvalid) {
    LogCapture capture;
    EXPECT_FALSE(HostAndUserId::isValid("#b"));
    EXPECT_EQ(capture.messages(LogLevel::Warn),
              std::vector<std::string>{"Invalid HostAndUserId string (empty host name): '#b'"});
}

TEST(HostAndUserIdTest, EmptyUserNameIsInvalid) {
    LogCapture capture;
    EXPECT_FALSE(HostAndUserId::isValid("a#"));
    EXPECT_EQ(capture.messages(LogLevel::Warn),
              std::vector<std::string>{"Invalid HostAndUserId string (empty user name): 'a#'"});
}

TEST(HostAndUserIdTest, MissingHashIsInvalid) {
    LogCapture capture;
    EXPECT_FALSE(HostAndUserId::isValid("ab"));
    EXPECT_EQ(capture.messages(LogLevel::Warn),
              std::vector<std::string>{"Invalid HostAndUserId string (first '#' not found): 'ab'"});
}

TEST(HostAndUserIdTest, EmptyAndBareHashAreInvalid) {
    LogCapture capture;
    EXPECT_FALSE(HostAndUserId::isValid(""));
    EXPECT_FALSE(HostAndUserId::isValid("#"));
    EXPECT_EQ(capture.messages(LogLevel::Warn),
              (std::vector<std::string>{"Invalid HostAndUserId string (first '#' not found): ''",
                                        "Invalid HostAndUserId string (empty host name): '#'"}));
}

TEST(HostAndUserIdTest, SaveWritesExactlyTheText) {
    TempDir dir;
    LogCapture capture;
    const HostAndUserId local;
    EXPECT_TRUE(local.save(dir.path()));
    // No line break, no byte order mark.
    EXPECT_EQ(readFile(dir.file("hostAndUser.id")), localText());
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Saved HostAndUserId (" + localText() +
                                                      ") to file '" + dir.path() +
                                                      "/hostAndUser.id'."));
}

TEST(HostAndUserIdTest, SaveToMissingPathFails) {
    TempDir dir;
    LogCapture capture;
    const std::string missing = dir.file("missing");
    EXPECT_FALSE(HostAndUserId().save(missing));
    EXPECT_EQ(capture.messages(LogLevel::Error),
              std::vector<std::string>{"Trying to save HostAndUserId (" + localText() +
                                       ") to path '" + missing + "' that does not exist!"});
    EXPECT_FALSE(boost::filesystem::exists(missing));
}

TEST(HostAndUserIdTest, SaveToFileFails) {
    TempDir dir;
    const std::string file = dir.file("plain");
    writeFile(file, "content");
    LogCapture capture;
    EXPECT_FALSE(HostAndUserId().save(file));
    EXPECT_EQ(capture.messages(LogLevel::Error),
              std::vector<std::string>{"Trying to save HostAndUserId (" + localText() +
                                       ") to path that is not a directory '" + file + "'!"});
    EXPECT_EQ(readFile(file), "content");
}

TEST(HostAndUserIdTest, SaveTwiceKeepsTheFirstFile) {
    TempDir dir;
    const HostAndUserId local;
    ASSERT_TRUE(local.save(dir.path()));
    LogCapture capture;
    EXPECT_FALSE(local.save(dir.path()));
    EXPECT_EQ(capture.messages(LogLevel::Error),
              std::vector<std::string>{"Saving HostAndUserId (" + localText() + ") to file '" +
                                       dir.path() + "/hostAndUser.id' that already exists!"});
    EXPECT_EQ(readFile(dir.file("hostAndUser.id")), localText());
}

TEST(HostAndUserIdTest, SaveNeverOverwritesAnotherIdentity) {
    TempDir dir;
    writeFile(dir.file("hostAndUser.id"), "otherhost#otheruser");
    LogCapture capture;
    EXPECT_FALSE(HostAndUserId().save(dir.path()));
    EXPECT_EQ(capture.count("Saving HostAndUserId (" + localText() + ") to file '" + dir.path() +
                            "/hostAndUser.id' that already exists!"),
              1u);
    EXPECT_EQ(readFile(dir.file("hostAndUser.id")), "otherhost#otheruser");
}

TEST(HostAndUserIdTest, SavedIdentityLoadsEqual) {
    TempDir dir;
    ASSERT_TRUE(HostAndUserId().save(dir.path()));
    LogCapture capture;
    std::shared_ptr<HostAndUserId> loaded = HostAndUserId::load(dir.path());
    ASSERT_TRUE(loaded);
    EXPECT_EQ(*loaded, HostAndUserId());
    EXPECT_EQ(loaded->toString(), localText());
    EXPECT_TRUE(capture.messages(LogLevel::Error).empty());
}

TEST(HostAndUserIdTest, LoadOfOtherIdentityIsNotLocal) {
    std::shared_ptr<HostAndUserId> loaded = identityOf("otherhost#otheruser");
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->toString(), "otherhost#otheruser");
    EXPECT_NE(*loaded, HostAndUserId());
}

TEST(HostAndUserIdTest, LoadFromMissingPathIsNull) {
    TempDir dir;
    LogCapture capture;
    const std::string missing = dir.file("missing");
    EXPECT_EQ(HostAndUserId::load(missing), nullptr);
    EXPECT_EQ(capture.messages(LogLevel::Error),
              std::vector<std::string>{"Trying to load HostAndUserId from path '" + missing +
                                       "' that does not exist!"});
}

TEST(HostAndUserIdTest, LoadFromFileIsNull) {
    TempDir dir;
    const std::string file = dir.file("plain");
    writeFile(file, localText());
    LogCapture capture;
    EXPECT_EQ(HostAndUserId::load(file), nullptr);
    EXPECT_EQ(
        capture.messages(LogLevel::Error),
        std::vector<std::string>{
            "Trying to load HostAndUserId from path that is not a directory '" + file + "'!"});
}

TEST(HostAndUserIdTest, LoadWithoutFileIsNull) {
    TempDir dir;
    LogCapture capture;
    EXPECT_EQ(HostAndUserId::load(dir.path()), nullptr);
    EXPECT_EQ(capture.messages(LogLevel::Error),
              std::vector<std::string>{"Trying to load HostAndUserId from file '" + dir.path() +
                                       "/hostAndUser.id' that does not exists!"});
}

TEST(HostAndUserIdTest, LoadOfInvalidTextIsNull) {
    TempDir dir;
    writeFile(dir.file("hostAndUser.id"), "nohashhere");
    LogCapture capture;
    EXPECT_EQ(HostAndUserId::load(dir.path()), nullptr);
    EXPECT_EQ(capture.messages(LogLevel::Warn),
              std::vector<std::string>{
                  "Invalid HostAndUserId string (first '#' not found): 'nohashhere'"});
    EXPECT_EQ(capture.messages(LogLevel::Error),
              std::vector<std::string>{"Loaded invalid HostAndUserId from file '" + dir.path() +
                                       "/hostAndUser.id'."});
}

TEST(HostAndUserIdTest, LoadOfEmptyFileIsNull) {
    TempDir dir;
    writeFile(dir.file("hostAndUser.id"), "");
    LogCapture capture;
    EXPECT_EQ(HostAndUserId::load(dir.path()), nullptr);
    EXPECT_TRUE(
        capture.contains(LogLevel::Warn, "Invalid HostAndUserId string (first '#' not found): ''"));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Loaded invalid HostAndUserId from file '" +
                                                      dir.path() + "/hostAndUser.id'."));
}

TEST(HostAndUserIdTest, LoadOfTruncatedFileIsNull) {
    // Cut off behind the '#', and cut off before it.
    const std::string text = localText();
    const std::string behindHash = text.substr(0, text.find('#') + 1);
    const std::string beforeHash = text.substr(0, text.find('#'));
    ASSERT_FALSE(beforeHash.empty());
    LogCapture capture;
    EXPECT_EQ(identityOf(behindHash), nullptr);
    EXPECT_EQ(identityOf(beforeHash), nullptr);
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "Invalid HostAndUserId string (empty user "
                                                 "name): '" +
                                                     behindHash + "'"));
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "Invalid HostAndUserId string (first '#' not "
                                                 "found): '" +
                                                     beforeHash + "'"));
    EXPECT_EQ(capture.messages(LogLevel::Error).size(), 2u);
}

TEST(HostAndUserIdTest, TrailingLineBreakStaysInTheText) {
    TempDir dir;
    writeFile(dir.file("hostAndUser.id"), localText() + "\n");
    LogCapture capture;
    std::shared_ptr<HostAndUserId> loaded = HostAndUserId::load(dir.path());
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->toString(), localText() + "\n");
    EXPECT_NE(*loaded, HostAndUserId());
    EXPECT_TRUE(capture.messages(LogLevel::Error).empty());
}

TEST(HostAndUserIdTest, InnerLineBreaksAreKept) {
    std::shared_ptr<HostAndUserId> loaded = identityOf("host#user\r\nmore\n");
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->toString(), "host#user\r\nmore\n");
}
