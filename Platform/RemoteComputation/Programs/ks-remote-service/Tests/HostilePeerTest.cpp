// A hostile peer floods a running ks-remote-service with 10,000 broken, mutated and (with the
// key) signed-but-mangled packets over loopback, while a good client keeps asking for the cores:
// the service has to answer PING quickly all along, answer every CORES query right, and still be
// there at the end.
#include "ServiceFixture.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/CoresStatus.h"
#include "Platform/RemoteComputation/TestSupport/HostilePackets.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <sys/socket.h>
#include <thread>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr uint64_t c_defaultSeed = 20261124;
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

struct Times {
    std::vector<double> times;
    std::vector<std::string> failures;
    double max() const { return times.empty() ? 0 : *std::max_element(times.begin(), times.end()); }
    double median() {
        if (times.empty())
            return 0;
        std::sort(times.begin(), times.end());
        return times[times.size() / 2];
    }
};

struct FloodFigures {
    int packets = 0;
    int signedCommands = 0;
    int connections = 0;
    uint64_t bytes = 0;
    int cutByService = 0;
    int errorAnswers = 0;
    int okAnswers = 0;
    std::vector<std::string> notEnded;
    double seconds = 0;
};

} // namespace

class RemoteServiceHostilePeerTest : public ServiceFixture {
protected:
    void SetUp() override {
        ServiceFixture::SetUp();
        startService();
    }

    // PING in a conversation of our own, so that the wait for each packet is bounded;
    // milliseconds, or -1 with `error`.
    double timedPing(const RemoteServiceKey& key, std::string& error) {
        const auto begin = Clock::now();
        try {
            Computing::ClientSocket socket;
            socket.connect(host(), port());
            socket.setTimeout(static_cast<unsigned int>(c_answerLimit.count()));
            Protocol::Frame nonce;
            if (Protocol::readFrame(socket, nonce, error) != Protocol::ReadResult::Ok)
                return -1;
            Protocol::writeFrame(socket, Protocol::c_command, Protocol::c_ping);
            Protocol::writeFrame(socket, Protocol::c_auth,
                                 key.sign(nonce.payload, Protocol::c_ping));
            Protocol::Frame answer;
            if (Protocol::readFrame(socket, answer, error) != Protocol::ReadResult::Ok)
                return -1;
            if (answer.type != Protocol::c_ok || answer.payload != Protocol::c_pong) {
                error = "answer '" + answer.type + " " + answer.payload + "'";
                return -1;
            }
            return millisecondsSince(begin);
        } catch (const std::exception& e) {
            error = e.what();
            return -1;
        }
    }

    // One hostile connection: the bytes, the end of our writing, then whatever the service says
    // until it closes, which it must do within the answer limit.
    void hostileConnection(const std::string& bytes, int packets, FloodFigures& figures,
                           const std::function<std::string(const std::string&)>& signedBytes) {
        ++figures.connections;
        figures.packets += packets;
        Computing::ClientSocket socket;
        socket.connect(host(), port());
        socket.setTimeout(static_cast<unsigned int>(c_answerLimit.count()));
        std::string sent = bytes;
        if (signedBytes) {
            Protocol::Frame nonce;
            std::string error;
            if (Protocol::readFrame(socket, nonce, error) != Protocol::ReadResult::Ok) {
                figures.notEnded.push_back("no nonce: " + error);
                return;
            }
            sent = signedBytes(nonce.payload);
        }
        figures.bytes += sent.size();
        try {
            socket.sendDataBlock(sent.data(), sent.size());
        } catch (const std::exception&) {
            ++figures.cutByService;
        }
        ::shutdown(static_cast<int>(socket.getSocket()), SHUT_WR);
        std::string answer;
        socket.receiveDataBlock(answer, 1 << 20);
        if (answer.find("ERROR ") != std::string::npos)
            ++figures.errorAnswers;
        if (answer.find("OK ") != std::string::npos)
            ++figures.okAnswers;
        if (socket.receiveTimedOut())
            figures.notEnded.push_back(HostilePackets::printable(sent, 400));
    }

    // One hostile peer's share of the packets, on connections one after the other.
    void flood(HostilePackets& generator, int packetCount, const RemoteServiceKey& key,
               const std::string& start, FloodFigures& figures) {
        while (figures.packets < packetCount) {
            if (generator.chance(0.25)) {
                // With the key: a mangled command that passes the signature reaches the command
                // parser itself.
                std::string command = generator.mutate(
                    generator.chance(0.5) ? start : std::string(Protocol::c_cores));
                hostileConnection({}, 2, figures, [&](const std::string& nonce) {
                    return HostilePackets::frame(Protocol::c_command, command) +
                           HostilePackets::frame(Protocol::c_auth, key.sign(nonce, command));
                });
                ++figures.signedCommands;
                continue;
            }
            int count = generator.chance(0.25) ? 2 + static_cast<int>(generator.below(4)) : 1;
            count = std::min(count, packetCount - figures.packets);
            std::string bytes;
            for (int i = 0; i < count; ++i)
                bytes += generator.next(i + 1 == count);
            hostileConnection(bytes, count, figures, nullptr);
        }
    }
};

TEST_F(RemoteServiceHostilePeerTest, TenThousandHostilePacketsLeaveTheServiceAnswering) {
    const uint64_t runSeed = seed();
    std::cout << "Hostile peer seed: " << runSeed << " (KS_HOSTILE_SEED=" << runSeed
              << " repeats this run)" << std::endl;
    RemoteServiceKey key;
    std::string message;
    ASSERT_TRUE(key.load(m_service->keyFile(), message)) << message;

    // A program outside the allowed directory: a START that gets through the signature is
    // still refused, and the flood can't start anything.
    const std::string start =
        Protocol::c_start +
        Protocol::encodeArguments({"/nonexistent/ks-hostile/program", "--flag", "value"});
    const std::string hex64(64, 'a');
    const std::string allowed = m_allowDirectory;
    const HostilePackets::Vocabulary vocabulary{
        {Protocol::c_command, Protocol::c_auth, Protocol::c_nonce, Protocol::c_ok,
         Protocol::c_error},
        Protocol::c_command,
        {Protocol::c_ping, Protocol::c_cores, start, Protocol::c_start},
        {HostilePackets::frame(Protocol::c_command, Protocol::c_ping),
         HostilePackets::frame(Protocol::c_command, Protocol::c_cores),
         HostilePackets::frame(Protocol::c_command, start),
         HostilePackets::frame(Protocol::c_auth, hex64),
         HostilePackets::frame(Protocol::c_command, Protocol::c_ping) +
             HostilePackets::frame(Protocol::c_auth, hex64)},
        [allowed](std::string& bytes) {
            for (size_t at = bytes.find(allowed); at != std::string::npos;
                 at = bytes.find(allowed, at + 1))
                bytes[at] = '#';
        }};
    std::vector<HostilePackets> generators;
    for (int peer = 0; peer < c_peers; ++peer)
        generators.emplace_back(runSeed + static_cast<uint64_t>(peer), vocabulary);

    unsigned int cores = 0, freeCores = 0;
    ASSERT_TRUE(Computing::CoresStatus(host(), port()).get(cores, freeCores, message)) << message;
    ASSERT_GT(cores, 0u);

    std::atomic<bool> flooding{true};
    Times during;
    std::thread pinger([&] {
        while (flooding) {
            std::string error;
            double ms = timedPing(key, error);
            if (ms < 0)
                during.failures.push_back(error);
            else
                during.times.push_back(ms);
            std::this_thread::sleep_for(10ms);
        }
    });
    int queries = 0;
    std::vector<std::string> badQueries;
    std::thread client([&] {
        while (flooding) {
            unsigned int seen = 0, seenFree = 0;
            std::string error;
            ++queries;
            if (!Computing::CoresStatus(host(), port()).get(seen, seenFree, error))
                badQueries.push_back(error);
            else if (seen != cores || seenFree > seen)
                badQueries.push_back("cores " + std::to_string(seen) + ", free " +
                                     std::to_string(seenFree) + "; expected " +
                                     std::to_string(cores) + " cores");
        }
    });

    const auto begin = Clock::now();
    std::vector<FloodFigures> shares(c_peers);
    std::vector<std::thread> peers;
    for (int peer = 0; peer < c_peers; ++peer)
        peers.emplace_back(
            [&, peer] { flood(generators[peer], c_packets / c_peers, key, start, shares[peer]); });
    for (auto& peer : peers)
        peer.join();
    FloodFigures figures;
    std::array<uint64_t, HostilePackets::KindCount> kinds{};
    for (int peer = 0; peer < c_peers; ++peer) {
        const FloodFigures& share = shares[peer];
        figures.packets += share.packets;
        figures.signedCommands += share.signedCommands;
        figures.connections += share.connections;
        figures.bytes += share.bytes;
        figures.cutByService += share.cutByService;
        figures.errorAnswers += share.errorAnswers;
        figures.okAnswers += share.okAnswers;
        figures.notEnded.insert(figures.notEnded.end(), share.notEnded.begin(),
                                share.notEnded.end());
        for (int kind = 0; kind < HostilePackets::KindCount; ++kind)
            kinds[kind] += generators[peer].counts()[kind];
    }
    figures.seconds = millisecondsSince(begin) / 1000;
    flooding = false;
    pinger.join();
    client.join();

    Times after;
    for (int i = 0; i < 10; ++i) {
        std::string error;
        double ms = timedPing(key, error);
        if (ms < 0)
            after.failures.push_back(error);
        else
            after.times.push_back(ms);
    }

    std::cout << "Flood: " << figures.packets << " packets from " << c_peers << " peers at once ("
              << figures.signedCommands << " connections with a signed mangled command), "
              << figures.bytes << " bytes on " << figures.connections << " connections in "
              << figures.seconds << " s; " << figures.errorAnswers << " ERROR and "
              << figures.okAnswers << " OK answers, " << figures.cutByService
              << " connections cut by the service while we still sent\n"
              << "  packets by kind (unsigned):";
    for (int kind = 0; kind < HostilePackets::KindCount; ++kind)
        std::cout << " " << HostilePackets::name(static_cast<HostilePackets::Kind>(kind)) << " "
                  << kinds[kind] << ";";
    std::cout << "\nPING during the flood: " << during.times.size() << " answered, "
              << during.failures.size() << " without PONG within " << c_answerLimit.count()
              << " ms, median " << during.median() << " ms, max " << during.max() << " ms\n"
              << "PING after the flood: " << after.times.size() << " answered, max " << after.max()
              << " ms\n"
              << "CORES queries during the flood: " << queries << ", wrong or lost "
              << badQueries.size() << std::endl;

    EXPECT_GE(figures.packets, c_packets);
    EXPECT_GT(during.times.size(), 0u);
    for (const auto& failure : during.failures)
        ADD_FAILURE() << "PING during the flood: " << failure;
    EXPECT_LT(during.max(), static_cast<double>(c_answerLimit.count()));
    for (const auto& failure : after.failures)
        ADD_FAILURE() << "PING after the flood: " << failure;
    EXPECT_LT(after.max(), static_cast<double>(c_answerLimit.count()));
    EXPECT_GT(queries, 0);
    for (const auto& bad : badQueries)
        ADD_FAILURE() << "CORES: " << bad;
    EXPECT_TRUE(figures.notEnded.empty())
        << figures.notEnded.size() << " connections not ended by the service within "
        << c_answerLimit.count() << " ms after our end; the first: " << figures.notEnded.front();
    expectStillAnswers();
    // Nothing of the flood was started.
    EXPECT_EQ(m_service->standardError().find("Started process "), std::string::npos);

    ASSERT_TRUE(m_service->process().kill(SIGTERM));
    EXPECT_EQ(m_service->waitForExit(10000ms), 0);
}
