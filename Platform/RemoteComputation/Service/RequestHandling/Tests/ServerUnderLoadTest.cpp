// A real ks-request-server child under a crowd of peers that connect and say nothing, drip a
// packet byte by byte, fill its request pool with long work or exceed its limits: a newcomer is
// served at once all the same.
#include "HandlerTestSupport.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/TestSupport/ServerProcess.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

using namespace Kestrane;
using namespace std::chrono_literals;
using Kestrane::Testing::testRequest;
using Clock = std::chrono::steady_clock;

namespace {

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// CPU seconds (user and system) that a process has used so far.
double cpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The fields after the command name, which is in parentheses and may hold blanks.
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14)
            utime = std::stoull(field);
        if (i == 15)
            stime = std::stoull(field);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// Whether the server closed the connection within `limit`.
bool closedByPeer(Computing::ClientSocket& client, std::chrono::milliseconds limit) {
    pollfd waiting{static_cast<int>(client.getSocket()), POLLIN, 0};
    if (::poll(&waiting, 1, static_cast<int>(limit.count())) != 1)
        return false;
    char byte;
    return ::recv(static_cast<int>(client.getSocket()), &byte, 1, MSG_DONTWAIT) == 0;
}

size_t countLines(const std::string& text, const std::string& line) {
    size_t count = 0;
    for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1))
        ++count;
    return count;
}

class ServerUnderLoadTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(RequestServer::getInstance(-1, 0), nullptr); }

    void startServer(const std::vector<std::pair<std::string, std::string>>& environment,
                     const std::string& logLevel = "INFO") {
        m_log = std::filesystem::temp_directory_path() /
                ("ks-load-" + UniqueID::generateId().substr(0, 16) + ".log");
        for (const auto& [name, value] : environment)
            ::setenv(name.c_str(), value.c_str(), 1);
        m_server = std::make_unique<Testing::ServerProcess>(
            std::vector<std::string>{"-logLevel", logLevel, "-logFile", m_log.string()});
        ASSERT_TRUE(m_server->start());
        for (const auto& [name, value] : environment)
            ::unsetenv(name.c_str());
        m_port = m_server->port();
        ASSERT_GT(m_port, 0);
        ASSERT_GT(m_server->publisherPort(), 0);
        // Its log lines go to standard error as well: a full pipe would stop the server.
        m_draining = std::thread([this] {
            while (!m_stopDraining)
                m_server->standardError(100ms);
        });
    }
    void TearDown() override {
        m_stopDraining = true;
        if (m_draining.joinable())
            m_draining.join();
        m_server.reset();
        std::error_code ignored;
        if (!m_log.empty())
            std::filesystem::remove(m_log, ignored);
    }

    std::unique_ptr<TcpRequestClient> client() {
        HostInfo host("127.0.0.1", "localhost");
        host.setRequestServerPort(m_port);
        host.setPublisherPort(m_server->publisherPort());
        return std::make_unique<TcpRequestClient>("newcomer", host);
    }
    std::unique_ptr<Computing::ClientSocket> connect() {
        auto socket = std::make_unique<Computing::ClientSocket>();
        socket->connect("127.0.0.1", m_port);
        return socket;
    }
    std::string log() const {
        std::ifstream in(m_log);
        return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }
    pid_t pid() { return m_server->process().getPid(); }

    // A newcomer's ping, status query and NOP request, each timed.
    void expectNewcomerServedWithin(double limit) {
        auto start = Clock::now();
        EXPECT_TRUE(RequestServer::ping("127.0.0.1", static_cast<unsigned int>(m_port)));
        const double ping = secondsSince(start);
        auto tcp = client();
        start = Clock::now();
        auto status = tcp->sendGetStatusRequest();
        const double statusTime = secondsSince(start);
        ASSERT_NE(status, nullptr);
        EXPECT_EQ(status->getType(), "GetStatusReply");
        start = Clock::now();
        auto nop = tcp->handleRequest(testRequest("NOP"), nullptr, "");
        const double nopTime = secondsSince(start);
        ASSERT_NE(nop, nullptr);
        EXPECT_EQ(nop->getElement("data"), "OK");
        std::printf("newcomer: PING %.3f s, GetStatus %.3f s, NOP %.3f s\n", ping, statusTime,
                    nopTime);
        EXPECT_LT(ping, limit);
        EXPECT_LT(statusTime, limit);
        EXPECT_LT(nopTime, limit);
    }

    std::unique_ptr<Testing::ServerProcess> m_server;
    std::thread m_draining;
    std::atomic<bool> m_stopDraining{false};
    std::filesystem::path m_log;
    int m_port = 0;
};

} // namespace

TEST_F(ServerUnderLoadTest, SilentAndDrippingConnectionsStarveNobody) {
    startServer({{"KS_CONNECTION_IDLE_TIMEOUT", "4"}});
    std::vector<std::unique_ptr<Computing::ClientSocket>> silent;
    for (int i = 0; i < 1000; ++i)
        silent.push_back(connect());
    // 64 peers that send a ping one byte a second: never idle, never done for 8 s.
    const std::string ping = "C 4 PING";
    std::vector<std::unique_ptr<Computing::ClientSocket>> dripping;
    for (int i = 0; i < 64; ++i)
        dripping.push_back(connect());
    size_t dripped = 0;
    auto drip = [&] {
        for (auto& peer : dripping)
            peer->sendDataBlock(&ping[dripped], 1);
        ++dripped;
    };
    drip();
    std::this_thread::sleep_for(300ms);

    const double cpuBefore = cpuSeconds(pid());
    const auto quietStart = Clock::now();
    expectNewcomerServedWithin(1.0);
    drip();
    std::this_thread::sleep_for(1s);
    drip();
    const double cpu = cpuSeconds(pid()) - cpuBefore;
    const double wall = secondsSince(quietStart);
    std::printf("server CPU while 1000 silent and 64 dripping peers wait: %.3f s in %.2f s\n", cpu,
                wall);
    EXPECT_LT(cpu / wall, 0.25);

    // The silent ones go after the idle timeout, each with one warning; the dripping ones stay
    // and get their answer.
    while (dripped < ping.size()) {
        std::this_thread::sleep_for(1s);
        drip();
    }
    for (auto& peer : dripping) {
        std::string answer;
        peer->setTimeout(2000);
        ASSERT_TRUE(peer->receiveDataBlock(answer, 8));
        EXPECT_EQ(answer, "C 4 PONG");
    }
    size_t closed = 0;
    for (auto& peer : silent)
        closed += closedByPeer(*peer, 100ms);
    EXPECT_EQ(closed, silent.size());
    EXPECT_EQ(countLines(log(), "Closing idle connection from 127.0.0.1: nothing received for 4 s"),
              1000u);
    expectNewcomerServedWithin(1.0);
}

TEST_F(ServerUnderLoadTest, ConnectionSilentInsideAPacketIsClosedAfterTheIdleTimeout) {
    startServer({{"KS_CONNECTION_IDLE_TIMEOUT", "1"}});
    auto peer = connect();
    peer->sendDataBlock("C 4 PI", 6);
    const auto start = Clock::now();
    EXPECT_TRUE(closedByPeer(*peer, 3000ms));
    const double took = secondsSince(start);
    EXPECT_GE(took, 0.9);
    EXPECT_LT(took, 2.5);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(countLines(log(), "Closing idle connection from 127.0.0.1: nothing received for 1 s"),
              1u);
    expectNewcomerServedWithin(1.0);
}

TEST_F(ServerUnderLoadTest, ControlRequestsGetThroughWhenLongWorkFillsThePool) {
    // At debug level the server logs when a request starts its long wait.
    startServer({{"KS_MAX_REQUEST_HANDLER_POOL_SIZE", "4"}}, "DEBUG");
    std::vector<RequestEncoder> longWork;
    for (int i = 0; i < 4; ++i)
        longWork.push_back(testRequest("WAIT_PROGRESS", "20000"));
    std::vector<std::shared_ptr<Reply>> replies(longWork.size());
    std::vector<std::thread> waiters;
    for (size_t i = 0; i < longWork.size(); ++i)
        waiters.emplace_back(
            [&, i] { replies[i] = client()->handleRequest(longWork[i], nullptr, ""); });
    // All four running: their heartbeat lines are in the log.
    const auto deadline = Clock::now() + 5s;
    while (countLines(log(), "WAIT_PROGRESS 20000 ms") < 4 && Clock::now() < deadline)
        std::this_thread::sleep_for(50ms);

    auto tcp = client();
    auto start = Clock::now();
    EXPECT_TRUE(RequestServer::ping("127.0.0.1", static_cast<unsigned int>(m_port)));
    const double ping = secondsSince(start);
    start = Clock::now();
    auto status = tcp->sendGetStatusRequest();
    const double statusTime = secondsSince(start);
    ASSERT_NE(status, nullptr);
    EXPECT_EQ(status->getType(), "GetStatusReply");
    start = Clock::now();
    tcp->abortRequest(longWork[0].getId());
    waiters[0].join();
    const double abortTime = secondsSince(start);
    ASSERT_NE(replies[0], nullptr);
    EXPECT_EQ(replies[0]->getElement("data"), "ABORTED");
    std::printf("pool full: PING %.3f s, GetStatus %.3f s, abort to reply %.3f s\n", ping,
                statusTime, abortTime);
    EXPECT_LT(ping, 1.0);
    EXPECT_LT(statusTime, 1.0);
    EXPECT_LT(abortTime, 1.0);
    for (size_t i = 1; i < longWork.size(); ++i)
        tcp->abortRequest(longWork[i].getId());
    for (size_t i = 1; i < waiters.size(); ++i)
        waiters[i].join();
}

TEST_F(ServerUnderLoadTest, ConnectionsBeyondTheLimitAreClosedAtOnce) {
    startServer({{"KS_MAX_CONNECTIONS", "20"}});
    std::vector<std::unique_ptr<Computing::ClientSocket>> held;
    for (int i = 0; i < 20; ++i)
        held.push_back(connect());
    std::this_thread::sleep_for(300ms);
    std::vector<std::unique_ptr<Computing::ClientSocket>> extra;
    for (int i = 0; i < 10; ++i)
        extra.push_back(connect());
    for (auto& peer : extra)
        EXPECT_TRUE(closedByPeer(*peer, 1000ms));
    EXPECT_EQ(countLines(log(), "closed: 20 connections are open (maxConnections)"), 1u);
    held.clear();
    std::this_thread::sleep_for(200ms);
    expectNewcomerServedWithin(1.0);
}

TEST_F(ServerUnderLoadTest, AcceptBacksOffWhenDescriptorsRunOutAndServesAfterwards) {
    startServer({});
    // Few descriptors above what the server holds already: a flood runs it out.
    size_t used = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid()) + "/fd"))
        used += entry.is_symlink() ? 1 : 0;
    rlimit normal{};
    ASSERT_EQ(::prlimit(pid(), RLIMIT_NOFILE, nullptr, &normal), 0);
    rlimit low{used + 8, normal.rlim_max};
    ASSERT_EQ(::prlimit(pid(), RLIMIT_NOFILE, &low, nullptr), 0);
    std::vector<std::unique_ptr<Computing::ClientSocket>> flood;
    for (int i = 0; i < 40; ++i)
        flood.push_back(connect());
    const double cpuBefore = cpuSeconds(pid());
    const auto start = Clock::now();
    std::this_thread::sleep_for(2s);
    const double cpu = cpuSeconds(pid()) - cpuBefore;
    std::printf("server CPU while accept fails for lack of descriptors: %.3f s in %.2f s\n", cpu,
                secondsSince(start));
    EXPECT_LT(cpu, 0.3);
    const std::string text = log();
    const size_t warnings = countLines(text, "accept failed (Too many open files)");
    EXPECT_GE(warnings, 1u);
    EXPECT_LE(warnings, 3u);
    flood.clear();
    ASSERT_EQ(::prlimit(pid(), RLIMIT_NOFILE, &normal, nullptr), 0);
    // The pause of the accept loop ends within a second.
    std::this_thread::sleep_for(1200ms);
    expectNewcomerServedWithin(1.0);
}
