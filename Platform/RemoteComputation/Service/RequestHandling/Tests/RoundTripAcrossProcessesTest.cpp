// A real ks-request-server child and this process as its client: every request goes out on a
// fresh connection and its reply comes back on a new connection to this process's own server.
#include "HandlerTestSupport.h"
#include "Platform/RemoteComputation/Service/RequestHandling/KSData.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Progress.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Publisher.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandlingException.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTypeNames.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogMessage.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/TestSupport/ServerProcess.h"
#include "RecordingSubscriber.h"

#include <boost/lexical_cast.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

using namespace Kestrane;
using Kestrane::Testing::ReceivedMessage;
using Kestrane::Testing::RecordingSubscriber;
using Kestrane::Testing::testRequest;
using namespace std::chrono_literals;

namespace {

void setSetting(const std::string& name, const std::string& value) {
    RequestServerConfiguration::getRegisteredInstance()->setValue(name, value);
}

// A file of `size` bytes with a recognisable pattern.
std::filesystem::path makeFile(const std::string& name, size_t size) {
    auto path = std::filesystem::temp_directory_path() /
                ("ks-roundtrip-" + std::to_string(::getpid()) + "-" + name);
    std::ofstream out(path, std::ios::binary);
    std::string block(64 * 1024, '\0');
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<char>('a' + i % 26);
    for (size_t written = 0; written < size; written += block.size())
        out.write(block.data(),
                  static_cast<std::streamsize>(std::min(block.size(), size - written)));
    return path;
}

class RoundTripTest : public ::testing::Test {
protected:
    // Settings of the child go through its environment; they are read at its start.
    void startServer(const std::vector<std::pair<std::string, std::string>>& environment = {}) {
        ::setenv("KS_ALIVE_PUBLISH_INTERVAL", "100", 1);
        // The server keeps the files it receives; they go where the test can remove them.
        m_serverTmp = std::filesystem::temp_directory_path() /
                      ("ks-roundtrip-server-" + UniqueID::generateId().substr(0, 16));
        ::setenv("KS_PATH_TMP", m_serverTmp.c_str(), 1);
        for (const auto& [name, value] : environment)
            ::setenv(name.c_str(), value.c_str(), 1);
        m_server = std::make_unique<Testing::ServerProcess>(std::vector<std::string>{});
        ASSERT_TRUE(m_server->start());
        ASSERT_GT(m_server->port(), 0);
        ASSERT_GT(m_server->publisherPort(), 0);
        for (const auto& [name, value] : environment)
            ::unsetenv(name.c_str());
        ::unsetenv("KS_PATH_TMP");
        ASSERT_NE(RequestServer::getInstance(-1, 0), nullptr);
    }
    void TearDown() override {
        for (auto& file : m_files)
            std::filesystem::remove(file);
        m_server.reset();
        std::error_code ignored;
        if (!m_serverTmp.empty())
            std::filesystem::remove_all(m_serverTmp, ignored);
    }
    HostInfo host() const {
        HostInfo host("127.0.0.1", "localhost");
        host.setRequestServerPort(m_server->port());
        host.setPublisherPort(m_server->publisherPort());
        return host;
    }
    std::unique_ptr<TcpRequestClient> client() {
        return std::make_unique<TcpRequestClient>("roundtrip", host());
    }
    std::shared_ptr<Reply> run(const RequestEncoder& request) {
        return client()->handleRequest(request, nullptr, "");
    }
    std::filesystem::path file(const std::string& name, size_t size) {
        m_files.push_back(makeFile(name, size));
        return m_files.back();
    }

    std::unique_ptr<Testing::ServerProcess> m_server;
    std::vector<std::filesystem::path> m_files;
    std::filesystem::path m_serverTmp;
};

std::string dataOf(const std::shared_ptr<Reply>& reply) {
    return reply ? reply->getElement("data") : "<no reply>";
}

} // namespace

TEST_F(RoundTripTest, NopStatusAndShutdown) {
    startServer();
    auto tcp = client();
    auto reply = tcp->handleRequest(testRequest("NOP"), nullptr, "");
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "TestReply");
    EXPECT_EQ(reply->getElement("data"), "OK");
    auto status = tcp->sendGetStatusRequest();
    ASSERT_NE(status, nullptr);
    EXPECT_EQ(status->getType(), "GetStatusReply");
    EXPECT_EQ(status->getElement("status"), "OK");
    EXPECT_EQ(tcp->getPublisherPort(), m_server->publisherPort());
    tcp->shutdownRequestServer();
    EXPECT_EQ(m_server->waitForExit(10s), 0);
}

TEST_F(RoundTripTest, WaitUnknownCommandAndGetFileBeforePut) {
    startServer();
    EXPECT_EQ(dataOf(run(testRequest("WAIT", "200"))), "OK");
    EXPECT_EQ(dataOf(run(testRequest("nop"))), "UNKNOWN_COMMAND");
    EXPECT_EQ(dataOf(run(testRequest("GET_FILE"))), "ERROR: file not found");
}

TEST_F(RoundTripTest, WaitProgressMessagesReachTheServersSubscribers) {
    startServer();
    RecordingSubscriber subscriber(host(), {Publisher::c_topicLogMessage});
    subscriber.start(true);
    // The subscription needs a moment before the publisher's messages reach it.
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(dataOf(run(testRequest("WAIT_PROGRESS", "250"))), "OK");
    auto textIs = [](const std::string& text) {
        return [text](const ReceivedMessage& m) {
            return m.content.size() == 4 && m.content[3] == text;
        };
    };
    EXPECT_TRUE(subscriber.waitFor(textIs("done."), 2000ms));
    std::vector<std::string> texts;
    for (const auto& message : subscriber.messages())
        texts.push_back(message.content.back());
    EXPECT_EQ(texts, (std::vector<std::string>{"starting...", "waiting...", "waiting...",
                                               "waiting...", "done."}));
}

TEST_F(RoundTripTest, FileOfTheSameHostAndUserIsNotSentButAForcedOneIs) {
    startServer();
    LogCapture capture;
    const auto path = file("put.bin", 300000);
    RequestEncoder plain = testRequest("PUT_FILE", "300000");
    plain.addFilePath("file", FileName(path.string()), false, "  ");
    EXPECT_EQ(dataOf(run(plain)), "OK");
    EXPECT_TRUE(capture.containsSubstring("Not transfering file: id="));
    EXPECT_FALSE(capture.containsSubstring("Sending file: id="));

    // GET_FILE names the file that PUT_FILE remembered: the very file of this process.
    auto got = run(testRequest("GET_FILE"));
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(got->getElement("data"), "OK, 300000");
    EXPECT_EQ(got->getFilePath("file").toString(), path.string());

    capture.clear();
    RequestEncoder forced = testRequest("PUT_FILE", "300000");
    forced.addFilePath("file", FileName(path.string()), true, "  ");
    EXPECT_EQ(dataOf(run(forced)), "OK");
    EXPECT_TRUE(capture.containsSubstring("Sending file: id="));

    // Now the server holds its own copy, in one of its temporary directories.
    auto copy = run(testRequest("GET_FILE"));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->getElement("data"), "OK, 300000");
    const std::string copyPath = copy->getFilePath("file").toString();
    EXPECT_NE(copyPath, path.string());
    EXPECT_EQ(FileName(copyPath).getLeafName(), path.filename().string());
    EXPECT_EQ(FileUtilities::getFileSize(FileName(copyPath)), 300000u);
}

TEST_F(RoundTripTest, PutFileWithWrongSizeAndMissingFile) {
    startServer();
    const auto path = file("wrong.bin", 1000);
    RequestEncoder wrong = testRequest("PUT_FILE", "999");
    wrong.addFilePath("file", FileName(path.string()), true, "  ");
    EXPECT_EQ(dataOf(run(wrong)), "ERROR: wrong file size");
}

TEST_F(RoundTripTest, PutDataAndGetDataTravelAsMemoryFiles) {
    startServer();
    constexpr uint64_t c_count = 1000;
    // Sending takes the array over: it becomes a memory file and is freed.
    auto* values = static_cast<double*>(std::malloc(c_count * sizeof(double)));
    double expected = 0;
    for (uint64_t i = 0; i < c_count; ++i) {
        values[i] = 0.25 * static_cast<double>(i);
        expected += values[i];
    }
    RequestEncoder put = testRequest("PUT_DATA");
    put.addText(*XLinkDataEncoder::encode<double>(
                    "attachment", XLinkTypeNames::dataTypeOf<double>(), values, c_count, true,
                    XLinkProtocol::dha, nullptr, false),
                "  ", false);
    auto sum = run(put);
    ASSERT_NE(sum, nullptr);
    EXPECT_DOUBLE_EQ(boost::lexical_cast<double>(sum->getElement("data")), expected);

    auto reply = run(testRequest("GET_DATA", std::to_string(c_count)));
    ASSERT_NE(reply, nullptr);
    ASSERT_EQ(reply->getType(), "TestReply");
    // The array came as a memory file; the reply turns it back into an array.
    ASSERT_EQ(reply->getArraySize("attachment", ""), c_count);
    double* received = reply->getDoubleArray("attachment");
    ASSERT_NE(received, nullptr);
    for (uint64_t i = 0; i < c_count; ++i)
        ASSERT_DOUBLE_EQ(received[i], static_cast<double>(i + 1) * 0.1) << i;
    std::free(received);
}

TEST_F(RoundTripTest, QueuedNopWaitsForItsStartRequest) {
    startServer();
    const std::string jobId = UniqueID::generateId();
    std::shared_ptr<Reply> queued;
    std::thread job([&] { queued = run(testRequest("QUEUED_NOP", jobId)); });
    RequestEncoder start("StartQueuedJobRequest");
    start.addElement("jobId", jobId, "  ");
    start.addElement("cancelJob", false, "  ");
    start.addElement("errorMessage", "", "  ");
    // The start request's reply comes only when the job has ended.
    auto started = run(start);
    job.join();
    ASSERT_NE(started, nullptr);
    EXPECT_EQ(started->getType(), "AckReply");
    EXPECT_EQ(started->getElement("status"), "OK");
    EXPECT_EQ(dataOf(queued), "OK");
}

TEST_F(RoundTripTest, AbortEndsAWaitProgressAcrossProcesses) {
    startServer();
    auto tcp = client();
    RequestEncoder wait = testRequest("WAIT_PROGRESS", "20000");
    std::shared_ptr<Reply> reply;
    auto started = std::chrono::steady_clock::now();
    std::thread waiter([&] { reply = tcp->handleRequest(wait, nullptr, ""); });
    std::this_thread::sleep_for(300ms);
    tcp->abortRequest(wait.getId());
    waiter.join();
    EXPECT_EQ(dataOf(reply), "ABORTED");
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
}

TEST_F(RoundTripTest, CrashIsAVerdictWithinTheConfiguredAge) {
    startServer();
    setSetting("maxAliveAge", "1");
    setSetting("rPingIntervalSec", "1");
    LogCapture capture;
    auto tcp = client();
    auto started = std::chrono::steady_clock::now();
    auto reply = tcp->handleRequest(testRequest("CRASH"), nullptr, "");
    auto took = std::chrono::steady_clock::now() - started;
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "RequestServerUnreachableReply");
    auto unreachable = std::dynamic_pointer_cast<RequestServerUnreachableReply>(reply);
    ASSERT_NE(unreachable, nullptr);
    EXPECT_EQ(unreachable->getErrorMessage().rfind("Remote process not alive anymore? age = ", 0),
              0u)
        << unreachable->getErrorMessage();
    EXPECT_LT(took, 6s);
    EXPECT_EQ(m_server->waitForExit(5s), 99);
}

TEST_F(RoundTripTest, MaxWaitTimeIsAVerdict) {
    startServer();
    auto tcp = client();
    RequestEncoder wait = testRequest("WAIT", "3000");
    auto reply = tcp->handleRequest(wait.getEncodedRequest(), 1, wait.getId(), nullptr, "");
    ASSERT_NE(reply, nullptr);
    auto unreachable = std::dynamic_pointer_cast<RequestServerUnreachableReply>(reply);
    ASSERT_NE(unreachable, nullptr);
    EXPECT_EQ(unreachable->getErrorMessage(), "No reply before max wait time (1s)");
}

TEST_F(RoundTripTest, StoppedServerIsNotAlive) {
    startServer();
    setSetting("maxAliveAge", "1");
    setSetting("rPingIntervalSec", "1");
    auto tcp = client();
    std::shared_ptr<Reply> reply;
    RequestEncoder wait = testRequest("WAIT", "4000");
    std::thread waiter([&] { reply = tcp->handleRequest(wait, nullptr, ""); });
    std::this_thread::sleep_for(300ms);
    m_server->process().kill(SIGSTOP);
    waiter.join();
    m_server->process().kill(SIGCONT);
    auto unreachable = std::dynamic_pointer_cast<RequestServerUnreachableReply>(reply);
    ASSERT_NE(unreachable, nullptr) << (reply ? reply->getType() : "null");
    EXPECT_EQ(unreachable->getErrorMessage().rfind("Remote process not alive anymore? age = ", 0),
              0u);
}

TEST_F(RoundTripTest, UnchangingHeartbeatIsHanging) {
    startServer();
    setSetting("maxChangeAge", "1");
    setSetting("rPingIntervalSec", "1");
    LogCapture capture;
    auto tcp = client();
    auto reply = tcp->handleRequest(testRequest("WAIT", "4000"), nullptr, "");
    auto unreachable = std::dynamic_pointer_cast<RequestServerUnreachableReply>(reply);
    ASSERT_NE(unreachable, nullptr) << (reply ? reply->getType() : "null");
    EXPECT_EQ(unreachable->getErrorMessage().rfind("Remote process hanging? age = ", 0), 0u)
        << unreachable->getErrorMessage();
    EXPECT_TRUE(capture.containsSubstring("LivingProcessWatcher change age = "));
}

TEST_F(RoundTripTest, UndecodablePackageGetsAnInvalidPackageReplyOnItsConnection) {
    startServer();
    Computing::ClientSocket socket;
    socket.connect("127.0.0.1", m_server->port());
    SocketPacket::send("RQ", "<no package/>", socket, "test");
    auto answer = SocketPacket::receive(socket, "test");
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer->getType(), "RP");
    EXPECT_NE(answer->getData()->find("InvalidPackageReply"), std::string::npos);
    EXPECT_NE(answer->getData()->find("error decoding request package"), std::string::npos);
    EXPECT_NE(answer->getData()->find(UniqueID::c_nullId), std::string::npos);
    // The connection stays usable.
    SocketPacket::send("C", "PING", socket, "test");
    auto pong = SocketPacket::receive(socket, "test");
    EXPECT_EQ(*pong->getData(), "PONG");
    SocketPacket::send("C", "CLOSE_CONNECTION", socket, "test");
}

TEST_F(RoundTripTest, CancelBeforeTheFirstFileSendsNothing) {
    startServer();
    LogCapture capture;
    auto tcp = client();
    const auto path = file("cancel-before.bin", 1000);
    RequestEncoder put = testRequest("PUT_FILE", "1000");
    put.addFilePath("file", FileName(path.string()), true, "  ");
    tcp->cancelSendRequest();
    EXPECT_NO_THROW(tcp->sendRequest(put, nullptr, "", nullptr));
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Send request cancelled: skipping send!"));
    EXPECT_FALSE(capture.containsSubstring("File sent: id="));
}

TEST_F(RoundTripTest, CancelDuringTheTransferFails) {
    startServer({{"KS_FILE_COPY_BLOCK_SIZE", "65536"}});
    auto tcp = client();
    // Large enough that the transfer is still under way when the cancel comes.
    const auto path = file("cancel-during.bin", 512u * 1024 * 1024);
    RequestEncoder put = testRequest("PUT_FILE", std::to_string(512u * 1024 * 1024));
    put.addFilePath("file", FileName(path.string()), true, "  ");
    std::thread canceller([&] {
        std::this_thread::sleep_for(100ms);
        tcp->cancelSendRequest();
    });
    try {
        tcp->sendRequest(put, nullptr, "", nullptr);
        canceller.join();
        FAIL() << "the cancelled transfer did not fail";
    } catch (const RequestHandlingException& e) {
        canceller.join();
        EXPECT_EQ(std::string(e.what()).rfind("Sending request cancelled: ", 0), 0u) << e.what();
    }
    // The server is still there for others.
    EXPECT_TRUE(RequestServer::ping("127.0.0.1", m_server->port()));
}

namespace {
// Sends `perThread` requests from each of `threads` threads through the clients, and checks that
// every reply arrives once, for its own request.
void sendConcurrently(std::vector<std::unique_ptr<TcpRequestClient>>& clients, int threads,
                      int perThread) {
    std::mutex mutex;
    std::multiset<std::string> answered;
    std::set<std::string> sent;
    std::atomic<int> failures{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            TcpRequestClient& tcp = *clients[static_cast<size_t>(t) % clients.size()];
            for (int i = 0; i < perThread; ++i) {
                RequestEncoder request =
                    (t + i) % 2 ? testRequest("NOP") : testRequest("WAIT", "20");
                auto reply = tcp.handleRequest(request, nullptr, "");
                std::lock_guard<std::mutex> lock(mutex);
                sent.insert(request.getId());
                if (!reply || reply->getType() != "TestReply" ||
                    reply->getRequestId() != request.getId() || reply->getElement("data") != "OK")
                    ++failures;
                else
                    answered.insert(reply->getRequestId());
            }
        });
    }
    for (auto& worker : workers)
        worker.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(answered.size(), static_cast<size_t>(threads * perThread));
    EXPECT_EQ(std::set<std::string>(answered.begin(), answered.end()), sent);
}
} // namespace

TEST_F(RoundTripTest, ThirtyTwoThreadsThroughOneClient) {
    startServer();
    std::vector<std::unique_ptr<TcpRequestClient>> clients;
    clients.push_back(client());
    sendConcurrently(clients, 32, 4);
    EXPECT_EQ(RequestServer::getInstance(-1, 0)->getReplyHandler().getPendingRepliesCount(), 0);
}

TEST_F(RoundTripTest, ThirtyTwoThreadsThroughFourClients) {
    startServer();
    std::vector<std::unique_ptr<TcpRequestClient>> clients;
    for (int i = 0; i < 4; ++i)
        clients.push_back(client());
    sendConcurrently(clients, 32, 4);
}

TEST_F(RoundTripTest, PoolSizeBoundsTheRequestsRunningAtOnce) {
    // Four workers for connections and requests together: sixteen WAITs of 200 ms cannot all
    // run at once, so together they take at least four rounds.
    startServer({{"KS_MAX_REQUEST_HANDLER_POOL_SIZE", "4"}});
    auto started = std::chrono::steady_clock::now();
    std::vector<std::thread> workers;
    std::atomic<int> ok{0};
    for (int i = 0; i < 16; ++i)
        workers.emplace_back([&] {
            if (dataOf(run(testRequest("WAIT", "200"))) == "OK")
                ++ok;
        });
    for (auto& worker : workers)
        worker.join();
    EXPECT_EQ(ok.load(), 16);
    EXPECT_GE(std::chrono::steady_clock::now() - started, 800ms);
}

namespace {
// A port on which nobody listens.
int closedPort() {
    Computing::ListenSocket listener(0, 1, 1);
    return listener.getListenPort();
}

// Sends `request` as a package whose reply is to go to `replyPort` of this host, as a client
// would that has gone away since.
void sendForAbsentClient(int serverPort, const RequestEncoder& request, int replyPort) {
    ASSERT_NE(RequestServer::getInstance(-1, 0), nullptr);
    std::string package =
        RequestPackageEncoder(request.getEncodedRequest(), UniqueID::generateId(), "")
            .getEncodedRequestPackage();
    const std::string ownPort =
        "replyPort=\"" + std::to_string(RequestServer::getInstance(-1, 0)->getPort()) + "\"";
    auto at = package.find(ownPort);
    ASSERT_NE(at, std::string::npos) << package;
    package.replace(at, ownPort.size(), "replyPort=\"" + std::to_string(replyPort) + "\"");
    Computing::ClientSocket socket;
    socket.connect("127.0.0.1", serverPort);
    SocketPacket::send("RQ", package, socket, "test");
    SocketPacket::send("C", "CLOSE_CONNECTION", socket, "test");
}
} // namespace

TEST_F(RoundTripTest, ReplyForAnAbsentClientIsRetriedThenCached) {
    startServer({{"KS_SEND_REPLY_MAX_RETRY", "2"},
                 {"KS_SEND_REPLY_RETRY_DELAY", "0"},
                 {"KS_LOG_LEVEL", "DEBUG"}});
    RequestEncoder nop = testRequest("NOP");
    sendForAbsentClient(m_server->port(), nop, closedPort());
    const std::string cached = "Reply for " + nop.getId() + " not sent!";
    // Then a reconnect for the finished request: the cached packets are sent again, find no
    // registered request, and go back into the cache.
    std::this_thread::sleep_for(500ms);
    RequestEncoder reconnect("ReconnectRequest");
    reconnect.addElement("originalRequestId", nop.getId(), "  ");
    auto ack = run(reconnect);
    ASSERT_NE(ack, nullptr);
    EXPECT_EQ(ack->getType(), "AckReply");
    EXPECT_EQ(ack->getElement("status"), "OK");
    std::this_thread::sleep_for(1500ms);
    m_server->process().kill(SIGTERM);
    ASSERT_EQ(m_server->waitForExit(10s), 0);
    const std::string log = m_server->standardError(2000ms);
    auto count = [&](const std::string& text) {
        size_t n = 0;
        for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
            ++n;
        return n;
    };
    EXPECT_EQ(count("Sending reply failed (1/2). Waiting 0 seconds to retry..."), 1u) << log;
    EXPECT_EQ(count("Sending reply failed (2/2). Waiting 0 seconds to retry..."), 1u);
    EXPECT_EQ(count("Max retry limit (2) reached!"), 1u);
    EXPECT_EQ(count(cached), 2u);
    EXPECT_EQ(count("Cache for " + nop.getId() + " created."), 2u);
    EXPECT_EQ(count("Sending cached replies for request " + nop.getId() + "..."), 1u);
}

TEST_F(RoundTripTest, ReconnectWhileTheRequestRunsBringsTheReplyHere) {
    startServer({{"KS_SEND_REPLY_MAX_RETRY", "0"}});
    RequestEncoder wait = testRequest("WAIT", "1500");
    sendForAbsentClient(m_server->port(), wait, closedPort());
    std::this_thread::sleep_for(200ms);
    auto tcp = client();
    auto reply = tcp->reconnectRequest(wait.getId(), nullptr, nullptr, nullptr, 0, FileName());
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "TestReply");
    EXPECT_EQ(reply->getRequestId(), wait.getId());
    EXPECT_EQ(reply->getElement("data"), "OK");
}

namespace {
class RecordingProgress : public Progress {
public:
    bool handleLogMessage(const LogMessage& message) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_texts.push_back(message.text());
        return true;
    }
    std::vector<std::string> texts() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_texts;
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_texts;
};

// One package on a connection of its own to this process's server, as a server delivers it.
void deliver(const std::string& type, const std::string& requestId, const std::string& reply,
             int serial) {
    Computing::ClientSocket socket;
    socket.connect("127.0.0.1", RequestServer::getInstance(-1, 0)->getPort());
    SocketPacket::send("C", "REPLY_ID " + requestId, socket, "test");
    SocketPacket::send(type, ReplyPackageEncoder(reply, serial).getEncodedReplyPackage(), socket,
                       "test");
    SocketPacket::send("C", "CLOSE_CONNECTION", socket, "test");
}

std::string progressUpdate(const std::string& requestId, const std::string& text) {
    ReplyEncoder encoder("ProgressUpdate", requestId);
    encoder.addText("<requestLogMessage messageType=\"INFO\" messageGroup=\"g\" "
                    "timestamp=\"17\">" +
                    text + "</requestLogMessage>");
    return encoder.getEncodedReply("   ", "  ");
}
} // namespace

TEST(RoundTripOrderTest, PackagesTakeEffectInTheOrderOfTheirSerials) {
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    const std::string id = UniqueID::generateId();
    auto progress = std::make_shared<RecordingProgress>();
    std::shared_ptr<ReplyPackage> package;
    std::thread waiter([&] {
        package = server->getReplyHandler().receiveReply(id, nullptr, progress, nullptr, -1, false,
                                                         0, FileName());
    });
    while (server->getReplyHandler().getPendingRepliesCount() == 0)
        std::this_thread::sleep_for(5ms);
    ReplyEncoder final("TestReply", id);
    final.addElement("data", "OK");
    // Last first: each waits for the ones before it, though all arrive on their own connections.
    std::thread third([&] { deliver("RP", id, final.getEncodedReply("   ", "  "), 2); });
    std::this_thread::sleep_for(150ms);
    std::thread second([&] { deliver("PR", id, progressUpdate(id, "second"), 1); });
    std::this_thread::sleep_for(150ms);
    EXPECT_TRUE(progress->texts().empty());
    deliver("PR", id, progressUpdate(id, "first"), 0);
    waiter.join();
    second.join();
    third.join();
    ASSERT_NE(package, nullptr);
    EXPECT_EQ(package->getReply()->getElement("data"), "OK");
    EXPECT_EQ(package->getSerial(), 2u);
    EXPECT_EQ(progress->texts(), (std::vector<std::string>{"first", "second"}));
}
