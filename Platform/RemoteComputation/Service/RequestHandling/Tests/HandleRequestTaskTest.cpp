#include "ServerTestPeers.h"

#include "Platform/RemoteComputation/Service/RequestHandling/HandleRequestTask.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HostAndUserId.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingRequestJobLog.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogMessage.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <stdexcept>

using namespace Kestrane;
using namespace KestraneTest;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

std::string taskName(const std::string& requestId) {
    return "HandleRequestTask: type=LinkTestRequest, id=" + requestId;
}

class HandleRequestTaskTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_dir = fs::temp_directory_path() /
                ("HandleRequestTaskTest_" + UniqueID::generateId().substr(0, 16));
        fs::create_directories(m_dir);
        m_handler = ScriptedHandler::install();
        m_server = RequestServer::getInstance(-1, 0);
        ASSERT_NE(m_server, nullptr);
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(m_dir, ignored);
    }

    // A request package as the server registers it, with its reply going to `replyPort`
    // (none for 0).
    std::shared_ptr<RequestPackage> registered(const std::string& requestId, int replyPort) {
        auto package = decodePackage(requestPackage(linkRequest(requestId), replyPort));
        package->setRequestServer(m_server);
        m_server->addRequestPackage(package);
        return package;
    }
    std::unique_ptr<HandleRequestTask> task(std::shared_ptr<RequestPackage> package) {
        return std::make_unique<HandleRequestTask>(
            package, RequestHandler::getDefaultRequestHandler(), m_server);
    }
    // Runs the task while the catcher takes one delivery.
    Conversation executeAndCatch(HandleRequestTask& task, const std::string& identity,
                                 bool receiveFiles = false, const std::string& fileDir = "") {
        auto caught = std::async(std::launch::async, [&] {
            return m_catcher.catchOne(identity, receiveFiles, fileDir);
        });
        task.execute();
        return caught.get();
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

    LogCapture m_capture;
    fs::path m_dir;
    std::shared_ptr<ScriptedHandler> m_handler;
    RequestServer* m_server = nullptr;
    ReplyCatcher m_catcher;
};

std::shared_ptr<ReplyPackage> decodeReplyPackage(const Received& packet) {
    return ReplyPackage::decode(packet.data, nullptr);
}

} // namespace

TEST_F(HandleRequestTaskTest, ReplyWithoutAttachmentsGoesOutAsThreePackets) {
    const std::string id = UniqueID::generateId();
    m_handler->setScript(
        [](Request& request) { return std::make_shared<std::string>(linkReply(request.getId())); });
    auto package = registered(id, m_catcher.port());
    auto running = task(package);
    EXPECT_EQ(running->getName(), taskName(id));
    EXPECT_TRUE(
        m_capture.contains(LogLevel::Debug, "Created HandleRequestTask for request with type = "
                                            "'LinkTestRequest' and id = '" +
                                                id + "'."));

    // The raw bytes of the delivery, read to the end of the connection.
    auto caught = std::async(std::launch::async, [&] {
        std::string bytes;
        if (auto socket = m_catcher.accept(10s))
            socket->receiveDataBlock(bytes, 1 << 20);
        return bytes;
    });
    running->execute();
    const std::string bytes = caught.get();

    const std::string head = wirePacket("C", "REPLY_ID " + id);
    const std::string tail = wirePacket("C", "CLOSE_CONNECTION");
    ASSERT_EQ(bytes.rfind(head, 0), 0u) << bytes;
    ASSERT_GT(bytes.size(), head.size() + tail.size());
    EXPECT_EQ(bytes.substr(bytes.size() - tail.size()), tail);
    const std::string middle = bytes.substr(head.size(), bytes.size() - head.size() - tail.size());
    ASSERT_EQ(middle.rfind("RP ", 0), 0u);
    const std::string xml = middle.substr(middle.find(' ', 3) + 1);
    EXPECT_EQ(middle, wirePacket("RP", xml)); // exactly one packet between the two commands
    auto reply = ReplyPackage::decode(xml, nullptr);
    EXPECT_EQ(reply->getSerial(), 0u);
    EXPECT_EQ(reply->getReply()->getType(), "LinkTestReply");
    EXPECT_EQ(reply->getReply()->getRequestId(), id);

    EXPECT_EQ(m_handler->calls(), 1);
    EXPECT_TRUE(m_capture.contains(LogLevel::Debug, "Starting execution of " + taskName(id)));
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "Sending reply for " + taskName(id)));
    // No identity question without files.
    EXPECT_FALSE(m_capture.containsSubstring("GET_HOST_AND_USER_ID"));
    EXPECT_EQ(m_server->getRequestPackage(id), nullptr);
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "Removed LinkTestRequest request " + id));
}

TEST_F(HandleRequestTaskTest, EmptyOrNullReplyBecomesExceptionReply) {
    for (bool null : {false, true}) {
        const std::string id = UniqueID::generateId();
        m_handler->setScript([null](Request&) {
            return null ? std::shared_ptr<std::string>() : std::make_shared<std::string>("");
        });
        auto running = task(registered(id, m_catcher.port()));
        Conversation conversation = executeAndCatch(*running, HostAndUserId().toString());
        ASSERT_EQ(conversation.packets.size(), 3u) << null;
        EXPECT_EQ(conversation.texts()[0], "C REPLY_ID " + id);
        EXPECT_EQ(conversation.packets[1].type, "RP");
        EXPECT_TRUE(conversation.closed);
        auto reply = decodeReplyPackage(conversation.packets[1]);
        EXPECT_EQ(reply->getReply()->getType(), "ExceptionReply");
        EXPECT_EQ(reply->getReply()->getRequestId(), id);
        const std::string& xml = conversation.packets[1].data;
        EXPECT_NE(xml.find("Request handler returned an empty reply."), std::string::npos);
        EXPECT_NE(xml.find("Kestrane::HandleRequestTask::execute"), std::string::npos);
        EXPECT_NE(xml.find("RequestHandling"), std::string::npos);
    }
    EXPECT_EQ(m_capture.count("Request handler returned an empty reply."), 2u);
    for (const auto& line : m_capture.messages(LogLevel::Error))
        EXPECT_TRUE(line == "Request handler returned an empty reply.") << line;
}

TEST_F(HandleRequestTaskTest, HandlerExceptionsBecomeExceptionReplies) {
    const KsExceptionNested nested("the handler gave up", "Testing", "KestraneTest::script",
                                   __FILE__, __LINE__);
    struct Case {
        std::function<void()> raise;
        std::string line;
        std::string inReply;
    };
    const std::vector<Case> cases = {
        {[&] { throw nested; }, "KsExceptionNested while handling request: " + nested.log(),
         "the handler gave up"},
        {[] { throw KsException("plain failure"); },
         "KsException while handling request: plain failure", "plain failure"},
        {[] { throw std::runtime_error("standard failure"); },
         // Only the static type of the pointer reaches the reply, not the text.
         "std::exception while handling request: standard failure", "<exceptionStr>"},
    };
    for (const auto& c : cases) {
        const std::string id = UniqueID::generateId();
        m_handler->setScript([&c](Request&) -> std::shared_ptr<std::string> {
            c.raise();
            return nullptr;
        });
        auto running = task(registered(id, m_catcher.port()));
        Conversation conversation = executeAndCatch(*running, HostAndUserId().toString());
        EXPECT_TRUE(m_capture.contains(LogLevel::Error, c.line)) << c.line;
        ASSERT_EQ(conversation.packets.size(), 3u);
        auto reply = decodeReplyPackage(conversation.packets[1]);
        EXPECT_EQ(reply->getReply()->getType(), "ExceptionReply");
        EXPECT_EQ(reply->getSerial(), 0u);
        EXPECT_NE(conversation.packets[1].data.find(c.inReply), std::string::npos) << c.line;
        EXPECT_EQ(m_server->getRequestPackage(id), nullptr);
    }
}

TEST_F(HandleRequestTaskTest, ReplyNotExpectedStillRunsTheHandlerAndSendsNothing) {
    const std::string id = UniqueID::generateId();
    m_handler->setScript(
        [](Request& request) { return std::make_shared<std::string>(linkReply(request.getId())); });
    auto package = registered(id, 0);
    ASSERT_FALSE(package->isReplyExpected());
    task(package)->execute();
    EXPECT_EQ(m_handler->calls(), 1);
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "Ignoring reply for " + taskName(id)));
    EXPECT_FALSE(m_capture.containsSubstring("Sending reply for "));
    EXPECT_FALSE(m_capture.containsSubstring("Caching reply"));
    EXPECT_EQ(m_catcher.accept(300ms), nullptr);
    EXPECT_EQ(m_server->getRequestPackage(id), nullptr);
}

TEST_F(HandleRequestTaskTest, FileOfTheReplyGoesToReplyDirectoryOfTenIdCharacters) {
    const std::string id = UniqueID::generateId();
    const std::string source = file("result.dat", "computed");
    const std::string fileId = UniqueID::generateId();
    m_handler->setScript([&](Request& request) {
        return std::make_shared<std::string>(
            linkReply(request.getId(), dataElement(fileId, "file:///" + source)));
    });
    const fs::path received = m_dir / "received";
    fs::create_directories(received);
    auto running = task(registered(id, m_catcher.port()));
    Conversation conversation =
        executeAndCatch(*running, foreignIdentity(), true, received.string());
    auto texts = conversation.texts();
    ASSERT_EQ(texts.size(), 5u);
    // With files the identity question comes first.
    EXPECT_EQ(texts[0], "C GET_HOST_AND_USER_ID");
    EXPECT_EQ(texts[1], "C REPLY_ID " + id);
    EXPECT_EQ(texts[2], "C FILE Reply_" + id.substr(0, 10) + " " + fileId + " result.dat");
    EXPECT_EQ(conversation.packets[3].type, "RP");
    EXPECT_TRUE(conversation.closed);
    EXPECT_EQ(conversation.fileResults, std::vector<std::string>{""});
    std::ifstream in(received / "result.dat", std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "computed");
    EXPECT_TRUE(fs::exists(source)); // a reply file stays where its handler put it
}

TEST_F(HandleRequestTaskTest, RequestIdShorterThanTenGivesWholeIdAsDirectoryWord) {
    const std::string source = file("short.dat", "short id");
    const std::string fileId = UniqueID::generateId();
    m_handler->setIdOverride("SHORT42");
    m_handler->setScript([&](Request&) {
        // The reply names a well-formed id: only the request object carries the short one.
        return std::make_shared<std::string>(
            linkReply(UniqueID::c_nullId, dataElement(fileId, "file:///" + source)));
    });
    auto package =
        decodePackage(requestPackage(linkRequest(UniqueID::generateId()), m_catcher.port()));
    ASSERT_EQ(package->getRequest()->getId(), "SHORT42");
    package->setRequestServer(m_server);
    m_server->addRequestPackage(package);
    const fs::path received = m_dir / "received";
    fs::create_directories(received);
    auto running = task(package);
    EXPECT_EQ(running->getName(), "HandleRequestTask: type=LinkTestRequest, id=SHORT42");
    Conversation conversation =
        executeAndCatch(*running, foreignIdentity(), true, received.string());
    auto texts = conversation.texts();
    ASSERT_EQ(texts.size(), 5u);
    EXPECT_EQ(texts[1], "C REPLY_ID SHORT42");
    EXPECT_EQ(texts[2], "C FILE Reply_SHORT42 " + fileId + " short.dat");
    EXPECT_EQ(conversation.fileResults, std::vector<std::string>{""});
}

TEST_F(HandleRequestTaskTest, BlocksOfTheReplyFollowTheirCommands) {
    const std::string id = UniqueID::generateId();
    const std::string archId = UniqueID::generateId();
    const std::string hdfsId = UniqueID::generateId();
    auto* arch = static_cast<unsigned char*>(std::malloc(100));
    auto* hdfs = static_cast<unsigned char*>(std::malloc(128));
    for (int i = 0; i < 100; ++i)
        arch[i] = static_cast<unsigned char>(i + 1);
    for (int i = 0; i < 128; ++i)
        hdfs[i] = static_cast<unsigned char>(255 - i);
    const std::string archBytes(reinterpret_cast<char*>(arch), 100);
    const std::string hdfsBytes(reinterpret_cast<char*>(hdfs), 128);
    m_handler->setScript([&](Request& request) {
        return std::make_shared<std::string>(
            linkReply(request.getId(),
                      dataElement(archId, "arch://" + XLinkUtils::getAddressString(arch, true),
                                  " dataSize=\"100\"") +
                          dataElement(hdfsId, "hdfs://" + XLinkUtils::getAddressString(hdfs, true),
                                      " dataSize=\"128\"")));
    });
    // The arch block goes with its send; the hdfs block stays the handler's.
    auto running = task(registered(id, m_catcher.port()));
    Conversation conversation = executeAndCatch(*running, HostAndUserId().toString());
    auto texts = conversation.texts();
    ASSERT_EQ(texts.size(), 5u);
    EXPECT_EQ(texts[0], "C REPLY_ID " + id);
    EXPECT_EQ(texts[1], "C ARCH " + archId + " 100");
    EXPECT_EQ(conversation.packets[1].block, archBytes);
    EXPECT_EQ(texts[2], "C HDFS " + hdfsId + " 128");
    EXPECT_EQ(conversation.packets[2].block, hdfsBytes);
    EXPECT_EQ(conversation.packets[3].type, "RP");
    EXPECT_TRUE(conversation.closed);
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace,
                                   "Sending ArchAttachment: id=" + archId + ", dataSize=100"));
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace,
                                   "Sending HdfsAttachement: id=" + hdfsId + ", dataSize=128"));
    // The handler's block is untouched after the delivery and the handler frees it: a library
    // that freed it too would be a double free here (the sanitizer build sees it).
    running.reset();
    EXPECT_EQ(std::string(reinterpret_cast<char*>(hdfs), 128), hdfsBytes);
    std::free(hdfs);
}

TEST_F(HandleRequestTaskTest, ADhaLinkOfTheReplyTravelsAsAMemoryFileTheLibraryFrees) {
    const std::string id = UniqueID::generateId();
    auto* values = static_cast<double*>(std::malloc(16 * sizeof(double)));
    for (int i = 0; i < 16; ++i)
        values[i] = i * 0.5;
    m_handler->setScript([&](Request& request) {
        std::string element = *XLinkDataEncoder::encode<double>(
            "values", "8-byte double", values, 16, false, XLinkProtocol::dha, nullptr, false);
        return std::make_shared<std::string>(linkReply(request.getId(), element));
    });
    // The array is freed by the conversion, the memory file made from it with the reply's
    // packets (the sanitizer build reports a leak otherwise).
    auto running = task(registered(id, m_catcher.port()));
    Conversation conversation = executeAndCatch(*running, HostAndUserId().toString());
    auto texts = conversation.texts();
    ASSERT_EQ(texts.size(), 4u);
    EXPECT_EQ(texts[1].rfind("C HDFS ", 0), 0u) << texts[1];
    const std::string signature("\x89HDF\r\n\x1a\n", 8);
    EXPECT_EQ(conversation.packets[1].block.substr(0, 8), signature);
    EXPECT_EQ(conversation.packets[2].type, "RP");
}

TEST_F(HandleRequestTaskTest, FailureWhilePreparingKeepsReplyIdAndSendsExceptionReply) {
    const std::string id = UniqueID::generateId();
    const std::string missing = (m_dir / "never-written.dat").string();
    m_handler->setScript([&](Request& request) {
        return std::make_shared<std::string>(
            linkReply(request.getId(), dataElement(UniqueID::generateId(), "file:///" + missing)));
    });
    auto running = task(registered(id, m_catcher.port()));
    Conversation conversation = executeAndCatch(*running, HostAndUserId().toString());
    auto texts = conversation.texts();
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_EQ(texts[0], "C REPLY_ID " + id);
    auto reply = decodeReplyPackage(conversation.packets[1]);
    EXPECT_EQ(reply->getReply()->getType(), "ExceptionReply");
    EXPECT_NE(conversation.packets[1].data.find(
                  "Trying to create file FileAttachment for file that does not exist"),
              std::string::npos);
    bool warned = false;
    for (const auto& line : m_capture.messages(LogLevel::Warn))
        warned = warned || line.rfind("KsExceptionNested while preparing reply: ", 0) == 0;
    EXPECT_TRUE(warned);
}

TEST_F(HandleRequestTaskTest, StdExceptionWhilePreparingSendsExceptionReply) {
    const std::string id = UniqueID::generateId();
    m_handler->setScript([](Request& request) {
        // A block size that is no number.
        return std::make_shared<std::string>(
            linkReply(request.getId(),
                      dataElement(UniqueID::generateId(), "hdfs://#1234", " dataSize=\"many\"")));
    });
    auto running = task(registered(id, m_catcher.port()));
    Conversation conversation = executeAndCatch(*running, HostAndUserId().toString());
    auto texts = conversation.texts();
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_EQ(texts[0], "C REPLY_ID " + id);
    EXPECT_EQ(decodeReplyPackage(conversation.packets[1])->getReply()->getType(), "ExceptionReply");
    EXPECT_TRUE(m_capture.contains(LogLevel::Warn,
                                   "std::exception while preparing reply: bad lexical cast: source "
                                   "type value could not be interpreted as target"));
}

TEST_F(HandleRequestTaskTest, KsExceptionWhileSendingIsLoggedAndGoesNoFurther) {
    const std::string id = UniqueID::generateId();
    const std::string source = file("result.dat", "computed");
    m_handler->setScript([&](Request& request) {
        return std::make_shared<std::string>(
            linkReply(request.getId(), dataElement(UniqueID::generateId(), "file:///" + source)));
    });
    auto running = task(registered(id, m_catcher.port()));
    // The client's answer to the identity question is no identity.
    Conversation conversation = executeAndCatch(*running, "no-identity");
    ASSERT_GE(conversation.packets.size(), 1u);
    EXPECT_EQ(conversation.texts()[0], "C GET_HOST_AND_USER_ID");
    EXPECT_TRUE(m_capture.contains(
        LogLevel::Error,
        "Unexpected reply to GET_HOST_AND_USER_ID: C HOST_AND_USER_ID no-identity"));
    const std::string prefix = "KsExceptionNested while sending reply: ";
    bool warned = false;
    for (const auto& line : m_capture.messages(LogLevel::Warn))
        warned = warned ||
                 (line.rfind(prefix, 0) == 0 &&
                  line.find("Error sending request: unexpected reply to GET_HOST_AND_USER_ID!") !=
                      std::string::npos);
    EXPECT_TRUE(warned);
    // The exception ended the delivery: nothing was cached, and the request is done.
    EXPECT_FALSE(m_capture.containsSubstring("Caching reply"));
    EXPECT_EQ(m_server->getRequestPackage(id), nullptr);
}

TEST_F(HandleRequestTaskTest, ClientHangingUpOnTheIdentityQuestionEndsTheDelivery) {
    const std::string id = UniqueID::generateId();
    const std::string source = file("result.dat", "computed");
    m_handler->setScript([&](Request& request) {
        return std::make_shared<std::string>(
            linkReply(request.getId(), dataElement(UniqueID::generateId(), "file:///" + source)));
    });
    auto running = task(registered(id, m_catcher.port()));
    auto peer = std::async(std::launch::async, [&] {
        auto socket = m_catcher.accept(10s);
        return socket ? *SocketPacket::receive(*socket, "catcher")->getData() : std::string();
    });
    running->execute();
    EXPECT_EQ(peer.get(), "GET_HOST_AND_USER_ID");
    EXPECT_TRUE(
        m_capture.contains(LogLevel::Error, "Unexpected reply to GET_HOST_AND_USER_ID: NULL"));
    EXPECT_EQ(linesStartingWith(LogLevel::Warn, "KsExceptionNested while sending reply: "), 1u);
    EXPECT_FALSE(m_capture.containsSubstring("Caching reply"));
    EXPECT_EQ(m_server->getRequestPackage(id), nullptr);
}

TEST_F(HandleRequestTaskTest, FailedProgressUpdateLeavesTheNextWithTheSameSerial) {
    RequestServerConfiguration::getRegisteredInstance()->setValue("sendReplyMaxRetry", "0");
    const std::string id = UniqueID::generateId();
    m_handler->setScript(
        [](Request& request) { return std::make_shared<std::string>(linkReply(request.getId())); });
    auto package = registered(id, closedPort());
    auto running = task(package);
    auto progress = running->createProgressUpdate();
    EXPECT_EQ(progress->getType(), "ProgressUpdate");
    progress->addText("<requestLogMessage messageType=\"Info\" messageGroup=\"jobLog\" "
                      "timestamp=\"1\">half way</requestLogMessage>\n");

    running->sendProgressUpdate(*progress); // nobody listens
    EXPECT_TRUE(m_capture.contains(LogLevel::Warn, "Error sending progress update!"));
    EXPECT_FALSE(m_capture.containsSubstring("Caching packet for request")); // never cached

    // The client is back.
    HostInfo host = package->getRemoteHost();
    host.setRequestServerPort(m_catcher.port());
    package->setRemoteHost(host);
    for (unsigned int expected : {0u, 1u}) {
        auto caught = std::async(std::launch::async,
                                 [&] { return m_catcher.catchOne(HostAndUserId().toString()); });
        running->sendProgressUpdate(*progress);
        Conversation conversation = caught.get();
        ASSERT_EQ(conversation.packets.size(), 2u);
        EXPECT_EQ(conversation.packets[0].type, "PR");
        EXPECT_TRUE(conversation.closed);
        auto update = decodeReplyPackage(conversation.packets[0]);
        EXPECT_EQ(update->getSerial(), expected);
        EXPECT_EQ(update->getReply()->getType(), "ProgressUpdate");
        EXPECT_EQ(update->getReply()->getRequestId(), id);
    }
    EXPECT_EQ(m_capture.count("Error sending progress update!"), 1u);
    // The reply follows the updates.
    Conversation conversation = executeAndCatch(*running, HostAndUserId().toString());
    ASSERT_EQ(conversation.packets.size(), 3u);
    EXPECT_EQ(decodeReplyPackage(conversation.packets[1])->getSerial(), 2u);
}

TEST_F(HandleRequestTaskTest, LogMessagesOfTheRequestArePublished) {
    const std::string id = UniqueID::generateId();
    m_handler->setScript([](Request& request) {
        request.sendLogMessage(LogMessage("a word from the handler", LogMessage::Info, "jobLog"));
        return std::make_shared<std::string>(linkReply(request.getId()));
    });
    task(registered(id, 0))->execute();
    bool published = false;
    for (const auto& line : m_capture.messages(LogLevel::Trace))
        published = published || (line.rfind("LOGMSG - ", 0) == 0 &&
                                  line.find(" - a word from the handler") != std::string::npos);
    EXPECT_TRUE(published);
}

TEST(LivingRequestJobLogTest, TurnsJobMessagesIntoHeartbeatTexts) {
    LivingRequestJobLog log("request 7: ");
    EXPECT_EQ(log.getName(), "LivingRequest");
    EXPECT_EQ(log.logMessage("step 3 of 9", -1, true), 0);
    EXPECT_EQ(LivingProcess::getLastAliveMsg(""), "request 7: step 3 of 9");
    EXPECT_EQ(log.logMessage("step 4 of 9", 12, false), 0);
    EXPECT_EQ(LivingProcess::getLastAliveMsg(""), "request 7: step 4 of 9");
    EXPECT_EQ(log.getJobContext(), nullptr);
    EXPECT_EQ(log.flush(), 0);
}
