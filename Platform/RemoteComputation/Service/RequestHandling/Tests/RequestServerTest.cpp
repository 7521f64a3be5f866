#include "LoopbackPair.h"

#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using namespace Kestrane;
using namespace std::chrono_literals;

namespace {

RequestServerConfiguration* config() {
    return RequestServerConfiguration::getRegisteredInstance();
}

// A client connection to the server under test.
struct Client {
    Computing::ClientSocket socket;
    explicit Client(uint16_t port) { socket.connect("127.0.0.1", port); }
    void raw(const std::string& bytes) { socket.sendDataBlock(bytes.data(), bytes.size()); }
    std::string readUntilClosed() { return Testing::LoopbackPair::readAll(socket); }
};

bool waitUntilStopped(RequestServer* server, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!server->isStopped()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

} // namespace

TEST(RequestServerTest, SystemPicksPortWhenConfigurationSaysZero) {
    LogCapture capture;
    ASSERT_EQ(config()->getListenPort(), 0);
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    EXPECT_GT(server->getPort(), 0);
    EXPECT_TRUE(RequestServer::ping("127.0.0.1", server->getPort()));
    EXPECT_TRUE(
        capture.contains(LogLevel::Info, "Creating new RequestServer instance (port = 0)..."));
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Returning new RequestServerinstance (port = 0)"));
    EXPECT_EQ(RequestServer::getInstance(-1, 77), server);
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, "Returning existing RequestServerinstance (port = 77)"));
    EXPECT_EQ(server->getHostName(), config()->getLocalHost());
}

TEST(RequestServerTest, PortArgumentUsesRangeOneAndFailureIsFinal) {
    LogCapture capture;
    Computing::ListenSocket taken(0, 1, 4);
    config()->setValue("portRange", "10");
    RequestServer* server = RequestServer::getInstance(-1, taken.getListenPort());
    EXPECT_EQ(server, nullptr);
    std::string message = RequestServer::getErrorMessage();
    EXPECT_EQ(message.rfind("Exception while creating RequestServer: ", 0), 0u) << message;
    EXPECT_NE(message.find("Address already in use"), std::string::npos) << message;
    EXPECT_TRUE(capture.contains(LogLevel::Error, message));
    // Later calls do not try again, whatever they ask for.
    EXPECT_EQ(RequestServer::getInstance(-1, 0), nullptr);
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "Returning NULL RequestServer (previous error)"));
}

TEST(RequestServerTest, ConfigurationRangeSkipsTakenPort) {
    LogCapture capture;
    Computing::ListenSocket taken(0, 1, 4);
    int first = taken.getListenPort();
    config()->setValue("listenPort", std::to_string(first));
    config()->setValue("portRange", "5");
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    EXPECT_GT(server->getPort(), first);
    EXPECT_LT(server->getPort(), first + 5);
    EXPECT_TRUE(capture.contains(LogLevel::Info,
                                 "Using port range from RequestServerConfiguration: listenPort = " +
                                     std::to_string(first) + ", portRange = 5"));
}

TEST(RequestServerTest, NoWatchdogWithoutAutoShutdown) {
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(server->getServerTimeoutThread(), nullptr);
    std::this_thread::sleep_for(1200ms);
    EXPECT_FALSE(server->isStopped());
}

TEST(RequestServerTest, WatchdogStopsServerAfterIdlePasses) {
    LogCapture capture;
    config()->setValue("autoShutdown", "true");
    RequestServer* server = RequestServer::getInstance(3, 0);
    ASSERT_NE(server, nullptr);
    ASSERT_NE(server->getServerTimeoutThread(), nullptr);
    EXPECT_EQ(server->getServerTimeoutThread()->getTimeout(), 3u);
    ASSERT_TRUE(waitUntilStopped(server, 8000ms));
    server->waitForShutdown();
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, "Executing ServerTimeoutThread (timout = 3s)..."));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "RequestServer idle (1/3)."));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "RequestServer idle (2/3)."));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "RequestServer idle (3/3)."));
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Stopping RequestServer"));
    EXPECT_TRUE(capture.waitFor("Stopping ServerTimeoutThread.", 2000ms));
    EXPECT_FALSE(capture.contains("RequestServer busy."));
}

TEST(RequestServerTest, ZeroTimeoutTakesConfiguredShutdownTimeout) {
    LogCapture capture;
    config()->setValue("autoShutdown", "true");
    config()->setValue("shutdownTimeout", "1");
    RequestServer* server = RequestServer::getInstance(0, 0);
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(server->getServerTimeoutThread()->getTimeout(), 1u);
    ASSERT_TRUE(waitUntilStopped(server, 5000ms));
    server->waitForShutdown();
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "RequestServer idle (1/1)."));
}

TEST(RequestServerTest, AcceptedConnectionResetsIdleCount) {
    LogCapture capture;
    config()->setValue("autoShutdown", "true");
    RequestServer* server = RequestServer::getInstance(3, 0);
    ASSERT_NE(server, nullptr);
    ASSERT_TRUE(capture.waitFor("RequestServer idle (2/3).", 4000ms));
    ASSERT_TRUE(RequestServer::ping("127.0.0.1", server->getPort()));
    ASSERT_TRUE(capture.waitFor("RequestServer busy.", 3000ms));
    ASSERT_TRUE(waitUntilStopped(server, 8000ms));
    server->waitForShutdown();
    EXPECT_EQ(capture.count("RequestServer idle (1/3)."), 2u);
    EXPECT_EQ(capture.count("RequestServer idle (3/3)."), 1u);
}

TEST(RequestServerTest, StopAndWaitForShutdown) {
    LogCapture capture;
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    ASSERT_TRUE(capture.waitForSubstring(" waiting for next connection...", 2000ms));
    server->stop();
    server->waitForShutdown();
    EXPECT_TRUE(server->isStopped());
    EXPECT_TRUE(capture.containsSubstring(" exiting main loop..."));
    EXPECT_TRUE(capture.containsSubstring(" stopping. Waiting for all workers to finish..."));
    // The wake-up connection gets no task.
    EXPECT_FALSE(capture.containsSubstring("Handling connection from"));
    // A stopped server stays reachable through getInstance.
    EXPECT_EQ(RequestServer::getInstance(-1, 0), server);
    // stop() again connects once more and finds nobody accepting.
    server->stop();
    size_t stops = 0;
    for (auto& m : capture.messages(LogLevel::Debug))
        if (m.rfind("Stop RequestServer ", 0) == 0)
            ++stops;
    EXPECT_EQ(stops, 2u);
}

TEST(RequestServerTest, ShutdownWaitsForRunningConnections) {
    LogCapture capture;
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    Client client(server->getPort());
    client.raw("C 4 PING");
    char pong[8];
    ASSERT_TRUE(client.socket.receiveDataBlock(pong, 8));
    server->stop();
    std::this_thread::sleep_for(200ms);
    EXPECT_FALSE(server->isStopped()); // the open conversation still runs
    client.raw("C 4 PINGC 16 CLOSE_CONNECTION");
    server->waitForShutdown();
    EXPECT_EQ(client.readUntilClosed(), "C 4 PONG");
}

// While a stopping server waits for its open conversations, a newcomer is refused at once
// instead of waiting unanswered; so is a connection that had not said anything yet.
TEST(RequestServerTest, StoppingServerRefusesNewConnectionsAtOnce) {
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    const int port = server->getPort();
    Client open(port);
    open.raw("C 4 PING");
    char pong[8];
    ASSERT_TRUE(open.socket.receiveDataBlock(pong, 8));
    Client quiet(port);
    std::this_thread::sleep_for(100ms);
    server->stop();
    std::this_thread::sleep_for(200ms);
    EXPECT_FALSE(server->isStopped());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(RequestServer::ping("127.0.0.1", port));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    quiet.socket.setTimeout(1000);
    EXPECT_EQ(quiet.readUntilClosed(), "");
    EXPECT_FALSE(quiet.socket.receiveTimedOut());
    open.raw("C 16 CLOSE_CONNECTION");
    server->waitForShutdown();
}

// The directory word is joined to this host's temporary directory: a peer that names a path or
// a way up is refused before anything is made or received.
TEST(RequestServerTest, FileCommandThatNamesAPathIsRefused) {
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    const std::string id(50, 'F');
    for (const std::string& command :
         {"FILE .. " + id + " escaped.bin", "FILE ../up " + id + " escaped.bin",
          "FILE /tmp " + id + " escaped.bin", "FILE a/b " + id + " escaped.bin"}) {
        LogCapture capture;
        Client client(server->getPort());
        client.raw("C " + std::to_string(command.size()) + " " + command);
        EXPECT_EQ(client.readUntilClosed(), "") << command;
        EXPECT_TRUE(
            capture.waitFor("Invalid file attachment packet received: C " + command, 2000ms))
            << command;
    }
}

TEST(RequestServerTest, PingAnsweredUntilCloseConnection) {
    LogCapture capture;
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    Client client(server->getPort());
    client.raw("C 4 PINGC 4 PINGC 16 CLOSE_CONNECTION");
    EXPECT_EQ(client.readUntilClosed(), "C 4 PONGC 4 PONG");
    ASSERT_TRUE(capture.waitFor("Connection from 127.0.0.1 handled.", 2000ms));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Ping packet received."));
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Handling connection from 127.0.0.1..."));
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Packet received (type = C)"));
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, "Connection from 127.0.0.1 closed by remote host."));
    EXPECT_TRUE(capture.containsSubstring(" received connection from 127.0.0.1"));
}

TEST(RequestServerTest, ConnectionClosedRightAfterAcceptEndsWithStdExceptionLine) {
    LogCapture capture;
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    { Client client(server->getPort()); }
    ASSERT_TRUE(capture.waitFor("Connection from 127.0.0.1 handled.", 2000ms));
    EXPECT_TRUE(capture.contains(LogLevel::Error,
                                 "std::exception handling connection from 127.0.0.1: bad lexical "
                                 "cast: source type value could not be interpreted as target"));
    EXPECT_TRUE(RequestServer::ping("127.0.0.1", server->getPort()));
}

TEST(RequestServerTest, FileWithoutTrailingSpaceIsUnknownCommand) {
    LogCapture capture;
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    Client client(server->getPort());
    client.raw("C 4 FILEC 4 PING");
    EXPECT_EQ(client.readUntilClosed(), ""); // the connection ends, the ping is not read
    ASSERT_TRUE(capture.waitFor("Connection from 127.0.0.1 handled.", 2000ms));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Unknown command: C FILE"));
}

TEST(RequestServerTest, UnknownPacketTypeEndsOnlyItsConnection) {
    LogCapture capture;
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    Client client(server->getPort());
    client.raw("XX 3 abc");
    EXPECT_EQ(client.readUntilClosed(), "");
    EXPECT_TRUE(capture.waitFor("Unknown packet type: XX abc", 2000ms));
    EXPECT_TRUE(RequestServer::ping("127.0.0.1", server->getPort()));
}

TEST(RequestServerTest, BadInputNeverKillsTheServer) {
    LogCapture capture;
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    const std::vector<std::string> garbage = {
        "C abc PING",         // length is no number
        "C 99999999999 PING", // length beyond 32 bits
        "C -1 ab",            // 4294967295 announced, two bytes, then the peer is gone
        "C 10 PIN",           // the peer vanishes inside the payload
        "RQ",                 // the peer vanishes inside the header
        std::string("\0\0\0\0", 4),
        "C 4 PONG", // not a command the server takes
    };
    for (const auto& bytes : garbage) {
        Client client(server->getPort());
        client.raw(bytes);
        ::shutdown(static_cast<int>(client.socket.getSocket()), SHUT_WR);
        EXPECT_EQ(client.readUntilClosed(), "") << bytes;
        EXPECT_TRUE(RequestServer::ping("127.0.0.1", server->getPort())) << bytes;
    }
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Unknown command: C PIN"));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Unknown command: C ab"));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Unknown command: C PONG"));
}

TEST(RequestServerTest, SixtyFourParallelConnections) {
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    std::atomic<int> answered{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < 64; ++i)
        clients.emplace_back([&, i] {
            Client client(server->getPort());
            if (i % 2)
                client.raw("C 4 PINGXX 1 z"); // half of them end badly
            else
                client.raw("C 4 PINGC 16 CLOSE_CONNECTION");
            if (client.readUntilClosed() == "C 4 PONG")
                ++answered;
        });
    for (auto& t : clients)
        t.join();
    EXPECT_EQ(answered.load(), 64);
    EXPECT_TRUE(RequestServer::ping("127.0.0.1", server->getPort()));
}

// Open conversations have threads of their own: the request pool stays free for requests, and a
// third conversation is answered while two others stay open.
TEST(RequestServerTest, OpenConversationsTakeNoRequestWorker) {
    config()->setValue("maxRequestHandlerPoolSize", "2");
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    Client first(server->getPort()), second(server->getPort());
    char pong[8];
    first.raw("C 4 PING");
    ASSERT_TRUE(first.socket.receiveDataBlock(pong, 8));
    second.raw("C 4 PING");
    ASSERT_TRUE(second.socket.receiveDataBlock(pong, 8));
    EXPECT_EQ(server->getWorkerPool()->getBusyWorkersCount(), 0u);
    Client third(server->getPort());
    third.socket.setTimeout(1000);
    third.raw("C 4 PING");
    ASSERT_TRUE(third.socket.receiveDataBlock(pong, 8));
    EXPECT_EQ(std::string(pong, 8), "C 4 PONG");
}

TEST(RequestServerTest, PingOfClosedPortIsFalse) {
    LogCapture capture;
    int port;
    {
        Computing::ListenSocket probe(0, 1, 1);
        port = probe.getListenPort();
    }
    EXPECT_FALSE(RequestServer::ping("127.0.0.1", port));
    EXPECT_TRUE(capture.contains(LogLevel::Warn,
                                 "Exception pinging 127.0.0.1:" + std::to_string(port) + "."));
}

TEST(RequestServerTest, SetIpLogsAndStores) {
    LogCapture capture;
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(server->getIp(), "");
    server->setIp("10.1.2.3");
    EXPECT_EQ(server->getIp(), "10.1.2.3");
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "IP set to '10.1.2.3'"));
}
