#include "Platform/RemoteComputation/Service/ServiceInterfaces/DeferredCloser.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

using namespace Kestrane::Computing;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// A connection over loopback: `connecting` is handed to a closer, `accepting` watches for its
// close.
struct Connection {
    std::unique_ptr<ClientSocket> connecting;
    std::unique_ptr<ServerSocket> accepting;
};

class DeferredCloserTest : public ::testing::Test {
protected:
    Connection connect() {
        Connection made;
        made.connecting = std::make_unique<ClientSocket>();
        made.connecting->connect("127.0.0.1", listener.getListenPort());
        made.accepting = std::make_unique<ServerSocket>(listener.accept(), InheritedOptions{});
        return made;
    }

    // Takes the connecting side's handle away from its socket, as a closer takes it.
    static int release(Connection& connection) {
        const int handle = static_cast<int>(connection.connecting->getSocket());
        connection.connecting->getSocket() = Socket::c_invalid;
        return handle;
    }

    // The accepting side half-closes, as it does when it has read the last words, and keeps
    // its read side to see the connecting side's close.
    static void peerCloses(Connection& connection) {
        ::shutdown(static_cast<int>(connection.accepting->getSocket()), SHUT_WR);
    }

    // Whether the accepting side sees the connecting side's close within `limit`.
    static bool seesClose(Connection& connection, std::chrono::milliseconds limit) {
        const int fd = static_cast<int>(connection.accepting->getSocket());
        const auto deadline = Clock::now() + limit;
        char discard[256];
        for (;;) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            pollfd waiting{fd, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&waiting, 1, static_cast<int>(left.count())) != 1)
                return false;
            const ssize_t got = ::recv(fd, discard, sizeof(discard), MSG_DONTWAIT);
            if (got <= 0)
                return got == 0 || errno == ECONNRESET;
        }
    }

    ListenSocket listener{0, 1, 16, "127.0.0.1"};
};

} // namespace

TEST_F(DeferredCloserTest, AConnectionIsClosedOnceItsPeerHasClosed) {
    DeferredCloser closer(8, 5ms);
    Connection connection = connect();
    closer.hand(release(connection), 10s);
    // The peer has not closed: the connection stays open.
    EXPECT_FALSE(seesClose(connection, 100ms));
    EXPECT_EQ(closer.getHeldCount(), 1u);
    peerCloses(connection);
    EXPECT_TRUE(seesClose(connection, 2s));
    EXPECT_EQ(closer.getHeldCount(), 0u);
}

TEST_F(DeferredCloserTest, AConnectionWhosePeerStaysIsClosedAtItsLimit) {
    DeferredCloser closer(8, 5ms);
    Connection connection = connect();
    const auto start = Clock::now();
    closer.hand(release(connection), 300ms);
    EXPECT_TRUE(seesClose(connection, 3s));
    EXPECT_GE(Clock::now() - start, 300ms);
    EXPECT_EQ(closer.getHeldCount(), 0u);
}

TEST_F(DeferredCloserTest, WhatStillArrivesIsDroppedAndTheCloseWaitsForThePeer) {
    DeferredCloser closer(8, 5ms);
    Connection connection = connect();
    closer.hand(release(connection), 10s);
    const std::string late(100000, 'x');
    connection.accepting->sendDataBlock(late.data(), late.size());
    EXPECT_FALSE(seesClose(connection, 100ms));
    peerCloses(connection);
    EXPECT_TRUE(seesClose(connection, 2s));
}

TEST_F(DeferredCloserTest, BeyondTheMostHeldTheOldestIsClosedAtOnce) {
    DeferredCloser closer(2, 5ms);
    std::vector<Connection> connections;
    for (int i = 0; i < 3; ++i) {
        connections.push_back(connect());
        closer.hand(release(connections.back()), 10s);
    }
    EXPECT_TRUE(seesClose(connections[0], 2s));
    EXPECT_FALSE(seesClose(connections[1], 50ms));
    EXPECT_FALSE(seesClose(connections[2], 50ms));
    EXPECT_EQ(closer.getHeldCount(), 2u);
}

TEST_F(DeferredCloserTest, ManyConnectionsAreClosedByOneSweep) {
    DeferredCloser closer(64, 200ms);
    std::vector<Connection> connections;
    for (int i = 0; i < 20; ++i) {
        connections.push_back(connect());
        closer.hand(release(connections.back()), 10s);
        peerCloses(connections.back());
    }
    for (auto& connection : connections)
        EXPECT_TRUE(seesClose(connection, 3s));
    EXPECT_EQ(closer.getHeldCount(), 0u);
}

TEST_F(DeferredCloserTest, DestroyingTheCloserClosesWhatItHolds) {
    Connection connection = connect();
    {
        DeferredCloser closer(8, 5ms);
        closer.hand(release(connection), 10s);
    }
    EXPECT_TRUE(seesClose(connection, 1s));
}

TEST_F(DeferredCloserTest, CloseAfterPeerReturnsAtOnceAndTheProcesssCloserFinishesIt) {
    Connection connection = connect();
    const auto start = Clock::now();
    connection.connecting->closeAfterPeer(5000);
    EXPECT_LT(Clock::now() - start, 1s);
    EXPECT_FALSE(connection.connecting->isOpen());
    EXPECT_FALSE(seesClose(connection, 100ms));
    peerCloses(connection);
    EXPECT_TRUE(seesClose(connection, 2s));
}

#if defined(__SANITIZE_THREAD__)
#define KS_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KS_UNDER_TSAN 1
#endif
#endif

TEST_F(DeferredCloserTest, TheProcesssCloserWorksInAChildMadeByFork) {
#ifdef KS_UNDER_TSAN
    GTEST_SKIP() << "ThreadSanitizer ends a child that starts a thread after a multi-threaded fork";
#endif
    // The parent's closer thread is running when the child is made.
    Connection before = connect();
    before.connecting->closeAfterPeer(5000);
    peerCloses(before);
    ASSERT_TRUE(seesClose(before, 2s));

    const int port = listener.getListenPort();
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ClientSocket socket;
        socket.connect("127.0.0.1", port);
        socket.sendDataBlock("x", 1);
        socket.closeAfterPeer(5000);
        const auto deadline = Clock::now() + 5s;
        while (DeferredCloser::instance().getHeldCount() > 0 && Clock::now() < deadline)
            std::this_thread::sleep_for(5ms);
        ::_exit(DeferredCloser::instance().getHeldCount() == 0 ? 0 : 1);
    }
    ServerSocket accepted(listener.accept(), InheritedOptions{});
    accepted.setTimeout(5000);
    char byte = 0;
    ASSERT_TRUE(accepted.receiveDataBlock(&byte, 1));
    Connection fromChild;
    fromChild.accepting = std::make_unique<ServerSocket>(accepted.getSocket(), InheritedOptions{});
    accepted.getSocket() = Socket::c_invalid;
    peerCloses(fromChild);
    EXPECT_TRUE(seesClose(fromChild, 3s));
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}
