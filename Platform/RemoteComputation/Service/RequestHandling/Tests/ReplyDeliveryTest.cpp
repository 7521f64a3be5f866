#include "ServerTestPeers.h"

#include "Platform/RemoteComputation/Service/RequestHandling/HandleRequestTask.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HostAndUserId.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SendCachedReplyTask.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SendFileSocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

using namespace Kestrane;
using namespace KestraneTest;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

using Packets = RequestServer::SocketPackets;

class ReplyDeliveryTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_dir = fs::temp_directory_path() /
                ("ReplyDeliveryTest_" + UniqueID::generateId().substr(0, 16));
        fs::create_directories(m_dir);
        m_handler = ScriptedHandler::install();
        m_server = RequestServer::getInstance(-1, 0);
        ASSERT_NE(m_server, nullptr);
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(m_dir, ignored);
        // The configuration is the process's: the next test starts from the values before.
        for (auto it = m_changedSettings.rbegin(); it != m_changedSettings.rend(); ++it)
            RequestServerConfiguration::getRegisteredInstance()->setValue(it->first, it->second);
    }

    void setting(const std::string& name, const std::string& value) {
        RequestServerConfiguration* configuration =
            RequestServerConfiguration::getRegisteredInstance();
        m_changedSettings.emplace_back(name, configuration->getValueText(name));
        configuration->setValue(name, value);
    }

    // A package that a client sent, its reply going to `replyPort` of 127.0.0.1.
    std::shared_ptr<RequestPackage> package(const std::string& requestId, int replyPort) {
        auto result = decodePackage(requestPackage(linkRequest(requestId), replyPort));
        result->setRequestServer(m_server);
        return result;
    }
    std::shared_ptr<RequestPackage> registered(const std::string& requestId, int replyPort) {
        auto result = package(requestId, replyPort);
        m_server->addRequestPackage(result);
        return result;
    }
    static std::shared_ptr<Packets> replyPackets(const std::string& requestId) {
        auto packets = std::make_shared<Packets>();
        packets->push_back(std::make_shared<SocketPacket>("C", "REPLY_ID " + requestId, true));
        packets->push_back(std::make_shared<SocketPacket>("RP", "the reply", true));
        return packets;
    }
    size_t linesStartingWith(LogLevel level, const std::string& prefix) const {
        size_t count = 0;
        for (const auto& line : m_capture.messages(level))
            if (line.rfind(prefix, 0) == 0)
                ++count;
        return count;
    }
    std::string file(const std::string& name, const std::string& content) {
        fs::path path = m_dir / name;
        std::ofstream(path, std::ios::binary) << content;
        return path.string();
    }
    std::future<Conversation> catchOne(const std::string& identity) {
        return std::async(std::launch::async,
                          [this, identity] { return m_catcher.catchOne(identity); });
    }

    LogCapture m_capture;
    fs::path m_dir;
    std::shared_ptr<ScriptedHandler> m_handler;
    std::vector<std::pair<std::string, std::string>> m_changedSettings; // name, value before
    RequestServer* m_server = nullptr;
    ReplyCatcher m_catcher;
};

} // namespace

// ---- attempts and retries -------------------------------------------------------------------

TEST_F(ReplyDeliveryTest, MaxRetryZeroMakesOneAttemptWithoutWaitThenCaches) {
    setting("sendReplyMaxRetry", "0");
    setting("sendReplyRetryDelay", "5");
    const std::string id = UniqueID::generateId();
    registered(id, closedPort());
    const fs::path tmpPath = m_dir / "request-tmp";
    fs::create_directories(tmpPath);

    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(
        m_server->sendSocketPackets(id, replyPackets(id), false, {FileName(tmpPath.string())}));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);

    EXPECT_EQ(linesStartingWith(LogLevel::Debug, "SocketException while creating socket to "), 1u);
    EXPECT_FALSE(m_capture.containsSubstring("Sending reply failed"));
    EXPECT_TRUE(m_capture.contains(LogLevel::Warn, "Max retry limit (0) reached!"));
    EXPECT_TRUE(m_capture.contains(LogLevel::Info, "Caching reply..."));
    EXPECT_TRUE(m_capture.contains(LogLevel::Info, "Cache for " + id + " created."));
    EXPECT_TRUE(m_capture.contains(LogLevel::Debug,
                                   "Caching packet for request " + id + ": C REPLY_ID " + id));
    EXPECT_TRUE(
        m_capture.contains(LogLevel::Debug, "Caching packet for request " + id + ": RP the reply"));
    EXPECT_TRUE(m_capture.contains(LogLevel::Info, "Reply for " + id + " not sent!"));
    // The temporary paths stay with an undelivered reply.
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(fs::exists(tmpPath));
}

TEST_F(ReplyDeliveryTest, UnregisteredIdIsCachedAtOnce) {
    const std::string id = UniqueID::generateId();
    EXPECT_FALSE(m_server->sendSocketPackets(id, replyPackets(id), false, {}));
    EXPECT_FALSE(m_capture.containsSubstring("SocketException"));
    EXPECT_FALSE(m_capture.containsSubstring("Max retry limit"));
    EXPECT_TRUE(m_capture.contains(LogLevel::Info, "Caching reply..."));
    EXPECT_TRUE(m_capture.contains(LogLevel::Info, "Cache for " + id + " created."));
    EXPECT_TRUE(m_capture.contains(LogLevel::Info, "Reply for " + id + " not sent!"));
    // A second reply for the id joins the entry that is there.
    EXPECT_FALSE(m_server->sendSocketPackets(id, replyPackets(id), false, {}));
    EXPECT_EQ(m_capture.count("Cache for " + id + " created."), 1u);
    EXPECT_EQ(m_capture.count("Caching packet for request " + id + ": RP the reply"), 2u);
}

TEST_F(ReplyDeliveryTest, EmptyPacketListIsCachedWithoutAttempt) {
    const std::string id = UniqueID::generateId();
    registered(id, m_catcher.port());
    EXPECT_FALSE(m_server->sendSocketPackets(id, std::make_shared<Packets>(), false, {}));
    EXPECT_EQ(m_catcher.accept(200ms), nullptr);
    // No attempt was made, and 0 attempts are below the default limit of 3.
    EXPECT_FALSE(m_capture.containsSubstring("Max retry limit"));
    EXPECT_TRUE(m_capture.contains(LogLevel::Info, "Cache for " + id + " created."));
    EXPECT_TRUE(m_capture.contains(LogLevel::Info, "Reply for " + id + " not sent!"));
}

TEST_F(ReplyDeliveryTest, MaxRetryTwoWithAClientAwayMakesThreeAttempts) {
    setting("sendReplyMaxRetry", "2");
    setting("sendReplyRetryDelay", "0");
    const std::string id = UniqueID::generateId();
    registered(id, closedPort());
    EXPECT_FALSE(m_server->sendSocketPackets(id, replyPackets(id), false, {}));
    EXPECT_EQ(linesStartingWith(LogLevel::Debug, "SocketException while creating socket to "), 3u);
    EXPECT_TRUE(m_capture.contains(LogLevel::Info,
                                   "Sending reply failed (1/2). Waiting 0 seconds to retry..."));
    EXPECT_TRUE(m_capture.contains(LogLevel::Info,
                                   "Sending reply failed (2/2). Waiting 0 seconds to retry..."));
    EXPECT_EQ(linesStartingWith(LogLevel::Info, "Sending reply failed ("), 2u);
    EXPECT_TRUE(m_capture.contains(LogLevel::Warn, "Max retry limit (2) reached!"));
    EXPECT_TRUE(m_capture.contains(LogLevel::Info, "Reply for " + id + " not sent!"));
}

TEST_F(ReplyDeliveryTest, RetryWaitsTheConfiguredDelayInSeconds) {
    setting("sendReplyMaxRetry", "1");
    setting("sendReplyRetryDelay", "1");
    const std::string id = UniqueID::generateId();
    registered(id, closedPort());
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(m_server->sendSocketPackets(id, replyPackets(id), false, {}));
    auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, 1000ms);
    EXPECT_LT(elapsed, 3000ms);
    EXPECT_TRUE(m_capture.contains(LogLevel::Info,
                                   "Sending reply failed (1/1). Waiting 1 seconds to retry..."));
    EXPECT_TRUE(m_capture.contains(LogLevel::Warn, "Max retry limit (1) reached!"));
}

// ---- successful delivery --------------------------------------------------------------------

TEST_F(ReplyDeliveryTest, DeliveredReplyEndsWithCloseAndDeletesTmpPaths) {
    const std::string id = UniqueID::generateId();
    registered(id, m_catcher.port());
    const fs::path tmpPath = m_dir / "request-tmp";
    fs::create_directories(tmpPath);
    std::ofstream(tmpPath / "left-over.txt") << "x";
    auto caught = catchOne(HostAndUserId().toString());
    EXPECT_TRUE(
        m_server->sendSocketPackets(id, replyPackets(id), false, {FileName(tmpPath.string())}));
    Conversation conversation = caught.get();
    EXPECT_EQ(conversation.texts(),
              (std::vector<std::string>{"C REPLY_ID " + id, "RP the reply", "C CLOSE_CONNECTION"}));
    EXPECT_FALSE(m_capture.containsSubstring("Caching reply"));
    auto deadline = std::chrono::steady_clock::now() + 3s;
    while (fs::exists(tmpPath) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(10ms);
    EXPECT_FALSE(fs::exists(tmpPath));
}

TEST_F(ReplyDeliveryTest, SinglePacketAsksForIdentityOnlyWhenItIsAFile) {
    const std::string id = UniqueID::generateId();
    registered(id, m_catcher.port());

    auto caught = catchOne(HostAndUserId().toString());
    EXPECT_TRUE(
        m_server->sendSocketPacket(id, std::make_shared<SocketPacket>("PR", "news", false)));
    EXPECT_EQ(caught.get().texts(), (std::vector<std::string>{"PR news", "C CLOSE_CONNECTION"}));

    // A file for a peer of the same host and user is not sent at all.
    const std::string path = file("shared.dat", "shared");
    auto filePacket = std::make_shared<SendFileSocketPacket>(
        "client", UniqueID::generateId(), FileName(path), true, "Reply_x", false, nullptr);
    caught = catchOne(HostAndUserId().toString());
    EXPECT_TRUE(m_server->sendSocketPacket(id, filePacket));
    EXPECT_EQ(caught.get().texts(),
              (std::vector<std::string>{"C GET_HOST_AND_USER_ID", "C CLOSE_CONNECTION"}));
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "transferFileAttachments = 0"));
    EXPECT_FALSE(filePacket->getForceTransfer());
}

TEST_F(ReplyDeliveryTest, SkippedFilePacketStaysSkippedInLaterAttempts) {
    setting("sendReplyMaxRetry", "1");
    setting("sendReplyRetryDelay", "0");
    const std::string id = UniqueID::generateId();
    registered(id, m_catcher.port());
    const std::string sharedId = UniqueID::generateId();
    const std::string failingId = UniqueID::generateId();
    auto shared = std::make_shared<SendFileSocketPacket>(
        "client", sharedId, FileName(file("shared.dat", "s")), true, "Reply_x", false, nullptr);
    const FileName failingPath(file("failing.dat", "f"));
    auto failing = std::make_shared<SendFileSocketPacket>("client", failingId, failingPath, true,
                                                          "Reply_x", true, nullptr);
    failing->cancelSend(); // its command goes out, its send fails every time
    auto packets = std::make_shared<Packets>();
    packets->push_back(std::make_shared<SocketPacket>("C", "REPLY_ID " + id, true));
    packets->push_back(shared);
    packets->push_back(failing);
    packets->push_back(std::make_shared<SocketPacket>("RP", "the reply", true));

    auto caught = std::async(std::launch::async, [&] {
        std::vector<Conversation> both;
        both.push_back(m_catcher.catchOne(HostAndUserId().toString()));
        both.push_back(m_catcher.catchOne(HostAndUserId().toString()));
        return both;
    });
    EXPECT_FALSE(m_server->sendSocketPackets(id, packets, true, {}));
    auto both = caught.get();
    const std::string failingCommand = "C FILE Reply_x " + failingId + " failing.dat";
    EXPECT_EQ(both[0].texts(),
              (std::vector<std::string>{"C GET_HOST_AND_USER_ID", "C REPLY_ID " + id,
                                        failingCommand, "C CLOSE_CONNECTION"}));
    // The second attempt starts where the first stopped: the skipped file is not looked at
    // again, and what went out does not go again.
    EXPECT_EQ(both[1].texts(), (std::vector<std::string>{"C GET_HOST_AND_USER_ID", failingCommand,
                                                         "C CLOSE_CONNECTION"}));
    EXPECT_FALSE(shared->getForceTransfer());
    EXPECT_TRUE(failing->getForceTransfer());
    const std::string failedLine = "Sending of packet 'FILE id=" + failingId +
                                   ", path=" + failingPath.toString() + "' failed!";
    EXPECT_EQ(m_capture.count(failedLine), 2u);
    EXPECT_TRUE(m_capture.contains(LogLevel::Info,
                                   "Sending reply failed (1/1). Waiting 0 seconds to retry..."));
    EXPECT_TRUE(m_capture.contains(LogLevel::Warn, "Max retry limit (1) reached!"));
    // What is left waits in the cache: the failed file and the reply.
    EXPECT_TRUE(m_capture.contains(LogLevel::Debug, "Caching packet for request " + id +
                                                        ": FILE id=" + failingId +
                                                        ", path=" + failingPath.toString()));
    EXPECT_TRUE(
        m_capture.contains(LogLevel::Debug, "Caching packet for request " + id + ": RP the reply"));
    EXPECT_EQ(linesStartingWith(LogLevel::Debug, "Caching packet for request "), 2u);
}

// ---- ping -----------------------------------------------------------------------------------

TEST_F(ReplyDeliveryTest, PingOfClosedPortIsFalseWithoutThrowing) {
    const int port = closedPort();
    bool answer = true;
    EXPECT_NO_THROW(answer = RequestServer::ping("127.0.0.1", port));
    EXPECT_FALSE(answer);
    EXPECT_TRUE(m_capture.contains(LogLevel::Warn,
                                   "Exception pinging 127.0.0.1:" + std::to_string(port) + "."));
}

TEST_F(ReplyDeliveryTest, PingSpeaksThreePacketsAndWantsPong) {
    for (const std::string answer : {"PONG", "PANG"}) {
        auto peer = std::async(std::launch::async, [&] {
            auto socket = m_catcher.accept(5s);
            std::string first, rest;
            if (!socket)
                return std::make_pair(first, rest);
            socket->receiveDataBlock(first, 8);
            const std::string reply = wirePacket("C", answer);
            socket->sendDataBlock(reply.data(), reply.size());
            socket->receiveDataBlock(rest, 1 << 16);
            return std::make_pair(first, rest);
        });
        const bool result = RequestServer::ping("127.0.0.1", m_catcher.port());
        auto seen = peer.get();
        EXPECT_EQ(seen.first, "C 4 PING");
        EXPECT_EQ(seen.second, "C 16 CLOSE_CONNECTION");
        EXPECT_EQ(result, answer == "PONG");
    }
    EXPECT_TRUE(m_capture.contains(
        LogLevel::Info, "Error pinging 127.0.0.1:" + std::to_string(m_catcher.port()) + "."));
    EXPECT_EQ(linesStartingWith(LogLevel::Info, "Error pinging "), 1u);
}

TEST_F(ReplyDeliveryTest, PingOfPeerThatHangsUpIsFalse) {
    auto peer = std::async(std::launch::async, [&] {
        auto socket = m_catcher.accept(5s);
        std::string first;
        if (socket)
            socket->receiveDataBlock(first, 8);
        return first; // and the connection closes without an answer
    });
    EXPECT_FALSE(RequestServer::ping("127.0.0.1", m_catcher.port()));
    EXPECT_EQ(peer.get(), "C 4 PING");
    EXPECT_TRUE(m_capture.contains(
        LogLevel::Warn, "Exception pinging 127.0.0.1:" + std::to_string(m_catcher.port()) + "."));
}

// ---- reconnecting ---------------------------------------------------------------------------

TEST_F(ReplyDeliveryTest, ReconnectWithoutCacheEntryAnswersTrue) {
    const std::string id = UniqueID::generateId();
    auto newPackage = package(UniqueID::generateId(), m_catcher.port());
    int retry = 7;
    EXPECT_TRUE(m_server->reconnectRequest(*newPackage, id, retry, true));
    EXPECT_EQ(retry, 7);
    EXPECT_TRUE(m_capture.contains(LogLevel::Debug, "Reconecting request " + id + "..."));
    EXPECT_TRUE(m_capture.contains(LogLevel::Debug, "Request " + id + " reconnected."));
    EXPECT_FALSE(m_capture.containsSubstring("Setting new remote host"));
    // Nothing to resend: no task comes, and nobody is called.
    EXPECT_EQ(m_catcher.accept(1300ms), nullptr);
    EXPECT_FALSE(m_capture.containsSubstring("Sending cached replies"));
}

TEST_F(ReplyDeliveryTest, ReconnectPointsARunningRequestAtTheNewClient) {
    const std::string id = UniqueID::generateId();
    auto running = registered(id, closedPort());
    auto newPackage = package(UniqueID::generateId(), m_catcher.port());
    int retry = 0;
    EXPECT_TRUE(m_server->reconnectRequest(*newPackage, id, retry, false));
    EXPECT_TRUE(m_capture.contains(LogLevel::Info, "Setting new remote host for request " + id +
                                                       " to " +
                                                       newPackage->getRemoteHost().toString()));
    EXPECT_EQ(running->getRemoteHost().getRequestServerPort(), m_catcher.port());
    auto caught = catchOne(HostAndUserId().toString());
    EXPECT_TRUE(m_server->sendSocketPackets(id, replyPackets(id), false, {}));
    EXPECT_EQ(caught.get().texts().size(), 3u);
}

TEST_F(ReplyDeliveryTest, CachedReplyIsDeliveredAfterReconnect) {
    setting("sendReplyMaxRetry", "0");
    const std::string id = UniqueID::generateId();
    registered(id, closedPort()); // the request runs; its client has gone away
    auto packets = std::make_shared<Packets>();
    packets->push_back(std::make_shared<SocketPacket>("C", "REPLY_ID " + id, true));
    packets->push_back(std::make_shared<SocketPacket>("PR", "a progress update", false));
    packets->push_back(std::make_shared<SocketPacket>("RP", "the reply", true));
    EXPECT_FALSE(m_server->sendSocketPackets(id, packets, false, {}));
    EXPECT_TRUE(m_capture.contains(LogLevel::Info, "Cache for " + id + " created."));
    EXPECT_FALSE(m_capture.containsSubstring(": PR a progress update")); // never cached

    // The client comes back under a new address and asks for what is waiting.
    auto newPackage = package(UniqueID::generateId(), m_catcher.port());
    auto caught = catchOne(HostAndUserId().toString());
    int retry = 0;
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(m_server->reconnectRequest(*newPackage, id, retry, true));
    Conversation conversation = caught.get();
    EXPECT_GE(std::chrono::steady_clock::now() - start, 900ms); // the task waits a second first
    EXPECT_EQ(conversation.texts(),
              (std::vector<std::string>{"C REPLY_ID " + id, "RP the reply", "C CLOSE_CONNECTION"}));
    EXPECT_TRUE(m_capture.waitFor("Sending cached replies for request " + id + "...", 2000ms));
    // The entry was taken out: a second reconnect finds nothing to send.
    EXPECT_TRUE(m_server->reconnectRequest(*newPackage, id, retry, true));
    EXPECT_EQ(m_catcher.accept(1300ms), nullptr);
    EXPECT_EQ(m_capture.count("Sending cached replies for request " + id + "..."), 1u);
}

TEST_F(ReplyDeliveryTest, FinishedRequestIsCachedAgainOnReconnect) {
    setting("sendReplyMaxRetry", "0");
    const std::string id = UniqueID::generateId();
    m_handler->setScript(
        [](Request& request) { return std::make_shared<std::string>(linkReply(request.getId())); });
    auto running = registered(id, closedPort());
    HandleRequestTask(running, RequestHandler::getDefaultRequestHandler(), m_server).execute();
    EXPECT_TRUE(m_capture.contains(LogLevel::Info, "Reply for " + id + " not sent!"));
    EXPECT_EQ(m_server->getRequestPackage(id), nullptr);

    // The request is gone from the registry: the resent reply finds no address and goes back
    // into the cache.
    auto newPackage = package(UniqueID::generateId(), m_catcher.port());
    int retry = 0;
    EXPECT_TRUE(m_server->reconnectRequest(*newPackage, id, retry, true));
    EXPECT_FALSE(m_capture.containsSubstring("Setting new remote host"));
    ASSERT_TRUE(m_capture.waitFor("Sending cached replies for request " + id + "...", 3000ms));
    auto deadline = std::chrono::steady_clock::now() + 3s;
    // "not sent!" is the last line of the second delivery.
    while (m_capture.count("Reply for " + id + " not sent!") < 2 &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(10ms);
    EXPECT_EQ(m_capture.count("Cache for " + id + " created."), 2u);
    EXPECT_EQ(m_capture.count("Reply for " + id + " not sent!"), 2u);
    EXPECT_EQ(m_catcher.accept(200ms), nullptr);
}

TEST_F(ReplyDeliveryTest, SendCachedReplyTaskIsNamedAndSendsAfterASecond) {
    const std::string id = UniqueID::generateId();
    registered(id, m_catcher.port());
    SendCachedReplyTask resend(id, replyPackets(id), false);
    EXPECT_EQ(resend.getName(), "SendCachedReplyTask");
    auto caught = catchOne(HostAndUserId().toString());
    auto start = std::chrono::steady_clock::now();
    resend.execute();
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1000ms);
    EXPECT_EQ(caught.get().texts().size(), 3u);
    EXPECT_TRUE(
        m_capture.contains(LogLevel::Debug, "Sending cached replies for request " + id + "..."));
}
