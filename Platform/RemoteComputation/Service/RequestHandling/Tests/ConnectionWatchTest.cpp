#include "Platform/RemoteComputation/Service/RequestHandling/ConnectionWatch.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

using namespace Kestrane;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

class ConnectionWatchTest : public ::testing::Test {
protected:
    std::unique_ptr<Computing::ClientSocket> connect() {
        auto client = std::make_unique<Computing::ClientSocket>();
        client->connect("127.0.0.1", listener.getListenPort());
        return client;
    }

    // Runs the watch until `done` holds or the time is up; keeps what became readable.
    template <typename Done>
    bool runUntil(ConnectionWatch& watch, Done done, std::chrono::milliseconds limit = 3000ms) {
        const auto deadline = Clock::now() + limit;
        while (!done()) {
            if (Clock::now() >= deadline)
                return false;
            watch.waitOnce(
                [this](std::shared_ptr<Computing::ServerSocket> socket, const std::string& peer) {
                    ready.push_back(std::move(socket));
                    peers.push_back(peer);
                },
                50ms);
        }
        return true;
    }

    // Whether the peer closed the connection: a read sees its end within `limit`.
    static bool closedByPeer(Computing::ClientSocket& client, std::chrono::milliseconds limit) {
        pollfd waiting{static_cast<int>(client.getSocket()), POLLIN, 0};
        if (::poll(&waiting, 1, static_cast<int>(limit.count())) != 1)
            return false;
        char byte;
        return ::recv(static_cast<int>(client.getSocket()), &byte, 1, MSG_DONTWAIT) == 0;
    }

    // The read time limit, in seconds, of a connection that a watch hands out from a listener
    // made with `acceptedTimeoutMs` for its connections; -1 when none came.
    long readLimitOfAConnectionThrough(unsigned int acceptedTimeoutMs);

    Computing::ListenSocket listener{0, 1, 64, "127.0.0.1"};
    std::vector<std::shared_ptr<Computing::ServerSocket>> ready;
    std::vector<std::string> peers;
    LogCapture capture;
};

} // namespace

TEST_F(ConnectionWatchTest, OnlyConnectionsWithDataAreHandedOut) {
    ConnectionWatch watch(listener, 30, 100);
    auto quiet = connect();
    auto talking = connect();
    talking->sendDataBlock("C 4 PING", 8);
    ASSERT_TRUE(runUntil(watch, [&] { return !ready.empty(); }));
    // One more round: the quiet one must still be held.
    runUntil(
        watch, [] { return false; }, 200ms);
    ASSERT_EQ(ready.size(), 1u);
    EXPECT_EQ(peers[0], "127.0.0.1");
    EXPECT_EQ(watch.getWaitingCount(), 1u);
    EXPECT_EQ(watch.getOpenCount(), 2u);
    std::string text;
    ASSERT_TRUE(ready[0]->receiveDataBlock(text, 8));
    EXPECT_EQ(text, "C 4 PING");
}

TEST_F(ConnectionWatchTest, DataThereAtTheAcceptIsHandedOutInTheSameRound) {
    ConnectionWatch watch(listener, 30, 100);
    auto talking = connect();
    talking->sendDataBlock("C 4 PING", 8);
    auto ending = connect();
    ending->close();
    // On loopback the bytes and the end are queued before the accept: one round takes both.
    pollfd pending{listener.getHandle(), POLLIN, 0};
    ASSERT_EQ(::poll(&pending, 1, 3000), 1);
    watch.waitOnce(
        [this](std::shared_ptr<Computing::ServerSocket> socket, const std::string& peer) {
            ready.push_back(std::move(socket));
            peers.push_back(peer);
        },
        50ms);
    ASSERT_EQ(ready.size(), 2u);
    EXPECT_EQ(watch.getWaitingCount(), 0u);
    // The silence limit is the connection's time limit, set at the adoption.
    timeval limit{};
    socklen_t length = sizeof(limit);
    ASSERT_EQ(::getsockopt(static_cast<int>(ready[0]->getSocket()), SOL_SOCKET, SO_RCVTIMEO, &limit,
                           &length),
              0);
    EXPECT_EQ(static_cast<unsigned int>(limit.tv_sec), ConnectionWatch::silenceLimitSeconds());
    std::string text;
    ASSERT_TRUE(ready[0]->receiveDataBlock(text, 8));
    EXPECT_EQ(text, "C 4 PING");
    EXPECT_FALSE(ready[1]->receiveDataBlock(text, 1));
}

namespace {
long readLimitSecondsOf(Computing::ServerSocket& socket) {
    timeval limit{};
    socklen_t length = sizeof(limit);
    if (::getsockopt(static_cast<int>(socket.getSocket()), SOL_SOCKET, SO_RCVTIMEO, &limit,
                     &length) != 0)
        return -1;
    return limit.tv_sec;
}
} // namespace

long ConnectionWatchTest::readLimitOfAConnectionThrough(unsigned int acceptedTimeoutMs) {
    Computing::ListenSocket made{0, 1, 8, "127.0.0.1", acceptedTimeoutMs};
    ConnectionWatch watch(made, 30, 10);
    Computing::ClientSocket client;
    client.connect("127.0.0.1", made.getListenPort());
    client.sendDataBlock("C 4 PING", 8);
    if (!runUntil(watch, [&] { return !ready.empty(); }))
        return -1;
    return readLimitSecondsOf(*ready[0]);
}

TEST_F(ConnectionWatchTest, ConnectionsTakeTheSilenceLimitFromAListenerMadeWithIt) {
    const unsigned int limit = ConnectionWatch::silenceLimitSeconds();
    ASSERT_GT(limit, 0u);
    EXPECT_EQ(readLimitOfAConnectionThrough(limit * 1000), static_cast<long>(limit));
}

TEST_F(ConnectionWatchTest, AListenerWithAnotherLimitDoesNotSetTheConnections) {
    // The configured limits may differ from those the listener was made with: the watch sets
    // its own on each connection then.
    const unsigned int limit = ConnectionWatch::silenceLimitSeconds();
    EXPECT_EQ(readLimitOfAConnectionThrough((limit + 5) * 1000), static_cast<long>(limit));
}

TEST_F(ConnectionWatchTest, SilentConnectionsAreClosedAfterTheIdleTimeoutWithOneWarningEach) {
    ConnectionWatch watch(listener, 1, 100);
    auto first = connect();
    auto second = connect();
    const auto start = Clock::now();
    ASSERT_TRUE(runUntil(watch, [&] { return watch.getOpenCount() == 2; }));
    ASSERT_TRUE(runUntil(
        watch, [&] { return watch.getWaitingCount() == 0; }, 3000ms));
    const auto took = Clock::now() - start;
    EXPECT_GE(took, 1000ms);
    EXPECT_LT(took, 2500ms);
    EXPECT_TRUE(closedByPeer(*first, 1000ms));
    EXPECT_TRUE(closedByPeer(*second, 1000ms));
    runUntil(
        watch, [] { return false; }, 300ms);
    size_t warnings = 0;
    for (const auto& message : capture.messages(LogLevel::Warn))
        warnings += message == "Closing idle connection from 127.0.0.1: nothing received for 1 s";
    EXPECT_EQ(warnings, 2u);
    EXPECT_EQ(watch.getOpenCount(), 0u);
    EXPECT_TRUE(ready.empty());
}

TEST_F(ConnectionWatchTest, ZeroIdleTimeoutKeepsSilentConnections) {
    ConnectionWatch watch(listener, 0, 100);
    auto quiet = connect();
    ASSERT_TRUE(runUntil(watch, [&] { return watch.getWaitingCount() == 1; }));
    runUntil(
        watch, [] { return false; }, 1200ms);
    EXPECT_EQ(watch.getWaitingCount(), 1u);
    EXPECT_FALSE(capture.contains(
        LogLevel::Warn, "Closing idle connection from 127.0.0.1: nothing received for 0 s"));
}

TEST_F(ConnectionWatchTest, ConnectionsBeyondTheLimitAreClosedAtOnceWithOneWarning) {
    ConnectionWatch watch(listener, 30, 2);
    auto first = connect();
    auto second = connect();
    ASSERT_TRUE(runUntil(watch, [&] { return watch.getOpenCount() == 2; }));
    std::vector<std::unique_ptr<Computing::ClientSocket>> extra;
    for (int i = 0; i < 5; ++i)
        extra.push_back(connect());
    runUntil(
        watch, [] { return false; }, 300ms);
    for (auto& client : extra)
        EXPECT_TRUE(closedByPeer(*client, 1000ms));
    EXPECT_EQ(watch.getOpenCount(), 2u);
    size_t warnings = 0;
    for (const auto& message : capture.messages(LogLevel::Warn))
        warnings +=
            message == "Connection from 127.0.0.1 closed: 2 connections are open (maxConnections)";
    EXPECT_EQ(warnings, 1u);
}

TEST_F(ConnectionWatchTest, AHandedOutConnectionCountsUntilItIsClosed) {
    ConnectionWatch watch(listener, 30, 1);
    auto first = connect();
    first->sendDataBlock("x", 1);
    ASSERT_TRUE(runUntil(watch, [&] { return ready.size() == 1; }));
    // Still open in another thread's hands: a second connection is over the limit.
    auto refused = connect();
    runUntil(
        watch, [] { return false; }, 300ms);
    EXPECT_TRUE(closedByPeer(*refused, 1000ms));
    ready.clear();
    EXPECT_EQ(watch.getOpenCount(), 0u);
    auto taken = connect();
    ASSERT_TRUE(runUntil(watch, [&] { return watch.getWaitingCount() == 1; }));
    EXPECT_FALSE(closedByPeer(*taken, 200ms));
}

TEST_F(ConnectionWatchTest, WakeEndsAWaitAtOnce) {
    ConnectionWatch watch(listener, 30, 10);
    const auto start = Clock::now();
    watch.wake();
    watch.waitOnce([](std::shared_ptr<Computing::ServerSocket>, const std::string&) {}, 5000ms);
    EXPECT_LT(Clock::now() - start, 1000ms);
}

TEST_F(ConnectionWatchTest, APeerThatHangsUpIsHandedOutToFindItsEnd) {
    ConnectionWatch watch(listener, 30, 10);
    auto leaving = connect();
    ASSERT_TRUE(runUntil(watch, [&] { return watch.getWaitingCount() == 1; }));
    leaving.reset();
    ASSERT_TRUE(runUntil(watch, [&] { return ready.size() == 1; }));
    std::string text;
    EXPECT_FALSE(ready[0]->receiveDataBlock(text, 1));
}
