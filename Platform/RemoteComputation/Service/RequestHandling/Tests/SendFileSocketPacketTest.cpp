#include "LoopbackPair.h"

#include "Platform/RemoteComputation/Service/RequestHandling/FileCommand.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SendFileSocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileReceiver.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>
#include <unistd.h>

using namespace Kestrane;
using Kestrane::Testing::LoopbackPair;
namespace fs = boost::filesystem;
using namespace std::chrono_literals;

namespace {

const std::string c_fileId = "0123456789abcdef-0123456789abcdef-0123456789abcdef";
const std::string c_clientId = "fedcba9876543210-fedcba9876543210-fedcba9876543210";

struct Dirs {
    fs::path root = fs::temp_directory_path() / fs::unique_path("ks-sendfile-%%%%-%%%%-%%%%");
    fs::path source = root / "source";
    fs::path target = root / "target";
    Dirs() {
        fs::create_directories(source);
        fs::create_directories(target);
    }
    ~Dirs() {
        boost::system::error_code ignored;
        fs::remove_all(root, ignored);
    }
    size_t targetEntries() const {
        size_t count = 0;
        for (fs::directory_iterator it(target), end; it != end; ++it)
            ++count;
        return count;
    }
};

void writeFile(const fs::path& path, const std::string& bytes) {
    std::ofstream out(path.string(), std::ios::binary);
    out << bytes;
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path.string(), std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

class RecordingJobLog : public AbstractJobLog {
public:
    std::string getName() override { return "RecordingJobLog"; }
    int logMessage(const std::string& text, int64_t, bool) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_texts.push_back(text);
        return 0;
    }
    std::shared_ptr<void> getJobContext() override { return nullptr; }
    int flush() override { return 0; }
    std::vector<std::string> texts() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_texts;
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_texts;
};

// The receiving end of a connection: reads the "FILE " command and receives the file, as the
// connection task does, then reads one more packet.
struct ReceivingSide {
    std::string command;
    bool ok = false;
    bool copied = false;
    std::string error;
    std::string senderPath;
    std::string nextPacket;

    void run(Computing::Socket& socket, const fs::path& target, bool readNext = true) {
        auto packet = SocketPacket::receive(socket, "sender");
        command = *packet->getData();
        FileCommand parsed;
        if (!FileCommand::parse(command, parsed))
            return;
        Computing::FileReceiver receiver(socket.getSocket(), false, 65536);
        ok = receiver.execute(parsed.fileName, target.string(), copied);
        error = receiver.getErrorMessage();
        senderPath = receiver.getSenderPath();
        if (ok && readNext)
            nextPacket = *SocketPacket::receive(socket, "sender")->getData();
    }
};

} // namespace

TEST(SendFileSocketPacketTest, SendsCommandAndFileThenPacketsContinue) {
    Dirs dirs;
    writeFile(dirs.source / "input data.txt", "the attachment's bytes");
    LoopbackPair pair;
    LogCapture capture;
    ReceivingSide receiving;
    std::thread server([&] { receiving.run(*pair.server, dirs.target); });

    SendFileSocketPacket packet(c_clientId, c_fileId,
                                FileName((dirs.source / "input data.txt").string()), true, "", true,
                                nullptr);
    EXPECT_TRUE(packet.cachePacket());
    EXPECT_TRUE(packet.getForceTransfer());
    const bool sent = packet.send(pair.client, "peer");
    SocketPacket::send("C", "CLOSE_CONNECTION", pair.client, "peer");
    server.join();

    ASSERT_TRUE(sent) << packet.getErrorMessage();
    EXPECT_TRUE(packet.getFileCopied());
    EXPECT_EQ(receiving.command, "FILE " + c_clientId + " " + c_fileId + " input data.txt");
    ASSERT_TRUE(receiving.ok) << receiving.error;
    EXPECT_TRUE(receiving.copied);
    EXPECT_EQ(readFile(dirs.target / "input data.txt"), "the attachment's bytes");
    EXPECT_EQ(receiving.nextPacket, "CLOSE_CONNECTION");
    const std::string path = (dirs.source / "input data.txt").string();
    EXPECT_TRUE(capture.contains(LogLevel::Trace,
                                 "File sent: id=" + c_fileId + ", filePath=" + path + "."));
    EXPECT_EQ(packet.toString(), "FILE id=" + c_fileId + ", path=" + path);
}

TEST(SendFileSocketPacketTest, RemoteDirectoryNameGoesInTheCommand) {
    Dirs dirs;
    writeFile(dirs.source / "r.txt", "r");
    LoopbackPair pair;
    ReceivingSide receiving;
    std::thread server([&] { receiving.run(*pair.server, dirs.target, false); });
    SendFileSocketPacket packet(c_clientId, c_fileId, FileName((dirs.source / "r.txt").string()),
                                false, "ReplyDir", true, nullptr);
    EXPECT_FALSE(packet.cachePacket());
    EXPECT_TRUE(packet.send(pair.client, "peer")) << packet.getErrorMessage();
    server.join();
    EXPECT_EQ(receiving.command, "FILE ReplyDir " + c_fileId + " r.txt");
}

TEST(SendFileSocketPacketTest, SameHostAndUserIsNotCopiedAndTheJobLogSaysSo) {
    Dirs dirs;
    writeFile(dirs.source / "shared.txt", "shared");
    auto* config = RequestServerConfiguration::getRegisteredInstance();
    config->setValue("fileTransferProgressFirstUpdateDelay", "0");
    config->setValue("fileTransferProgressUpdateInterval", "0");
    LoopbackPair pair;
    ReceivingSide receiving;
    std::thread server([&] { receiving.run(*pair.server, dirs.target); });
    auto jobLog = std::make_shared<RecordingJobLog>();
    SendFileSocketPacket packet(c_clientId, c_fileId,
                                FileName((dirs.source / "shared.txt").string()), true, "", false,
                                jobLog);
    EXPECT_FALSE(packet.getForceTransfer());
    const bool sent = packet.send(pair.client, "peer");
    SocketPacket::send("C", "PING", pair.client, "peer");
    server.join();
    ASSERT_TRUE(sent) << packet.getErrorMessage();
    EXPECT_FALSE(packet.getFileCopied());
    EXPECT_TRUE(receiving.ok) << receiving.error;
    EXPECT_FALSE(receiving.copied);
    EXPECT_EQ(receiving.senderPath, (dirs.source / "shared.txt").string());
    EXPECT_EQ(receiving.nextPacket, "PING");
    EXPECT_EQ(dirs.targetEntries(), 0u);
    // The companion may look before or after the quick answer, or be cancelled before its
    // first look; these are the only possible job logs.
    const std::string start = "Starting transfer of file shared.txt...\n";
    const std::string none = "No transfer necessary (file shared or local).\n";
    const std::string end = "Finished transfer of file shared.txt.\n";
    const auto texts = jobLog->texts();
    EXPECT_TRUE(texts.empty() || texts == std::vector<std::string>({start, end}) ||
                texts == std::vector<std::string>({start, none, end}))
        << ::testing::PrintToString(texts);
}

TEST(SendFileSocketPacketTest, CancelBeforeSendLetsTheCommandOutAndLeavesTheFile) {
    Dirs dirs;
    const fs::path file = dirs.source / "kept.txt";
    writeFile(file, "unchanged");
    const auto before = fs::last_write_time(file);
    LoopbackPair pair;
    LogCapture capture;
    SendFileSocketPacket packet(c_clientId, c_fileId, FileName(file.string()), true, "", true,
                                nullptr);
    packet.cancelSend();
    EXPECT_FALSE(packet.send(pair.client, "peer"));
    pair.closeClientWrite();
    auto command = SocketPacket::receive(*pair.server, "sender");
    EXPECT_EQ(*command->getData(), "FILE " + c_clientId + " " + c_fileId + " kept.txt");
    // Nothing follows the command.
    EXPECT_EQ(LoopbackPair::readAll(*pair.server), "");
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Cancelling send..."));
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Send cancelled: skipping send!"));
    EXPECT_EQ(readFile(file), "unchanged");
    EXPECT_EQ(fs::last_write_time(file), before);
}

TEST(SendFileSocketPacketTest, CancelDuringSendEndsBothSidesWithNothingLeft) {
    Dirs dirs;
    const fs::path file = dirs.source / "huge.bin";
    {
        int fd = ::open(file.string().c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::ftruncate(fd, off_t(2) << 30), 0);
        ::close(fd);
    }
    RequestServerConfiguration::getRegisteredInstance()->setValue("fileCopyBlockSize", "65536");
    LoopbackPair pair;
    LogCapture capture;
    ReceivingSide receiving;
    std::thread server([&] { receiving.run(*pair.server, dirs.target); });
    SendFileSocketPacket packet(c_clientId, c_fileId, FileName(file.string()), true, "", true,
                                nullptr);
    std::thread canceller([&] {
        // Let the data flow first.
        capture.waitFor("Created FileTransferAliveThread (updateInterval=" +
                            std::to_string(RequestServerConfiguration::getRegisteredInstance()
                                               ->getAlivePublishInterval()) +
                            ")",
                        5000ms);
        std::this_thread::sleep_for(50ms);
        packet.cancelSend();
    });
    auto start = std::chrono::steady_clock::now();
    const bool sent = packet.send(pair.client, "peer");
    canceller.join();
    server.join();
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 5.0);
    EXPECT_FALSE(sent);
    EXPECT_FALSE(receiving.ok);
    EXPECT_FALSE(packet.getErrorMessage().empty());
    EXPECT_TRUE(capture.containsSubstring("Sending file was cancelled: id=" + c_fileId +
                                          ", filePath=" + file.string() + ".\n"));
    EXPECT_EQ(dirs.targetEntries(), 0u);
}

TEST(SendFileSocketPacketTest, MissingFileIsAnErrorLine) {
    Dirs dirs;
    const fs::path file = dirs.source / "missing.txt";
    LoopbackPair pair;
    LogCapture capture;
    ReceivingSide receiving;
    std::thread server([&] { receiving.run(*pair.server, dirs.target, false); });
    SendFileSocketPacket packet(c_clientId, c_fileId, FileName(file.string()), true, "", true,
                                nullptr);
    EXPECT_FALSE(packet.send(pair.client, "peer"));
    server.join();
    EXPECT_FALSE(receiving.ok);
    EXPECT_NE(packet.getErrorMessage().find("missing.txt"), std::string::npos);
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Error sending file: id=" + c_fileId +
                                                      ", filePath=" + file.string() + ".\n" +
                                                      packet.getErrorMessage()));
}
