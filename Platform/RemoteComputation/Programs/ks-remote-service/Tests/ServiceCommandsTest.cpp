#include "../ServiceCommands.h"
#include "../AllowList.h"
#include "../ProcessLauncher.h"
#include "ProbeProgram.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceProtocol.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RunningJob.h"

#include <gtest/gtest.h>

#include <csignal>
#include <unistd.h>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;

class ServiceCommandsTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        m_probe = m_temp.directory("allow") + "/probe";
        ProbeProgram::write(m_probe);
        ASSERT_TRUE(m_allowList.add(m_temp.file("allow"), error)) << error;
    }
    // The probe ends before its directory goes.
    void TearDown() override {
        PathConfiguration::setKsPathTmp(FileName());
        RequestServerConfiguration::getRegisteredInstance()->resetToDefaults();
        ProbeProgram::release(m_temp.file("record"));
        if (m_pid > 0 && !waitUntil([&] { return processState(m_pid) == 0; }, 2000ms))
            ::kill(m_pid, SIGKILL);
    }

    TemporaryDirectory m_temp;
    AllowList m_allowList;
    ProcessLauncher m_launcher{m_temp.directory("logs"), 1, 20ms};
    ServiceCommands m_commands{m_allowList, m_launcher};
    std::string m_probe;
    pid_t m_pid = -1;
};

TEST_F(ServiceCommandsTest, PingAndCores) {
    PathConfiguration::setKsPathTmp(FileName(m_temp.directory("ks-tmp")));
    RequestServerConfiguration::getRegisteredInstance()->setValue("computationCores", "0");
    auto pong = m_commands.execute("PING");
    EXPECT_TRUE(pong.ok);
    EXPECT_EQ(pong.text, "PONG");
    std::string cores = std::to_string(::sysconf(_SC_NPROCESSORS_ONLN));
    auto answer = m_commands.execute("CORES");
    EXPECT_TRUE(answer.ok);
    EXPECT_EQ(answer.text, cores + " " + cores);
    EXPECT_FALSE(m_commands.execute("PING ").ok);
    EXPECT_FALSE(m_commands.execute("ping").ok);
    EXPECT_FALSE(m_commands.execute("").ok);
    EXPECT_EQ(m_commands.execute("").text, "unknown command ''; expected PING, CORES or START");
}

TEST_F(ServiceCommandsTest, FreeCoresAreWhatRunningJobsLeave) {
    PathConfiguration::setKsPathTmp(FileName(m_temp.directory("ks-tmp")));
    auto* config = RequestServerConfiguration::getRegisteredInstance();
    config->setValue("computationCores", "3");
    EXPECT_EQ(m_commands.execute("CORES").text, "3 3");
    Computing::RunningJob first("first"), second("second");
    ASSERT_TRUE(first.add(3, 2, 0, "first"));
    EXPECT_EQ(m_commands.execute("CORES").text, "3 1");
    // More than the host has, alone: nothing is free, never less.
    first.remove();
    ASSERT_TRUE(second.add(3, 5, 0, "second"));
    EXPECT_EQ(m_commands.execute("CORES").text, "3 0");
    second.remove();
    EXPECT_EQ(m_commands.execute("CORES").text, "3 3");
    config->setValue("computationCores", "0");
    std::string online = std::to_string(::sysconf(_SC_NPROCESSORS_ONLN));
    EXPECT_EQ(m_commands.execute("CORES").text, online + " " + online);
}

TEST_F(ServiceCommandsTest, StartAnswersThePid) {
    std::string record = m_temp.file("record");
    auto outcome = m_commands.execute(
        "START " + RemoteServiceProtocol::encodeArguments({m_probe, record, "10", "x y"}));
    ASSERT_TRUE(outcome.ok) << outcome.text;
    m_pid = std::stoi(outcome.text);
    ASSERT_TRUE(ProbeProgram::waitForStart(record));
    EXPECT_EQ(outcome.text, ProbeProgram::info(record)["pid"]);
    EXPECT_EQ(ProbeProgram::arguments(record),
              (std::vector<std::string>{m_probe, record, "10", "x y"}));
    // The launcher's limit of one is reached now.
    auto second = m_commands.execute("START " + RemoteServiceProtocol::encodeArguments({m_probe}));
    EXPECT_FALSE(second.ok);
    EXPECT_EQ(second.text.rfind("the service runs 1 started program already", 0), 0u);
}

TEST_F(ServiceCommandsTest, BadStartsAreRefusedWithTheirReason) {
    EXPECT_EQ(m_commands.execute("START").text,
              "unknown command 'START'; expected PING, CORES or START");
    EXPECT_EQ(m_commands.execute("START ").text, "START without a program: the argument list is "
                                                 "empty; give the program's absolute path first");
    EXPECT_EQ(m_commands.execute("START x").text,
              "undecodable START arguments (argument 1 has no length); send them as "
              "RemoteServiceProtocol::encodeArguments writes them");
    EXPECT_EQ(m_commands.execute("START 3:abc").text,
              "program path 'abc' is not absolute; give its full path");
    std::string outside = m_temp.directory("other") + "/probe";
    ProbeProgram::write(outside);
    EXPECT_EQ(m_commands.execute("START " + RemoteServiceProtocol::encodeArguments({outside})).text,
              "program '" + outside +
                  "' is not allowed; add it or its directory to the service's --allow list");
    EXPECT_EQ(m_launcher.runningCount(), 0u);
}
