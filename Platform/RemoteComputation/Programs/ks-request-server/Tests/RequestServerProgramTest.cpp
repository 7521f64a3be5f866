#include "Platform/RemoteComputation/TestSupport/ServerProcess.h"

#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HostAndUserId.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Tests/ServerTestPeers.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <sys/socket.h>
#include <thread>

using namespace Kestrane;
using Kestrane::Testing::ServerProcess;
using namespace std::chrono_literals;

namespace {
std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string tempPath(const std::string& name) {
    return std::string("/tmp/ks-test-") + std::to_string(::getpid()) + "-" + name;
}
} // namespace

TEST(RequestServerProgramTest, PrintsPortFirstAndStopsOnSigterm) {
    std::string log = tempPath("server.log");
    ServerProcess server({"-logLevel", "DEBUG", "-logFile", log});
    ASSERT_TRUE(server.start());
    std::string line = server.firstLine();
    EXPECT_TRUE(std::regex_match(line, std::regex("PORT [1-9][0-9]*"))) << line;
    int port = server.port();
    ASSERT_GT(port, 0);
    EXPECT_TRUE(RequestServer::ping("127.0.0.1", port));
    EXPECT_TRUE(RequestServer::ping("localhost", port));
    ASSERT_TRUE(server.process().kill(SIGTERM));
    EXPECT_EQ(server.waitForExit(5000ms), 0);
    std::string text = readFile(log);
    EXPECT_NE(text.find("Received signal 15, stopping the request server"), std::string::npos);
    EXPECT_NE(text.find(" stopped."), std::string::npos);
    EXPECT_NE(text.find("ks-request-server stopped."), std::string::npos);
    EXPECT_NE(text.find("DEBUG"), std::string::npos);
    EXPECT_NE(text.find("Ping packet received."), std::string::npos);
    std::remove(log.c_str());
}

TEST(RequestServerProgramTest, StopsOnSigint) {
    ServerProcess server({});
    ASSERT_TRUE(server.start());
    ASSERT_GT(server.port(), 0);
    ASSERT_TRUE(server.process().kill(SIGINT));
    EXPECT_EQ(server.waitForExit(5000ms), 0);
    EXPECT_NE(server.standardError().find("Received signal 2, stopping the request server"),
              std::string::npos);
}

TEST(RequestServerProgramTest, TakenPortIsAnError) {
    Computing::ListenSocket taken(0, 1, 4);
    ServerProcess server({"--port", std::to_string(taken.getListenPort())});
    ASSERT_TRUE(server.start());
    EXPECT_EQ(server.waitForExit(5000ms), 1);
    EXPECT_EQ(server.firstLine(100ms), "");
    std::string errors = server.standardError();
    EXPECT_NE(
        errors.find("ks-request-server: Exception while creating RequestServer: bind to port " +
                    std::to_string(taken.getListenPort()) + ": Address already in use"),
        std::string::npos)
        << errors;
}

TEST(RequestServerProgramTest, PortRangeSkipsTakenPorts) {
    Computing::ListenSocket taken(0, 1, 4);
    int first = taken.getListenPort();
    ServerProcess server({"--port", std::to_string(first), "--port-range", "4"});
    ASSERT_TRUE(server.start());
    int port = server.port();
    EXPECT_GT(port, first);
    EXPECT_LT(port, first + 4);
    server.process().kill(SIGTERM);
    EXPECT_EQ(server.waitForExit(5000ms), 0);
}

TEST(RequestServerProgramTest, IdleWatchdogStopsTheProcess) {
    ::setenv("KS_AUTO_SHUTDOWN", "true", 1);
    ::setenv("KS_SHUTDOWN_TIMEOUT", "1", 1);
    ServerProcess server({});
    ASSERT_TRUE(server.start());
    ASSERT_GT(server.port(), 0);
    EXPECT_EQ(server.waitForExit(6000ms), 0);
    EXPECT_NE(server.standardError().find("Stopping RequestServer"), std::string::npos);
}

TEST(RequestServerProgramTest, BadSettingInEnvironmentIsRejected) {
    ::setenv("KS_LISTEN_PORT", "abc", 1);
    ServerProcess server({});
    ASSERT_TRUE(server.start());
    EXPECT_EQ(server.waitForExit(5000ms), 2);
    EXPECT_NE(server.standardError().find("Invalid value 'abc' for setting listenPort "
                                          "(KS_LISTEN_PORT): expected a whole number from 0 to "
                                          "65535"),
              std::string::npos);
}

TEST(RequestServerProgramTest, BadCommandLinesAreRejected) {
    for (std::vector<std::string> args : {std::vector<std::string>{"--port", "x"},
                                          {"--nonsense"},
                                          {"-logLevel", "LOUD"},
                                          {"-logFile"}}) {
        ServerProcess server(args);
        ASSERT_TRUE(server.start());
        EXPECT_EQ(server.waitForExit(5000ms), 2) << args[0];
        std::string errors = server.standardError();
        EXPECT_NE(errors.find("Usage: ks-request-server"), std::string::npos) << errors;
    }
}

TEST(RequestServerProgramTest, BadInputEndsOnlyItsConnection) {
    ServerProcess server({});
    ASSERT_TRUE(server.start());
    int port = server.port();
    ASSERT_GT(port, 0);
    for (std::string bytes : {"C abc ", "ZZ 1 x", "C 5 HELLO", "C 100 cut", "C 4 FILE"}) {
        Computing::ClientSocket client;
        client.connect("127.0.0.1", port);
        client.sendDataBlock(bytes.data(), bytes.size());
        ::shutdown(static_cast<int>(client.getSocket()), SHUT_WR);
        std::string answer;
        client.receiveDataBlock(answer, 100);
        EXPECT_EQ(answer, "") << bytes;
        EXPECT_TRUE(RequestServer::ping("127.0.0.1", port)) << bytes;
    }
    server.process().kill(SIGTERM);
    EXPECT_EQ(server.waitForExit(5000ms), 0);
    std::string errors = server.standardError();
    EXPECT_NE(errors.find("Unknown packet type: ZZ x"), std::string::npos);
    EXPECT_NE(errors.find("Unknown command: C HELLO"), std::string::npos);
    EXPECT_NE(errors.find("Unknown command: C cut"), std::string::npos);
    EXPECT_NE(errors.find("Unknown command: C FILE"), std::string::npos);
    EXPECT_NE(errors.find("std::exception handling connection from 127.0.0.1: bad lexical cast"),
              std::string::npos);
}

TEST(RequestServerProgramTest, SixtyFourParallelClients) {
    ServerProcess server({});
    ASSERT_TRUE(server.start());
    int port = server.port();
    ASSERT_GT(port, 0);
    std::atomic<int> ok{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < 64; ++i)
        clients.emplace_back([&] {
            if (RequestServer::ping("127.0.0.1", port))
                ++ok;
        });
    for (auto& t : clients)
        t.join();
    EXPECT_EQ(ok.load(), 64);
    server.process().kill(SIGTERM);
    EXPECT_EQ(server.waitForExit(5000ms), 0);
}

TEST(RequestServerProgramTest, CallbackTellsTheWaiterThePort) {
    RequestServer* own = RequestServer::getInstance(-1, 0);
    ASSERT_NE(own, nullptr);
    RequestServerConfiguration::getRegisteredInstance()->setValue("callbackTimeout", "20");
    const std::string id = CallbackRequestHandler::createCallbackId();
    ServerProcess server({"-c", "localhost:" + std::to_string(own->getPort()) + ":" + id});
    ASSERT_TRUE(server.start());
    std::string error;
    const unsigned int port = CallbackRequestHandler::waitForCallback(id, error);
    EXPECT_EQ(error, "");
    ASSERT_GT(server.port(), 0);
    EXPECT_EQ(port, static_cast<unsigned int>(server.port()));
    // It goes on serving after the callback.
    EXPECT_TRUE(RequestServer::ping("127.0.0.1", port));
    server.process().kill(SIGTERM);
    EXPECT_EQ(server.waitForExit(5000ms), 0);
}

TEST(RequestServerProgramTest, CallbackToNobodyEndsWithExitCodeOne) {
    int closed = 0;
    {
        Computing::ListenSocket listener(0, 1, 1);
        closed = listener.getListenPort();
    }
    const std::string callback = "localhost:" + std::to_string(closed) + ":1";
    ServerProcess server({"-c", callback});
    ASSERT_TRUE(server.start());
    EXPECT_GT(server.port(), 0);
    EXPECT_EQ(server.waitForExit(10000ms), 1);
    std::string errors = server.standardError();
    EXPECT_NE(errors.find("ks-request-server: callback to " + callback + " failed"),
              std::string::npos)
        << errors;
    EXPECT_NE(errors.find("Callback to " + callback + " failed; stopping."), std::string::npos)
        << errors;
}

// A starter may stop the server as soon as the callback has told it the port, before its
// acknowledgement has come back through the server it stops. Here the starter takes the callback
// and never acknowledges it: the server still ends when it is told to.
TEST(RequestServerProgramTest, StoppedBeforeTheCallbackIsAcknowledgedItStillEnds) {
    KestraneTest::ReplyCatcher starter;
    const std::string callback = "localhost:" + std::to_string(starter.port()) + ":7";
    ServerProcess server({"-c", callback});
    ASSERT_TRUE(server.start());
    auto connection = starter.accept(10000ms);
    ASSERT_NE(connection, nullptr);
    KestraneTest::Conversation conversation =
        KestraneTest::ReplyCatcher::read(*connection, HostAndUserId().toString());
    ASSERT_TRUE(conversation.closed);
    bool callbackSeen = false;
    for (const KestraneTest::Received& packet : conversation.packets)
        callbackSeen |=
            packet.type == "RQ" && packet.data.find("CallbackRequest") != std::string::npos;
    ASSERT_TRUE(callbackSeen) << ::testing::PrintToString(conversation.texts());
    connection.reset();
    server.process().kill(SIGTERM);
    EXPECT_EQ(server.waitForExit(10000ms), 0);
    EXPECT_NE(server.standardError().find("Stopped before the callback to " + callback +
                                          " was acknowledged."),
              std::string::npos)
        << server.standardError();
}

TEST(RequestServerProgramTest, MalformedCallbackEndsWithExitCodeOne) {
    ServerProcess server({"-c", "justahost"});
    ASSERT_TRUE(server.start());
    EXPECT_EQ(server.waitForExit(10000ms), 1);
    std::string errors = server.standardError();
    EXPECT_NE(errors.find("Invalid callback string (first ':' not found): \"justahost\""),
              std::string::npos)
        << errors;
    EXPECT_NE(errors.find("ks-request-server: callback to justahost failed"), std::string::npos)
        << errors;
}

TEST(RequestServerProgramTest, FailedStartIsReportedToTheWaiter) {
    RequestServer* own = RequestServer::getInstance(-1, 0);
    ASSERT_NE(own, nullptr);
    RequestServerConfiguration::getRegisteredInstance()->setValue("callbackTimeout", "20");
    Computing::ListenSocket taken(0, 1, 4);
    const std::string id = CallbackRequestHandler::createCallbackId();
    ServerProcess server({"--port", std::to_string(taken.getListenPort()), "-c",
                          "localhost:" + std::to_string(own->getPort()) + ":" + id});
    ASSERT_TRUE(server.start());
    const auto start = std::chrono::steady_clock::now();
    std::string error;
    EXPECT_EQ(CallbackRequestHandler::waitForCallback(id, error), 0u);
    // The error callback ends the wait long before its time-out.
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    EXPECT_EQ(error.rfind("Exception while creating RequestServer: ", 0), 0u) << error;
    EXPECT_NE(error.find("Address already in use"), std::string::npos) << error;
    EXPECT_EQ(server.waitForExit(5000ms), 1);
}

TEST(RequestServerProgramTest, BadCommandLineIsReportedToTheWaiter) {
    RequestServer* own = RequestServer::getInstance(-1, 0);
    ASSERT_NE(own, nullptr);
    RequestServerConfiguration::getRegisteredInstance()->setValue("callbackTimeout", "20");
    const std::string id = CallbackRequestHandler::createCallbackId();
    ServerProcess server(
        {"-c", "localhost:" + std::to_string(own->getPort()) + ":" + id, "--no-such-option"});
    ASSERT_TRUE(server.start());
    const auto start = std::chrono::steady_clock::now();
    std::string error;
    EXPECT_EQ(CallbackRequestHandler::waitForCallback(id, error), 0u);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    EXPECT_EQ(error, "ks-request-server: Unknown option '--no-such-option'");
    EXPECT_EQ(server.waitForExit(5000ms), 2);
}
