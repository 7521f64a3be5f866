#include "StarterTestSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/LocalRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LoggingSettings.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;
using TestSupport::TempDir;

namespace {

const std::string c_server = c_requestServer;
const GenericJobId c_job("0123456789ABCDEF-0123456789ABCDEF-0123456789ABCDEF", "calc");

class LocalRequestServerStarterTest : public StarterTest {
protected:
    std::string commandLineOf(const std::string& executable, const std::string& callbackId,
                              const std::string& middle = "", const std::string& tail = "") {
        return StarterTest::commandLineOf(executable, "localhost", callbackId, middle, tail);
    }
};

bool answersPing(unsigned int port) {
    return RequestServer::ping("127.0.0.1", port);
}

} // namespace

TEST_F(LocalRequestServerStarterTest, StartedServerCallsBackAndAnswers) {
    auto starter = std::make_shared<LocalRequestServerStarter>(c_server, c_job, "_w1");
    TcpRequestClient client("local", starter);
    // The first request starts the server; the job id reached it on its command line.
    auto status = client.sendGetStatusRequest();
    ASSERT_NE(status, nullptr);
    ASSERT_EQ(status->getType(), "GetStatusReply") << starter->getErrorMessage();
    EXPECT_EQ(GenericJobId(status->getDomElement("jobId")), c_job);

    const unsigned int port = starter->getRequestServerPort();
    EXPECT_GT(port, 0u);
    EXPECT_EQ(client.getHost().getRequestServerPort(), static_cast<int>(port));
    EXPECT_EQ(client.getHost().getIpOrName(), "localhost");
    EXPECT_EQ(starter->getRequestServerHost(), "localhost");
    EXPECT_EQ(starter->getDescription(), "localhost:" + std::to_string(port));
    EXPECT_TRUE(capture.contains(
        LogLevel::Info,
        "Starting local RequestServer instance '" + c_server + ".\nCommand line: " +
            commandLineOf(c_server, "1", "-jobId " + c_job.toString() + " -logFileSuffix _w1 ")));
    EXPECT_EQ(capture.count("Started local RequestServer instance '" + c_server + "'."), 1u);

    // The server's output goes to a file of this process's temporary directory.
    const std::string output = starter->getOutputFile();
    EXPECT_EQ(output.rfind(tmp.file("client") + "/started-servers/ks-request-server-", 0), 0u)
        << output;
    EXPECT_TRUE(TestSupport::waitUntil(
        [&] {
            return TestSupport::readFile(output).find("\nPORT " + std::to_string(port) + "\n") !=
                   std::string::npos;
        },
        5000ms))
        << TestSupport::readFile(output);

    auto reply = client.handleRequest(testRequest("NOP"), nullptr, "");
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "TestReply");
    EXPECT_EQ(capture.count("Started local RequestServer instance '" + c_server + "'."), 1u);
    client.shutdownRequestServer();
    EXPECT_TRUE(TestSupport::waitUntil([&] { return !answersPing(port); }, 5000ms));
}

TEST_F(LocalRequestServerStarterTest, ClientStartsItsServerOnceForTwoThreads) {
    auto starter = std::make_shared<LocalRequestServerStarter>(c_server, GenericJobId(), "");
    TcpRequestClient client("twice", starter);
    std::vector<std::shared_ptr<Reply>> replies(2);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < replies.size(); ++i)
        threads.emplace_back([&, i] {
            auto request = testRequest("NOP");
            replies[i] = client.handleRequest(request, nullptr, "");
        });
    for (auto& thread : threads)
        thread.join();
    for (const auto& reply : replies) {
        ASSERT_NE(reply, nullptr);
        EXPECT_EQ(reply->getType(), "TestReply");
    }
    EXPECT_EQ(capture.count("Started local RequestServer instance '" + c_server + "'."), 1u);
    EXPECT_TRUE(client.isLocal());
    const int port = client.getHost().getRequestServerPort();
    client.shutdownRequestServer();
    EXPECT_TRUE(TestSupport::waitUntil([&] { return !answersPing(port); }, 5000ms));
}

TEST_F(LocalRequestServerStarterTest, MissingProgramFailsAtOnceWithTheProcessError) {
    const std::string missing = tmp.file("no-such-server");
    LocalRequestServerStarter starter(missing, GenericJobId(), "");
    auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(starter.startRequestServer());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
    EXPECT_EQ(starter.getErrorMessage(),
              "Error starting local request server.\nCommand line: " + commandLineOf(missing, "1") +
                  "\n\nCannot start '" + missing + "': No such file or directory");
    EXPECT_EQ(starter.getRequestServerPort(), 0u);
    EXPECT_FALSE(capture.containsSubstring("Started local RequestServer instance"));
}

TEST_F(LocalRequestServerStarterTest, ProgramThatNeverCallsBackTimesOut) {
    settings()->setValue("callbackTimeout", "1");
    const std::string program = silentProgram();
    LocalRequestServerStarter starter(program, GenericJobId(), "");
    auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(starter.startRequestServer());
    auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(waited, 900ms);
    EXPECT_LT(waited, 3s);
    EXPECT_EQ(starter.getErrorMessage(),
              "Error getting callback from local request server.\nCommand line: " +
                  commandLineOf(program, "1") +
                  "\n\nCallback NOT received before timeout. Is the name of the local host (" +
                  ownServer()->getHostName() + ") correct?");
    // The program runs on: the starter does not stop it.
    const pid_t child = silentProgramPid();
    ASSERT_GT(child, 0);
    EXPECT_EQ(::kill(child, 0), 0);
    ::kill(child, SIGKILL);
}

TEST_F(LocalRequestServerStarterTest, ServerThatCannotStartSaysWhyThroughTheCallback) {
    // A port that is taken, and no range to move on to.
    Computing::ListenSocket taken(0, 1, 1);
    const std::string port = std::to_string(taken.getListenPort());
    LocalRequestServerStarter starter(c_server, GenericJobId(), "");
    starter.setExtraArguments({"--port", port});
    EXPECT_FALSE(starter.startRequestServer());
    const std::string prefix = "Error getting callback from local request server.\nCommand line: " +
                               commandLineOf(c_server, "1", "", "--port " + port + " ") + "\n\n";
    ASSERT_EQ(starter.getErrorMessage().rfind(prefix, 0), 0u) << starter.getErrorMessage();
    const std::string why = starter.getErrorMessage().substr(prefix.size());
    EXPECT_NE(why.find(port), std::string::npos) << why;
    EXPECT_NE(why.find("Address already in use"), std::string::npos) << why;
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "Error message for callback received: " + why));
}

TEST_F(LocalRequestServerStarterTest, SecondStartStartsAnotherServer) {
    LocalRequestServerStarter starter(c_server, GenericJobId(), "");
    ASSERT_TRUE(starter.startRequestServer()) << starter.getErrorMessage();
    const unsigned int first = starter.getRequestServerPort();
    ASSERT_TRUE(starter.startRequestServer()) << starter.getErrorMessage();
    const unsigned int second = starter.getRequestServerPort();
    EXPECT_NE(first, second);
    EXPECT_EQ(starter.getDescription(), "localhost:" + std::to_string(second));
    for (unsigned int port : {first, second}) {
        EXPECT_TRUE(answersPing(port));
        TcpRequestClient client("stop", loopbackHost(static_cast<int>(port)));
        client.shutdownRequestServer();
        EXPECT_TRUE(TestSupport::waitUntil([&] { return !answersPing(port); }, 5000ms));
    }
}

TEST_F(LocalRequestServerStarterTest, AnOutputFileThatCannotBeMadeDoesNotStopTheStart) {
    // A file stands where the directory of the output files would go.
    TestSupport::writeFile(tmp.directory("client") + "/started-servers", "in the way");
    LocalRequestServerStarter starter(c_server, GenericJobId(), "");
    ASSERT_TRUE(starter.startRequestServer()) << starter.getErrorMessage();
    EXPECT_EQ(starter.getOutputFile(), "");
    EXPECT_TRUE(capture.containsSubstring("No output file for the local RequestServer ("));
    const unsigned int port = starter.getRequestServerPort();
    TcpRequestClient client("stop", loopbackHost(static_cast<int>(port)));
    client.shutdownRequestServer();
    EXPECT_TRUE(TestSupport::waitUntil([&] { return !answersPing(port); }, 5000ms));
}
