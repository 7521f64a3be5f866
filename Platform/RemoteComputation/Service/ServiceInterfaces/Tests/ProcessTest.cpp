#include "Platform/RemoteComputation/Service/ServiceInterfaces/Process.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

using namespace Kestrane;
using namespace Kestrane::Computing;
using TestSupport::waitUntil;

namespace {

bool procEntryExists(pid_t pid) {
    struct stat info;
    return ::stat(("/proc/" + std::to_string(pid)).c_str(), &info) == 0;
}

// Process state letter from /proc/<pid>/stat ('Z' for a zombie), 0 when gone.
char procState(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t close = text.rfind(')');
    if (close == std::string::npos || close + 2 >= text.size())
        return 0;
    return text[close + 2];
}

std::string readAll(int fd) {
    std::string out;
    char buffer[256];
    ssize_t got;
    while ((got = ::read(fd, buffer, sizeof(buffer))) > 0)
        out.append(buffer, static_cast<size_t>(got));
    return out;
}

} // namespace

TEST(ProcessTest, TrueExitsWithZero) {
    Process process("/bin/true", {});
    ASSERT_TRUE(process.start(Detached)) << process.getErrorMessage();
    EXPECT_GT(process.getPid(), 0);
    EXPECT_EQ(process.wait(), 0);
    EXPECT_FALSE(process.isRunning());
    EXPECT_EQ(process.wait(), 0) << "the code is kept";
}

TEST(ProcessTest, ShellExitCode) {
    Process process("/bin/sh", {"-c", "exit 3"});
    ASSERT_TRUE(process.start(Attached)) << process.getErrorMessage();
    EXPECT_EQ(process.wait(), 3);
}

TEST(ProcessTest, ArgumentsArePassedOneByOne) {
    Process process("/bin/sh", {"-c", "exit $#", "sh", "a b", "", "c"});
    ASSERT_TRUE(process.start());
    EXPECT_EQ(process.wait(), 3);
}

TEST(ProcessTest, EnvironmentIsInherited) {
    ::setenv("KS_PROCESS_TEST_VALUE", "inherited", 1);
    Process process("/bin/sh", {"-c", "test \"$KS_PROCESS_TEST_VALUE\" = inherited"});
    ASSERT_TRUE(process.start());
    EXPECT_EQ(process.wait(), 0);
    ::unsetenv("KS_PROCESS_TEST_VALUE");
}

TEST(ProcessTest, MissingExecutableGivesFalseAndAMessageNamingIt) {
    const std::string missing = "/no/such/dir/ks-missing-program";
    Process process(missing, {"x"});
    EXPECT_FALSE(process.start());
    EXPECT_NE(process.getErrorMessage().find(missing), std::string::npos)
        << process.getErrorMessage();
    EXPECT_NE(process.getErrorMessage().find(std::strerror(ENOENT)), std::string::npos)
        << process.getErrorMessage();
    EXPECT_FALSE(process.isRunning());
    EXPECT_EQ(process.wait(), -1);
}

TEST(ProcessTest, WaitBeforeStart) {
    Process process("/bin/true", {});
    EXPECT_EQ(process.wait(), -1);
    EXPECT_FALSE(process.isRunning());
    EXPECT_FALSE(process.kill(SIGTERM));
    EXPECT_EQ(process.getErrorMessage(), "");
}

TEST(ProcessTest, KilledProcessReports128PlusSignal) {
    Process process("/bin/sleep", {"30"});
    ASSERT_TRUE(process.start());
    EXPECT_TRUE(process.isRunning());
    int code = 0;
    EXPECT_FALSE(process.waitFor(20, code)) << "still running";
    EXPECT_TRUE(process.kill(SIGKILL));
    EXPECT_EQ(process.wait(), 128 + SIGKILL);
    EXPECT_FALSE(process.kill(SIGKILL)) << "already reaped";

    Process terminated("/bin/sleep", {"30"});
    ASSERT_TRUE(terminated.start());
    EXPECT_TRUE(terminated.kill(SIGTERM));
    EXPECT_TRUE(terminated.waitFor(10000, code));
    EXPECT_EQ(code, 128 + SIGTERM);
}

TEST(ProcessTest, WaitForReturnsTheCode) {
    Process process("/bin/sh", {"-c", "exit 7"});
    ASSERT_TRUE(process.start());
    int code = -5;
    EXPECT_TRUE(process.waitFor(10000, code));
    EXPECT_EQ(code, 7);
}

TEST(ProcessTest, CaptureStandardOutput) {
    Process process("/bin/sh", {"-c", "printf 'line one\\nline two'"});
    process.captureStandardOutput();
    ASSERT_TRUE(process.start());
    ASSERT_GE(process.getStandardOutputFd(), 0);
    EXPECT_EQ(readAll(process.getStandardOutputFd()), "line one\nline two");
    EXPECT_EQ(process.wait(), 0);
}

TEST(ProcessTest, WithoutCaptureThereIsNoOutputPipe) {
    Process process("/bin/true", {});
    ASSERT_TRUE(process.start());
    EXPECT_EQ(process.getStandardOutputFd(), -1);
    EXPECT_EQ(process.wait(), 0);
}

TEST(ProcessTest, DestroyedWhileChildRunsLeavesNoZombie) {
    pid_t pid;
    {
        Process process("/bin/sleep", {"0.3"});
        ASSERT_TRUE(process.start());
        pid = process.getPid();
        ASSERT_TRUE(process.isRunning());
    }
    EXPECT_TRUE(procEntryExists(pid)) << "the child still runs";
    EXPECT_TRUE(waitUntil([&] { return !procEntryExists(pid); }, std::chrono::seconds(10)))
        << "state " << procState(pid);
}

TEST(ProcessTest, DestroyedAfterChildEndedLeavesNoZombie) {
    pid_t pid;
    {
        Process process("/bin/true", {});
        ASSERT_TRUE(process.start());
        pid = process.getPid();
        ASSERT_TRUE(waitUntil([&] { return procState(pid) == 'Z'; }, std::chrono::seconds(10)));
    }
    EXPECT_FALSE(procEntryExists(pid));
}

TEST(ProcessTest, SecondStartWhileRunningIsRefused) {
    Process process("/bin/sleep", {"30"});
    ASSERT_TRUE(process.start());
    pid_t first = process.getPid();
    EXPECT_FALSE(process.start());
    EXPECT_NE(process.getErrorMessage().find("/bin/sleep"), std::string::npos)
        << process.getErrorMessage();
    EXPECT_EQ(process.getPid(), first);
    EXPECT_TRUE(process.kill(SIGKILL));
    EXPECT_EQ(process.wait(), 128 + SIGKILL);
    EXPECT_FALSE(procEntryExists(first));
}

TEST(ProcessTest, StartAgainAfterTheEndReapsTheFirstChild) {
    Process process("/bin/sh", {"-c", "exit 4"});
    ASSERT_TRUE(process.start());
    pid_t first = process.getPid();
    ASSERT_TRUE(waitUntil([&] { return procState(first) == 'Z'; }, std::chrono::seconds(10)));
    ASSERT_TRUE(process.start()) << process.getErrorMessage();
    EXPECT_NE(process.getPid(), first);
    EXPECT_FALSE(procEntryExists(first)) << "the first child was left a zombie";
    EXPECT_EQ(process.wait(), 4);
}

TEST(ProcessTest, DetachedChildHasASessionOfItsOwnAndReadsDevNull) {
    Process process("/bin/sh", {"-c", "ps -o sid= -p $$ | tr -d ' '; readlink /proc/$$/fd/0; cat"});
    process.captureStandardOutput();
    ASSERT_TRUE(process.start(Detached));
    EXPECT_EQ(process.wait(), 0);
    std::string out = readAll(process.getStandardOutputFd());
    EXPECT_EQ(out, std::to_string(process.getPid()) + "\n/dev/null\n") << out;
}

TEST(ProcessTest, AttachedChildSharesTheSession) {
    Process process("/bin/sh", {"-c", "ps -o sid= -p $$"});
    process.captureStandardOutput();
    ASSERT_TRUE(process.start(Attached));
    EXPECT_EQ(process.wait(), 0);
    std::string out = readAll(process.getStandardOutputFd());
    EXPECT_EQ(std::stol(out), static_cast<long>(::getsid(0))) << out;
    EXPECT_FALSE(process.killGroup(SIGTERM)) << "an attached child shares our group";
}

TEST(ProcessTest, OutputFileCollectsBothStreamsAndIsAppendedTo) {
    TestSupport::TempDir dir;
    const std::string file = dir.file("out.log");
    TestSupport::writeFile(file, "before\n");
    Process process("/bin/sh", {"-c", "echo out; echo err >&2"});
    process.setOutputFile(file);
    ASSERT_TRUE(process.start(Detached));
    EXPECT_EQ(process.wait(), 0);
    EXPECT_EQ(TestSupport::readFile(file), "before\nout\nerr\n");

    Process fresh("/bin/sh", {"-c", "echo new"});
    fresh.setOutputFile(dir.file("new.log"));
    ASSERT_TRUE(fresh.start(Detached));
    fresh.wait();
    struct stat info;
    ASSERT_EQ(::stat(dir.file("new.log").c_str(), &info), 0);
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(info.st_mode & 0777, 0644u & ~mask);
}

TEST(ProcessTest, AnOutputFileThatCannotBeOpenedIsTheStartsError) {
    Process process("/bin/true", {});
    process.setOutputFile("/no/such/dir/out.log");
    EXPECT_FALSE(process.start(Detached));
    EXPECT_EQ(process.getErrorMessage(),
              "Cannot open output file '/no/such/dir/out.log': No such file or directory");
    EXPECT_EQ(process.getPid(), -1);
}

TEST(ProcessTest, OutputAndErrorThroughOnePipeInTheOrderWritten) {
    Process process("/bin/sh", {"-c", "echo 1; echo 2 >&2; echo 3"});
    process.captureStandardOutputAndError();
    ASSERT_TRUE(process.start(Detached));
    EXPECT_EQ(process.wait(), 0);
    EXPECT_EQ(readAll(process.getStandardOutputFd()), "1\n2\n3\n");
    EXPECT_EQ(process.getStandardErrorFd(), -1);
}

TEST(ProcessTest, KillGroupReachesWhatADetachedChildStarted) {
    TestSupport::TempDir dir;
    Process process("/bin/sh",
                    {"-c", "sleep 30 & echo $! > '" + dir.file("grandchild") + "'; wait"});
    ASSERT_TRUE(process.start(Detached));
    ASSERT_TRUE(waitUntil([&] { return !TestSupport::readFile(dir.file("grandchild")).empty(); },
                          std::chrono::milliseconds(3000)));
    const pid_t grandchild =
        static_cast<pid_t>(std::stol(TestSupport::readFile(dir.file("grandchild"))));
    EXPECT_TRUE(process.killGroup(SIGKILL));
    EXPECT_EQ(process.wait(), 128 + SIGKILL);
    EXPECT_TRUE(
        waitUntil([&] { return procState(grandchild) == 0 || procState(grandchild) == 'Z'; },
                  std::chrono::milliseconds(3000)));
    EXPECT_FALSE(process.killGroup(SIGKILL)) << "a reaped child's id may belong to another";
}

TEST(ProcessTest, OnlyTheStandardStreamsReachTheChild) {
    TestSupport::TempDir dir;
    // A descriptor without close-on-exec, as a library may leave one (a log file, a pipe).
    int leaky = ::open(dir.file("open.txt").c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(leaky, 3);
    for (StartMode mode : {Attached, Detached}) {
        Process process("/bin/sh", {"-c", "ls /proc/$$/fd"});
        process.captureStandardOutput();
        ASSERT_TRUE(process.start(mode));
        EXPECT_EQ(process.wait(), 0);
        EXPECT_EQ(readAll(process.getStandardOutputFd()), "0\n1\n2\n") << mode;
    }
    ::close(leaky);
}
