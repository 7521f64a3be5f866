#include "Platform/RemoteComputation/Service/ServiceInterfaces/LoggingSettings.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace Kestrane;

namespace {
Logging s_logging(__FILE__);

class LoggingSettingsTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_level = Logging::getLevel();
        ::unsetenv("KS_LOG_LEVEL");
    }
    void TearDown() override {
        ::unsetenv("KS_LOG_LEVEL");
        LoggingSettings::get()->setLogFile("", "");
        Logging::setLevel(m_level);
    }
    LoggingSettings& settings() { return *LoggingSettings::get(); }
    LogLevel m_level = LogLevel::Info;
};

std::string thrownMessage(const std::function<void()>& action) {
    try {
        action();
    } catch (const KsException& e) {
        return e.getMessage();
    }
    return "<nothing thrown>";
}
} // namespace

TEST_F(LoggingSettingsTest, GetReturnsOneObject) {
    EXPECT_NE(LoggingSettings::get(), nullptr);
    EXPECT_EQ(LoggingSettings::get(), LoggingSettings::get());
}

TEST_F(LoggingSettingsTest, OptionsAreTakenOutOfTheArguments) {
    TestSupport::TempDir dir;
    std::string file = dir.file("run.log");
    std::vector<std::string> args{"prog", "-logLevel",      "debug", "first", "-logFile",
                                  file,   "-logFileSuffix", "_3",    "last"};
    settings().parseCommandLine(args);
    EXPECT_EQ(args, (std::vector<std::string>{"prog", "first", "last"}));
    EXPECT_EQ(settings().getLevel(), LogLevel::Debug);
    EXPECT_EQ(Logging::getLevel(), LogLevel::Debug);
    EXPECT_EQ(settings().getLogFile(), file);
    EXPECT_EQ(settings().getLogFileSuffix(), "_3");
    EXPECT_EQ(settings().getEffectiveLogFile(), dir.file("run_3.log"));

    KS_INFO("into the suffixed file");
    Logging::flush();
    EXPECT_NE(TestSupport::readFile(dir.file("run_3.log")).find("into the suffixed file"),
              std::string::npos);
    EXPECT_FALSE(boost::filesystem::exists(file)) << "only the suffixed file is written";
}

TEST_F(LoggingSettingsTest, ArgumentsWithoutOptionsStayAsTheyAre) {
    Logging::setLevel(LogLevel::Warn);
    std::vector<std::string> args{"a", "-other", "b"};
    settings().parseCommandLine(args);
    EXPECT_EQ(args, (std::vector<std::string>{"a", "-other", "b"}));
    EXPECT_EQ(Logging::getLevel(), LogLevel::Warn);
    EXPECT_EQ(settings().getLogFile(), "");
}

TEST_F(LoggingSettingsTest, MissingValueThrowsNamingTheOption) {
    for (const char* option : {"-logLevel", "-logFile", "-logFileSuffix"}) {
        std::vector<std::string> args{"prog", option};
        std::string message = thrownMessage([&] { settings().parseCommandLine(args); });
        EXPECT_NE(message.find(option), std::string::npos) << message;
        EXPECT_NE(message.find("Missing value"), std::string::npos) << message;
    }
}

TEST_F(LoggingSettingsTest, BadLevelThrowsNamingOptionAndValue) {
    Logging::setLevel(LogLevel::Info);
    std::vector<std::string> args{"-logLevel", "loud"};
    std::string message = thrownMessage([&] { settings().parseCommandLine(args); });
    EXPECT_NE(message.find("-logLevel"), std::string::npos) << message;
    EXPECT_NE(message.find("'loud'"), std::string::npos) << message;
    EXPECT_EQ(Logging::getLevel(), LogLevel::Info);
}

TEST_F(LoggingSettingsTest, EnvironmentLevelIsApplied) {
    Logging::setLevel(LogLevel::Info);
    ::setenv("KS_LOG_LEVEL", "error", 1);
    settings().applyEnvironment();
    EXPECT_EQ(Logging::getLevel(), LogLevel::Error);
}

TEST_F(LoggingSettingsTest, EmptyOrUnsetEnvironmentChangesNothing) {
    Logging::setLevel(LogLevel::Debug);
    settings().applyEnvironment();
    EXPECT_EQ(Logging::getLevel(), LogLevel::Debug);
    ::setenv("KS_LOG_LEVEL", "", 1);
    settings().applyEnvironment();
    EXPECT_EQ(Logging::getLevel(), LogLevel::Debug);
}

TEST_F(LoggingSettingsTest, BadEnvironmentLevelThrowsNamingTheVariable) {
    Logging::setLevel(LogLevel::Info);
    ::setenv("KS_LOG_LEVEL", "chatty", 1);
    std::string message = thrownMessage([&] { settings().applyEnvironment(); });
    EXPECT_NE(message.find("KS_LOG_LEVEL"), std::string::npos) << message;
    EXPECT_NE(message.find("chatty"), std::string::npos) << message;
    EXPECT_EQ(Logging::getLevel(), LogLevel::Info);
}

TEST_F(LoggingSettingsTest, SuffixGoesBeforeTheExtension) {
    TestSupport::TempDir dir;
    const std::string d = dir.path();
    struct Case {
        std::string file, suffix, expected;
    };
    const Case cases[] = {
        {d + "/run.log", "_2", d + "/run_2.log"},
        {d + "/server.txt", "-7", d + "/server-7.txt"},
        {d + "/a.dir/noext", "_2", d + "/a.dir/noext_2"},
        {d + "/archive.tar.gz", "_1", d + "/archive.tar_1.gz"},
        {d + "/.hidden", "_4", d + "/.hidden_4"},
        {d + "/plain", "_5", d + "/plain_5"},
        {d + "/same.log", "", d + "/same.log"},
        {"", "_9", ""},
    };
    for (const auto& c : cases) {
        settings().setLogFile(c.file, c.suffix);
        EXPECT_EQ(settings().getEffectiveLogFile(), c.expected) << c.file << " + " << c.suffix;
        settings().setLogFile("", "");
        if (!c.expected.empty()) {
            EXPECT_TRUE(boost::filesystem::exists(c.expected)) << c.expected;
            if (c.expected != c.file) {
                EXPECT_FALSE(boost::filesystem::exists(c.file)) << c.file;
            }
        }
    }
}

TEST_F(LoggingSettingsTest, LogFileThatCannotBeOpenedGivesAClearException) {
    TestSupport::TempDir dir;
    std::string blocker = dir.file("plain-file");
    TestSupport::writeFile(blocker, "x");
    std::string impossible = blocker + "/sub/x.log";
    std::vector<std::string> args{"prog", "-logFile", impossible};
    std::string message = thrownMessage([&] { settings().parseCommandLine(args); });
    EXPECT_NE(message.find("-logFile"), std::string::npos) << message;
    EXPECT_NE(message.find(impossible), std::string::npos) << message;
    EXPECT_EQ(settings().getLogFile(), "") << "a file that cannot be opened is not kept";

    LogCapture capture;
    KS_INFO("logging goes on");
    EXPECT_TRUE(capture.contains("logging goes on"));
}

TEST_F(LoggingSettingsTest, CmdArgsCarryLevelAndFileButNotSuffix) {
    Logging::setLevel(LogLevel::Warn);
    EXPECT_EQ(settings().getCmdArgs(), (std::vector<std::string>{"-logLevel", "WARN"}));

    TestSupport::TempDir dir;
    std::string file = dir.file("server.log");
    settings().setLogFile(file, "_8");
    EXPECT_EQ(settings().getCmdArgs(),
              (std::vector<std::string>{"-logLevel", "WARN", "-logFile", file}));
}

TEST_F(LoggingSettingsTest, ASilentProcessHandsOnALevelThatParsesBack) {
    Logging::setLevel(LogLevel::Off);
    std::vector<std::string> args = settings().getCmdArgs();
    EXPECT_EQ(args, (std::vector<std::string>{"-logLevel", "OFF"}));
    Logging::setLevel(LogLevel::Info);
    settings().parseCommandLine(args);
    EXPECT_TRUE(args.empty());
    EXPECT_EQ(Logging::getLevel(), LogLevel::Off);
}

TEST_F(LoggingSettingsTest, CmdArgsParseBackToTheSameSettings) {
    TestSupport::TempDir dir;
    std::string file = dir.file("x.log");
    Logging::setLevel(LogLevel::Trace);
    settings().setLogFile(file, "");
    std::vector<std::string> args = settings().getCmdArgs();
    args.insert(args.begin(), "prog");

    Logging::setLevel(LogLevel::Error);
    settings().setLogFile("", "");
    settings().parseCommandLine(args);
    EXPECT_EQ(args, std::vector<std::string>{"prog"});
    EXPECT_EQ(Logging::getLevel(), LogLevel::Trace);
    EXPECT_EQ(settings().getLogFile(), file);
}
