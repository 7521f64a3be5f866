#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace Kestrane;

namespace {
Logging s_logging(__FILE__);

int s_composed = 0;
std::string composed(const std::string& text) {
    ++s_composed;
    return text;
}

class LoggingTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_level = Logging::getLevel();
        s_composed = 0;
    }
    void TearDown() override {
        Logging::setLogFile("");
        Logging::setLevel(m_level);
    }
    LogLevel m_level = LogLevel::Info;
};
} // namespace

TEST_F(LoggingTest, LevelNamesAndParsing) {
    EXPECT_EQ(Logging::levelName(LogLevel::Trace), "TRACE");
    EXPECT_EQ(Logging::levelName(LogLevel::Debug), "DEBUG");
    EXPECT_EQ(Logging::levelName(LogLevel::Info), "INFO");
    EXPECT_EQ(Logging::levelName(LogLevel::Warn), "WARN");
    EXPECT_EQ(Logging::levelName(LogLevel::Error), "ERROR");
    EXPECT_EQ(Logging::levelName(LogLevel::Fatal), "FATAL");
    EXPECT_EQ(Logging::levelName(LogLevel::Off), "OFF");

    LogLevel level = LogLevel::Off;
    EXPECT_TRUE(Logging::parseLevel("trace", level));
    EXPECT_EQ(level, LogLevel::Trace);
    EXPECT_TRUE(Logging::parseLevel("Debug", level));
    EXPECT_EQ(level, LogLevel::Debug);
    EXPECT_TRUE(Logging::parseLevel("WARN", level));
    EXPECT_EQ(level, LogLevel::Warn);
    EXPECT_TRUE(Logging::parseLevel("fatal", level));
    EXPECT_EQ(level, LogLevel::Fatal);

    EXPECT_TRUE(Logging::parseLevel("OFF", level));
    EXPECT_EQ(level, LogLevel::Off);

    level = LogLevel::Info;
    EXPECT_FALSE(Logging::parseLevel("loud", level));
    EXPECT_FALSE(Logging::parseLevel("", level));
    EXPECT_FALSE(Logging::parseLevel("WARNING", level));
    EXPECT_EQ(level, LogLevel::Info) << "a failed parse leaves the level alone";
}

TEST_F(LoggingTest, SetLevelControlsWhatIsEnabledWithoutCapture) {
    Logging::setLevel(LogLevel::Warn);
    EXPECT_EQ(Logging::getLevel(), LogLevel::Warn);
    EXPECT_FALSE(Logging::isEnabled(LogLevel::Trace));
    EXPECT_FALSE(Logging::isEnabled(LogLevel::Debug));
    EXPECT_FALSE(Logging::isEnabled(LogLevel::Info));
    EXPECT_TRUE(Logging::isEnabled(LogLevel::Warn));
    EXPECT_TRUE(Logging::isEnabled(LogLevel::Error));
    EXPECT_TRUE(Logging::isEnabled(LogLevel::Fatal));

    Logging::setLevel(LogLevel::Trace);
    EXPECT_TRUE(Logging::isEnabled(LogLevel::Trace));
}

TEST_F(LoggingTest, MacroComposesOnlyWhenEnabled) {
    Logging::setLevel(LogLevel::Error);
    KS_DEBUG("not composed " << composed("a"));
    KS_INFO("not composed " << composed("b"));
    KS_WARN("not composed " << composed("c"));
    EXPECT_EQ(s_composed, 0);
    KS_ERROR("composed " << composed("d"));
    EXPECT_EQ(s_composed, 1);
    Logging::flush();
}

TEST_F(LoggingTest, CaptureEnablesEveryLevelAndSeesExactMessages) {
    Logging::setLevel(LogLevel::Fatal);
    LogCapture capture;
    EXPECT_TRUE(Logging::isEnabled(LogLevel::Trace));
    int value = 42;
    KS_TRACE("trace " << value);
    KS_DEBUG("debug " << value + 1);
    KS_INFO("info " << composed("x"));
    KS_WARN("warn");
    KS_ERROR("error");
    EXPECT_EQ(s_composed, 1);

    auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 5u);
    EXPECT_EQ(entries[0].level, LogLevel::Trace);
    EXPECT_EQ(entries[0].message, "trace 42");
    EXPECT_EQ(entries[1].level, LogLevel::Debug);
    EXPECT_EQ(entries[1].message, "debug 43");
    EXPECT_EQ(entries[2].level, LogLevel::Info);
    EXPECT_EQ(entries[2].message, "info x");
    EXPECT_EQ(entries[3].level, LogLevel::Warn);
    EXPECT_EQ(entries[4].level, LogLevel::Error);
    EXPECT_EQ(entries[4].file, __FILE__);
    EXPECT_GT(entries[4].line, 0);

    EXPECT_TRUE(capture.contains("warn"));
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "warn"));
    EXPECT_FALSE(capture.contains(LogLevel::Error, "warn"));
    EXPECT_FALSE(capture.contains("war")) << "contains() wants the whole message";
    EXPECT_TRUE(capture.containsSubstring("war"));
    EXPECT_EQ(capture.messages(LogLevel::Debug), std::vector<std::string>{"debug 43"});
    EXPECT_EQ(capture.count("warn"), 1u);

    capture.clear();
    EXPECT_TRUE(capture.entries().empty());
}

TEST_F(LoggingTest, CaptureRecordsTheCallingLine) {
    LogCapture capture;
    int expectedLine = __LINE__ + 1;
    KS_INFO("where");
    auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].line, expectedLine);
}

TEST_F(LoggingTest, LevelComesBackWhenCaptureEnds) {
    Logging::setLevel(LogLevel::Error);
    {
        LogCapture capture;
        EXPECT_TRUE(Logging::isEnabled(LogLevel::Debug));
    }
    EXPECT_FALSE(Logging::isEnabled(LogLevel::Debug));
    EXPECT_FALSE(Logging::isEnabled(LogLevel::Warn));
    EXPECT_TRUE(Logging::isEnabled(LogLevel::Error));
}

TEST_F(LoggingTest, NamedOperationsLogAtTheirLevel) {
    LogCapture capture;
    s_logging.logTRACE("t", __FILE__, "f()", 1);
    s_logging.logDEBUG("d", __FILE__, "f()", 2);
    s_logging.logINFO("i", __FILE__, "f()", 3);
    s_logging.logWARN("w", __FILE__, "f()", 4);
    s_logging.logERROR("e", __FILE__, "f()", 5);
    s_logging.logFATAL("x", __FILE__, "f()", 6);
    auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 6u);
    const LogLevel expected[] = {LogLevel::Trace, LogLevel::Debug, LogLevel::Info,
                                 LogLevel::Warn,  LogLevel::Error, LogLevel::Fatal};
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(entries[i].level, expected[i]);
        EXPECT_EQ(entries[i].line, static_cast<int>(i + 1));
    }
    EXPECT_EQ(s_logging.getSourceFile(), __FILE__);
}

TEST_F(LoggingTest, FatalDoesNotEndTheProcess) {
    LogCapture capture;
    KS_FATAL("fatal but alive");
    s_logging.logFATAL("fatal again", __FILE__, __PRETTY_FUNCTION__, __LINE__);
    KS_INFO("still logging after fatal");
    EXPECT_TRUE(capture.contains(LogLevel::Fatal, "fatal but alive"));
    EXPECT_TRUE(capture.contains(LogLevel::Fatal, "fatal again"));
    EXPECT_TRUE(capture.contains(LogLevel::Info, "still logging after fatal"));
}

TEST_F(LoggingTest, WaitForSeesLineFromAnotherThread) {
    LogCapture capture;
    std::thread other([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        KS_INFO("from the other thread");
    });
    EXPECT_TRUE(capture.waitFor("from the other thread", std::chrono::seconds(5)));
    EXPECT_TRUE(capture.waitForSubstring("other thr", std::chrono::milliseconds(10)));
    EXPECT_FALSE(capture.waitFor("never logged", std::chrono::milliseconds(20)));
    other.join();
}

TEST_F(LoggingTest, TwoCapturesBothSeeTheLine) {
    LogCapture first;
    {
        LogCapture second;
        KS_INFO("both");
        EXPECT_TRUE(second.contains("both"));
    }
    KS_INFO("only first");
    EXPECT_TRUE(first.contains("both"));
    EXPECT_TRUE(first.contains("only first"));
}

TEST_F(LoggingTest, LogFileGetsLinesWithTimeLevelPidThreadAndSource) {
    TestSupport::TempDir dir;
    std::string path = dir.file("test.log");
    Logging::setLevel(LogLevel::Info);
    Logging::setLogFile(path);
    int line = __LINE__ + 1;
    KS_WARN("file line " << 7);
    KS_DEBUG("below the level");
    long tid = syscall(SYS_gettid);
    Logging::flush();
    Logging::setLogFile("");
    KS_ERROR("after the file was closed");

    std::string content = TestSupport::readFile(path);
    EXPECT_EQ(content.find("below the level"), std::string::npos);
    EXPECT_EQ(content.find("after the file was closed"), std::string::npos);
    std::regex layout("^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}\\.\\d{3} WARN  \\[" +
                      std::to_string(getpid()) + ":" + std::to_string(tid) +
                      "\\] LoggingTest\\.cpp:" + std::to_string(line) + " file line 7\n$");
    EXPECT_TRUE(std::regex_match(content, layout)) << content;
}

TEST_F(LoggingTest, LogFileIsAppendedTo) {
    TestSupport::TempDir dir;
    std::string path = dir.file("append.log");
    TestSupport::writeFile(path, "earlier line\n");
    Logging::setLogFile(path);
    KS_ERROR("new line");
    Logging::setLogFile("");
    std::string content = TestSupport::readFile(path);
    EXPECT_EQ(content.rfind("earlier line\n", 0), 0u) << content;
    EXPECT_NE(content.find("ERROR"), std::string::npos);
    EXPECT_NE(content.find("new line"), std::string::npos);
}

TEST_F(LoggingTest, ManyThreadsLogWithoutLoss) {
    LogCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i)
                KS_TRACE("thread " << t << " line " << i);
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(capture.entries().size(), 800u);
    EXPECT_TRUE(capture.contains("thread 3 line 199"));
}

TEST_F(LoggingTest, FatalInAChildLetsItRunToItsOwnEnd) {
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        KS_FATAL("fatal in the child");
        Logging::flush();
        ::_exit(7);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status)) << "the child was ended by a signal";
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST_F(LoggingTest, LogFileCanChangeWhileOtherThreadsLog) {
    TestSupport::TempDir dir;
    Logging::setLevel(LogLevel::Warn);
    std::atomic<bool> stop{false};
    std::atomic<int> lines{0};
    Logging::setLogFile(dir.file("switch0.log"));
    std::vector<std::thread> writers;
    for (int t = 0; t < 2; ++t)
        writers.emplace_back([&] {
            for (int i = 0; i < 300 && !stop; ++i) {
                KS_DEBUG("quiet line"); // below the level: not written anywhere
                KS_WARN("busy line " << lines++);
            }
        });
    TestSupport::waitUntil([&] { return lines >= 10; }, std::chrono::seconds(5));
    for (int i = 1; i < 40; ++i)
        Logging::setLogFile(dir.file("switch" + std::to_string(i % 4) + ".log"));
    Logging::setLogFile("");
    stop = true;
    for (auto& writer : writers)
        writer.join();
    EXPECT_GT(lines.load(), 0);
    size_t found = 0;
    for (int i = 0; i < 4; ++i) {
        std::string content =
            TestSupport::readFile(dir.file("switch" + std::to_string(i) + ".log"));
        EXPECT_EQ(content.find("quiet line"), std::string::npos);
        found += content.find("busy line") != std::string::npos;
    }
    EXPECT_GT(found, 0u);
}
