#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceProtocol.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <gtest/gtest.h>

#include <chrono>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace Kestrane;
using Protocol = RemoteServiceProtocol;
using ReadResult = Protocol::ReadResult;
using namespace std::chrono_literals;

namespace {

// Two connected ends in this process: what one writes, the other reads.
class SocketPair {
public:
    SocketPair() {
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
            throw std::runtime_error("socketpair failed");
        m_reader = std::make_unique<Computing::Socket>(static_cast<uint64_t>(fds[0]));
        m_writer = std::make_unique<Computing::Socket>(static_cast<uint64_t>(fds[1]));
        m_reader->setTimeout(2000);
    }
    Computing::Socket& reader() { return *m_reader; }
    Computing::Socket& writer() { return *m_writer; }
    void send(const std::string& bytes) { m_writer->sendDataBlock(bytes.data(), bytes.size()); }
    void closeWriter() { m_writer->close(); }
    // Everything the writer sent, once it is closed.
    std::string drain() {
        closeWriter();
        std::string all;
        m_reader->receiveDataBlock(all, 1 << 20);
        return all;
    }

private:
    std::unique_ptr<Computing::Socket> m_reader;
    std::unique_ptr<Computing::Socket> m_writer;
};

struct Outcome {
    ReadResult result;
    Protocol::Frame frame;
    std::string error;
};

// Reads one packet from `bytes`, followed by the end of the connection when `close`.
Outcome readFrom(const std::string& bytes, bool close = true) {
    SocketPair pair;
    pair.send(bytes);
    if (close)
        pair.closeWriter();
    Outcome outcome;
    outcome.result = Protocol::readFrame(pair.reader(), outcome.frame, outcome.error);
    return outcome;
}

void expectFailure(const std::string& bytes, ReadResult result, const std::string& error) {
    Outcome outcome = readFrom(bytes);
    EXPECT_EQ(outcome.result, result) << bytes.substr(0, 40);
    EXPECT_EQ(outcome.error, error) << bytes.substr(0, 40);
}

} // namespace

TEST(RemoteServiceProtocolTest, WriteFrameSendsTypeLengthAndPayload) {
    SocketPair pair;
    Protocol::writeFrame(pair.writer(), "OK", "PONG");
    Protocol::writeFrame(pair.writer(), "ERROR", "");
    Protocol::writeFrame(pair.writer(), "C", std::string("a\0b \n", 5));
    EXPECT_EQ(pair.drain(), std::string("OK 4 PONGERROR 0 C 5 a\0b \n", 26));
}

TEST(RemoteServiceProtocolTest, WriteFrameOnAClosedSocketThrows) {
    SocketPair pair;
    pair.writer().close();
    EXPECT_THROW(Protocol::writeFrame(pair.writer(), "OK", "x"), Computing::Error);
}

TEST(RemoteServiceProtocolTest, ReadsWellFormedPackets) {
    Outcome ping = readFrom("C 4 PING");
    ASSERT_EQ(ping.result, ReadResult::Ok) << ping.error;
    EXPECT_EQ(ping.frame.type, "C");
    EXPECT_EQ(ping.frame.payload, "PING");

    Outcome empty = readFrom("OK 0 ");
    ASSERT_EQ(empty.result, ReadResult::Ok) << empty.error;
    EXPECT_EQ(empty.frame.type, "OK");
    EXPECT_EQ(empty.frame.payload, "");

    Outcome binary = readFrom(std::string("MY_TYPE 3 \0 \n", 13));
    ASSERT_EQ(binary.result, ReadResult::Ok) << binary.error;
    EXPECT_EQ(binary.frame.type, "MY_TYPE");
    EXPECT_EQ(binary.frame.payload, std::string("\0 \n", 3));

    Outcome longest = readFrom(std::string(16, 'T') + " 1 x");
    EXPECT_EQ(longest.result, ReadResult::Ok) << longest.error;
    Outcome zeros = readFrom("C 0000002 ab");
    EXPECT_EQ(zeros.result, ReadResult::Ok) << zeros.error;
    EXPECT_EQ(zeros.frame.payload, "ab");
}

TEST(RemoteServiceProtocolTest, ReadsPacketsOneAfterTheOther) {
    SocketPair pair;
    Protocol::writeFrame(pair.writer(), "C", "PING");
    Protocol::writeFrame(pair.writer(), "AUTH", "abc");
    Protocol::Frame frame;
    std::string error;
    ASSERT_EQ(Protocol::readFrame(pair.reader(), frame, error), ReadResult::Ok);
    EXPECT_EQ(frame.type + "/" + frame.payload, "C/PING");
    ASSERT_EQ(Protocol::readFrame(pair.reader(), frame, error), ReadResult::Ok);
    EXPECT_EQ(frame.type + "/" + frame.payload, "AUTH/abc");
    pair.closeWriter();
    EXPECT_EQ(Protocol::readFrame(pair.reader(), frame, error), ReadResult::Closed);
    EXPECT_EQ(error, "connection closed (before a packet)");
    EXPECT_EQ(frame.type, "") << "a failed read leaves no old packet behind";
}

TEST(RemoteServiceProtocolTest, MalformedHeaders) {
    expectFailure("c 1 x", ReadResult::Malformed, "unexpected 'c' in the packet type");
    expectFailure(" 1 x", ReadResult::Malformed, "packet without a type");
    expectFailure("\x01", ReadResult::Malformed, "unexpected byte 0x01 in the packet type");
    expectFailure("\xff", ReadResult::Malformed, "unexpected byte 0xff in the packet type");
    expectFailure("C\n1 x", ReadResult::Malformed, "unexpected byte 0x0a in the packet type");
    expectFailure("GET / HTTP/1.1\r\n", ReadResult::Malformed,
                  "unexpected '/' in the packet length");
    expectFailure(std::string(17, 'A') + " 1 x", ReadResult::Malformed,
                  "packet type longer than 16 characters");
    expectFailure(std::string(100000, 'A'), ReadResult::Malformed,
                  "packet type longer than 16 characters");
    expectFailure("C  x", ReadResult::Malformed, "packet without a length");
    expectFailure("C 1x", ReadResult::Malformed, "unexpected 'x' in the packet length");
    expectFailure("C -1 ", ReadResult::Malformed, "unexpected '-' in the packet length");
    expectFailure("C +1 ", ReadResult::Malformed, "unexpected '+' in the packet length");
    expectFailure("C 1\n", ReadResult::Malformed, "unexpected byte 0x0a in the packet length");
}

TEST(RemoteServiceProtocolTest, OversizedPacketsAreRefusedOnTheHeader) {
    expectFailure("C 1048577 ", ReadResult::TooLarge, "packet of 1048577 bytes, more than 1048576");
    expectFailure("C 9999999 ", ReadResult::TooLarge, "packet of 9999999 bytes, more than 1048576");
    expectFailure("C 12345678 ", ReadResult::TooLarge, "packet of more than 1048576 bytes");
    expectFailure("C 4294967295 ", ReadResult::TooLarge, "packet of more than 1048576 bytes");
    expectFailure("C 99999999999999999999999 ", ReadResult::TooLarge,
                  "packet of more than 1048576 bytes");

    // The verdict comes at once, with the connection open and no payload: nothing of it is read.
    SocketPair pair;
    pair.send("C 2097152 XYZ");
    Protocol::Frame frame;
    std::string error;
    auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Protocol::readFrame(pair.reader(), frame, error), ReadResult::TooLarge);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1000ms);
    EXPECT_EQ(frame.payload, "");
    char rest[3];
    ASSERT_TRUE(pair.reader().receiveDataBlock(rest, 3));
    EXPECT_EQ(std::string(rest, 3), "XYZ");
}

TEST(RemoteServiceProtocolTest, TheLargestPacketIsRead) {
    SocketPair pair;
    std::string payload(Protocol::c_maxPayload, 'p');
    std::thread writer([&] { Protocol::writeFrame(pair.writer(), "C", payload); });
    Protocol::Frame frame;
    std::string error;
    EXPECT_EQ(Protocol::readFrame(pair.reader(), frame, error), ReadResult::Ok) << error;
    writer.join();
    EXPECT_EQ(frame.payload.size(), Protocol::c_maxPayload);
    EXPECT_EQ(frame.payload, payload);
}

TEST(RemoteServiceProtocolTest, ClosedConnections) {
    expectFailure("", ReadResult::Closed, "connection closed (before a packet)");
    expectFailure("CM", ReadResult::Closed, "connection closed (inside the type)");
    expectFailure("C 4", ReadResult::Closed, "connection closed (inside the length)");
    expectFailure("C 4 PI", ReadResult::Closed, "connection closed (inside the payload)");
}

TEST(RemoteServiceProtocolTest, SilentPeers) {
    for (std::string bytes : {"", "C", "C 4", "C 4 PI"}) {
        SocketPair pair;
        pair.reader().setTimeout(100);
        pair.send(bytes);
        Protocol::Frame frame;
        std::string error;
        auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(Protocol::readFrame(pair.reader(), frame, error), ReadResult::TimedOut) << bytes;
        EXPECT_GE(std::chrono::steady_clock::now() - begin, 90ms);
        EXPECT_EQ(error.rfind("no data for too long (", 0), 0u) << error;
    }
}

TEST(RemoteServiceProtocolTest, ArgumentsTravelByteForByte) {
    std::vector<std::string> arguments = {"/opt/ks/bin/server",
                                          "two words",
                                          "'single'",
                                          "\"double\"",
                                          "$HOME",
                                          "a;b",
                                          "line\nbreak",
                                          "",
                                          "tail\n",
                                          "12:34",
                                          "\x01\xff",
                                          std::string(1000, 'x')};
    std::string text = Protocol::encodeArguments(arguments);
    std::vector<std::string> decoded;
    std::string error;
    ASSERT_TRUE(Protocol::decodeArguments(text, decoded, error)) << error;
    EXPECT_EQ(decoded, arguments);

    EXPECT_EQ(Protocol::encodeArguments({"a b", "", "x:y"}), "3:a b0:3:x:y");
    EXPECT_EQ(Protocol::encodeArguments({}), "");
    ASSERT_TRUE(Protocol::decodeArguments("", decoded, error));
    EXPECT_TRUE(decoded.empty());
    ASSERT_TRUE(Protocol::decodeArguments("0:", decoded, error));
    EXPECT_EQ(decoded, std::vector<std::string>{""});
}

TEST(RemoteServiceProtocolTest, BadArgumentTextsAreRefused) {
    auto refusal = [](const std::string& text) {
        std::vector<std::string> decoded{"left over"};
        std::string error;
        if (Protocol::decodeArguments(text, decoded, error))
            return std::string("accepted");
        return error;
    };
    EXPECT_EQ(refusal("abc"), "argument 1 has no length");
    EXPECT_EQ(refusal(":abc"), "argument 1 has no length");
    EXPECT_EQ(refusal("12345678:x"), "argument 1 has no length");
    EXPECT_EQ(refusal("1x:a"), "argument 1 has a length that is not a number");
    EXPECT_EQ(refusal("-1:a"), "argument 1 has a length that is not a number");
    EXPECT_EQ(refusal(" 1:a"), "argument 1 has a length that is not a number");
    EXPECT_EQ(refusal("5:abc"), "argument 1 is shorter than its length");
    EXPECT_EQ(refusal("9999999:abc"), "argument 1 is shorter than its length");
    EXPECT_EQ(refusal("1:a2"), "argument 2 has no length");
    EXPECT_EQ(refusal("1:a1:"), "argument 2 is shorter than its length");
    EXPECT_EQ(refusal(std::string("3:a\0b", 5)), "argument 1 holds a NUL byte");
    // What a program can't receive is not encoded into something that decodes.
    EXPECT_EQ(refusal(Protocol::encodeArguments({"ok", std::string("n\0l", 3)})),
              "argument 2 holds a NUL byte");
}
