#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>

using namespace Kestrane;
using namespace Kestrane::Computing;
using Clock = std::chrono::steady_clock;

namespace {

// A connected pair over loopback.
struct Pair {
    std::unique_ptr<ListenSocket> listener;
    std::unique_ptr<ClientSocket> client;
    std::unique_ptr<ServerSocket> server;
};

Pair connectPair(const std::string& host = "127.0.0.1") {
    Pair pair;
    pair.listener = std::make_unique<ListenSocket>(0, 1, 10);
    pair.client = std::make_unique<ClientSocket>();
    pair.client->connect(host, pair.listener->getListenPort());
    pair.server = std::make_unique<ServerSocket>(pair.listener->accept());
    pair.server->setTimeout(5000);
    pair.client->setTimeout(5000);
    return pair;
}

std::string allBytes() {
    std::string data;
    for (int round = 0; round < 4; ++round)
        for (int i = 0; i < 256; ++i)
            data.push_back(static_cast<char>(i));
    return data;
}

int availableBytes(Socket& socket) {
    int count = 0;
    ::ioctl(static_cast<int>(socket.getSocket()), FIONREAD, &count);
    return count;
}

bool waitForAvailable(Socket& socket, int bytes) {
    auto deadline = Clock::now() + std::chrono::seconds(5);
    while (availableBytes(socket) < bytes) {
        if (Clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::string errorText(const std::function<void()>& action) {
    try {
        action();
    } catch (const Error& e) {
        return e.what();
    }
    return "<nothing thrown>";
}

} // namespace

TEST(SocketTest, ExactBytesBothWays) {
    Pair pair = connectPair();
    std::string data = allBytes();
    EXPECT_TRUE(pair.client->sendDataBlock(data.data(), data.size()));
    std::string received(data.size(), '\0');
    ASSERT_TRUE(pair.server->receiveDataBlock(&received[0], received.size()));
    EXPECT_EQ(received, data);

    std::string answer = "answer\0with nul", reply(answer.size(), '\0');
    EXPECT_TRUE(pair.server->sendDataBlock(answer.data(), answer.size()));
    ASSERT_TRUE(pair.client->receiveDataBlock(&reply[0], reply.size()));
    EXPECT_EQ(reply, answer);
}

TEST(SocketTest, LargeBlockArrivesWhole) {
    Pair pair = connectPair();
    std::string data(3 * 1024 * 1024 + 17, '\0');
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>((i * 131 + 7) & 0xff);
    std::thread sender([&] { pair.client->sendDataBlock(data.data(), data.size()); });
    std::string received(data.size(), '\0');
    // A small read first, so that the large one starts from the read-ahead buffer.
    ASSERT_TRUE(pair.server->receiveDataBlock(&received[0], 5));
    ASSERT_TRUE(pair.server->receiveDataBlock(&received[5], received.size() - 5));
    sender.join();
    EXPECT_TRUE(received == data);
}

TEST(SocketTest, SmallReadsComeFromTheReadAheadBuffer) {
    Pair pair = connectPair();
    pair.client->sendDataBlock("0123456789", 10);
    ASSERT_TRUE(waitForAvailable(*pair.server, 10));
    char part[4] = {0};
    ASSERT_TRUE(pair.server->receiveDataBlock(part, 3));
    EXPECT_EQ(std::string(part, 3), "012");
    EXPECT_EQ(pair.server->bufferedByteCount(), 7u);
    EXPECT_EQ(availableBytes(*pair.server), 0);
    char rest[7];
    ASSERT_TRUE(pair.server->receiveDataBlock(rest, 7));
    EXPECT_EQ(std::string(rest, 7), "3456789");
    EXPECT_EQ(pair.server->bufferedByteCount(), 0u);
}

TEST(SocketTest, MoreHoldsBytesBackUntilTheNextBlock) {
    Pair pair = connectPair();
    pair.server->setTimeout(50);
    EXPECT_TRUE(pair.client->sendDataBlock("HDR:", 4, true));
    char byte;
    EXPECT_FALSE(pair.server->receiveDataBlock(&byte, 1)) << "held-back bytes were sent";
    EXPECT_TRUE(pair.client->sendDataBlock("tail", 4, true));
    EXPECT_TRUE(pair.client->sendDataBlock("payload", 7));
    pair.server->setTimeout(5000);
    char received[15];
    ASSERT_TRUE(pair.server->receiveDataBlock(received, 15));
    EXPECT_EQ(std::string(received, 15), "HDR:tailpayload");
}

TEST(SocketTest, MoreWithLargeDataIsSentAtOnce) {
    Pair pair = connectPair();
    std::string big(20000, 'b');
    std::thread sender([&] {
        pair.client->sendDataBlock("h", 1, true);
        pair.client->sendDataBlock(big.data(), big.size(), true);
    });
    std::string received(big.size() + 1, '\0');
    EXPECT_TRUE(pair.server->receiveDataBlock(&received[0], received.size()));
    sender.join();
    EXPECT_EQ(received, "h" + big);
}

TEST(SocketTest, SndMsgSendsTheTextAlone) {
    Pair pair = connectPair();
    pair.client->sndMsg("STOP");
    pair.client->sendDataBlock("X", 1);
    char text[5];
    ASSERT_TRUE(pair.server->receiveDataBlock(text, 5));
    EXPECT_EQ(std::string(text, 5), "STOPX") << "no length, terminator or padding";
}

TEST(SocketTest, ReceiveIsFalseWhenThePeerCloses) {
    Pair pair = connectPair();
    pair.client->sendDataBlock("abc", 3);
    pair.client->close();
    EXPECT_FALSE(pair.client->isOpen());
    char buffer[10];
    EXPECT_FALSE(pair.server->receiveDataBlock(buffer, 10));
    EXPECT_FALSE(pair.server->receiveTimedOut());
    EXPECT_FALSE(pair.server->receiveDataBlock(buffer, 1));
    EXPECT_FALSE(pair.server->receiveTimedOut());
}

TEST(SocketTest, ReceiveIsFalseWhenThePeerClosesBeforeALargeBlock) {
    Pair pair = connectPair();
    pair.client.reset();
    std::string buffer(200000, '\0');
    EXPECT_FALSE(pair.server->receiveDataBlock(&buffer[0], buffer.size()));
}

TEST(SocketTest, StringReceiveReturnsWhatCameWhenThePeerClosesEarly) {
    Pair pair = connectPair();
    pair.client->sendDataBlock("hello", 5);
    pair.client.reset();
    std::string out = "prefix:";
    EXPECT_FALSE(pair.server->receiveDataBlock(out, 100));
    EXPECT_EQ(out, "prefix:hello");
}

TEST(SocketTest, StringReceiveOfALargeBlock) {
    Pair pair = connectPair();
    std::string data(2500000, '\0');
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>(i % 251);
    std::thread sender([&] { pair.client->sendDataBlock(data.data(), data.size()); });
    std::string out;
    EXPECT_TRUE(pair.server->receiveDataBlock(out, data.size()));
    sender.join();
    EXPECT_TRUE(out == data);
}

TEST(SocketTest, StringReceiveOfALargeBlockCutShort) {
    Pair pair = connectPair();
    std::string data(1500000, 'q');
    std::thread sender([&] {
        pair.client->sendDataBlock(data.data(), data.size());
        pair.client->close();
    });
    std::string out;
    EXPECT_FALSE(pair.server->receiveDataBlock(out, 4000000));
    sender.join();
    EXPECT_EQ(out.size(), data.size());
    EXPECT_TRUE(out == data);
}

TEST(SocketTest, TimeoutEndsAReadOnASilentPeer) {
    Pair pair = connectPair();
    pair.server->setTimeout(100);
    char buffer[4];
    auto start = Clock::now();
    EXPECT_FALSE(pair.server->receiveDataBlock(buffer, 4));
    EXPECT_TRUE(pair.server->receiveTimedOut());
    auto elapsed = Clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(80));
    EXPECT_LT(elapsed, std::chrono::seconds(3));

    std::string out;
    start = Clock::now();
    EXPECT_FALSE(pair.server->receiveDataBlock(out, 4));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
    EXPECT_TRUE(out.empty());
}

TEST(SocketTest, SendToAClosedPeerThrows) {
    Pair pair = connectPair();
    pair.server.reset();
    std::string block(65536, 'x');
    bool threw = false;
    for (int i = 0; i < 200 && !threw; ++i) {
        try {
            pair.client->sendDataBlock(block.data(), block.size());
        } catch (const Error& e) {
            threw = true;
            EXPECT_EQ(e.getCall(), "send");
            EXPECT_NE(e.getErrorNumber(), 0);
        }
    }
    EXPECT_TRUE(threw);
}

TEST(SocketTest, SendOnAClosedSocketThrows) {
    Pair pair = connectPair();
    pair.client->close();
    pair.client->close(); // twice is harmless
    try {
        pair.client->sendDataBlock("x", 1);
        FAIL() << "no exception";
    } catch (const Error& e) {
        EXPECT_EQ(e.getErrorNumber(), EBADF);
    }
    char byte;
    EXPECT_FALSE(pair.client->receiveDataBlock(&byte, 1));
    EXPECT_EQ(pair.client->getSocket(), Socket::c_invalid);
}

TEST(SocketTest, AddressTextsForAnIPv4LoopbackClient) {
    Pair pair = connectPair("127.0.0.1");
    EXPECT_EQ(pair.server->getClientIPaddress(), "127.0.0.1");
    EXPECT_EQ(pair.server->getServerIPaddress(), "127.0.0.1");
}

TEST(SocketTest, AddressTextsForAnIPv6LoopbackClient) {
    Pair pair;
    try {
        pair = connectPair("::1");
    } catch (const Error& e) {
        GTEST_SKIP() << "no IPv6 loopback here: " << e.what();
    }
    EXPECT_EQ(pair.server->getClientIPaddress(), "::1");
    EXPECT_EQ(pair.server->getServerIPaddress(), "::1");
}

TEST(SocketTest, LocalhostByName) {
    Pair pair = connectPair("localhost");
    pair.client->sendDataBlock("x", 1);
    char byte = 0;
    ASSERT_TRUE(pair.server->receiveDataBlock(&byte, 1));
    EXPECT_EQ(byte, 'x');
}

TEST(SocketTest, ListenOnPortZeroGetsAPort) {
    ListenSocket first(0, 1, 10);
    ListenSocket second(0, 5, 10);
    EXPECT_GT(first.getListenPort(), 0);
    EXPECT_GT(second.getListenPort(), 0);
    EXPECT_NE(first.getListenPort(), second.getListenPort());
}

TEST(SocketTest, RangeWhoseFirstPortIsTakenBindsTheNext) {
    ListenSocket taken(0, 1, 10);
    int port = taken.getListenPort();
    if (port > 65530)
        GTEST_SKIP() << "port " << port << " leaves no room for a range";
    ListenSocket next(port, 5, 10);
    EXPECT_GT(next.getListenPort(), port);
    EXPECT_LT(next.getListenPort(), port + 5);

    ClientSocket client;
    client.connect("127.0.0.1", next.getListenPort());
    ServerSocket server(next.accept());
    EXPECT_EQ(server.getClientIPaddress(), "127.0.0.1");
}

TEST(SocketTest, SingleTakenPortThrowsNamingTheCallAndTheReason) {
    ListenSocket taken(0, 1, 10);
    int port = taken.getListenPort();
    try {
        ListenSocket again(port, 1, 10);
        FAIL() << "bound a taken port";
    } catch (const Error& e) {
        std::string text = e.what();
        EXPECT_NE(text.find("bind"), std::string::npos) << text;
        EXPECT_NE(text.find(std::to_string(port)), std::string::npos) << text;
        EXPECT_NE(text.find(std::strerror(EADDRINUSE)), std::string::npos) << text;
        EXPECT_EQ(e.getErrorNumber(), EADDRINUSE);
    }
}

TEST(SocketTest, PortOutOfRangeThrows) {
    EXPECT_THROW(ListenSocket(70000, 1, 10), Error);
    EXPECT_THROW(ListenSocket(-1, 1, 10), Error);
}

TEST(SocketTest, ConnectingToAClosedPortThrows) {
    int port;
    {
        ListenSocket listener(0, 1, 10);
        port = listener.getListenPort();
    }
    ClientSocket client;
    std::string text = errorText([&] { client.connect("127.0.0.1", port); });
    EXPECT_NE(text.find("connect"), std::string::npos) << text;
    EXPECT_NE(text.find(std::strerror(ECONNREFUSED)), std::string::npos) << text;
    EXPECT_FALSE(client.isOpen());
}

namespace {
// The options an accepted connection has in the system: no send delay, and the read and write
// time limits in milliseconds.
struct ConnectionOptions {
    int noDelay = -1;
    long readLimitMs = -1;
    long writeLimitMs = -1;
};

ConnectionOptions optionsOf(uint64_t handle) {
    const int fd = static_cast<int>(handle);
    ConnectionOptions options;
    socklen_t length = sizeof(options.noDelay);
    ::getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &options.noDelay, &length);
    timeval limit{};
    length = sizeof(limit);
    if (::getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, &length) == 0)
        options.readLimitMs = limit.tv_sec * 1000 + limit.tv_usec / 1000;
    length = sizeof(limit);
    if (::getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, &length) == 0)
        options.writeLimitMs = limit.tv_sec * 1000 + limit.tv_usec / 1000;
    return options;
}

// Connects `client` to `listener` and returns the accepted handle, for the caller to own.
uint64_t connectAndAccept(ListenSocket& listener, ClientSocket& client) {
    client.connect("127.0.0.1", listener.getListenPort());
    return listener.accept();
}
} // namespace

TEST(SocketTest, AcceptedConnectionsTakeTheListenersOptions) {
    ListenSocket listener(0, 1, 10, "127.0.0.1", 2500u);
    ASSERT_EQ(listener.getAcceptedTimeout(), std::optional<unsigned int>(2500u));
    // Queued before the accept, as a connection is that arrives while the server is busy.
    ClientSocket client;
    ServerSocket accepted(connectAndAccept(listener, client), InheritedOptions{});
    const ConnectionOptions options = optionsOf(accepted.getSocket());
    EXPECT_NE(options.noDelay, 0);
    EXPECT_EQ(options.readLimitMs, 2500);
    EXPECT_EQ(options.writeLimitMs, 2500);
    // And the connection works as any other.
    client.sendDataBlock("ping", 4);
    char text[4];
    ASSERT_TRUE(accepted.receiveDataBlock(text, 4));
    EXPECT_EQ(std::string(text, 4), "ping");
}

TEST(SocketTest, AListenerWithoutAcceptedOptionsHandsOutPlainConnections) {
    ListenSocket listener(0, 1, 10, "127.0.0.1");
    EXPECT_FALSE(listener.getAcceptedTimeout());
    ClientSocket client;
    ServerSocket accepted(connectAndAccept(listener, client), InheritedOptions{});
    const ConnectionOptions options = optionsOf(accepted.getSocket());
    EXPECT_EQ(options.noDelay, 0);
    EXPECT_EQ(options.readLimitMs, 0);
    EXPECT_EQ(options.writeLimitMs, 0);
}

TEST(SocketTest, AcceptServesConnectionsInTurn) {
    ListenSocket listener(0, 1, 10);
    std::vector<std::unique_ptr<ClientSocket>> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(std::make_unique<ClientSocket>());
        clients.back()->connect("127.0.0.1", listener.getListenPort());
        char id = static_cast<char>('a' + i);
        clients.back()->sendDataBlock(&id, 1);
    }
    std::string seen;
    for (int i = 0; i < 3; ++i) {
        ServerSocket server(listener.accept());
        server.setTimeout(5000);
        char id = 0;
        ASSERT_TRUE(server.receiveDataBlock(&id, 1));
        seen.push_back(id);
    }
    EXPECT_EQ(seen, "abc");
}

TEST(SocketTest, ReconnectingAClientSocket) {
    Pair pair = connectPair();
    ListenSocket other(0, 1, 10);
    pair.client->connect("127.0.0.1", other.getListenPort());
    ServerSocket server(other.accept());
    server.setTimeout(5000);
    pair.client->sendDataBlock("z", 1);
    char byte = 0;
    ASSERT_TRUE(server.receiveDataBlock(&byte, 1));
    EXPECT_EQ(byte, 'z');
    pair.server->setTimeout(2000);
    EXPECT_FALSE(pair.server->receiveDataBlock(&byte, 1)) << "the first connection was closed";
}

TEST(SocketTest, ConnectToAPortOutOfRangeThrows) {
    ListenSocket listener(0, 1, 10);
    int port = listener.getListenPort();
    for (int bad : {port + 65536, -1, 0, 65536 * 2 + port}) {
        ClientSocket client;
        std::string text = errorText([&] { client.connect("127.0.0.1", bad); });
        EXPECT_NE(text.find("connect to 127.0.0.1:" + std::to_string(bad)), std::string::npos)
            << text;
        EXPECT_FALSE(client.isOpen()) << bad;
    }
}

TEST(SocketTest, ZeroBytesNeedNoPeer) {
    Pair pair = connectPair();
    pair.server->setTimeout(0);
    char byte = 0;
    auto start = Clock::now();
    EXPECT_TRUE(pair.server->receiveDataBlock(&byte, 0));
    std::string out;
    EXPECT_TRUE(pair.server->receiveDataBlock(out, 0));
    EXPECT_TRUE(out.empty());
    EXPECT_TRUE(pair.client->sendDataBlock("", 0));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
}

TEST(SocketTest, TimeoutZeroMeansNoLimit) {
    Pair pair = connectPair();
    pair.server->setTimeout(50);
    pair.server->setTimeout(0);
    std::thread sender([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        pair.client->sendDataBlock("late", 4);
    });
    char text[4];
    bool received = pair.server->receiveDataBlock(text, 4);
    sender.join();
    ASSERT_TRUE(received) << "the read gave up although no limit was set";
    EXPECT_EQ(std::string(text, 4), "late");
}

TEST(SocketTest, BytesArriveInOrderAcrossManyBlocks) {
    Pair pair = connectPair();
    std::thread sender([&] {
        for (uint32_t i = 0; i < 2000; ++i)
            pair.client->sendDataBlock(reinterpret_cast<const char*>(&i), sizeof(i), i % 3 != 0);
        pair.client->sendDataBlock("", 0);
    });
    bool inOrder = true;
    for (uint32_t i = 0; i < 2000; ++i) {
        uint32_t value = 0;
        if (!pair.server->receiveDataBlock(reinterpret_cast<char*>(&value), sizeof(value)) ||
            value != i) {
            inOrder = false;
            break;
        }
    }
    sender.join();
    EXPECT_TRUE(inOrder);
}

TEST(SocketTest, ListenOnOneAddressOnly) {
    ListenSocket listener(0, 1, 10, "127.0.0.2");
    const int port = listener.getListenPort();
    EXPECT_GT(port, 0);
    ClientSocket there;
    there.connect("127.0.0.2", port);
    ServerSocket accepted(listener.accept());
    EXPECT_EQ(accepted.getServerIPaddress(), "127.0.0.2");
    ClientSocket elsewhere;
    EXPECT_THROW(elsewhere.connect("127.0.0.1", port), Error);
}

TEST(SocketTest, ListenOnAnAddressThatIsNotThereThrows) {
    try {
        ListenSocket listener(0, 1, 10, "no-such-host.invalid");
        ADD_FAILURE() << "bound to a host that does not exist";
    } catch (const Error& e) {
        EXPECT_EQ(e.getCall(), "bind address no-such-host.invalid");
    }
    // An address of another machine can't be bound here.
    EXPECT_THROW(ListenSocket(0, 1, 10, "192.0.2.1"), Error);
}
