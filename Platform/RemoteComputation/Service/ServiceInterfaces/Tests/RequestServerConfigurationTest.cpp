#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingUtility.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <set>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace Kestrane;
using TestSupport::TempDir;

extern char** environ;

namespace {

// When the test program is started with KS_TEST_CONFIG_REPORT set, it writes the settings that
// its first getRegisteredInstance() sees into that file and ends before any test runs. The
// parent tests below start such a child with the environment under test.
const char* c_reportVariable = "KS_TEST_CONFIG_REPORT";

struct ChildReporter {
    ChildReporter() {
        const char* report = std::getenv(c_reportVariable);
        if (!report || !*report)
            return;
        std::string text;
        try {
            auto* config = RequestServerConfiguration::getRegisteredInstance();
            for (const auto& setting : RequestServerConfiguration::describeSettings())
                text += setting.name + "=" + config->getValueText(setting.name) + "\n";
        } catch (const KsException& e) {
            text = std::string("error=") + e.what() + "\n";
        }
        FILE* out = std::fopen(report, "w");
        if (out) {
            std::fputs(text.c_str(), out);
            std::fclose(out);
        }
        std::_Exit(out ? 0 : 1);
    }
};
ChildReporter s_childReporter;

// Runs this test program as a child with `variables` added to its environment and returns what
// it reported.
std::string reportFromChild(const std::vector<std::string>& variables) {
    TempDir dir;
    std::string report = dir.file("report.txt");
    std::vector<std::string> environment;
    for (char** entry = environ; *entry; ++entry) {
        std::string text = *entry;
        if (text.rfind("KS_", 0) != 0) // the child sees only the variables under test
            environment.push_back(text);
    }
    environment.push_back(std::string(c_reportVariable) + "=" + report);
    for (const auto& variable : variables)
        environment.push_back(variable);
    std::vector<char*> envp;
    for (auto& text : environment)
        envp.push_back(&text[0]);
    envp.push_back(nullptr);
    char self[] = "/proc/self/exe";
    char* argv[] = {self, nullptr};
    char executable[4096] = {0};
    ssize_t length = ::readlink("/proc/self/exe", executable, sizeof(executable) - 1);
    if (length <= 0)
        return "<readlink failed>";
    pid_t pid = ::fork();
    if (pid == 0) {
        ::execve(executable, argv, envp.data());
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return "<child failed>";
    return TestSupport::readFile(report);
}

std::string reportedValue(const std::string& report, const std::string& name) {
    std::string key = name + "=";
    size_t pos = report.find("\n" + key);
    if (report.rfind(key, 0) == 0)
        pos = 0;
    else if (pos != std::string::npos)
        pos += 1;
    else
        return "<missing>";
    size_t end = report.find('\n', pos);
    return report.substr(pos + key.size(), end - pos - key.size());
}

std::string rejection(const std::function<void()>& action) {
    try {
        action();
    } catch (const KsException& e) {
        return e.getMessage();
    }
    return "<nothing thrown>";
}

std::string upperSnake(const std::string& name) {
    std::string result;
    for (size_t i = 0; i < name.size(); ++i) {
        if (i > 0 && std::isupper(static_cast<unsigned char>(name[i])))
            result += '_';
        result += static_cast<char>(std::toupper(static_cast<unsigned char>(name[i])));
    }
    return result;
}

class RequestServerConfigurationTest : public ::testing::Test {
protected:
    void SetUp() override {
        config = RequestServerConfiguration::getRegisteredInstance();
        ASSERT_NE(config, nullptr);
        config->resetToDefaults();
    }
    void TearDown() override { config->resetToDefaults(); }

    std::string writeSettings(const TempDir& dir, const std::string& body) {
        std::string path = dir.file("settings.xml");
        TestSupport::writeFile(path, body);
        return path;
    }

    RequestServerConfiguration* config = nullptr;
};

} // namespace

TEST_F(RequestServerConfigurationTest, OneInstance) {
    EXPECT_EQ(RequestServerConfiguration::getRegisteredInstance(), config);
}

TEST_F(RequestServerConfigurationTest, Defaults) {
    EXPECT_EQ(config->getListenPort(), 0);
    EXPECT_EQ(config->getPortRange(), 100);
    EXPECT_EQ(config->getLocalHost(), Computing::Utility::getHostName());
    EXPECT_FALSE(config->getAutoShutdown());
    EXPECT_EQ(config->getShutdownTimeout(), 600u);
    EXPECT_EQ(config->getMaxRequestHandlerPoolSize(), 64u);
    EXPECT_EQ(config->getSendReplyMaxRetry(), 3u);
    EXPECT_EQ(config->getSendReplyRetryDelay(), 5u);
    EXPECT_EQ(config->getMaxGetStatusTime(), 30u);
    EXPECT_EQ(config->getCallbackTimeout(), 60u);
    EXPECT_EQ(config->getJSUpdateInterval(), 10u);
    EXPECT_EQ(config->getAlivePublishInterval(), 1000u);
    EXPECT_EQ(config->getMaxAliveAge(), 30u);
    EXPECT_EQ(config->getMaxChangeAge(), 3600u);
    EXPECT_EQ(config->getRPingIntervalSec(), 10u);
    EXPECT_EQ(config->getLocalRPingIntervalSec(), 2u);
    EXPECT_EQ(config->getFileCopyBlockSize(), 4194304u);
    EXPECT_FALSE(config->getParallelFileTransfer());
    EXPECT_EQ(config->getFileTransferProgressFirstUpdateDelay(), 5u);
    EXPECT_EQ(config->getFileTransferProgressUpdateInterval(), 5u);
    EXPECT_EQ(config->getComputationCores(), 0);
    EXPECT_FALSE(config->keepTempFiles());
    EXPECT_EQ(config->getSocketTimeout(), 300u);
}

TEST_F(RequestServerConfigurationTest, DefaultsAgreeWithTheirDescription) {
    for (const auto& setting : RequestServerConfiguration::describeSettings()) {
        if (setting.kind == RequestServerConfiguration::Kind::Text)
            continue;
        std::string expected = setting.defaultValue;
        EXPECT_EQ(config->getValueText(setting.name), expected) << setting.name;
    }
}

TEST_F(RequestServerConfigurationTest, SetValueOfEachKind) {
    config->setValue("listenPort", "4000");
    EXPECT_EQ(config->getListenPort(), 4000);
    config->setValue("portRange", "65535");
    EXPECT_EQ(config->getPortRange(), 65535);
    config->setValue("shutdownTimeout", "4294967295");
    EXPECT_EQ(config->getShutdownTimeout(), 4294967295u);
    config->setValue("maxRequestHandlerPoolSize", "+8");
    EXPECT_EQ(config->getMaxRequestHandlerPoolSize(), 8u);
    config->setValue("computationCores", "-2");
    EXPECT_EQ(config->getComputationCores(), -2);
    config->setValue("localHost", "node7.example");
    EXPECT_EQ(config->getLocalHost(), "node7.example");
    EXPECT_EQ(config->getValueText("localHost"), "node7.example");

    for (const char* yes : {"true", "TRUE", "1", "yes", "On"}) {
        config->setValue("autoShutdown", "false");
        config->setValue("autoShutdown", yes);
        EXPECT_TRUE(config->getAutoShutdown()) << yes;
    }
    for (const char* no : {"false", "False", "0", "no", "OFF"}) {
        config->setValue("keepTempFiles", "true");
        config->setValue("keepTempFiles", no);
        EXPECT_FALSE(config->keepTempFiles()) << no;
    }
    config->setValue("parallelFileTransfer", "yes");
    EXPECT_TRUE(config->getParallelFileTransfer());
    EXPECT_EQ(config->getValueText("parallelFileTransfer"), "true");
    EXPECT_EQ(config->getValueText("listenPort"), "4000");

    config->resetToDefaults();
    EXPECT_EQ(config->getListenPort(), 0);
    EXPECT_EQ(config->getLocalHost(), Computing::Utility::getHostName());
    EXPECT_FALSE(config->getAutoShutdown());
}

TEST_F(RequestServerConfigurationTest, EverySettingCanBeSetByName) {
    for (const auto& setting : RequestServerConfiguration::describeSettings()) {
        std::string value;
        switch (setting.kind) {
        case RequestServerConfiguration::Kind::Bool:
            value = setting.defaultValue == "true" ? "false" : "true";
            break;
        case RequestServerConfiguration::Kind::Text:
            value = "host-x";
            break;
        default:
            value = setting.defaultValue == "7" ? "8" : "7";
        }
        config->setValue(setting.name, value);
        EXPECT_EQ(config->getValueText(setting.name), value) << setting.name;
    }
    EXPECT_EQ(config->getSendReplyRetryDelay(), 7u);
    EXPECT_EQ(config->getMaxGetStatusTime(), 7u);
    EXPECT_EQ(config->getCallbackTimeout(), 7u);
    EXPECT_EQ(config->getJSUpdateInterval(), 7u);
    EXPECT_EQ(config->getMaxAliveAge(), 7u);
    EXPECT_EQ(config->getMaxChangeAge(), 7u);
    EXPECT_EQ(config->getRPingIntervalSec(), 7u);
    EXPECT_EQ(config->getLocalRPingIntervalSec(), 7u);
    EXPECT_EQ(config->getFileCopyBlockSize(), 7u);
    EXPECT_EQ(config->getFileTransferProgressFirstUpdateDelay(), 7u);
    EXPECT_EQ(config->getFileTransferProgressUpdateInterval(), 7u);
    EXPECT_EQ(config->getSendReplyMaxRetry(), 7u);
    EXPECT_EQ(config->getAlivePublishInterval(), 7u);
    EXPECT_EQ(config->getSocketTimeout(), 7u);
}

TEST_F(RequestServerConfigurationTest, BadValuesAreRejectedNamingSettingAndVariable) {
    struct Case {
        const char* name;
        const char* value;
        const char* variable;
    };
    const Case cases[] = {
        {"listenPort", "abc", "KS_LISTEN_PORT"},
        {"listenPort", "-1", "KS_LISTEN_PORT"},
        {"listenPort", "", "KS_LISTEN_PORT"},
        {"listenPort", "12x", "KS_LISTEN_PORT"},
        {"listenPort", " 80", "KS_LISTEN_PORT"},
        {"portRange", "70000", "KS_PORT_RANGE"},
        {"portRange", "0", "KS_PORT_RANGE"},
        {"autoShutdown", "maybe", "KS_AUTO_SHUTDOWN"},
        {"autoShutdown", "", "KS_AUTO_SHUTDOWN"},
        {"maxRequestHandlerPoolSize", "0", "KS_MAX_REQUEST_HANDLER_POOL_SIZE"},
        {"shutdownTimeout", "4294967296", "KS_SHUTDOWN_TIMEOUT"},
        {"shutdownTimeout", "99999999999999999999999", "KS_SHUTDOWN_TIMEOUT"},
        {"shutdownTimeout", "-", "KS_SHUTDOWN_TIMEOUT"},
        {"shutdownTimeout", "9999999999999999999", "KS_SHUTDOWN_TIMEOUT"},
        {"computationCores", "-9223372036854775809", "KS_COMPUTATION_CORES"},
        {"listenPort", "0x10", "KS_LISTEN_PORT"},
        {"listenPort", "\xD9\xA1", "KS_LISTEN_PORT"},
        {"computationCores", "2147483648", "KS_COMPUTATION_CORES"},
        {"alivePublishInterval", "0", "KS_ALIVE_PUBLISH_INTERVAL"},
        {"fileCopyBlockSize", "1.5", "KS_FILE_COPY_BLOCK_SIZE"},
    };
    for (const auto& c : cases) {
        std::string before = config->getValueText(c.name);
        std::string message = rejection([&] { config->setValue(c.name, c.value); });
        EXPECT_NE(message.find(c.name), std::string::npos)
            << c.name << "=" << c.value << ": " << message;
        EXPECT_NE(message.find(c.variable), std::string::npos) << message;
        EXPECT_NE(message.find(std::string("'") + c.value + "'"), std::string::npos) << message;
        EXPECT_EQ(config->getValueText(c.name), before) << "a rejected value changes nothing";
    }
}

TEST_F(RequestServerConfigurationTest, UnknownNameIsRejected) {
    std::string message = rejection([&] { config->setValue("noSuchSetting", "1"); });
    EXPECT_NE(message.find("noSuchSetting"), std::string::npos) << message;
    message = rejection([&] { config->getValueText("ListenPort"); });
    EXPECT_NE(message.find("ListenPort"), std::string::npos) << message;
}

TEST_F(RequestServerConfigurationTest, LoadValidFile) {
    TempDir dir;
    std::string path = writeSettings(dir, R"(<?xml version="1.0"?>
<requestServerConfiguration>
  <!-- a comment -->
  <listenPort> 4100 </listenPort>
  <portRange>7</portRange>
  <autoShutdown>yes</autoShutdown>
  <localHost>
     front.example
  </localHost>
  <computationCores>4</computationCores>
</requestServerConfiguration>
)");
    config->loadFile(path);
    EXPECT_EQ(config->getListenPort(), 4100);
    EXPECT_EQ(config->getPortRange(), 7);
    EXPECT_TRUE(config->getAutoShutdown());
    EXPECT_EQ(config->getLocalHost(), "front.example");
    EXPECT_EQ(config->getComputationCores(), 4);
    EXPECT_EQ(config->getShutdownTimeout(), 600u) << "settings not in the file keep their value";
}

TEST_F(RequestServerConfigurationTest, MalformedFileIsRejected) {
    TempDir dir;
    std::string path = writeSettings(dir, "<requestServerConfiguration><listenPort>1</portRange>");
    std::string message = rejection([&] { config->loadFile(path); });
    EXPECT_NE(message.find(path), std::string::npos) << message;
    EXPECT_NE(message.find("not valid XML"), std::string::npos) << message;
    EXPECT_EQ(config->getListenPort(), 0);
}

TEST_F(RequestServerConfigurationTest, MissingFileIsRejected) {
    TempDir dir;
    std::string path = dir.file("missing.xml");
    std::string message = rejection([&] { config->loadFile(path); });
    EXPECT_NE(message.find(path), std::string::npos) << message;
}

TEST_F(RequestServerConfigurationTest, WrongRootIsRejected) {
    TempDir dir;
    std::string path = writeSettings(dir, "<settings><listenPort>4000</listenPort></settings>");
    std::string message = rejection([&] { config->loadFile(path); });
    EXPECT_NE(message.find("requestServerConfiguration"), std::string::npos) << message;
    EXPECT_NE(message.find(path), std::string::npos) << message;
    EXPECT_EQ(config->getListenPort(), 0);
}

TEST_F(RequestServerConfigurationTest, BadValueInFileIsRejectedAndChangesNothing) {
    TempDir dir;
    std::string path = writeSettings(dir, "<requestServerConfiguration>"
                                          "<listenPort>4000</listenPort>"
                                          "<localHost>h1</localHost>"
                                          "<portRange>70000</portRange>"
                                          "</requestServerConfiguration>");
    std::string message = rejection([&] { config->loadFile(path); });
    EXPECT_NE(message.find(path), std::string::npos) << message;
    EXPECT_NE(message.find("portRange"), std::string::npos) << message;
    EXPECT_NE(message.find("KS_PORT_RANGE"), std::string::npos) << message;
    EXPECT_NE(message.find("70000"), std::string::npos) << message;
    EXPECT_EQ(config->getListenPort(), 0) << "a rejected file is not applied in part";
    EXPECT_EQ(config->getPortRange(), 100);
    EXPECT_EQ(config->getLocalHost(), Computing::Utility::getHostName());
}

TEST_F(RequestServerConfigurationTest, UnknownElementInFileIsRejected) {
    TempDir dir;
    std::string path = writeSettings(
        dir,
        "<requestServerConfiguration><listenPortt>1</listenPortt></requestServerConfiguration>");
    std::string message = rejection([&] { config->loadFile(path); });
    EXPECT_NE(message.find("listenPortt"), std::string::npos) << message;
}

TEST_F(RequestServerConfigurationTest, DescribeSettingsNamesTheEnvironmentVariables) {
    const auto& settings = RequestServerConfiguration::describeSettings();
    EXPECT_EQ(settings.size(), 27u);
    std::set<std::string> names, variables;
    for (const auto& setting : settings) {
        EXPECT_EQ(setting.environment, "KS_" + upperSnake(setting.name)) << setting.name;
        EXPECT_FALSE(setting.description.empty()) << setting.name;
        names.insert(setting.name);
        variables.insert(setting.environment);
    }
    EXPECT_EQ(names.size(), settings.size());
    EXPECT_EQ(variables.size(), settings.size());
    EXPECT_EQ(variables.count("KS_LISTEN_PORT"), 1u);
    EXPECT_EQ(variables.count("KS_MAX_REQUEST_HANDLER_POOL_SIZE"), 1u);
    EXPECT_EQ(variables.count("KS_JS_UPDATE_INTERVAL"), 1u);
    EXPECT_EQ(variables.count("KS_R_PING_INTERVAL_SEC"), 1u);
    EXPECT_EQ(variables.count("KS_LOCAL_R_PING_INTERVAL_SEC"), 1u);
    EXPECT_EQ(variables.count("KS_FILE_TRANSFER_PROGRESS_FIRST_UPDATE_DELAY"), 1u);
    EXPECT_EQ(variables.count("KS_REMOTE_SERVICE_KEY_FILE"), 1u);
    EXPECT_EQ(variables.count("KS_JOB_SCHEDULER_COMMAND_TIMEOUT"), 1u);
    EXPECT_EQ(variables.count("KS_CONNECTION_IDLE_TIMEOUT"), 1u);
    EXPECT_EQ(variables.count("KS_MAX_CONNECTIONS"), 1u);
}

TEST_F(RequestServerConfigurationTest, ConnectionLimitsHaveSaneDefaultsAndRefuseZeroConnections) {
    auto config = RequestServerConfiguration::getRegisteredInstance();
    EXPECT_EQ(config->getConnectionIdleTimeout(), 30u);
    EXPECT_EQ(config->getMaxConnections(), 4096u);
    config->setValue("connectionIdleTimeout", "0");
    EXPECT_EQ(config->getConnectionIdleTimeout(), 0u);
    EXPECT_THROW(config->setValue("maxConnections", "0"), KsException);
    EXPECT_EQ(config->getMaxConnections(), 4096u);
}

TEST_F(RequestServerConfigurationTest, TextSettingsAreKeptApart) {
    auto config = RequestServerConfiguration::getRegisteredInstance();
    EXPECT_EQ(config->getRemoteServiceKeyFile(), "");
    EXPECT_EQ(config->getJobSchedulerCommandTimeout(), 120u);
    config->setValue("remoteServiceKeyFile", "/etc/ks/key");
    config->setValue("localHost", "somehost");
    EXPECT_EQ(config->getRemoteServiceKeyFile(), "/etc/ks/key");
    EXPECT_EQ(config->getValueText("remoteServiceKeyFile"), "/etc/ks/key");
    EXPECT_EQ(config->getLocalHost(), "somehost");
    config->setValue("localHost", "");
    EXPECT_EQ(config->getRemoteServiceKeyFile(), "/etc/ks/key");
    config->resetToDefaults();
    EXPECT_EQ(config->getRemoteServiceKeyFile(), "");
    EXPECT_THROW(config->setValue("jobSchedulerCommandTimeout", "soon"), KsException);
}

TEST_F(RequestServerConfigurationTest, EnvironmentIsReadAtFirstUse) {
    std::string report =
        reportFromChild({"KS_LISTEN_PORT=4321", "KS_AUTO_SHUTDOWN=on", "KS_LOCAL_HOST=envhost",
                         "KS_LOCAL_R_PING_INTERVAL_SEC=9"});
    EXPECT_EQ(reportedValue(report, "listenPort"), "4321") << report;
    EXPECT_EQ(reportedValue(report, "autoShutdown"), "true") << report;
    EXPECT_EQ(reportedValue(report, "localHost"), "envhost") << report;
    EXPECT_EQ(reportedValue(report, "localRPingIntervalSec"), "9") << report;
    EXPECT_EQ(reportedValue(report, "portRange"), "100") << report;
}

TEST_F(RequestServerConfigurationTest, EnvironmentOverridesTheSettingsFile) {
    TempDir dir;
    std::string path = writeSettings(dir, "<requestServerConfiguration>"
                                          "<listenPort>1111</listenPort>"
                                          "<portRange>7</portRange>"
                                          "</requestServerConfiguration>");
    std::string report = reportFromChild({"KS_CONFIG_FILE=" + path, "KS_LISTEN_PORT=2222"});
    EXPECT_EQ(reportedValue(report, "listenPort"), "2222") << report;
    EXPECT_EQ(reportedValue(report, "portRange"), "7") << report;
}

TEST_F(RequestServerConfigurationTest, BadEnvironmentValueFailsTheFirstUse) {
    std::string report = reportFromChild({"KS_PORT_RANGE=70000"});
    EXPECT_EQ(report.rfind("error=", 0), 0u) << report;
    EXPECT_NE(report.find("portRange"), std::string::npos) << report;
    EXPECT_NE(report.find("KS_PORT_RANGE"), std::string::npos) << report;
}

TEST_F(RequestServerConfigurationTest, GettersFromManyThreads) {
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    threads.emplace_back([&] {
        for (int i = 0; i < 2000; ++i)
            config->setValue("listenPort", i % 2 ? "5000" : "6000");
    });
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                uint16_t port = config->getListenPort();
                if (port != 0 && port != 5000 && port != 6000)
                    ++wrong;
                if (config->getLocalHost().empty())
                    ++wrong;
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
}
