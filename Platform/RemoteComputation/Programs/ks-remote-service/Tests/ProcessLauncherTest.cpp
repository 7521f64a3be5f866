#include "../ProcessLauncher.h"
#include "ProbeProgram.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"

#include <gtest/gtest.h>

#include <csignal>
#include <regex>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;

class ProcessLauncherTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_logs = m_temp.directory("logs");
        m_probe = m_temp.file("probe");
        ProbeProgram::write(m_probe);
    }
    // The probes end before their directory goes.
    void TearDown() override {
        for (const auto& record : m_records)
            ProbeProgram::release(record);
        for (pid_t pid : m_pids)
            if (!waitUntil([&] { return processState(pid) == 0; }, 2000ms))
                ::kill(pid, SIGKILL);
    }
    bool launch(ProcessLauncher& launcher, const std::vector<std::string>& arguments, pid_t& pid,
                std::string& reason) {
        if (!launcher.start(m_probe, arguments, pid, reason))
            return false;
        m_pids.push_back(pid);
        return true;
    }
    std::vector<std::string> probeArguments(const std::string& name, unsigned int waitSeconds) {
        m_records.push_back(m_temp.file(name));
        return {m_records.back(), std::to_string(waitSeconds)};
    }

    TemporaryDirectory m_temp;
    std::string m_logs, m_probe;
    std::vector<std::string> m_records;
    std::vector<pid_t> m_pids;
};

TEST_F(ProcessLauncherTest, LogFileNamesCarryProgramTimeAndSequence) {
    std::tm moment{};
    moment.tm_year = 2025 - 1900;
    moment.tm_mon = 2;
    moment.tm_mday = 4;
    moment.tm_hour = 5;
    moment.tm_min = 6;
    moment.tm_sec = 7;
    moment.tm_isdst = -1;
    std::time_t time = std::mktime(&moment);
    const std::string pid = std::to_string(::getpid());
    EXPECT_EQ(ProcessLauncher::logFileName("/opt/ks/bin/ks-request-server", time, 12),
              "ks-request-server-20250304-050607-" + pid + "-12.log");
    EXPECT_EQ(ProcessLauncher::logFileName("plain", time, 1),
              "plain-20250304-050607-" + pid + "-1.log");
}

TEST_F(ProcessLauncherTest, QuotingShowsEveryArgument) {
    EXPECT_EQ(ProcessLauncher::quoteArguments({"/bin/x", "a b", "", "it's", "back\\", "l1\nl2",
                                               std::string("\x01\t\r\x7f", 4), "ü"}),
              "'/bin/x' 'a b' '' 'it\\'s' 'back\\\\' 'l1\\nl2' '\\x01\\t\\r\\x7f' 'ü'");
    EXPECT_EQ(ProcessLauncher::quoteArguments({}), "");
}

TEST_F(ProcessLauncherTest, StartsDetachedWithItsOutputInALogFileAndReaps) {
    LogCapture capture;
    ProcessLauncher launcher(m_logs, 4, 20ms);
    pid_t pid = -1;
    std::string reason;
    auto arguments = probeArguments("one", 10);
    ASSERT_TRUE(launch(launcher, arguments, pid, reason)) << reason;
    EXPECT_EQ(launcher.runningCount(), 1u);
    ASSERT_TRUE(ProbeProgram::waitForStart(arguments[0]));
    EXPECT_EQ(ProbeProgram::info(arguments[0])["sid"], std::to_string(pid));
    EXPECT_EQ(ProbeProgram::info(arguments[0])["stdin"], "/dev/null");

    std::string started;
    for (const auto& message : capture.messages(LogLevel::Info))
        if (message.rfind("Started process " + std::to_string(pid) + ": ", 0) == 0)
            started = message;
    std::smatch match;
    ASSERT_TRUE(
        std::regex_match(started, match,
                         std::regex("Started process [0-9]+: '.*/probe' '.*/one' '10'; "
                                    "output in (.*/logs/probe-[0-9]{8}-[0-9]{6}-[0-9]+-1\\.log)")))
        << started;
    std::string logFile = match[1];
    EXPECT_TRUE(waitUntil([&] {
        return readFile(logFile).find("probe stderr " + std::to_string(pid)) != std::string::npos;
    }));

    ProbeProgram::release(arguments[0]);
    std::string ended = "Process " + std::to_string(pid) + " (probe) ended with exit code 3 after ";
    EXPECT_TRUE(capture.waitForSubstring(ended, 3000ms));
    EXPECT_TRUE(waitUntil([&] { return launcher.runningCount() == 0; }));
    EXPECT_EQ(processState(pid), 0) << "not reaped";
}

TEST_F(ProcessLauncherTest, LimitHoldsUntilAProgramEnds) {
    ProcessLauncher launcher(m_logs, 2, 20ms);
    pid_t first = -1, second = -1, third = -1;
    std::string reason;
    auto one = probeArguments("one", 10), two = probeArguments("two", 10);
    ASSERT_TRUE(launch(launcher, one, first, reason)) << reason;
    ASSERT_TRUE(launch(launcher, two, second, reason)) << reason;
    EXPECT_FALSE(launch(launcher, probeArguments("three", 0), third, reason));
    EXPECT_EQ(reason, "the service runs 2 started programs already, its --max-processes limit; "
                      "wait until one ends or start the service with a higher limit");
    EXPECT_EQ(third, -1);
    ProbeProgram::release(one[0]);
    EXPECT_TRUE(waitUntil([&] { return launcher.runningCount() == 1; }));
    EXPECT_TRUE(launch(launcher, probeArguments("four", 0), third, reason)) << reason;
    EXPECT_GT(third, 0);
}

TEST_F(ProcessLauncherTest, StartFailureIsAReason) {
    ProcessLauncher launcher(m_logs, 2, 20ms);
    std::string script = m_temp.file("no-interpreter");
    writeFile(script, "#!/nonexistent/interpreter\n", 0755);
    pid_t pid = -1;
    std::string reason;
    EXPECT_FALSE(launcher.start(script, {}, pid, reason));
    EXPECT_EQ(reason, "Cannot start '" + script + "': No such file or directory");
    EXPECT_EQ(launcher.runningCount(), 0u);

    ProcessLauncher nowhere(m_temp.file("missing-directory"), 2, 20ms);
    EXPECT_FALSE(nowhere.start(m_probe, probeArguments("x", 0), pid, reason));
    EXPECT_EQ(
        reason.rfind("Cannot open output file '" + m_temp.file("missing-directory") + "/probe-", 0),
        0u)
        << reason;
}

TEST_F(ProcessLauncherTest, ProgramsOutliveTheLauncher) {
    pid_t pid = -1;
    auto arguments = probeArguments("outlive", 10);
    {
        ProcessLauncher launcher(m_logs, 2, 20ms);
        std::string reason;
        ASSERT_TRUE(launch(launcher, arguments, pid, reason)) << reason;
        ASSERT_TRUE(ProbeProgram::waitForStart(arguments[0]));
    }
    char state = processState(pid);
    EXPECT_TRUE(state != 0 && state != 'Z') << state;
    ProbeProgram::release(arguments[0]);
    EXPECT_TRUE(waitUntil([&] { return processState(pid) == 0; }, 3000ms))
        << "the process's own reaper takes it";
}
