#include "Platform/RemoteComputation/Service/RequestHandling/UnsharedTmpDir.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HostAndUserId.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingUtility.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/GenericJobId.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <boost/filesystem.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using namespace Kestrane;
using Kestrane::TestSupport::readFile;
using Kestrane::TestSupport::TempDir;
using Kestrane::TestSupport::writeFile;

namespace {

std::string localText() {
    return Computing::Utility::getHostName() + "#" + Computing::Utility::getUserName();
}

class UnsharedTmpDirTest : public ::testing::Test {
protected:
    void SetUp() override { PathConfiguration::setKsPathTmp(FileName(m_tmp.path())); }
    void TearDown() override { PathConfiguration::setKsPathTmp(FileName()); }

    std::string path(const std::string& name) const { return m_tmp.file(name); }

    // A directory that another host or user left on the shared temporary path.
    void leaveForeignDirectory(const std::string& name, const std::string& owner) const {
        boost::filesystem::create_directories(path(name));
        writeFile(path(name) + "/hostAndUser.id", owner);
    }

    std::vector<std::string> entries() const {
        std::vector<std::string> names;
        for (const auto& entry : boost::filesystem::directory_iterator(m_tmp.path()))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    TempDir m_tmp;
};

} // namespace

TEST_F(UnsharedTmpDirTest, NewNameCreatesDirectoryWithIdentity) {
    LogCapture capture;
    const UnsharedTmpDir dir("job");
    EXPECT_EQ(dir.getPath().toString(), path("job"));
    EXPECT_TRUE(boost::filesystem::is_directory(path("job")));
    EXPECT_EQ(readFile(path("job") + "/hostAndUser.id"), localText());
    EXPECT_EQ(capture.messages(LogLevel::Info),
              std::vector<std::string>{"Created new UnsharedTmpDir for name job: " + path("job")});
    EXPECT_TRUE(capture.messages(LogLevel::Error).empty());
}

TEST_F(UnsharedTmpDirTest, OwnDirectoryIsUsedAgain) {
    const UnsharedTmpDir first("job");
    LogCapture capture;
    const UnsharedTmpDir second("job");
    EXPECT_EQ(second.getPath(), first.getPath());
    EXPECT_EQ(
        capture.messages(LogLevel::Info),
        std::vector<std::string>{"Using existing UnsharedTmpDir for name job: " + path("job")});
    EXPECT_EQ(entries(), std::vector<std::string>{"job"});
}

TEST_F(UnsharedTmpDirTest, ForeignDirectoryMakesNameWithSuffixOne) {
    leaveForeignDirectory("job", "otherhost#otheruser");
    LogCapture capture;
    const UnsharedTmpDir dir("job");
    EXPECT_EQ(dir.getPath().toString(), path("job_1"));
    EXPECT_EQ(readFile(path("job_1") + "/hostAndUser.id"), localText());
    EXPECT_EQ(readFile(path("job") + "/hostAndUser.id"), "otherhost#otheruser");
    EXPECT_EQ(capture.messages(LogLevel::Warn),
              std::vector<std::string>{"HostAndUserId loaded from '" + path("job") +
                                       "' does not match local HostAndUserId."});
    EXPECT_EQ(
        capture.messages(LogLevel::Info),
        std::vector<std::string>{"Created new UnsharedTmpDir for name job: " + path("job_1")});
}

TEST_F(UnsharedTmpDirTest, TwoForeignDirectoriesMakeNameWithSuffixTwo) {
    leaveForeignDirectory("job", "otherhost#otheruser");
    leaveForeignDirectory("job_1", "thishost#someoneelse");
    LogCapture capture;
    const UnsharedTmpDir dir("job");
    EXPECT_EQ(dir.getPath().toString(), path("job_2"));
    EXPECT_EQ(capture.messages(LogLevel::Warn),
              (std::vector<std::string>{"HostAndUserId loaded from '" + path("job") +
                                            "' does not match local HostAndUserId.",
                                        "HostAndUserId loaded from '" + path("job_1") +
                                            "' does not match local HostAndUserId."}));
    EXPECT_EQ(entries(), (std::vector<std::string>{"job", "job_1", "job_2"}));
}

TEST_F(UnsharedTmpDirTest, OwnDirectoryBehindForeignOnesIsFound) {
    leaveForeignDirectory("job", "otherhost#otheruser");
    leaveForeignDirectory("job_1", "otherhost#otheruser");
    const UnsharedTmpDir created("job");
    ASSERT_EQ(created.getPath().toString(), path("job_2"));
    LogCapture capture;
    const UnsharedTmpDir found("job");
    EXPECT_EQ(found.getPath().toString(), path("job_2"));
    EXPECT_TRUE(capture.contains(LogLevel::Info,
                                 "Using existing UnsharedTmpDir for name job: " + path("job_2")));
    EXPECT_EQ(entries(), (std::vector<std::string>{"job", "job_1", "job_2"}));
}

TEST_F(UnsharedTmpDirTest, DirectoryWithoutFileIsGivenUp) {
    boost::filesystem::create_directories(path("job"));
    LogCapture capture;
    const UnsharedTmpDir dir("job");
    EXPECT_EQ(dir.getPath().toString(), path("job_1"));
    EXPECT_EQ(capture.messages(LogLevel::Error),
              (std::vector<std::string>{
                  "Trying to load HostAndUserId from file '" + path("job") +
                      "/hostAndUser.id' that does not exists!",
                  "HostAndUserId can not be loaded from existing UnsharedTmpDir for name job: " +
                      path("job")}));
    // The given-up directory is left alone.
    EXPECT_FALSE(boost::filesystem::exists(path("job") + "/hostAndUser.id"));
    EXPECT_EQ(readFile(path("job_1") + "/hostAndUser.id"), localText());
}

TEST_F(UnsharedTmpDirTest, PlainFileInTheWayIsGivenUp) {
    writeFile(path("job"), localText());
    LogCapture capture;
    const UnsharedTmpDir dir("job");
    EXPECT_EQ(dir.getPath().toString(), path("job_1"));
    EXPECT_TRUE(capture.contains(LogLevel::Error,
                                 "HostAndUserId can not be loaded from existing UnsharedTmpDir "
                                 "for name job: " +
                                     path("job")));
}

TEST_F(UnsharedTmpDirTest, IdentityWithTrailingLineBreakIsForeign) {
    leaveForeignDirectory("job", localText() + "\n");
    LogCapture capture;
    const UnsharedTmpDir dir("job");
    EXPECT_EQ(dir.getPath().toString(), path("job_1"));
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "HostAndUserId loaded from '" + path("job") +
                                                     "' does not match local HostAndUserId."));
}

TEST_F(UnsharedTmpDirTest, InvalidIdentityFileIsGivenUp) {
    leaveForeignDirectory("job", "garbage");
    LogCapture capture;
    const UnsharedTmpDir dir("job");
    EXPECT_EQ(dir.getPath().toString(), path("job_1"));
    EXPECT_TRUE(capture.contains(LogLevel::Error,
                                 "HostAndUserId can not be loaded from existing UnsharedTmpDir "
                                 "for name job: " +
                                     path("job")));
}

TEST_F(UnsharedTmpDirTest, JobIdUsesItsName) {
    const GenericJobId id(UniqueID::generateId(), "nightlyRun");
    LogCapture capture;
    const UnsharedTmpDir dir(id);
    EXPECT_EQ(dir.getPath().toString(), path("nightlyRun"));
    EXPECT_EQ(capture.messages(LogLevel::Info),
              std::vector<std::string>{"Created new UnsharedTmpDir for name nightlyRun: " +
                                       path("nightlyRun")});
    EXPECT_EQ(UnsharedTmpDir(id).getPath(), dir.getPath());
}

TEST_F(UnsharedTmpDirTest, ValueSemantics) {
    const UnsharedTmpDir a("a");
    UnsharedTmpDir b("b");
    UnsharedTmpDir copy(a);
    EXPECT_EQ(copy.getPath(), a.getPath());
    copy = b;
    EXPECT_EQ(copy.getPath().toString(), path("b"));
    UnsharedTmpDir moved(std::move(copy));
    EXPECT_EQ(moved.getPath().toString(), path("b"));
    moved = UnsharedTmpDir("c");
    EXPECT_EQ(moved.getPath().toString(), path("c"));
}

TEST_F(UnsharedTmpDirTest, DirectoryThatCannotBeCreatedThrows) {
    // A plain file where a parent directory would have to be.
    writeFile(path("blocker"), "x");
    EXPECT_ANY_THROW(UnsharedTmpDir("blocker/job"));
    EXPECT_FALSE(boost::filesystem::is_directory(path("blocker")));
}
