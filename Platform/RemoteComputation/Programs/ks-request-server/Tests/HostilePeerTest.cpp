// A hostile peer floods a running ks-request-server with 10,000 broken and mutated packets over
// loopback while a good client goes on with real round trips: the server has to answer PING
// quickly all along, lose no round trip, and still be there at the end.
#include "Platform/RemoteComputation/TestSupport/HostilePackets.h"
#include "Platform/RemoteComputation/TestSupport/ServerProcess.h"

#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <regex>
#include <sys/socket.h>
#include <thread>

using namespace Kestrane;
using Kestrane::Testing::HostilePackets;
using Kestrane::Testing::ServerProcess;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr uint64_t c_defaultSeed = 20261123;
constexpr int c_packets = 10000;
// Hostile peers at once, each with its own connections and a seed of its own (seed + index).
constexpr int c_peers = 4;
constexpr auto c_answerLimit = 2000ms;

// KS_HOSTILE_SEED repeats another run.
uint64_t seed() {
    const char* text = std::getenv("KS_HOSTILE_SEED");
    return text && *text ? std::strtoull(text, nullptr, 10) : c_defaultSeed;
}

double millisecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

// Reads a pipe for as long as the process writes to it: a server that logs every refused packet
// must never block on a full pipe.
class PipeDrain {
public:
    explicit PipeDrain(int fd)
        : m_thread([this, fd] {
              while (!m_stop) {
                  std::string piece = Testing::readPipe(
                      fd, 100ms, [](const std::string& t) { return t.size() >= 65536; });
                  std::lock_guard<std::mutex> lock(m_mutex);
                  m_text += piece;
              }
          }) {}
    ~PipeDrain() { stop(); }
    void stop() {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
    }
    size_t count(const std::string& what) {
        std::lock_guard<std::mutex> lock(m_mutex);
        size_t n = 0;
        for (size_t at = m_text.find(what); at != std::string::npos; at = m_text.find(what, at + 1))
            ++n;
        return n;
    }
    std::string tail(size_t bytes) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_text.size() > bytes ? m_text.substr(m_text.size() - bytes) : m_text;
    }

private:
    std::atomic<bool> m_stop{false};
    std::mutex m_mutex;
    std::string m_text;
    std::thread m_thread;
};

// PING on a fresh connection with at most `limit` for the answer; milliseconds, or -1 without
// PONG.
double timedPing(int port) {
    const auto begin = Clock::now();
    try {
        Computing::ClientSocket socket;
        socket.connect("127.0.0.1", port);
        socket.setTimeout(static_cast<unsigned int>(c_answerLimit.count()));
        SocketPacket::send("C", "PING", socket, "server");
        auto answer = SocketPacket::receive(socket, "server");
        const double took = millisecondsSince(begin);
        SocketPacket::send("C", "CLOSE_CONNECTION", socket, "server");
        if (answer->getType() == "C" && *answer->getData() == "PONG")
            return took;
    } catch (const std::exception&) {
    }
    return -1;
}

struct PingFigures {
    std::vector<double> times;
    int failed = 0;
    void add(double ms) {
        if (ms < 0)
            ++failed;
        else
            times.push_back(ms);
    }
    double max() const { return times.empty() ? 0 : *std::max_element(times.begin(), times.end()); }
    double median() {
        if (times.empty())
            return 0;
        std::sort(times.begin(), times.end());
        return times[times.size() / 2];
    }
};

HostInfo serverHost(int port, int publisherPort) {
    HostInfo host("127.0.0.1", "localhost");
    host.setRequestServerPort(port);
    host.setPublisherPort(publisherPort);
    return host;
}

RequestEncoder nopRequest() {
    RequestEncoder encoder("TestRequest");
    encoder.addElement("command", "NOP", "  ");
    return encoder;
}

// Ids and time stamps fixed, so that the same seed gives the same bytes in every run.
const std::string c_fixedId = "0123456789ABCDEF-0123456789ABCDEF-0123456789ABCDEF";

std::string withoutVariableParts(const std::string& package) {
    static const std::regex id("[0-9A-F]{16}-[0-9A-F]{16}-[0-9A-F]{16}");
    static const std::regex timestamp("timestamp=\"[^\"]*\"");
    return std::regex_replace(std::regex_replace(package, id, c_fixedId), timestamp,
                              "timestamp=\"2026-11-23T12:00:00.000000\"");
}

// Packets as real clients write them, for the hostile peer to mutate. Requests ask for no reply:
// a peer must not make the server connect to some port of this host.
std::vector<std::string> realPackets() {
    std::vector<std::string> packets;
    RequestPackageEncoder request(nopRequest().getEncodedRequest(), c_fixedId, "");
    request.setReplyExpected(false);
    packets.push_back(
        HostilePackets::frame("RQ", withoutVariableParts(request.getEncodedRequestPackage())));
    RequestEncoder status("GetStatusRequest");
    RequestPackageEncoder statusPackage(status.getEncodedRequest(), c_fixedId, "");
    statusPackage.setReplyExpected(false);
    packets.push_back(HostilePackets::frame(
        "RQ", withoutVariableParts(statusPackage.getEncodedRequestPackage())));
    ReplyEncoder reply("TestReply", c_fixedId);
    reply.addElement("data", "OK");
    const std::string replyPackage = withoutVariableParts(
        ReplyPackageEncoder(reply.getEncodedReply("  ", "   "), 0).getEncodedReplyPackage());
    packets.push_back(HostilePackets::frame("RP", replyPackage));
    packets.push_back(HostilePackets::frame("PR", replyPackage));
    for (const char* command : {"PING", "CLOSE_CONNECTION", "GET_HOST_AND_USER_ID"})
        packets.push_back(HostilePackets::frame("C", command));
    packets.push_back(HostilePackets::frame("C", "REPLY_ID " + c_fixedId));
    const std::string& id = c_fixedId;
    // Block commands with their block behind; the reader takes sizes of three digits or more.
    packets.push_back(HostilePackets::frame("C", "ARCH " + id + " 100") + std::string(100, 'a'));
    packets.push_back(HostilePackets::frame("C", "HDFS " + id + " 128") + std::string(128, 'h'));
    // Blocks that claim 4 GB and bring ten bytes.
    packets.push_back(HostilePackets::frame("C", "ARCH " + id + " 4294967295") + "0123456789");
    packets.push_back(HostilePackets::frame("C", "HDFS " + id + " 4294967295") + "0123456789");
    packets.push_back(HostilePackets::frame("C", "FILE hostile " + id + " hostile-file.txt"));
    return packets;
}

// Takes away what no random peer may ask for here: requests that stop or crash the server or
// keep its workers for long, callbacks that make it connect elsewhere, and file commands whose
// directory would leave the server's temporary directory.
void defuse(std::string& bytes) {
    static const std::vector<std::string> forbidden = {
        "FORWARD_CALLBACK", "Shutdown",    "CRASH",      "WAIT",      "GET_DATA", "PUT_FILE",
        "GET_FILE",         "QUEUED",      "Disconnect", "Reconnect", "Abort",    "Callback",
        "Distributed",      "StartQueued", "replyHost",  "replyPort"};
    for (const auto& word : forbidden)
        for (size_t at = bytes.find(word); at != std::string::npos; at = bytes.find(word, at + 1))
            bytes[at] = '#';
    for (size_t at = bytes.find("FILE "); at != std::string::npos; at = bytes.find("FILE ", at + 1))
        for (size_t i = at + 5; i < bytes.size() && i < at + 5 + 256; ++i)
            if (bytes[i] == '/' || bytes[i] == '.' || bytes[i] == '\\' || bytes[i] == '~')
                bytes[i] = '_';
}

// VmRSS and VmSize of a process in kB, from /proc; -1 when unknown.
std::pair<long, long> memoryOf(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    long rss = -1, size = -1;
    while (std::getline(in, line)) {
        if (line.rfind("VmRSS:", 0) == 0)
            rss = std::atol(line.c_str() + 6);
        else if (line.rfind("VmSize:", 0) == 0)
            size = std::atol(line.c_str() + 7);
    }
    return {rss, size};
}

struct FloodFigures {
    int packets = 0;
    int connections = 0;
    uint64_t bytes = 0;
    int cutByServer = 0; // the server closed before all bytes were out
    int answered = 0;    // connections on which the server wrote something
    std::vector<std::string> notEnded;
    double seconds = 0;
};

// One connection: the packets, then the end of our writing; the server has to end the connection
// within the answer limit.
void hostileConnection(int port, const std::vector<std::string>& packets, FloodFigures& figures) {
    std::string bytes;
    for (const auto& packet : packets)
        bytes += packet;
    figures.packets += static_cast<int>(packets.size());
    figures.bytes += bytes.size();
    ++figures.connections;
    Computing::ClientSocket socket;
    socket.connect("127.0.0.1", port);
    socket.setTimeout(static_cast<unsigned int>(c_answerLimit.count()));
    try {
        socket.sendDataBlock(bytes.data(), bytes.size());
    } catch (const std::exception&) {
        ++figures.cutByServer;
    }
    ::shutdown(static_cast<int>(socket.getSocket()), SHUT_WR);
    std::string answer;
    socket.receiveDataBlock(answer, 1 << 24);
    if (!answer.empty())
        ++figures.answered;
    if (socket.receiveTimedOut())
        figures.notEnded.push_back(HostilePackets::printable(bytes, 400));
}

// One hostile peer's share of the packets, on connections one after the other.
FloodFigures flood(int port, uint64_t seed, int packetCount, HostilePackets& generator) {
    FloodFigures figures;
    std::mt19937_64 shape(seed ^ 0x5eed);
    while (figures.packets < packetCount) {
        // Most connections carry one packet, some several: a reader must also survive what
        // follows a bad packet.
        int count = std::uniform_int_distribution<int>(0, 3)(shape) == 0
                        ? std::uniform_int_distribution<int>(2, 12)(shape)
                        : 1;
        count = std::min(count, packetCount - figures.packets);
        std::vector<std::string> packets;
        for (int i = 0; i < count; ++i)
            packets.push_back(generator.next(i + 1 == count));
        hostileConnection(port, packets, figures);
    }
    return figures;
}

} // namespace

TEST(RequestServerHostilePeerTest, TenThousandHostilePacketsLeaveTheServerAnswering) {
    const uint64_t runSeed = seed();
    std::cout << "Hostile peer seed: " << runSeed << " (KS_HOSTILE_SEED=" << runSeed
              << " repeats this run)" << std::endl;
    // The server keeps what FILE commands bring in its temporary directory: one of our own.
    const auto serverTmp = std::filesystem::temp_directory_path() /
                           ("ks-hostile-server-" + UniqueID::generateId().substr(0, 16));
    ::setenv("KS_PATH_TMP", serverTmp.c_str(), 1);
    auto server = std::make_unique<ServerProcess>(std::vector<std::string>{});
    ASSERT_TRUE(server->start());
    const int port = server->port();
    ::unsetenv("KS_PATH_TMP");
    ASSERT_GT(port, 0);
    const int publisherPort = server->publisherPort();
    PipeDrain errors(server->process().getStandardErrorFd());
    // Replies come back to this process's own server.
    ASSERT_NE(RequestServer::getInstance(-1, 0), nullptr);

    const HostilePackets::Vocabulary vocabulary{{"RQ", "RP", "PR", "C"},
                                                "C",
                                                {"PING", "CLOSE_CONNECTION", "GET_HOST_AND_USER_ID",
                                                 "FILE ", "HDFS ", "ARCH ", "REPLY_ID "},
                                                realPackets(),
                                                defuse};
    std::vector<HostilePackets> generators;
    for (int peer = 0; peer < c_peers; ++peer)
        generators.emplace_back(runSeed + static_cast<uint64_t>(peer), vocabulary);

    std::atomic<bool> flooding{true};
    PingFigures during;
    std::thread pinger([&] {
        while (flooding) {
            during.add(timedPing(port));
            std::this_thread::sleep_for(10ms);
        }
    });
    int roundTrips = 0;
    std::vector<std::string> badRoundTrips;
    std::thread client([&] {
        while (flooding) {
            TcpRequestClient tcp("hostile-peer-test", serverHost(port, publisherPort));
            auto request = nopRequest();
            try {
                auto reply = tcp.handleRequest(request, 10);
                ++roundTrips;
                if (!reply || reply->getType() != "TestReply" || reply->getElement("data") != "OK")
                    badRoundTrips.push_back(reply ? reply->getType() + " '" +
                                                        reply->getElement("data") + "'"
                                                  : std::string("no reply"));
            } catch (const std::exception& e) {
                ++roundTrips;
                badRoundTrips.push_back(std::string("exception: ") + e.what());
            }
        }
    });

    const auto memoryBefore = memoryOf(server->process().getPid());
    const auto begin = Clock::now();
    std::vector<FloodFigures> shares(c_peers);
    std::vector<std::thread> peers;
    for (int peer = 0; peer < c_peers; ++peer)
        peers.emplace_back([&, peer] {
            shares[peer] = flood(port, runSeed + static_cast<uint64_t>(peer), c_packets / c_peers,
                                 generators[peer]);
        });
    for (auto& peer : peers)
        peer.join();
    FloodFigures figures;
    figures.seconds = millisecondsSince(begin) / 1000;
    std::array<uint64_t, HostilePackets::KindCount> kinds{};
    for (int peer = 0; peer < c_peers; ++peer) {
        figures.packets += shares[peer].packets;
        figures.connections += shares[peer].connections;
        figures.bytes += shares[peer].bytes;
        figures.cutByServer += shares[peer].cutByServer;
        figures.answered += shares[peer].answered;
        figures.notEnded.insert(figures.notEnded.end(), shares[peer].notEnded.begin(),
                                shares[peer].notEnded.end());
        for (int kind = 0; kind < HostilePackets::KindCount; ++kind)
            kinds[kind] += generators[peer].counts()[kind];
    }
    const auto memoryAfter = memoryOf(server->process().getPid());
    flooding = false;
    pinger.join();
    client.join();

    PingFigures after;
    for (int i = 0; i < 10; ++i)
        after.add(timedPing(port));
    auto last = TcpRequestClient("hostile-peer-test", serverHost(port, publisherPort))
                    .handleRequest(nopRequest(), 10);

    std::cout << "Flood: " << figures.packets << " packets from " << c_peers << " peers at once, "
              << figures.bytes << " bytes on " << figures.connections << " connections in "
              << figures.seconds << " s; " << figures.answered << " connections got an answer, "
              << figures.cutByServer
              << " were cut by the server while we still sent\n  packets by kind:";
    for (int kind = 0; kind < HostilePackets::KindCount; ++kind)
        std::cout << " " << HostilePackets::name(static_cast<HostilePackets::Kind>(kind)) << " "
                  << kinds[kind] << ";";
    std::cout << "\nPING during the flood: " << during.times.size() << " answered, "
              << during.failed << " without PONG within " << c_answerLimit.count() << " ms, median "
              << during.median() << " ms, max " << during.max() << " ms\n"
              << "PING after the flood: " << after.times.size() << " answered, max " << after.max()
              << " ms\n"
              << "Round trips (NOP) during the flood: " << roundTrips << ", wrong or lost "
              << badRoundTrips.size() << "\n"
              << "Server memory (VmRSS / VmSize): before the flood " << memoryBefore.first << " / "
              << memoryBefore.second << " kB, after " << memoryAfter.first << " / "
              << memoryAfter.second << " kB\n"
              << "Connections ended by the server with an error: "
              << errors.count("handling connection from") << std::endl;

    EXPECT_EQ(figures.packets, c_packets);
    EXPECT_GT(during.times.size(), 0u);
    EXPECT_EQ(during.failed, 0);
    EXPECT_LT(during.max(), static_cast<double>(c_answerLimit.count()));
    EXPECT_EQ(after.failed, 0);
    EXPECT_LT(after.max(), static_cast<double>(c_answerLimit.count()));
    EXPECT_GT(roundTrips, 0);
    for (const auto& bad : badRoundTrips)
        ADD_FAILURE() << "round trip: " << bad;
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(last->getElement("data"), "OK");
    EXPECT_TRUE(figures.notEnded.empty())
        << figures.notEnded.size() << " connections not ended by the server within "
        << c_answerLimit.count() << " ms after our end; the first: " << figures.notEnded.front();
    // Threads and buffers come and go; a block that a peer only claimed must not stay reserved.
    EXPECT_LT(memoryAfter.second - memoryBefore.second, 3L * 1024 * 1024)
        << "address space of the server grew by " << (memoryAfter.second - memoryBefore.second)
        << " kB";
    EXPECT_TRUE(server->process().isRunning()) << errors.tail(4000);

    // A clean stop waits for every connection task: none may hang on what the peer left behind.
    ASSERT_TRUE(server->process().kill(SIGTERM));
    EXPECT_EQ(server->waitForExit(10000ms), 0) << errors.tail(4000);
    errors.stop();
    server.reset();
    std::error_code ignored;
    std::filesystem::remove_all(serverTmp, ignored);
}

// A block command ("C ... ARCH <id> <size>" + the block) whose block no request of the connection
// links is freed when the connection ends: otherwise any peer could grow the server without limit.
TEST(RequestServerHostilePeerTest, BlocksThatNoRequestTakesAreFreedWithTheConnection) {
    ServerProcess server({});
    ASSERT_TRUE(server.start());
    const int port = server.port();
    ASSERT_GT(port, 0);
    PipeDrain errors(server.process().getStandardErrorFd());
    const auto before = memoryOf(server.process().getPid());
    const std::string block(1 << 20, 'x');
    for (int i = 0; i < 64; ++i) {
        FloodFigures figures;
        const std::string kind = i % 2 ? "HDFS " : "ARCH ";
        hostileConnection(port,
                          {HostilePackets::frame("C", kind + UniqueID::generateId() + " " +
                                                          std::to_string(block.size())) +
                           block},
                          figures);
        EXPECT_TRUE(figures.notEnded.empty());
    }
    EXPECT_GE(timedPing(port), 0);
    const auto after = memoryOf(server.process().getPid());
    std::cout << "Server memory (VmRSS): before " << before.first << " kB, after 64 blocks of 1 MB "
              << after.first << " kB" << std::endl;
#if !defined(__SANITIZE_ADDRESS__)
    // AddressSanitizer keeps freed memory in quarantine; there the leak check at the server's
    // exit (its exit status) is the judge.
    EXPECT_LT(after.first - before.first, 16L * 1024)
        << "resident memory grew by " << (after.first - before.first) << " kB";
#endif
    ASSERT_TRUE(server.process().kill(SIGTERM));
    EXPECT_EQ(server.waitForExit(10000ms), 0);
}
