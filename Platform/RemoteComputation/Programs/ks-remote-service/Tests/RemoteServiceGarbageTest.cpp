#include "ServiceFixture.h"

#include <random>
#include <sys/socket.h>
#include <thread>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;

class RemoteServiceGarbageTest : public ServiceFixture {
protected:
    void SetUp() override {
        ServiceFixture::SetUp();
        startService();
    }
    // Sends `bytes` on a new connection (after the nonce) and returns the answer packet.
    std::string answerTo(const std::string& bytes) {
        auto connection = connect();
        connection->socket.sendDataBlock(bytes.data(), bytes.size());
        return nextPacket(connection->socket);
    }
};

TEST_F(RemoteServiceGarbageTest, RandomBytes) {
    std::mt19937 generator(20240611);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int round = 0; round < 20; ++round) {
        std::string bytes(4096, '\0');
        for (char& c : bytes)
            c = static_cast<char>(byte(generator));
        std::string answer = answerTo(bytes);
        EXPECT_EQ(answer.rfind("ERROR ", 0), 0u) << answer;
    }
    expectStillAnswers();
}

TEST_F(RemoteServiceGarbageTest, HttpRequest) {
    std::string reason = "malformed packet (unexpected '/' in the packet length); use a client "
                         "of the starter service (JobStart, CoresStatus)";
    EXPECT_EQ(answerTo("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"), "ERROR " + reason);
    expectRefusalLogged(reason);
    expectStillAnswers();
}

TEST_F(RemoteServiceGarbageTest, LongLineWithoutSpaces) {
    std::string reason = "malformed packet (packet type longer than 16 characters)";
    EXPECT_EQ(answerTo(std::string(100 * 1000, 'A') + "\n").rfind("ERROR " + reason, 0), 0u);
    expectRefusalLogged(reason);
    expectStillAnswers();
}

TEST_F(RemoteServiceGarbageTest, HugeLengthIsRefusedOnTheHeader) {
    auto begin = std::chrono::steady_clock::now();
    // No payload follows: the answer can't wait for one.
    std::string answer = answerTo("C 4294967295 ");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 800ms);
    std::string reason = "packet too large (packet of more than 1048576 bytes); a command may "
                         "have at most 1048576 bytes";
    EXPECT_EQ(answer, "ERROR " + reason);
    expectRefusalLogged(reason);
    EXPECT_EQ(answerTo("C 1048577 "),
              "ERROR packet too large (packet of 1048577 bytes, more than 1048576); a command "
              "may have at most 1048576 bytes");
    expectStillAnswers();
}

TEST_F(RemoteServiceGarbageTest, HalfAPacketThenClose) {
    {
        auto connection = connect();
        std::string half = "C 10 PIN";
        connection->socket.sendDataBlock(half.data(), half.size());
    }
    expectRefusalLogged("incomplete packet (connection closed (inside the payload))");
    {
        auto connection = connect();
        std::string half = "C 1";
        connection->socket.sendDataBlock(half.data(), half.size());
    }
    expectRefusalLogged("incomplete packet (connection closed (inside the length))");
    expectStillAnswers();
}

TEST_F(RemoteServiceGarbageTest, ManyConnectionsAtOnce) {
    {
        std::vector<std::unique_ptr<RawConnection>> connections;
        for (int i = 0; i < 200; ++i)
            connections.push_back(connect(false));
    }
    {
        // Some read the nonce and go.
        std::vector<std::unique_ptr<RawConnection>> connections;
        for (int i = 0; i < 20; ++i)
            connections.push_back(connect(true));
    }
    EXPECT_NE(logLine("Connection from 127.0.0.1 closed without a command"), "");
    expectStillAnswers();
}

TEST_F(RemoteServiceGarbageTest, SilentPeersDoNotBlockOthers) {
    auto silent = connect();
    auto begin = std::chrono::steady_clock::now();
    expectStillAnswers();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 500ms) << "waited for the silent peer";
    // More silent peers than conversations at once: the others wait, but not for long.
    std::vector<std::unique_ptr<RawConnection>> many;
    for (int i = 0; i < 20; ++i)
        many.push_back(connect(false));
    begin = std::chrono::steady_clock::now();
    expectStillAnswers();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 3000ms);
}
