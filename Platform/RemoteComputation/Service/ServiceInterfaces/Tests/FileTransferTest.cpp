#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileReceiver.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileSender.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <future>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace Kestrane;
using namespace Kestrane::Computing;
namespace fs = boost::filesystem;

namespace {

struct Pair {
    ListenSocket listener{0, 1, 4};
    ClientSocket client;
    std::unique_ptr<ServerSocket> server;
    Pair() {
        client.connect("127.0.0.1", listener.getListenPort());
        server = std::make_unique<ServerSocket>(listener.accept());
    }
};

struct TempDirs {
    fs::path root;
    fs::path source;
    fs::path target;
    TempDirs() {
        root = fs::temp_directory_path() / fs::unique_path("ks-filetransfer-%%%%-%%%%-%%%%");
        source = root / "source";
        target = root / "target";
        fs::create_directories(source);
        fs::create_directories(target);
    }
    ~TempDirs() {
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

std::string randomBytes(size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(size, '\0');
    for (auto& c : bytes)
        c = static_cast<char>(generator() & 0xff);
    return bytes;
}

void writeFile(const fs::path& path, const std::string& bytes) {
    std::ofstream out(path.string(), std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path.string(), std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// A large file that costs no disk on the sending side.
void makeSparseFile(const fs::path& path, uint64_t size) {
    int fd = ::open(path.string().c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(size)), 0);
    ::close(fd);
}

struct Outcome {
    bool ok = false;
    bool copied = false;
    std::string error;
};

struct Transfer {
    Outcome sent;
    Outcome received;
};

Transfer transfer(Pair& pair, FileSender& sender, FileReceiver& receiver, const fs::path& file,
                  const std::string& name, const fs::path& directory) {
    Transfer result;
    std::thread receiving([&] {
        result.received.ok = receiver.execute(name, directory.string(), result.received.copied);
        result.received.error = receiver.getErrorMessage();
    });
    result.sent.ok = sender.execute(file.string(), "id-1", result.sent.copied);
    result.sent.error = sender.getErrorMessage();
    receiving.join();
    (void)pair;
    return result;
}

} // namespace

TEST(FileSenderTest, LeafNameCheck) {
    EXPECT_TRUE(FileBase::isPlainLeafName("data.bin"));
    EXPECT_TRUE(FileBase::isPlainLeafName("with space.txt"));
    EXPECT_FALSE(FileBase::isPlainLeafName(""));
    EXPECT_FALSE(FileBase::isPlainLeafName("."));
    EXPECT_FALSE(FileBase::isPlainLeafName(".."));
    EXPECT_FALSE(FileBase::isPlainLeafName("../x"));
    EXPECT_FALSE(FileBase::isPlainLeafName("a/b"));
    EXPECT_FALSE(FileBase::isPlainLeafName("a\\b"));
    EXPECT_FALSE(FileBase::isPlainLeafName(std::string("a\0b", 3)));
}

TEST(FileSenderTest, EmptyFileIsCopied) {
    TempDirs dirs;
    writeFile(dirs.source / "empty.dat", "");
    Pair pair;
    FileSender sender(pair.client.getSocket(), false, 65536);
    sender.setForceTransfer(true);
    FileReceiver receiver(pair.server->getSocket(), false, 65536);
    Transfer t =
        transfer(pair, sender, receiver, dirs.source / "empty.dat", "empty.dat", dirs.target);
    ASSERT_TRUE(t.sent.ok) << t.sent.error;
    ASSERT_TRUE(t.received.ok) << t.received.error;
    EXPECT_TRUE(t.sent.copied);
    EXPECT_TRUE(t.received.copied);
    ASSERT_TRUE(fs::exists(dirs.target / "empty.dat"));
    EXPECT_EQ(fs::file_size(dirs.target / "empty.dat"), 0u);
    EXPECT_EQ(dirs.targetEntries(), 1u);
}

TEST(FileSenderTest, SmallFileArrivesWithItsContent) {
    TempDirs dirs;
    const std::string content = "small file\nwith two lines\n";
    writeFile(dirs.source / "small.txt", content);
    Pair pair;
    FileSender sender(pair.client.getSocket(), false, 4096);
    sender.setForceTransfer(true);
    FileReceiver receiver(pair.server->getSocket(), false, 4096);
    Transfer t =
        transfer(pair, sender, receiver, dirs.source / "small.txt", "small.txt", dirs.target);
    ASSERT_TRUE(t.sent.ok) << t.sent.error;
    ASSERT_TRUE(t.received.ok) << t.received.error;
    EXPECT_EQ(readFile(dirs.target / "small.txt"), content);
    EXPECT_EQ(receiver.getFileId(), "id-1");
    EXPECT_EQ(receiver.getSenderLeafName(), "small.txt");
    bool noTransfer = true;
    uint64_t total = 0;
    uint64_t done = 0;
    receiver.getProgress(noTransfer, total, done);
    EXPECT_FALSE(noTransfer);
    EXPECT_EQ(total, content.size());
    EXPECT_EQ(done, content.size());
    sender.getProgress(noTransfer, total, done);
    EXPECT_FALSE(noTransfer);
    EXPECT_EQ(total, content.size());
    EXPECT_EQ(done, content.size());
}

TEST(FileSenderTest, MultiMegabyteFileArrivesIntactAndReportsThroughput) {
    TempDirs dirs;
    const std::string content = randomBytes(24u << 20, 7);
    writeFile(dirs.source / "big.bin", content);
    Pair pair;
    FileSender sender(pair.client.getSocket(), false, 1u << 20);
    sender.setForceTransfer(true);
    FileReceiver receiver(pair.server->getSocket(), false, 1u << 20);
    auto start = std::chrono::steady_clock::now();
    Transfer t = transfer(pair, sender, receiver, dirs.source / "big.bin", "big.bin", dirs.target);
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_TRUE(t.sent.ok) << t.sent.error;
    ASSERT_TRUE(t.received.ok) << t.received.error;
    EXPECT_EQ(fs::file_size(dirs.target / "big.bin"), content.size());
    EXPECT_TRUE(readFile(dirs.target / "big.bin") == content);
    EXPECT_EQ(dirs.targetEntries(), 1u);
    std::cout << "[ throughput ] " << content.size() / (1024.0 * 1024.0) / seconds
              << " MB/s over loopback (" << content.size() << " bytes in " << seconds << " s)"
              << std::endl;
}

TEST(FileSenderTest, ProgressIsVisibleDuringTheTransfer) {
    TempDirs dirs;
    makeSparseFile(dirs.source / "large.bin", 64u << 20);
    Pair pair;
    FileSender sender(pair.client.getSocket(), false, 4096);
    sender.setForceTransfer(true);
    FileReceiver receiver(pair.server->getSocket(), false, 4096);
    std::atomic<bool> finished{false};
    uint64_t seenTotal = 0;
    bool seenIntermediate = false;
    std::thread watcher([&] {
        while (!finished.load()) {
            bool noTransfer = false;
            uint64_t total = 0;
            uint64_t done = 0;
            receiver.getProgress(noTransfer, total, done);
            if (total != 0)
                seenTotal = total;
            if (done > 0 && done < total)
                seenIntermediate = true;
        }
    });
    Transfer t =
        transfer(pair, sender, receiver, dirs.source / "large.bin", "large.bin", dirs.target);
    finished.store(true);
    watcher.join();
    ASSERT_TRUE(t.sent.ok) << t.sent.error;
    ASSERT_TRUE(t.received.ok) << t.received.error;
    EXPECT_EQ(seenTotal, 64u << 20);
    EXPECT_TRUE(seenIntermediate);
    EXPECT_EQ(fs::file_size(dirs.target / "large.bin"), 64u << 20);
}

namespace {
// Starts a transfer of a large file, cancels `which` side once data flows, and checks that both
// sides fail promptly and nothing is left in the target directory.
void cancelDuringTransfer(bool cancelSender) {
    TempDirs dirs;
    makeSparseFile(dirs.source / "huge.bin", 2ull << 30);
    Pair pair;
    FileSender sender(pair.client.getSocket(), false, 65536);
    sender.setForceTransfer(true);
    FileReceiver receiver(pair.server->getSocket(), false, 65536);
    FileBase& cancelled = cancelSender ? static_cast<FileBase&>(sender) : receiver;
    auto start = std::chrono::steady_clock::now();
    std::thread canceller([&] {
        for (;;) {
            bool noTransfer = false;
            uint64_t total = 0;
            uint64_t done = 0;
            cancelled.getProgress(noTransfer, total, done);
            if (done > 0)
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        cancelled.cancel();
    });
    Transfer t =
        transfer(pair, sender, receiver, dirs.source / "huge.bin", "huge.bin", dirs.target);
    canceller.join();
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_FALSE(t.sent.ok);
    EXPECT_FALSE(t.received.ok);
    EXPECT_NE((cancelSender ? t.sent.error : t.received.error).find("cancelled"),
              std::string::npos);
    EXPECT_LT(seconds, 5.0);
    EXPECT_EQ(dirs.targetEntries(), 0u);
}
} // namespace

TEST(FileSenderTest, CancelOfTheSenderEndsBothSides) {
    cancelDuringTransfer(true);
}

TEST(FileReceiverTest, CancelOfTheReceiverEndsBothSides) {
    cancelDuringTransfer(false);
}

TEST(FileSenderTest, CancelBeforeExecuteFailsBothSides) {
    TempDirs dirs;
    writeFile(dirs.source / "a.txt", "abc");
    Pair pair;
    FileSender sender(pair.client.getSocket(), false, 4096);
    FileReceiver receiver(pair.server->getSocket(), false, 4096);
    sender.cancel();
    Transfer t = transfer(pair, sender, receiver, dirs.source / "a.txt", "a.txt", dirs.target);
    EXPECT_FALSE(t.sent.ok);
    EXPECT_FALSE(t.received.ok);
    EXPECT_NE(t.sent.error.find("cancelled"), std::string::npos);
    EXPECT_EQ(dirs.targetEntries(), 0u);
}

TEST(FileReceiverTest, TraversalNamesAreRefusedAndNothingIsWritten) {
    const std::string names[] = {"../x", "a/b", std::string("a\0b", 3), "..", ""};
    for (const std::string& name : names) {
        TempDirs dirs;
        writeFile(dirs.source / "x", "payload");
        Pair pair;
        FileSender sender(pair.client.getSocket(), false, 4096);
        sender.setForceTransfer(true);
        FileReceiver receiver(pair.server->getSocket(), false, 4096);
        Transfer t = transfer(pair, sender, receiver, dirs.source / "x", name, dirs.target);
        EXPECT_FALSE(t.received.ok);
        EXPECT_FALSE(t.sent.ok);
        EXPECT_NE(t.received.error.find("refused"), std::string::npos) << t.received.error;
        EXPECT_NE(t.sent.error.find("refused"), std::string::npos) << t.sent.error;
        EXPECT_EQ(dirs.targetEntries(), 0u);
        EXPECT_FALSE(fs::exists(dirs.root / "x"));
        EXPECT_FALSE(fs::exists(dirs.target / "a"));
        // A refusal keeps the connection in step.
        pair.client.sendDataBlock("next", 4);
        char buffer[4];
        ASSERT_TRUE(pair.server->receiveDataBlock(buffer, 4));
        EXPECT_EQ(std::string(buffer, 4), "next");
    }
}

TEST(FileReceiverTest, PeerVanishingInTheMiddleLeavesNothing) {
    TempDirs dirs;
    Pair pair;
    FileReceiver receiver(pair.server->getSocket(), false, 4096);
    bool ok = true;
    bool copied = true;
    std::thread receiving([&] { ok = receiver.execute("part.bin", dirs.target.string(), copied); });

    // A sender that announces 1 MB and goes away after 1000 bytes.
    char greeting[4];
    ASSERT_TRUE(pair.client.receiveDataBlock(greeting, 4));
    EXPECT_EQ(std::string(greeting, 4), "KSFR");
    auto u32 = [](uint32_t v) {
        std::string s(4, '\0');
        for (int i = 0; i < 4; ++i)
            s[i] = static_cast<char>(v >> (8 * i));
        return s;
    };
    auto text = [&](const std::string& t) { return u32(static_cast<uint32_t>(t.size())) + t; };
    std::string header = "KSFHF";
    uint64_t size = 1u << 20;
    for (int i = 0; i < 8; ++i)
        header += static_cast<char>(size >> (8 * i));
    header += text("part.bin") + text("/nowhere/part.bin") + text("other#user") + text("id");
    pair.client.sendDataBlock(header.data(), header.size());
    char answer = 0;
    ASSERT_TRUE(pair.client.receiveDataBlock(&answer, 1));
    EXPECT_EQ(answer, 'C');
    std::string some(1000, 'x');
    pair.client.sendDataBlock(some.data(), some.size());
    pair.client.close();

    receiving.join();
    EXPECT_FALSE(ok);
    EXPECT_FALSE(copied);
    EXPECT_FALSE(receiver.getErrorMessage().empty());
    EXPECT_EQ(dirs.targetEntries(), 0u);
}

TEST(FileReceiverTest, SameHostAndUserNeedsNoTransfer) {
    TempDirs dirs;
    writeFile(dirs.source / "shared.txt", "shared content");
    Pair pair;
    FileSender sender(pair.client.getSocket(), false, 4096);
    FileReceiver receiver(pair.server->getSocket(), false, 4096);
    Transfer t =
        transfer(pair, sender, receiver, dirs.source / "shared.txt", "shared.txt", dirs.target);
    ASSERT_TRUE(t.sent.ok) << t.sent.error;
    ASSERT_TRUE(t.received.ok) << t.received.error;
    EXPECT_FALSE(t.sent.copied);
    EXPECT_FALSE(t.received.copied);
    EXPECT_EQ(receiver.getSenderPath(), (dirs.source / "shared.txt").string());
    EXPECT_EQ(receiver.getSenderHostAndUser(), FileBase::localHostAndUser());
    EXPECT_EQ(dirs.targetEntries(), 0u);
    bool noTransfer = false;
    uint64_t total = 0;
    uint64_t done = 0;
    receiver.getProgress(noTransfer, total, done);
    EXPECT_TRUE(noTransfer);
    EXPECT_EQ(total, 14u);
    sender.getProgress(noTransfer, total, done);
    EXPECT_TRUE(noTransfer);
    EXPECT_EQ(done, 14u);
}

TEST(FileSenderTest, UnreadableFileFailsBothSidesAndKeepsTheConnection) {
    TempDirs dirs;
    Pair pair;
    FileSender sender(pair.client.getSocket(), false, 4096);
    FileReceiver receiver(pair.server->getSocket(), false, 4096);
    Transfer t =
        transfer(pair, sender, receiver, dirs.source / "missing.txt", "missing.txt", dirs.target);
    EXPECT_FALSE(t.sent.ok);
    EXPECT_FALSE(t.received.ok);
    EXPECT_NE(t.received.error.find("missing.txt"), std::string::npos) << t.received.error;
    EXPECT_EQ(dirs.targetEntries(), 0u);
    pair.client.sendDataBlock("next", 4);
    char buffer[4];
    ASSERT_TRUE(pair.server->receiveDataBlock(buffer, 4));
    EXPECT_EQ(std::string(buffer, 4), "next");
}

TEST(FileSenderTest, ConnectionCarriesOnAfterATransfer) {
    TempDirs dirs;
    writeFile(dirs.source / "one.txt", "first");
    writeFile(dirs.source / "two.txt", "second file");
    Pair pair;
    for (const char* name : {"one.txt", "two.txt"}) {
        FileSender sender(pair.client.getSocket(), false, 4096);
        sender.setForceTransfer(true);
        FileReceiver receiver(pair.server->getSocket(), false, 4096);
        Transfer t = transfer(pair, sender, receiver, dirs.source / name, name, dirs.target);
        ASSERT_TRUE(t.sent.ok) << t.sent.error;
        ASSERT_TRUE(t.received.ok) << t.received.error;
        pair.client.sendDataBlock("after", 5);
        char buffer[5];
        ASSERT_TRUE(pair.server->receiveDataBlock(buffer, 5));
        EXPECT_EQ(std::string(buffer, 5), "after");
        EXPECT_EQ(pair.server->bufferedByteCount(), 0u);
    }
    EXPECT_EQ(readFile(dirs.target / "one.txt"), "first");
    EXPECT_EQ(readFile(dirs.target / "two.txt"), "second file");
}

TEST(FileSenderTest, ReceiverVanishingInTheMiddleFailsTheSender) {
    TempDirs dirs;
    makeSparseFile(dirs.source / "big.bin", 256u << 20);
    Pair pair;
    FileSender sender(pair.client.getSocket(), false, 65536);
    sender.setForceTransfer(true);
    std::thread receiving([&] {
        // A receiver that accepts the file, takes a little of it and goes away.
        pair.server->sendDataBlock("KSFR", 4);
        char head[5];
        uint64_t size = 0;
        unsigned char sizeBytes[8];
        if (!pair.server->receiveDataBlock(head, 5) ||
            !pair.server->receiveDataBlock(reinterpret_cast<char*>(sizeBytes), 8))
            return;
        for (int i = 0; i < 8; ++i)
            size |= static_cast<uint64_t>(sizeBytes[i]) << (8 * i);
        EXPECT_EQ(size, 256u << 20);
        for (int field = 0; field < 4; ++field) {
            unsigned char lengthBytes[4];
            if (!pair.server->receiveDataBlock(reinterpret_cast<char*>(lengthBytes), 4))
                return;
            uint32_t length = 0;
            for (int i = 0; i < 4; ++i)
                length |= static_cast<uint32_t>(lengthBytes[i]) << (8 * i);
            std::string text(length, '\0');
            if (length != 0 && !pair.server->receiveDataBlock(&text[0], length))
                return;
        }
        pair.server->sendDataBlock("C", 1);
        std::string some(100000, '\0');
        pair.server->receiveDataBlock(&some[0], some.size());
        pair.server->close();
    });
    auto start = std::chrono::steady_clock::now();
    bool copied = true;
    const bool ok = sender.execute((dirs.source / "big.bin").string(), "id", copied);
    receiving.join();
    EXPECT_FALSE(ok);
    EXPECT_FALSE(copied);
    EXPECT_NE(sender.getErrorMessage().find("failed"), std::string::npos)
        << sender.getErrorMessage();
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 5.0);
}

TEST(FileReceiverTest, LongLeafNameIsStored) {
    TempDirs dirs;
    const std::string name(200, 'n');
    writeFile(dirs.source / name, "long name");
    Pair pair;
    FileSender sender(pair.client.getSocket(), false, 4096);
    sender.setForceTransfer(true);
    FileReceiver receiver(pair.server->getSocket(), false, 4096);
    Transfer t = transfer(pair, sender, receiver, dirs.source / name, name, dirs.target);
    ASSERT_TRUE(t.sent.ok) << t.sent.error;
    ASSERT_TRUE(t.received.ok) << t.received.error;
    EXPECT_EQ(readFile(dirs.target / name), "long name");
    EXPECT_EQ(dirs.targetEntries(), 1u);
}
