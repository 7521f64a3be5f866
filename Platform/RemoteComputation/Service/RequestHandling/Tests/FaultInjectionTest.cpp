// Faults injected into real processes: a server killed in the middle of a reply, a client killed
// while its reply is on its way, a disk that fills up under a file being received, a publisher
// without a free port, and request handlers that throw, never return or end their process.
#include "HandlerTestSupport.h"
#include "ServerTestPeers.h"

#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandlingException.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/TestSupport/ServerProcess.h"

#include <boost/core/demangle.hpp>
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <thread>

using namespace Kestrane;
using namespace KestraneTest;
using Kestrane::Testing::testRequest;
using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

using Environment = std::vector<std::pair<std::string, std::string>>;

// Seconds after which a wait that should have ended long before is given up, so that a failing
// test still ends.
constexpr unsigned int c_bound = 10;

std::string dataOf(const std::shared_ptr<Reply>& reply) {
    return reply ? reply->getElement("data") : "<no reply>";
}

std::string unreachableText(const std::shared_ptr<Reply>& reply) {
    auto unreachable = std::dynamic_pointer_cast<RequestServerUnreachableReply>(reply);
    return unreachable ? unreachable->getErrorMessage()
                       : "<not unreachable: " + (reply ? reply->getType() : "null") + ">";
}

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.rfind(prefix, 0) == 0;
}

size_t occurrences(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit,
               std::chrono::milliseconds step = 20ms) {
    const auto deadline = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(step);
    }
    return true;
}

std::string uniqueName(const std::string& prefix) {
    return prefix + "-" + UniqueID::generateId().substr(0, 16);
}

// Settings of this process that a test changes; they are put back afterwards, since the same
// process may run further tests.
class SettingsGuard {
public:
    ~SettingsGuard() {
        auto config = RequestServerConfiguration::getRegisteredInstance();
        for (auto it = m_saved.rbegin(); it != m_saved.rend(); ++it)
            config->setValue(it->first, it->second);
    }
    void set(const std::string& name, const std::string& value) {
        auto config = RequestServerConfiguration::getRegisteredInstance();
        m_saved.emplace_back(name, config->getValueText(name));
        config->setValue(name, value);
    }

private:
    std::vector<std::pair<std::string, std::string>> m_saved;
};

// Environment variables for the children started while it lives; the earlier values come back.
class EnvironmentGuard {
public:
    explicit EnvironmentGuard(const Environment& environment) {
        for (const auto& [name, value] : environment) {
            const char* old = std::getenv(name.c_str());
            m_saved.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
            ::setenv(name.c_str(), value.c_str(), 1);
        }
    }
    ~EnvironmentGuard() {
        for (auto it = m_saved.rbegin(); it != m_saved.rend(); ++it) {
            if (it->second)
                ::setenv(it->first.c_str(), it->second->c_str(), 1);
            else
                ::unsetenv(it->first.c_str());
        }
    }

private:
    std::vector<std::pair<std::string, std::optional<std::string>>> m_saved;
};

// A ks-request-server child. Its standard error, which carries its log, goes to a file and not
// to a pipe: a debug log must not fill a pipe and stop the server while a test looks elsewhere.
class ServerChild {
public:
    // With a `hostName` the server runs in a host-name namespace of its own, under that name:
    // for its peers it is a process of another host, to which files travel.
    explicit ServerChild(std::vector<std::string> args, const std::string& hostName = "")
        : m_log(fs::temp_directory_path() / (uniqueName("ks-fault-server") + ".log")),
          m_process(hostName.empty() ? std::string(KS_BINARY_DIR "/bin/ks-request-server")
                                     : std::string("/usr/bin/unshare"),
                    hostName.empty() ? args : wrapped(args, hostName)) {
        m_process.captureStandardOutput();
        m_process.setOutputFile(m_log.string());
    }
    ~ServerChild() {
        if (m_process.isRunning()) {
            m_process.kill(SIGKILL);
            m_process.wait();
        }
        std::error_code ignored;
        fs::remove(m_log, ignored);
    }

    // Starts it and reads the ports that it announces. Heartbeats come every 100 ms.
    bool start(Environment environment = {}) {
        environment.emplace_back("KS_ALIVE_PUBLISH_INTERVAL", "100");
        {
            EnvironmentGuard guard(environment);
            if (!m_process.start(Computing::Detached))
                return false;
        }
        const std::string out = Testing::readPipe(
            m_process.getStandardOutputFd(), 10000ms, [](const std::string& text) {
                return std::count(text.begin(), text.end(), '\n') >= 2;
            });
        std::sscanf(out.c_str(), "PORT %d\nPUBLISHER %d", &m_port, &m_publisherPort);
        return m_port > 0;
    }
    int port() const { return m_port; }
    int publisherPort() const { return m_publisherPort; }
    HostInfo host() const {
        HostInfo host("127.0.0.1", "localhost");
        host.setRequestServerPort(m_port);
        host.setPublisherPort(m_publisherPort);
        return host;
    }
    std::string log() const {
        std::ifstream in(m_log);
        return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }
    bool waitForLog(const std::string& text, std::chrono::milliseconds limit) const {
        return waitUntil([&] { return log().find(text) != std::string::npos; }, limit);
    }
    // Exit code, or -2 when it still runs after `limit`.
    int waitForExit(std::chrono::milliseconds limit) {
        int code = -2;
        return m_process.waitFor(static_cast<unsigned int>(limit.count()), code) ? code : -2;
    }
    Computing::Process& process() { return m_process; }

private:
    static std::vector<std::string> wrapped(const std::vector<std::string>& args,
                                            const std::string& hostName) {
        std::vector<std::string> result{"--uts", "/bin/sh", "-c",
                                        "hostname " + hostName + " && exec \"$0\" \"$@\"",
                                        KS_BINARY_DIR "/bin/ks-request-server"};
        result.insert(result.end(), args.begin(), args.end());
        return result;
    }

    fs::path m_log;
    Computing::Process m_process;
    int m_port = -1;
    int m_publisherPort = -1;
};

// Sends the request as a client would whose request server listens on `replyPort` of this host,
// and returns at once: the reply goes there, not to this process.
void sendWithReplyTo(int serverPort, const RequestEncoder& request, int replyPort) {
    RawClient client(serverPort);
    client.raw(wirePacket("RQ", requestPackage(request.getEncodedRequest(), replyPort)));
    client.command("CLOSE_CONNECTION");
}

class FaultInjectionTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(RequestServer::getInstance(-1, 0), nullptr); }

    std::unique_ptr<ServerChild> startServer(Environment environment = {},
                                             std::vector<std::string> args = {}) {
        auto server = std::make_unique<ServerChild>(std::move(args));
        EXPECT_TRUE(server->start(std::move(environment))) << server->log();
        return server;
    }
    static std::unique_ptr<TcpRequestClient> clientOf(const ServerChild& server) {
        return std::make_unique<TcpRequestClient>("fault", server.host());
    }
    static std::shared_ptr<Reply> run(const ServerChild& server, const RequestEncoder& request) {
        return clientOf(server)->handleRequest(request, nullptr, "");
    }
    // Short ages, so that a dead server is given up within seconds.
    void shortAges() {
        m_settings.set("maxAliveAge", "1");
        m_settings.set("rPingIntervalSec", "1");
        m_settings.set("localRPingIntervalSec", "1");
    }

    SettingsGuard m_settings;
};

// ---- a server killed in the middle of a reply ---------------------------------------------

// The server's reply connection passes through this process: the "REPLY_ID " packet goes on to
// this process's own request server, then the server is killed before anything else is passed
// on. So the client sees what a server that dies between the id and the reply leaves behind,
// however fast the server itself would have been.
TEST_F(FaultInjectionTest, ServerKilledBetweenReplyIdAndReplyIsGivenUpWithinTheAges) {
    shortAges();
    auto server = startServer();
    ASSERT_GT(server->publisherPort(), 0);
    LogCapture capture;
    ReplyCatcher relay;
    Clock::time_point killedAt;
    int exitCode = 0;
    auto relayed = std::async(std::launch::async, [&]() -> std::string {
        std::string passed = "<no reply connection>";
        Computing::ClientSocket downstream;
        try {
            if (auto upstream = relay.accept(10s)) {
                auto first = SocketPacket::receive(*upstream, "relay");
                passed = first->getType() + " " + *first->getData();
                downstream.connect("127.0.0.1", RequestServer::getInstance(-1, 0)->getPort());
                SocketPacket::send(first->getType(), *first->getData(), downstream, "relay");
            }
        } catch (const std::exception& e) {
            passed = std::string("<relay failed: ") + e.what() + ">";
        }
        // Killed in any case, so that the client's wait ends also when the test fails.
        server->process().kill(SIGKILL);
        killedAt = Clock::now();
        exitCode = server->waitForExit(5s);
        // Leaving closes the connection to this process, as the server's death does.
        return passed;
    });

    RequestEncoder nop = testRequest("NOP");
    sendWithReplyTo(server->port(), nop, relay.port());
    auto tcp = clientOf(*server);
    auto package = RequestServer::getInstance(-1, 0)->getReplyHandler().receiveReply(
        nop.getId(), tcp.get(), nullptr, nullptr, server->publisherPort(), false, c_bound,
        FileName());
    const auto verdictAt = Clock::now();

    EXPECT_EQ(relayed.get(), "C REPLY_ID " + nop.getId());
    EXPECT_EQ(exitCode, 128 + SIGKILL);
    ASSERT_NE(package, nullptr);
    const std::string text = unreachableText(package->getReply());
    EXPECT_TRUE(startsWith(text, "Remote process not alive anymore? age = ")) << text;
    // An age above 1 s is seen at the next check, one interval later.
    EXPECT_LT(verdictAt - killedAt, 4500ms);
    // This process's server did read the id of the reply that never came.
    auto lines = capture.messages();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
        return startsWith(line, "RECV ") && line.find("C REPLY_ID " + nop.getId()) != line.npos;
    }));
    EXPECT_EQ(RequestServer::getInstance(-1, 0)->getReplyHandler().getPendingRepliesCount(), 0);
}

// ---- a client killed while its reply is on its way ----------------------------------------

// A reply goes to the address that the request registered; a reconnect while the request still
// runs moves it to the new client.
TEST_F(FaultInjectionTest, ClientKilledWhileItsRequestRunsLeavesTheReplyToTheOneThatReconnects) {
    // The reconnect waits without a limit; a heartbeat that stays the same ends it all the same.
    m_settings.set("maxChangeAge", "5");
    auto server = startServer({{"KS_SEND_REPLY_MAX_RETRY", "0"}});
    // Stands for the client's process: its request server is where the reply is to go.
    ServerChild doomed({});
    ASSERT_TRUE(doomed.start());
    RequestEncoder wait = testRequest("WAIT", "1500");
    sendWithReplyTo(server->port(), wait, doomed.port());
    std::this_thread::sleep_for(200ms);
    ASSERT_TRUE(doomed.process().kill(SIGKILL));
    ASSERT_EQ(doomed.waitForExit(5s), 128 + SIGKILL);

    auto reply =
        clientOf(*server)->reconnectRequest(wait.getId(), nullptr, nullptr, nullptr, 0, FileName());
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "TestReply");
    EXPECT_EQ(reply->getRequestId(), wait.getId());
    EXPECT_EQ(reply->getElement("data"), "OK");
    const std::string log = server->log();
    EXPECT_NE(log.find("Setting new remote host for request " + wait.getId() + " to "),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find("Caching reply..."), std::string::npos);
}

// The reply carries a file for a client of another host; the client dies while the file
// travels. The failed transfer is retried, finds nobody, and what was not delivered, the file
// and the reply, waits in the cache. The reconnect of a new client after the request has ended
// finds no registered request for it, so the packets go back into the cache.
TEST_F(FaultInjectionTest, ClientKilledDuringTheFileOfItsReplyLeavesTheReplyCached) {
    {
        Computing::Process probe("/usr/bin/unshare", {"--uts", "/bin/true"});
        int code = -1;
        if (!probe.start(Computing::Detached) || !probe.waitFor(5000, code) || code != 0)
            GTEST_SKIP() << "no host-name namespace for a client of another host";
    }
    // The retry waits a second: one at once could still reach the dying client's listening
    // socket, and a connection that dies in the identity question ends the delivery uncached.
    auto server = startServer({{"KS_SEND_REPLY_MAX_RETRY", "1"},
                               {"KS_SEND_REPLY_RETRY_DELAY", "1"},
                               {"KS_LOG_LEVEL", "DEBUG"}});
    const fs::path work = fs::temp_directory_path() / uniqueName("ks-fault-file");
    const fs::path clientTmp = work / "client-tmp";
    fs::create_directories(clientTmp);
    struct Cleanup {
        fs::path path;
        ~Cleanup() {
            std::error_code ignored;
            fs::remove_all(path, ignored);
        }
    } cleanup{work};
    // Large enough that the transfer is far from done when the client dies; sparse, so that it
    // costs no disk here.
    const fs::path big = work / "big.bin";
    constexpr uint64_t c_size = 8ull << 30;
    {
        std::ofstream(big, std::ios::binary).close();
        fs::resize_file(big, c_size);
    }
    // The server reads the file of this process where it is, and remembers it.
    RequestEncoder put = testRequest("PUT_FILE", std::to_string(c_size));
    put.addFilePath("file", FileName(big.string()), false, "  ");
    ASSERT_EQ(dataOf(run(*server, put)), "OK");

    // Stands for the client's process, on a host of its own as far as files go.
    ServerChild doomed({}, "fault-client");
    ASSERT_TRUE(doomed.start({{"KS_PATH_TMP", clientTmp.string()}})) << doomed.log();
    RequestEncoder get = testRequest("GET_FILE");
    sendWithReplyTo(server->port(), get, doomed.port());
    auto incoming = [&] {
        std::error_code error;
        for (fs::recursive_directory_iterator it(clientTmp, error), end; !error && it != end;
             it.increment(error))
            if (startsWith(it->path().filename().string(), ".ks-incoming-") &&
                fs::file_size(it->path(), error) > 0)
                return true;
        return false;
    };
    // Looked for often: the client is to die early in the transfer.
    ASSERT_TRUE(waitUntil(incoming, 10000ms, 1ms)) << server->log();
    ASSERT_TRUE(doomed.process().kill(SIGKILL));
    ASSERT_EQ(doomed.waitForExit(5s), 128 + SIGKILL);

    const std::string notSent = "Reply for " + get.getId() + " not sent!";
    ASSERT_TRUE(server->waitForLog(notSent, 10000ms)) << server->log();
    std::string log = server->log();
    EXPECT_NE(log.find("Sending of packet 'FILE id="), std::string::npos) << log;
    EXPECT_NE(log.find("Sending reply failed (1/1). Waiting 1 seconds to retry..."),
              std::string::npos);
    EXPECT_NE(log.find("Max retry limit (1) reached!"), std::string::npos);
    EXPECT_NE(log.find("Caching packet for request " + get.getId() + ": FILE id="),
              std::string::npos);
    EXPECT_NE(log.find("Caching packet for request " + get.getId() + ": RP "), std::string::npos);
    // Nothing before the file is cached: the id went out on the first connection.
    EXPECT_EQ(log.find("Caching packet for request " + get.getId() + ": C REPLY_ID"),
              std::string::npos);

    // The server goes on serving.
    EXPECT_EQ(dataOf(run(*server, testRequest("NOP"))), "OK");

    RequestEncoder reconnect("ReconnectRequest");
    reconnect.addElement("originalRequestId", get.getId(), "  ");
    auto ack = run(*server, reconnect);
    ASSERT_NE(ack, nullptr);
    EXPECT_EQ(ack->getType(), "AckReply");
    EXPECT_EQ(ack->getElement("status"), "OK");
    ASSERT_TRUE(
        server->waitForLog("Sending cached replies for request " + get.getId() + "...", 5000ms));
    const std::string created = "Cache for " + get.getId() + " created.";
    EXPECT_TRUE(waitUntil([&] { return occurrences(server->log(), created) == 2; }, 5000ms))
        << server->log();
    EXPECT_EQ(occurrences(server->log(), notSent), 2u);
}

// ---- a disk that fills up under a received file -------------------------------------------

class DiskFullTest : public FaultInjectionTest {
protected:
    void SetUp() override {
        FaultInjectionTest::SetUp();
        m_mount = fs::temp_directory_path() / uniqueName("ks-fault-disk");
        fs::create_directories(m_mount);
        if (::mount("tmpfs", m_mount.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "size=1m") != 0)
            GTEST_SKIP() << "cannot mount a small file system: " << std::strerror(errno);
        m_mounted = true;
    }
    void TearDown() override {
        m_server.reset();
        if (m_mounted)
            ::umount2(m_mount.c_str(), MNT_DETACH);
        std::error_code ignored;
        fs::remove_all(m_mount, ignored);
        for (const auto& file : m_files)
            fs::remove(file, ignored);
    }
    fs::path file(const std::string& name, size_t size) {
        fs::path path = fs::temp_directory_path() / uniqueName(name);
        std::ofstream out(path, std::ios::binary);
        std::string block(64 * 1024, 'k');
        for (size_t written = 0; written < size; written += block.size())
            out.write(block.data(),
                      static_cast<std::streamsize>(std::min(block.size(), size - written)));
        m_files.push_back(path);
        return path;
    }
    std::shared_ptr<Reply> putForced(const fs::path& path, size_t size) {
        RequestEncoder put = testRequest("PUT_FILE", std::to_string(size));
        put.addFilePath("file", FileName(path.string()), true, "  ");
        return run(*m_server, put);
    }
    uint64_t usedBytes() const {
        struct statvfs info {};
        if (::statvfs(m_mount.c_str(), &info) != 0)
            return UINT64_MAX;
        return static_cast<uint64_t>(info.f_blocks - info.f_bfree) * info.f_frsize;
    }
    // Files below the mount other than the directories' owner marks.
    std::vector<std::string> filesLeft() const {
        std::vector<std::string> left;
        for (const auto& entry : fs::recursive_directory_iterator(m_mount))
            if (entry.is_regular_file() && entry.path().filename() != "hostAndUser.id")
                left.push_back(entry.path().string());
        return left;
    }

    fs::path m_mount;
    bool m_mounted = false;
    ServerChild& server() { return *m_server; }

    std::unique_ptr<ServerChild> m_server;
    std::vector<fs::path> m_files;
};

TEST_F(DiskFullTest, SenderGetsAnErrorThePartialFileGoesAndTheServerServesOn) {
    m_server = startServer({{"KS_PATH_TMP", m_mount.string()}});
    constexpr size_t c_size = 4u << 20;
    const fs::path big = file("ks-fault-big.bin", c_size);
    try {
        auto reply = putForced(big, c_size);
        FAIL() << "the file went to a full disk without an error: " << dataOf(reply);
    } catch (const RequestHandlingException& e) {
        // The whole file was under way when the disk filled up: the receiver's answer names the
        // cause.
        EXPECT_EQ(std::string(e.what()), "Error sending file: File transfer failed at the "
                                         "receiver: writing the file: No space left on device");
    }
    ASSERT_TRUE(
        server().waitForLog("Error receiving file " + big.filename().string() + " to ", 5000ms))
        << server().log();
    EXPECT_NE(server().log().find("No space left on device"), std::string::npos) << server().log();
    EXPECT_EQ(filesLeft(), std::vector<std::string>{});
    EXPECT_LT(usedBytes(), 64u * 1024);

    EXPECT_EQ(dataOf(run(server(), testRequest("NOP"))), "OK");
    // The space of the partial file is free again.
    constexpr size_t c_small = 300 * 1024;
    EXPECT_EQ(dataOf(putForced(file("ks-fault-small.bin", c_small), c_small)), "OK");
}

// ---- a publisher without a free port ------------------------------------------------------

// `count` consecutive ports of the loopback interface, held by listening sockets.
std::vector<std::unique_ptr<Computing::ListenSocket>> occupyConsecutivePorts(int count) {
    for (int attempt = 0; attempt < 50; ++attempt) {
        std::vector<std::unique_ptr<Computing::ListenSocket>> held;
        try {
            held.push_back(std::make_unique<Computing::ListenSocket>(0, 1, 4, "127.0.0.1"));
            const int first = held.front()->getListenPort();
            if (first + count - 1 > 65535)
                continue;
            for (int i = 1; i < count; ++i)
                held.push_back(
                    std::make_unique<Computing::ListenSocket>(first + i, 1, 4, "127.0.0.1"));
            return held;
        } catch (const std::exception&) {
            // One of them is taken: another try from another first port.
        }
    }
    return {};
}

TEST_F(FaultInjectionTest, PublisherWithoutAFreePortLeavesTheServerServing) {
    auto taken = occupyConsecutivePorts(3);
    ASSERT_EQ(taken.size(), 3u);
    const int first = taken.front()->getListenPort();
    // The request server has a port of its own; the publisher searches the configured range.
    auto server = startServer({{"KS_LISTEN_PORT", std::to_string(first)}, {"KS_PORT_RANGE", "3"}},
                              {"--port", std::to_string(closedPort())});
    EXPECT_EQ(server->publisherPort(), -1);
    EXPECT_NE(server->log().find("ERROR: can't find free port in " + std::to_string(first) + "-" +
                                 std::to_string(first + 2) + ". Publisher not started!"),
              std::string::npos)
        << server->log();

    auto tcp = clientOf(*server);
    auto status = tcp->sendGetStatusRequest();
    ASSERT_NE(status, nullptr);
    EXPECT_EQ(status->getType(), "GetStatusReply");
    EXPECT_EQ(tcp->getPublisherPort(), -1);
    // Without a heartbeat to watch, a wait ends with the reply.
    EXPECT_EQ(dataOf(tcp->handleRequest(testRequest("NOP"), nullptr, "")), "OK");
    EXPECT_EQ(dataOf(tcp->handleRequest(testRequest("WAIT", "300"), nullptr, "")), "OK");

    // And with a limit, also when the server dies meanwhile.
    RequestEncoder wait = testRequest("WAIT", "10000");
    std::thread killer([&] {
        std::this_thread::sleep_for(300ms);
        server->process().kill(SIGKILL);
    });
    const auto started = Clock::now();
    auto reply = tcp->handleRequest(wait.getEncodedRequest(), 2, wait.getId(), nullptr, "");
    const auto took = Clock::now() - started;
    killer.join();
    EXPECT_EQ(unreachableText(reply), "No reply before max wait time (2s)");
    EXPECT_LT(took, 4s);
}

// ---- request handlers that throw, never return, or end their process ----------------------

TEST_F(FaultInjectionTest, ThrowingHandlerGivesAnExceptionReplyAndTheServerServesOn) {
    auto server = startServer();
    // WAIT with a text that is no number: the handler's conversion throws.
    auto reply = run(*server, testRequest("WAIT", "soon"));
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "ExceptionReply");
    EXPECT_EQ(reply->getRequestId().size(), 50u);
    // A std::exception is added as an unknown exception object: the reply names the pointer's
    // static type, and its text stays in the server's log.
    EXPECT_EQ(reply->getElement("exceptionStr"), boost::core::demangle(typeid(const void*).name()));
    EXPECT_TRUE(server->waitForLog("std::exception while handling request: bad lexical cast: "
                                   "source type value could not be interpreted as target",
                                   2000ms))
        << server->log();
    EXPECT_EQ(dataOf(run(*server, testRequest("NOP"))), "OK");
}

TEST_F(FaultInjectionTest, HandlerThatRunsUntilAbortedEndsWithTheAbortedReply) {
    shortAges();
    auto server = startServer();
    auto tcp = clientOf(*server);
    // About 24 days: for the test, a handler that only an abort ends.
    RequestEncoder endless = testRequest("WAIT_PROGRESS", std::to_string(INT_MAX));
    std::atomic<bool> replied{false};
    std::shared_ptr<Reply> reply;
    std::thread waiter([&] {
        reply =
            tcp->handleRequest(endless.getEncodedRequest(), c_bound, endless.getId(), nullptr, "");
        replied = true;
    });
    // Longer than the ages: the heartbeat keeps a busy server from being given up.
    std::this_thread::sleep_for(2500ms);
    EXPECT_FALSE(replied.load());
    const auto abortedAt = Clock::now();
    clientOf(*server)->abortRequest(endless.getId());
    waiter.join();
    EXPECT_LT(Clock::now() - abortedAt, 2s);
    EXPECT_EQ(dataOf(reply), "ABORTED") << unreachableText(reply);
    EXPECT_TRUE(server->waitForLog("Aborting request " + endless.getId() + "...", 2000ms));
}

TEST_F(FaultInjectionTest, AbortThatOvertakesItsRequestAbortsItWhenItStarts) {
    auto server = startServer();
    RequestEncoder endless = testRequest("WAIT_PROGRESS", std::to_string(INT_MAX));
    RequestEncoder abort("AbortRequest");
    abort.addElement("requestId", endless.getId(), "  ");
    auto ack = run(*server, abort);
    ASSERT_NE(ack, nullptr);
    EXPECT_EQ(ack->getType(), "AckReply");
    EXPECT_EQ(ack->getElement("status"), "OK");

    const auto started = Clock::now();
    EXPECT_EQ(dataOf(clientOf(*server)->handleRequest(endless.getEncodedRequest(), c_bound,
                                                      endless.getId(), nullptr, "")),
              "ABORTED");
    EXPECT_LT(Clock::now() - started, 2s);
    const std::string log = server->log();
    EXPECT_NE(log.find("Request " + endless.getId() + " not found. Added to aborted requests."),
              std::string::npos)
        << log;
}

TEST_F(FaultInjectionTest, HandlerThatExitsGivesEveryWaiterTheNotAliveVerdict) {
    shortAges();
    auto server = startServer();
    auto tcp = clientOf(*server);
    std::vector<std::shared_ptr<Reply>> replies(3);
    std::vector<std::thread> waiters;
    for (size_t i = 0; i < 2; ++i)
        waiters.emplace_back([&, i] {
            RequestEncoder wait = testRequest("WAIT", "20000");
            replies[i] =
                tcp->handleRequest(wait.getEncodedRequest(), c_bound, wait.getId(), nullptr, "");
        });
    std::this_thread::sleep_for(300ms);
    const auto crashedAt = Clock::now();
    RequestEncoder crash = testRequest("CRASH");
    replies[2] = tcp->handleRequest(crash.getEncodedRequest(), c_bound, crash.getId(), nullptr, "");
    for (auto& waiter : waiters)
        waiter.join();
    EXPECT_LT(Clock::now() - crashedAt, 5s);
    for (const auto& reply : replies)
        EXPECT_TRUE(startsWith(unreachableText(reply), "Remote process not alive anymore? age = "))
            << unreachableText(reply);
    EXPECT_EQ(server->waitForExit(5s), 99);
    EXPECT_EQ(RequestServer::getInstance(-1, 0)->getReplyHandler().getPendingRepliesCount(), 0);
}

} // namespace
