// Servers started through a real ks-remote-service: on this host, and on a "second host" (a
// service with a host name of its own on 127.0.0.2), where files must really travel.
#include "StarterTestSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/KSData.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LocalRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RemoteServiceRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LoggingSettings.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceKey.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"
#include "Platform/RemoteComputation/TestSupport/RemoteServiceProcess.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/stat.h>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;
using TestSupport::TempDir;

namespace {

const std::string c_server = c_requestServer;
const GenericJobId c_job("0123456789ABCDEF-0123456789ABCDEF-0123456789ABCDEF", "calc");

class RemoteServiceRequestServerStarterTest : public StarterTest {
protected:
    // A service that may start ks-request-server; the client side uses its key.
    std::unique_ptr<RemoteServiceProcess> service(const std::string& hostName = "",
                                                  const std::string& allow = c_server) {
        RemoteServiceProcess::Options options;
        options.allow = {allow};
        options.hostName = hostName;
        options.arguments = {"--timeout", "2"};
        auto started = std::make_unique<RemoteServiceProcess>(options);
        EXPECT_TRUE(started->start()) << started->standardError();
        settings()->setValue("remoteServiceKeyFile", started->keyFile());
        return started;
    }

    std::string commandLineOf(const std::string& executable, const std::string& callbackId,
                              const std::string& middle = "") {
        return StarterTest::commandLineOf(executable, ownServer()->getHostName(), callbackId,
                                          middle);
    }

    static std::string where(RemoteServiceProcess& service) {
        return "host '" + service.host() + "' using remote service on port '" +
               std::to_string(service.port()) + "'";
    }

    static void stop(TcpRequestClient& client) {
        const int port = client.getHost().getRequestServerPort();
        const std::string host = client.getHost().getIpOrName();
        client.shutdownRequestServer();
        EXPECT_TRUE(TestSupport::waitUntil(
            [&] { return !RequestServer::ping(host, static_cast<unsigned int>(port)); }, 5000ms));
    }
};

} // namespace

TEST_F(RemoteServiceRequestServerStarterTest, StartedServerCallsBackAndAnswers) {
    auto remote = service();
    auto starter = std::make_shared<RemoteServiceRequestServerStarter>(
        c_server, remote->host(), static_cast<unsigned int>(remote->port()), c_job, "_r");
    TcpRequestClient client("remote", starter);
    auto status = client.sendGetStatusRequest();
    ASSERT_NE(status, nullptr);
    ASSERT_EQ(status->getType(), "GetStatusReply") << starter->getErrorMessage();
    EXPECT_EQ(GenericJobId(status->getDomElement("jobId")), c_job);
    const unsigned int port = starter->getRequestServerPort();
    EXPECT_EQ(starter->getRequestServerHost(), "127.0.0.1");
    EXPECT_EQ(starter->getDescription(), "127.0.0.1:" + std::to_string(port));
    EXPECT_FALSE(client.isLocal());
    EXPECT_TRUE(capture.contains(
        LogLevel::Info,
        "Starting RequestServer instance '" + c_server + "' on " + where(*remote) +
            ".\nCommand line: " +
            commandLineOf(c_server, "1", "-jobId " + c_job.toString() + " -logFileSuffix _r ")));
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Started RequestServer instance '" + c_server +
                                                     "' on " + where(*remote) + "."));
    EXPECT_TRUE(remote->waitForStandardError("Started process "));

    // The client's reconnect string leads to the same server, and its starter can start more.
    TcpRequestClient again(client.getReconnectString());
    EXPECT_EQ(again.getHost().getRequestServerPort(), static_cast<int>(port));
    auto reply = again.handleRequest(testRequest("NOP"), nullptr, "");
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "TestReply");
    again.clearReconnect();
    reply = again.handleRequest(testRequest("NOP"), nullptr, "");
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "TestReply");
    EXPECT_NE(again.getHost().getRequestServerPort(), static_cast<int>(port));
    stop(again);
    stop(client);
}

TEST_F(RemoteServiceRequestServerStarterTest, FileToAServerOnASecondHostReallyTravels) {
    ::setenv("KS_PATH_TMP", tmp.file("host2").c_str(), 1);
    auto remote = service("ks-test-host2");
    ::setenv("KS_PATH_TMP", tmp.file("server").c_str(), 1);
    auto starter = std::make_shared<RemoteServiceRequestServerStarter>(
        c_server, remote->host(), static_cast<unsigned int>(remote->port()), GenericJobId(), "");
    TcpRequestClient client("remote", starter);
    auto status = client.sendGetStatusRequest();
    ASSERT_NE(status, nullptr);
    ASSERT_EQ(status->getType(), "GetStatusReply") << starter->getErrorMessage();
    EXPECT_EQ(HostInfo(status->getDomElement("replyHost")).getName(), "ks-test-host2");
    EXPECT_EQ(starter->getRequestServerHost(), "127.0.0.2");

    const std::string file = tmp.file("travel.bin");
    std::string content(1 << 20, '\0');
    for (size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<char>(i * 31 + 7);
    TestSupport::writeFile(file, content);
    RequestEncoder put = testRequest("PUT_FILE", std::to_string(content.size()));
    put.addFilePath("file", FileName(file), false, "  ");
    auto reply = client.handleRequest(put, nullptr, "");
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getElement("data"), "OK");
    // Host and user differ: the client sent the file, and the server keeps its own copy.
    std::string copy;
    std::error_code ignored;
    for (auto it = std::filesystem::recursive_directory_iterator(tmp.file("host2"), ignored);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ignored))
        if (it->path().filename() == "travel.bin")
            copy = it->path().string();
    ASSERT_FALSE(copy.empty()) << "no copy of the file on the second host";
    EXPECT_EQ(TestSupport::readFile(copy), content);

    reply = client.handleRequest(testRequest("GET_FILE"), nullptr, "");
    ASSERT_NE(reply, nullptr);
    auto element = reply->getKSData("file");
    ASSERT_NE(element, nullptr);
    EXPECT_TRUE(element->getFileTransfered());
    EXPECT_NE(element->getFilePath().toString(), copy);
    EXPECT_EQ(TestSupport::readFile(element->getFilePath().toString()), content);
    stop(client);
}

TEST_F(RemoteServiceRequestServerStarterTest, NoServiceThereFailsWithTheConnectionError) {
    const int port = closedPort();
    std::string message;
    ASSERT_TRUE(RemoteServiceKey::create(tmp.file("key"), message)) << message;
    settings()->setValue("remoteServiceKeyFile", tmp.file("key"));
    RemoteServiceRequestServerStarter starter(c_server, "127.0.0.1",
                                              static_cast<unsigned int>(port), GenericJobId(), "");
    EXPECT_FALSE(starter.startRequestServer());
    const std::string prefix = "Error starting request server on host '127.0.0.1' using remote "
                               "service on port '" +
                               std::to_string(port) +
                               "'.\nCommand line: " + commandLineOf(c_server, "1") +
                               "\n\nCannot talk to the remote "
                               "service at 127.0.0.1:" +
                               std::to_string(port) + ": ";
    EXPECT_EQ(starter.getErrorMessage().rfind(prefix, 0), 0u) << starter.getErrorMessage();
    EXPECT_NE(starter.getErrorMessage().find("Connection refused"), std::string::npos);
    EXPECT_EQ(starter.getRequestServerPort(), 0u);
    EXPECT_EQ(starter.getDescription(), "127.0.0.1");
}

TEST_F(RemoteServiceRequestServerStarterTest, RefusalsOfTheServiceReachTheStartersMessage) {
    // The service allows a directory that does not hold the server.
    auto remote = service("", tmp.path());
    RemoteServiceRequestServerStarter starter(
        c_server, remote->host(), static_cast<unsigned int>(remote->port()), GenericJobId(), "");
    EXPECT_FALSE(starter.startRequestServer());
    EXPECT_NE(starter.getErrorMessage().find("refused the command: program '" + c_server +
                                             "' is not allowed"),
              std::string::npos)
        << starter.getErrorMessage();

    // A client with another key gets nowhere either.
    std::string message;
    ASSERT_TRUE(RemoteServiceKey::create(tmp.file("other.key"), message)) << message;
    settings()->setValue("remoteServiceKeyFile", tmp.file("other.key"));
    EXPECT_FALSE(starter.startRequestServer());
    EXPECT_NE(starter.getErrorMessage().find("refused the command: authentication failed"),
              std::string::npos)
        << starter.getErrorMessage();
    EXPECT_EQ(remote->standardError().find("Started process "), std::string::npos);
}

TEST_F(RemoteServiceRequestServerStarterTest, ProgramThatNeverCallsBackTimesOut) {
    settings()->setValue("callbackTimeout", "1");
    const std::string program = silentProgram();
    auto remote = service("", program);
    RemoteServiceRequestServerStarter starter(
        program, remote->host(), static_cast<unsigned int>(remote->port()), GenericJobId(), "");
    EXPECT_FALSE(starter.startRequestServer());
    EXPECT_EQ(starter.getErrorMessage(),
              "Error getting callback from request server on " + where(*remote) +
                  ".\nCommand line: " + commandLineOf(program, "1") +
                  "\n\nCallback NOT received before timeout. Is the name of the local host (" +
                  ownServer()->getHostName() + ") correct?");
    const pid_t child = silentProgramPid();
    ASSERT_GT(child, 0);
    ::kill(child, SIGKILL);
}

TEST_F(RemoteServiceRequestServerStarterTest, LocalhostNeverAsksTheService) {
    auto remote = service();
    auto starter =
        RemoteServiceRequestServerStarter::createRemoteServiceOrLocalRequestServerStarter(
            c_server, "localhost", static_cast<unsigned int>(remote->port()), GenericJobId(), "");
    TcpRequestClient client("local", starter);
    EXPECT_TRUE(client.isLocal());
    auto status = client.sendGetStatusRequest();
    ASSERT_NE(status, nullptr);
    EXPECT_EQ(status->getType(), "GetStatusReply");
    EXPECT_EQ(client.getHost().getIpOrName(), "localhost");
    EXPECT_EQ(remote->standardError().find("Started process "), std::string::npos);
    stop(client);
}
