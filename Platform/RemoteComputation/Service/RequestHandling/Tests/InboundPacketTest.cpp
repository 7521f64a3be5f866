#include "ServerTestPeers.h"

#include "Platform/RemoteComputation/Service/RequestHandling/HostAndUserId.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerErrorLogger.h"
#include "Platform/RemoteComputation/Service/RequestHandling/UnsharedTmpDir.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileSender.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <mutex>
#include <thread>

using namespace Kestrane;
using namespace KestraneTest;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

class RecordingErrorLogger : public RequestServerErrorLogger {
public:
    void logError(const std::string& message) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_messages.push_back(message);
    }
    std::vector<std::string> messages() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_messages;
};

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Little-endian numbers and length-prefixed texts, as a file transfer writes its header.
std::string u32(uint32_t value) {
    std::string out;
    for (int i = 0; i < 4; ++i)
        out += static_cast<char>((value >> (8 * i)) & 0xff);
    return out;
}
std::string u64(uint64_t value) {
    std::string out;
    for (int i = 0; i < 8; ++i)
        out += static_cast<char>((value >> (8 * i)) & 0xff);
    return out;
}
std::string text(const std::string& value) {
    return u32(static_cast<uint32_t>(value.size())) + value;
}

class InboundPacketTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string suffix = UniqueID::generateId().substr(0, 16);
        m_tmp = fs::temp_directory_path() / ("InboundPacketTest_tmp_" + suffix);
        m_source = fs::temp_directory_path() / ("InboundPacketTest_src_" + suffix);
        fs::create_directories(m_tmp);
        fs::create_directories(m_source);
        PathConfiguration::setKsPathTmp(FileName(m_tmp.string()));
        m_handler = ScriptedHandler::install();
        m_server = RequestServer::getInstance(-1, 0);
        ASSERT_NE(m_server, nullptr);
        m_port = m_server->getPort();
    }
    void TearDown() override {
        if (m_server)
            m_server->setErrorLogger(nullptr);
        std::error_code ignored;
        fs::remove_all(m_tmp, ignored);
        fs::remove_all(m_source, ignored);
    }

    // Waits until the server has ended `count` connections in all.
    bool handled(size_t count = 1) {
        auto deadline = std::chrono::steady_clock::now() + 5s;
        while (m_capture.count("Connection from 127.0.0.1 handled.") < count) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            std::this_thread::sleep_for(5ms);
        }
        return true;
    }
    std::string sourceFile(const std::string& name, const std::string& content) {
        fs::path path = m_source / name;
        std::ofstream(path, std::ios::binary) << content;
        return path.string();
    }
    // The directory that the server makes for a directory word.
    fs::path incomingDir(const std::string& word) const { return m_tmp / word; }
    // Sends a file after a "FILE " command of our own making.
    bool sendFile(RawClient& client, const std::string& command, const std::string& path,
                  const std::string& fileId, bool force, bool& copied) {
        client.command(command);
        Computing::FileSender sender(client.socket.getSocket(), false, 4096);
        sender.setForceTransfer(force);
        return sender.execute(path, fileId, copied);
    }
    // Lets the peer see the end of our side, and reads whatever the server still sends.
    std::string closeAndRead(RawClient& client) {
        ::shutdown(static_cast<int>(client.socket.getSocket()), SHUT_WR);
        return client.readUntilClosed();
    }

    LogCapture m_capture;
    fs::path m_tmp;
    fs::path m_source;
    std::shared_ptr<ScriptedHandler> m_handler;
    RequestServer* m_server = nullptr;
    int m_port = 0;
};

} // namespace

// ---- REPLY_ID ------------------------------------------------------------------------------

TEST_F(InboundPacketTest, ReplyIdOf59BytesIsTakenAndTheConnectionGoesOn) {
    const std::string id = UniqueID::generateId();
    RawClient client(m_port);
    client.command("REPLY_ID " + id);
    client.command("PING");
    EXPECT_EQ(client.read(8), "C 4 PONG");
    client.command("CLOSE_CONNECTION");
    EXPECT_EQ(client.readUntilClosed(), "");
    ASSERT_TRUE(handled());
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "Handling reply id..."));
    EXPECT_TRUE(m_capture.contains(LogLevel::Debug,
                                   "Reply attachments for request " + id +
                                       " will be stored in default location (*tmp/Reply_*)."));
    EXPECT_TRUE(
        m_capture.contains(LogLevel::Trace, "Connection from 127.0.0.1 closed by remote host."));
    EXPECT_FALSE(m_capture.containsSubstring("Error receiving reply packet."));
}

TEST_F(InboundPacketTest, ReplyIdOf58Or60BytesEndsTheConnection) {
    const std::string id = UniqueID::generateId();
    const std::vector<std::string> payloads = {"REPLY_ID " + id.substr(0, 49),
                                               "REPLY_ID " + id + "0"};
    for (const auto& payload : payloads) {
        ASSERT_TRUE(payload.size() == 58 || payload.size() == 60);
        RawClient client(m_port);
        // One write: the server may close before a second one, which would then fail.
        client.raw(wirePacket("C", payload) + wirePacket("C", "PING")); // the ping is never read
        EXPECT_EQ(client.readUntilClosed(), "") << payload;
        EXPECT_TRUE(
            m_capture.contains(LogLevel::Error, "Invalid reply id packet received: C " + payload));
    }
    ASSERT_TRUE(handled(2));
    EXPECT_EQ(m_capture.count("Error receiving reply packet."), 2u);
    EXPECT_FALSE(m_capture.containsSubstring("Ping packet received."));
}

TEST_F(InboundPacketTest, ReplyAttachmentPathReceivesTheFilesOfTheReply) {
    const std::string requestId = UniqueID::generateId();
    const fs::path target = m_source / "replies";
    fs::create_directories(target);
    std::shared_ptr<ReplyPackage> reply;
    std::thread waiter([&] {
        reply = m_server->getReplyHandler().receiveReply(requestId, nullptr, nullptr, nullptr, -1,
                                                         false, 0, FileName(target.string()));
    });
    while (m_server->getReplyHandler().getReplyAttachmentPath(requestId).empty())
        std::this_thread::sleep_for(2ms);

    const std::string source = sourceFile("result.bin", "the result of a computation");
    const std::string fileId = UniqueID::generateId();
    RawClient client(m_port);
    client.command("REPLY_ID " + requestId);
    bool copied = false;
    EXPECT_TRUE(sendFile(client, "FILE Reply_word " + fileId + " result.bin", source, fileId, true,
                         copied));
    EXPECT_TRUE(copied);
    const std::string package =
        ReplyPackageEncoder(linkReply(requestId, dataElement(fileId, "file:///far/result.bin")), 0)
            .getEncodedReplyPackage();
    client.raw(wirePacket("RP", package));
    client.command("CLOSE_CONNECTION");
    EXPECT_EQ(client.readUntilClosed(), "");
    waiter.join();

    ASSERT_NE(reply, nullptr);
    const FileName stored = FileName(target.string()) / "result.bin";
    EXPECT_EQ(readFile(stored.toNativeString()), "the result of a computation");
    auto elements = reply->getReply()->getDomElements("data");
    ASSERT_EQ(elements.size(), 1u);
    EXPECT_EQ(XmlUtils::getAttribute("href", elements[0]), "file:///" + stored.toString());
    EXPECT_TRUE(m_capture.contains(
        LogLevel::Debug, "Reply attachments for request " + requestId + " will be stored in '" +
                             FileName(target.string()).toString() + "'."));
    // The directory word of the command plays no part then.
    EXPECT_FALSE(fs::exists(incomingDir("Reply_word")));
}

TEST_F(InboundPacketTest, ReplyAttachmentPathThatIsNoDirectoryFallsBackToDefault) {
    const std::string notADirectory = sourceFile("plain.txt", "x");
    const std::string missing = (m_source / "missing").string();
    for (const std::string& path : {notADirectory, missing}) {
        const std::string requestId = UniqueID::generateId();
        std::shared_ptr<ReplyPackage> reply;
        std::thread waiter([&] {
            reply = m_server->getReplyHandler().receiveReply(requestId, nullptr, nullptr, nullptr,
                                                             -1, false, 0, FileName(path));
        });
        while (m_server->getReplyHandler().getReplyAttachmentPath(requestId).empty())
            std::this_thread::sleep_for(2ms);
        RawClient client(m_port);
        client.command("REPLY_ID " + requestId);
        client.command("PING");
        EXPECT_EQ(client.read(8), "C 4 PONG"); // the connection goes on
        client.raw(wirePacket(
            "RP", ReplyPackageEncoder(linkReply(requestId), 0).getEncodedReplyPackage()));
        client.command("CLOSE_CONNECTION");
        EXPECT_EQ(client.readUntilClosed(), "");
        waiter.join();
        EXPECT_NE(reply, nullptr);
        const std::string fallback = "\nReply attachments for request " + requestId +
                                     " will be stored in default location (*tmp/Reply_*).";
        const std::string problem = path == missing ? "' does not exist!" : "' is not a directory!";
        EXPECT_TRUE(m_capture.contains(LogLevel::Error, "Reply attachment path '" +
                                                            FileName(path).toNativeString() +
                                                            problem + fallback))
            << path;
        EXPECT_TRUE(m_capture.contains(LogLevel::Debug,
                                       "Reply attachments for request " + requestId +
                                           " will be stored in default location (*tmp/Reply_*)."));
    }
}

// ---- FILE: malformed commands ---------------------------------------------------------------

TEST_F(InboundPacketTest, FileCommandsThatDoNotParseEndTheConnection) {
    const std::string fileId = UniqueID::generateId();
    const std::vector<std::string> payloads = {
        "FILE  " + fileId + " leaf.txt",         // the space at position 5: no directory
        "FILE d " + fileId.substr(0, 40) + " x", // shorter than 59 bytes
        "FILE " + std::string(60, 'd'),          // no space behind the directory
    };
    ASSERT_LT(payloads[1].size(), 59u);
    for (const auto& payload : payloads) {
        RawClient client(m_port);
        client.raw(wirePacket("C", payload) + wirePacket("C", "PING"));
        EXPECT_EQ(client.readUntilClosed(), "") << payload;
        EXPECT_TRUE(m_capture.contains(LogLevel::Error,
                                       "Invalid file attachment packet received: C " + payload));
    }
    ASSERT_TRUE(handled(3));
    EXPECT_EQ(m_capture.count("Error receiving file packet."), 3u);
    EXPECT_EQ(m_capture.count("Handling file packet..."), 3u);
    EXPECT_TRUE(fs::is_empty(m_tmp));
}

TEST_F(InboundPacketTest, DirectoryWordThatLeavesTooLittleBehindThrowsOutOfRange) {
    // 60 characters of directory, then only 10 where the file id and name should stand.
    const std::string payload = "FILE " + std::string(60, 'd') + " 0123456789";
    const size_t space = payload.find(' ', 5);
    std::string expected;
    try {
        (void)payload.substr(space + 52);
    } catch (const std::out_of_range& e) {
        expected = e.what();
    }
    ASSERT_FALSE(expected.empty());
    RawClient client(m_port);
    client.raw(wirePacket("C", payload) + wirePacket("C", "PING"));
    EXPECT_EQ(client.readUntilClosed(), "");
    ASSERT_TRUE(handled());
    EXPECT_TRUE(m_capture.contains(
        LogLevel::Error, "std::exception handling connection from 127.0.0.1: " + expected));
    EXPECT_FALSE(m_capture.containsSubstring("Error receiving file packet."));
    EXPECT_TRUE(fs::is_empty(m_tmp)); // nothing was made for it
}

// ---- FILE: receptions -----------------------------------------------------------------------

TEST_F(InboundPacketTest, CopiedFileLandsInTheUnsharedTmpDirAndBindsToTheRequest) {
    const std::string source = sourceFile("input.dat", "0123456789abcdef");
    const std::string fileId = UniqueID::generateId();
    const std::string requestId = UniqueID::generateId();
    RawClient client(m_port);
    bool copied = false;
    ASSERT_TRUE(
        sendFile(client, "FILE Word1 " + fileId + " input.dat", source, fileId, true, copied));
    EXPECT_TRUE(copied);
    client.raw(wirePacket(
        "RQ",
        requestPackage(linkRequest(requestId, dataElement(fileId, "file:///x/input.dat")), 0)));
    client.command("CLOSE_CONNECTION");
    EXPECT_EQ(client.readUntilClosed(), "");
    ASSERT_TRUE(m_capture.waitFor(
        "Ignoring reply for HandleRequestTask: type=LinkTestRequest, id=" + requestId, 5000ms));

    const FileName dir(incomingDir("Word1").string());
    const FileName stored = dir / "input.dat";
    EXPECT_EQ(readFile(stored.toNativeString()), "0123456789abcdef");
    auto seen = m_handler->seen();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].href, "file:///" + stored.toString());
    EXPECT_EQ(seen[0].fileTransfered, "true");
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "Handling file packet..."));
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "fileId = " + fileId));
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "tmpDirNameStr = Word1"));
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "originalFileNameStr = input.dat"));
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "incomingFilesDir = " + dir.toString()));
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "Receiving file input.dat..."));
    EXPECT_TRUE(
        m_capture.contains(LogLevel::Trace, "File received (copied): " + stored.toString()));
    // The request came from this connection, and got no temporary paths from it.
    EXPECT_EQ(m_handler->calls(), 1);
    EXPECT_EQ(m_handler->lastClientDescription(), "127.0.0.1");
    EXPECT_EQ(m_handler->lastTmpPathCount(), 0u);
}

TEST_F(InboundPacketTest, FileNotCopiedIsReadWhereItIsAndItsNewDirectoryGoes) {
    const std::string source = sourceFile("shared.dat", "seen by both sides");
    const std::string fileId = UniqueID::generateId();
    const std::string requestId = UniqueID::generateId();
    RawClient client(m_port);
    bool copied = true;
    // Same host and same user, and no forced transfer: the receiver reads the sender's file.
    ASSERT_TRUE(
        sendFile(client, "FILE Word2 " + fileId + " shared.dat", source, fileId, false, copied));
    EXPECT_FALSE(copied);
    client.raw(wirePacket(
        "RQ",
        requestPackage(linkRequest(requestId, dataElement(fileId, "file:///x/shared.dat")), 0)));
    client.command("CLOSE_CONNECTION");
    EXPECT_EQ(client.readUntilClosed(), "");
    ASSERT_TRUE(m_capture.waitFor(
        "Ignoring reply for HandleRequestTask: type=LinkTestRequest, id=" + requestId, 5000ms));

    auto seen = m_handler->seen();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].href, "file:///" + FileName(source).toString());
    EXPECT_EQ(seen[0].fileTransfered, "");
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "File received (not copied): " + source));
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace,
                                   "Deleting dir for incoming files: " +
                                       FileName(incomingDir("Word2").string()).toString()));
    EXPECT_FALSE(fs::exists(incomingDir("Word2")));
    EXPECT_TRUE(fs::exists(source));
}

TEST_F(InboundPacketTest, FileNotCopiedLeavesADirectoryThatWasThereBefore) {
    const FileName existing = UnsharedTmpDir("Word3").getPath();
    ASSERT_TRUE(fs::is_directory(existing.toNativeString()));
    const std::string source = sourceFile("shared.dat", "seen by both sides");
    const std::string fileId = UniqueID::generateId();
    RawClient client(m_port);
    bool copied = true;
    ASSERT_TRUE(
        sendFile(client, "FILE Word3 " + fileId + " shared.dat", source, fileId, false, copied));
    EXPECT_FALSE(copied);
    client.command("CLOSE_CONNECTION");
    EXPECT_EQ(client.readUntilClosed(), "");
    ASSERT_TRUE(handled());
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "File received (not copied): " + source));
    EXPECT_FALSE(m_capture.containsSubstring("Deleting dir for incoming files: "));
    EXPECT_TRUE(fs::is_directory(existing.toNativeString()));
}

TEST_F(InboundPacketTest, FileNameThatLeavesTheDirectoryIsRefused) {
    RecordingErrorLogger errors;
    m_server->setErrorLogger(&errors);
    const std::string source = sourceFile("escape.dat", "must not leave its directory");
    const std::string fileId = UniqueID::generateId();
    RawClient client(m_port);
    bool copied = true;
    EXPECT_FALSE(
        sendFile(client, "FILE Word4 " + fileId + " ../escape.dat", source, fileId, true, copied));
    EXPECT_EQ(closeAndRead(client), "");
    ASSERT_TRUE(handled());

    const std::string dir = FileName(incomingDir("Word4").string()).toString();
    const std::string message =
        "Error receiving file ../escape.dat to " + dir +
        ":\nFile transfer refused: '../escape.dat' is not a plain file name";
    EXPECT_TRUE(m_capture.contains(LogLevel::Error, message));
    EXPECT_TRUE(m_capture.contains(LogLevel::Error, "Error receiving file packet."));
    EXPECT_EQ(errors.messages(), std::vector<std::string>{message});
    EXPECT_FALSE(fs::exists(m_tmp / "escape.dat"));
    EXPECT_FALSE(fs::exists(incomingDir("Word4")));
}

TEST_F(InboundPacketTest, TransferCutInTheMiddleLeavesNothingBehind) {
    RecordingErrorLogger errors;
    m_server->setErrorLogger(&errors);
    const std::string fileId = UniqueID::generateId();
    RawClient client(m_port);
    client.command("FILE Word5 " + fileId + " cut.dat");
    // The sender's side of the transfer by hand: announce 1000 bytes, send 100, go away.
    ASSERT_EQ(client.read(4), "KSFR");
    client.raw("KSFHF" + u64(1000) + text("cut.dat") + text("/far/cut.dat") +
               text(foreignIdentity()) + text(fileId));
    ASSERT_EQ(client.read(1), "C");
    client.raw(std::string(100, 'x'));
    EXPECT_EQ(closeAndRead(client), "");
    ASSERT_TRUE(handled());

    const std::string prefix = "Error receiving file cut.dat to " +
                               FileName(incomingDir("Word5").string()).toString() + ":\n";
    bool found = false;
    for (const auto& line : m_capture.messages(LogLevel::Error))
        found = found || line.rfind(prefix, 0) == 0;
    EXPECT_TRUE(found);
    EXPECT_TRUE(m_capture.contains(LogLevel::Error, "Error receiving file packet."));
    ASSERT_EQ(errors.messages().size(), 1u);
    EXPECT_EQ(errors.messages()[0].rfind(prefix, 0), 0u);
    // No file, no partial file, and no directory made for it.
    EXPECT_FALSE(fs::exists(incomingDir("Word5")));
    EXPECT_TRUE(fs::is_empty(m_tmp));
}

// ---- HDFS and ARCH --------------------------------------------------------------------------

TEST_F(InboundPacketTest, BlocksAreReadExactlyAndBindToTheRequest) {
    const std::string hdfsId = UniqueID::generateId();
    const std::string archId = UniqueID::generateId();
    const std::string requestId = UniqueID::generateId();
    std::string hdfsBytes(128, '\0');
    for (size_t i = 0; i < hdfsBytes.size(); ++i)
        hdfsBytes[i] = static_cast<char>(i * 7);
    const std::string archBytes(100, 'a');
    RawClient client(m_port);
    client.command("HDFS " + hdfsId + " 128");
    client.raw(hdfsBytes);
    client.command("ARCH " + archId + " 100");
    client.raw(archBytes);
    client.command("PING"); // read right behind the blocks
    EXPECT_EQ(client.read(8), "C 4 PONG");
    client.raw(wirePacket(
        "RQ", requestPackage(linkRequest(requestId, dataElement(hdfsId, "hdfs://#1") +
                                                        dataElement(archId, "arch://#2")),
                             0)));
    client.command("CLOSE_CONNECTION");
    EXPECT_EQ(client.readUntilClosed(), "");
    ASSERT_TRUE(m_capture.waitFor(
        "Ignoring reply for HandleRequestTask: type=LinkTestRequest, id=" + requestId, 5000ms));
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "Handling hdfs packet..."));
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "Handling arch packet..."));

    auto seen = m_handler->seen();
    ASSERT_EQ(seen.size(), 2u);
    ASSERT_EQ(seen[0].href.rfind("hdfs://#", 0), 0u) << seen[0].href;
    ASSERT_EQ(seen[1].href.rfind("arch://#", 0), 0u) << seen[1].href;
    void* hdfs = XLinkUtils::getAddressFromString(seen[0].href.substr(8));
    void* arch = XLinkUtils::getAddressFromString(seen[1].href.substr(8));
    ASSERT_NE(hdfs, nullptr);
    ASSERT_NE(arch, nullptr);
    EXPECT_EQ(std::string(static_cast<char*>(hdfs), 128), hdfsBytes);
    EXPECT_EQ(std::string(static_cast<char*>(arch), 100), archBytes);
    // The blocks went to the request; its handler (here: the test) releases them.
    std::free(hdfs);
    std::free(arch);
}

TEST_F(InboundPacketTest, BlockCommandsOf58BytesAreRefused) {
    const std::string id = UniqueID::generateId();
    for (const std::string kind : {"hdfs", "arch"}) {
        std::string word = kind == "hdfs" ? "HDFS " : "ARCH ";
        const std::string payload = word + id + " 12";
        ASSERT_EQ(payload.size(), 58u);
        RawClient client(m_port);
        // The block that was announced, and a ping that is never read.
        client.raw(wirePacket("C", payload) + "012345678901" + wirePacket("C", "PING"));
        EXPECT_EQ(client.readUntilClosed(), "") << kind;
        EXPECT_TRUE(m_capture.contains(
            LogLevel::Error, "Invalid " + kind + " attachment packet received: C " + payload));
        EXPECT_TRUE(m_capture.waitFor("Error receiving " + kind + " packet.", 2000ms));
    }
    EXPECT_FALSE(m_capture.containsSubstring("Ping packet received."));
}

TEST_F(InboundPacketTest, BlockSizeThatIsNoNumberEndsTheConnection) {
    const std::string payload = "HDFS " + UniqueID::generateId() + " abc";
    ASSERT_EQ(payload.size(), 59u);
    RawClient client(m_port);
    client.raw(wirePacket("C", payload) + wirePacket("C", "PING"));
    EXPECT_EQ(client.readUntilClosed(), "");
    ASSERT_TRUE(handled());
    EXPECT_TRUE(m_capture.contains(LogLevel::Error,
                                   "std::exception handling connection from 127.0.0.1: bad lexical "
                                   "cast: source type value could not be interpreted as target"));
    EXPECT_FALSE(m_capture.containsSubstring("Error receiving hdfs packet."));
}

// ---- packages -------------------------------------------------------------------------------

TEST_F(InboundPacketTest, RequestThatDoesNotDecodeIsRefusedOnItsOwnConnection) {
    const std::string bad = "<KS_RequestPackage>no package at all";
    std::string expected;
    try {
        std::map<std::string, std::shared_ptr<Attachment>> none;
        RequestPackage::decode(bad, *RequestHandler::getDefaultRequestHandler(), &none, "127.0.0.1",
                               "127.0.0.1");
    } catch (const KsExceptionNested& e) {
        ReplyEncoder encoder("InvalidPackageReply", UniqueID::c_nullId);
        encoder.addElement("errorMessage", "error decoding request package");
        encoder.addKsException(e);
        expected = encoder.getEncodedReply("   ", "  ");
    }
    ASSERT_FALSE(expected.empty()) << "the package must fail with KsExceptionNested";

    RawClient client(m_port);
    client.raw(wirePacket("RQ", bad));
    EXPECT_EQ(client.read(wirePacket("RP", expected).size()), wirePacket("RP", expected));
    // The refused client can still say goodbye, and the task ends normally.
    client.command("CLOSE_CONNECTION");
    EXPECT_EQ(client.readUntilClosed(), "");
    ASSERT_TRUE(handled());
    EXPECT_TRUE(m_capture.contains(LogLevel::Debug, "Sending reply:\n" + expected));
    EXPECT_TRUE(
        m_capture.contains(LogLevel::Trace, "Connection from 127.0.0.1 closed by remote host."));
    EXPECT_FALSE(m_capture.containsSubstring("handling connection from"));

    auto reply = Reply::decode(expected);
    EXPECT_EQ(reply->getType(), "InvalidPackageReply");
    EXPECT_EQ(reply->getRequestId(), "0000000000000000-0000000000000000-0000000000000000");
    EXPECT_EQ(reply->getElement("errorMessage"), "error decoding request package");
    EXPECT_EQ(m_handler->calls(), 0);
}

TEST_F(InboundPacketTest, ReplyOrProgressThatDoesNotDecodeKeepsTheConnection) {
    RawClient client(m_port);
    client.raw(wirePacket("RP", "no reply"));
    client.raw(wirePacket("PR", "no progress"));
    client.command("PING");
    EXPECT_EQ(client.read(8), "C 4 PONG");
    client.command("CLOSE_CONNECTION");
    EXPECT_EQ(client.readUntilClosed(), "");
    ASSERT_TRUE(handled());
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "Handling reply packet..."));
    EXPECT_TRUE(m_capture.contains(LogLevel::Error, "Error decoding replyPacket: no reply"));
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "Handling progress packet..."));
    EXPECT_TRUE(m_capture.contains(LogLevel::Error, "Error decoding progress packet: no progress"));
}

TEST_F(InboundPacketTest, RequestIsRegisteredWhileItRunsAndTheConnectionReadsOn) {
    const std::string requestId = UniqueID::generateId();
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    m_handler->setScript([released](Request& request) {
        released.wait();
        return std::make_shared<std::string>(linkReply(request.getId()));
    });
    RawClient client(m_port);
    client.raw(wirePacket("RQ", requestPackage(linkRequest(requestId), 0)));
    // The connection does not wait for the request.
    client.command("PING");
    EXPECT_EQ(client.read(8), "C 4 PONG");
    ASSERT_TRUE(m_capture.waitFor("Starting execution of HandleRequestTask: type=LinkTestRequest, "
                                  "id=" +
                                      requestId,
                                  5000ms));
    auto package = m_server->getRequestPackage(requestId);
    ASSERT_NE(package, nullptr);
    EXPECT_EQ(package->getRequestServer(), m_server);
    EXPECT_EQ(package->getLocalIp(), "127.0.0.1");
    EXPECT_EQ(package->getRequest()->getClientDescription(), "127.0.0.1");
    release.set_value();
    client.command("CLOSE_CONNECTION");
    EXPECT_EQ(client.readUntilClosed(), "");
    ASSERT_TRUE(m_capture.waitFor(
        "Ignoring reply for HandleRequestTask: type=LinkTestRequest, id=" + requestId, 5000ms));
    ASSERT_TRUE(m_capture.waitFor("Removed LinkTestRequest request " + requestId, 5000ms));
    EXPECT_EQ(m_server->getRequestPackage(requestId), nullptr);
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "Handling request packet..."));
}

// ---- commands with an answer ----------------------------------------------------------------

TEST_F(InboundPacketTest, IdentityQuestionIsAnsweredWithThisProcessHostAndUser) {
    const std::string expected = wirePacket("C", "HOST_AND_USER_ID " + HostAndUserId().toString());
    RawClient client(m_port);
    client.command("GET_HOST_AND_USER_ID");
    EXPECT_EQ(client.read(expected.size()), expected);
    client.command("GET_HOST_AND_USER_ID"); // asked twice, answered twice
    EXPECT_EQ(client.read(expected.size()), expected);
    client.command("CLOSE_CONNECTION");
    EXPECT_EQ(client.readUntilClosed(), "");
    ASSERT_TRUE(handled());
    EXPECT_EQ(m_capture.count("GET_HOST_AND_USER_ID packet received."), 2u);
}

TEST_F(InboundPacketTest, ForwardCallbackShorterThan18BytesEndsTheConnection) {
    RawClient client(m_port);
    client.raw(wirePacket("C", "FORWARD_CALLBACK ") + wirePacket("C", "PING"));
    EXPECT_EQ(client.readUntilClosed(), "");
    ASSERT_TRUE(handled());
    EXPECT_TRUE(m_capture.contains(LogLevel::Trace, "Handling forward callback packet..."));
    EXPECT_TRUE(m_capture.contains(
        LogLevel::Error, "Invalid forward callback packet received: C FORWARD_CALLBACK "));
    EXPECT_TRUE(m_capture.contains(LogLevel::Error, "Error receiving forward callback packet."));
}

TEST_F(InboundPacketTest, ForwardCallbackThatFailsIsAnsweredWithErrorAndGoesOn) {
    RawClient client(m_port);
    client.command("FORWARD_CALLBACK x"); // 18 bytes, but no callback string
    EXPECT_EQ(client.read(9), "C 5 ERROR");
    client.command("PING");
    EXPECT_EQ(client.read(8), "C 4 PONG");
    client.command("CLOSE_CONNECTION");
    EXPECT_EQ(client.readUntilClosed(), "");
    ASSERT_TRUE(handled());
    EXPECT_FALSE(m_capture.containsSubstring("Error receiving forward callback packet."));
}
