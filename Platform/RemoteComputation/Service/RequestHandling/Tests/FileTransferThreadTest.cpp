#include "Platform/RemoteComputation/Service/RequestHandling/FileTransferAliveThread.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileTransferProgressThread.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileBase.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

using namespace Kestrane;
using namespace std::chrono_literals;

namespace {

// A transfer whose progress the test sets by hand.
class FakeTransfer : public Computing::FileBase {
public:
    FakeTransfer() : FileBase(Computing::Socket::c_invalid, false, 4096) {}
    void set(bool noTransfer, uint64_t totalSize, uint64_t doneSize) {
        setProgress(noTransfer, totalSize, doneSize);
    }
};

class RecordingJobLog : public AbstractJobLog {
public:
    struct Line {
        std::string text;
        int64_t value;
        bool flag;
        std::chrono::steady_clock::time_point at;
    };
    std::string getName() override { return "RecordingJobLog"; }
    int logMessage(const std::string& text, int64_t value, bool flag) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back({text, value, flag, std::chrono::steady_clock::now()});
        return 0;
    }
    std::shared_ptr<void> getJobContext() override { return nullptr; }
    int flush() override { return 0; }

    std::vector<Line> lines() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    std::vector<std::string> texts() const {
        std::vector<std::string> out;
        for (const auto& line : lines())
            out.push_back(line.text);
        return out;
    }
    bool waitForCount(size_t count, std::chrono::milliseconds timeout) const {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            if (lines().size() >= count)
                return true;
            std::this_thread::sleep_for(5ms);
        }
        return lines().size() >= count;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Line> m_lines;
};

void setTimes(const std::string& firstDelay, const std::string& interval) {
    auto* config = RequestServerConfiguration::getRegisteredInstance();
    config->setValue("fileTransferProgressFirstUpdateDelay", firstDelay);
    config->setValue("fileTransferProgressUpdateInterval", interval);
}

double secondsBetween(std::chrono::steady_clock::time_point a,
                      std::chrono::steady_clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

} // namespace

TEST(FileTransferProgressThreadTest, ProgressLineArithmetic) {
    EXPECT_EQ(FileTransferProgressThread::progressLine(0, 0), "  0% (0/0B)\n");
    EXPECT_EQ(FileTransferProgressThread::progressLine(512, 1024), " 50% (512/1024B)\n");
    EXPECT_EQ(FileTransferProgressThread::progressLine(1024, 1024), "100% (1024/1024B)\n");
    EXPECT_EQ(FileTransferProgressThread::progressLine(1025, 1025), "100% (1/1KB)\n");
    EXPECT_EQ(FileTransferProgressThread::progressLine(0, 1025), "  0% (0/1KB)\n");
    EXPECT_EQ(FileTransferProgressThread::progressLine(430ull << 20, 1019ull << 20),
              " 42% (430/1019MB)\n");
    // The total decides the unit: 1219 MB is above 1024 MB, so both sizes are cut in GB.
    EXPECT_EQ(FileTransferProgressThread::progressLine(512ull << 20, 1219ull << 20),
              " 42% (0/1GB)\n");
    EXPECT_EQ(FileTransferProgressThread::progressLine(3ull << 30, 4ull << 30), " 75% (3/4GB)\n");
    // Sizes are cut, not rounded: 1999/2000 of a KB is still 1.
    EXPECT_EQ(FileTransferProgressThread::progressLine(1999, 2047), " 97% (1/1KB)\n");
    // Several thousand TB stay in TB.
    EXPECT_EQ(FileTransferProgressThread::progressLine(1000ull << 40, 5000ull << 40),
              " 20% (1000/5000TB)\n");
    EXPECT_EQ(FileTransferProgressThread::progressLine(0, 2000000ull << 40),
              "  0% (0/2000000TB)\n");
    EXPECT_EQ(std::string(FileTransferProgressThread::c_units[0]), "B");
    EXPECT_EQ(std::string(FileTransferProgressThread::c_units[4]), "TB");
}

TEST(FileTransferProgressThreadTest, TransferShorterThanFirstDelayWritesNothing) {
    setTimes("5", "5");
    LogCapture capture;
    RecordingJobLog jobLog;
    FakeTransfer transfer;
    transfer.set(false, 100, 100);
    auto start = std::chrono::steady_clock::now();
    {
        FileTransferProgressThread thread(jobLog, "short.bin", transfer);
        thread.start(true);
        std::this_thread::sleep_for(50ms);
        thread.cancel();
        thread.finalize();
    }
    EXPECT_LT(secondsBetween(start, std::chrono::steady_clock::now()), 2.0);
    EXPECT_TRUE(jobLog.lines().empty());
    EXPECT_TRUE(capture.contains(
        LogLevel::Trace,
        "Created FileTransferProgressThread for file 'short.bin' (firstMessageDelay=5, "
        "updateInterval=5)"));
    EXPECT_TRUE(
        capture.contains(LogLevel::Debug, "Started FileTransferProgressThread for file short.bin"));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Cancelling"));
    EXPECT_TRUE(capture.contains(
        LogLevel::Debug,
        "Ended FileTransferProgressThread for file 'short.bin' before first update."));
}

TEST(FileTransferProgressThreadTest, ZeroFirstDelayStartsAtOnceThenWaitsTheInterval) {
    setTimes("0", "1");
    RecordingJobLog jobLog;
    FakeTransfer transfer;
    transfer.set(false, 2048, 1024);
    auto start = std::chrono::steady_clock::now();
    FileTransferProgressThread thread(jobLog, "f.bin", transfer);
    thread.start(true);
    ASSERT_TRUE(jobLog.waitForCount(1, 3000ms));
    auto first = jobLog.lines()[0];
    EXPECT_EQ(first.text, "Starting transfer of file f.bin...\n");
    EXPECT_EQ(first.value, -1);
    EXPECT_TRUE(first.flag);
    EXPECT_LT(secondsBetween(start, first.at), 0.5);
    ASSERT_TRUE(jobLog.waitForCount(2, 3000ms));
    auto second = jobLog.lines()[1];
    EXPECT_EQ(second.text, " 50% (1/2KB)\n");
    EXPECT_GE(secondsBetween(first.at, second.at), 0.9);
    // The transfer completes: the next pass writes 100% and ends the loop by itself.
    transfer.set(false, 2048, 2048);
    ASSERT_TRUE(jobLog.waitForCount(4, 3000ms));
    thread.cancel();
    thread.finalize();
    EXPECT_EQ(jobLog.texts(),
              (std::vector<std::string>{"Starting transfer of file f.bin...\n", " 50% (1/2KB)\n",
                                        "100% (2/2KB)\n", "Finished transfer of file f.bin.\n"}));
    EXPECT_EQ(LivingProcess::getLastAliveMsg(""), "transferingFile");
}

TEST(FileTransferProgressThreadTest, FirstDelayAtOrAboveIntervalGivesProgressRightAfterStart) {
    setTimes("1", "1");
    RecordingJobLog jobLog;
    FakeTransfer transfer;
    transfer.set(false, 1000, 250);
    auto start = std::chrono::steady_clock::now();
    FileTransferProgressThread thread(jobLog, "g.bin", transfer);
    thread.start(true);
    ASSERT_TRUE(jobLog.waitForCount(2, 3000ms));
    // The transfer ends and its owner cancels during the wait: the pass still runs once more,
    // so the last line before the end shows the finished transfer.
    transfer.set(false, 1000, 1000);
    thread.cancel();
    thread.finalize();
    auto lines = jobLog.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].text, "Starting transfer of file g.bin...\n");
    EXPECT_GE(secondsBetween(start, lines[0].at), 0.9);
    EXPECT_EQ(lines[1].text, " 25% (250/1000B)\n");
    EXPECT_LT(secondsBetween(lines[0].at, lines[1].at), 0.5);
    EXPECT_EQ(lines[2].text, "100% (1000/1000B)\n");
    EXPECT_LT(secondsBetween(lines[1].at, lines[2].at), 0.5);
    EXPECT_EQ(lines[3].text, "Finished transfer of file g.bin.\n");
}

TEST(FileTransferProgressThreadTest, FirstDelayAboveIntervalAlsoHasNoFurtherWait) {
    setTimes("1", "0");
    RecordingJobLog jobLog;
    FakeTransfer transfer;
    transfer.set(false, 10, 10);
    FileTransferProgressThread thread(jobLog, "h.bin", transfer);
    thread.start(true);
    thread.finalize(); // ends by itself: the transfer is complete
    EXPECT_EQ(jobLog.texts(),
              (std::vector<std::string>{"Starting transfer of file h.bin...\n", "100% (10/10B)\n",
                                        "Finished transfer of file h.bin.\n"}));
}

TEST(FileTransferProgressThreadTest, NoTransferAnswerGivesThreeLinesInOrder) {
    setTimes("0", "0");
    LogCapture capture;
    RecordingJobLog jobLog;
    FakeTransfer transfer;
    transfer.set(true, 42, 42);
    FileTransferProgressThread thread(jobLog, "shared.txt", transfer);
    thread.start(true);
    thread.finalize();
    EXPECT_EQ(jobLog.texts(),
              (std::vector<std::string>{"Starting transfer of file shared.txt...\n",
                                        "No transfer necessary (file shared or local).\n",
                                        "Finished transfer of file shared.txt.\n"}));
    EXPECT_TRUE(
        capture.contains(LogLevel::Debug, "Ended FileTransferProgressThread for file shared.txt"));
}

TEST(FileTransferProgressThreadTest, NotYetBegunTransferWritesNoProgressLine) {
    setTimes("0", "0");
    RecordingJobLog jobLog;
    FakeTransfer transfer; // total 0: not begun
    FileTransferProgressThread thread(jobLog, "e.bin", transfer);
    thread.start(true);
    ASSERT_TRUE(jobLog.waitForCount(1, 3000ms));
    std::this_thread::sleep_for(100ms);
    thread.cancel();
    thread.finalize();
    EXPECT_EQ(jobLog.texts(), (std::vector<std::string>{"Starting transfer of file e.bin...\n",
                                                        "Finished transfer of file e.bin.\n"}));
}

TEST(FileTransferAliveThreadTest, MarksAliveAndEndsWhenTransferIsComplete) {
    RequestServerConfiguration::getRegisteredInstance()->setValue("alivePublishInterval", "20");
    LogCapture capture;
    FakeTransfer transfer;
    transfer.set(false, 100, 10);
    FileTransferAliveThread thread(transfer);
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, "Created FileTransferAliveThread (updateInterval=20)"));
    thread.start(true);
    ASSERT_TRUE(capture.waitFor("noTransfer=0, totalSize=100, doneSize=10", 3000ms));
    EXPECT_EQ(LivingProcess::getLastAliveMsg(""), "transferingFile");
    EXPECT_TRUE(thread.isRunning());
    transfer.set(false, 100, 100);
    thread.finalize(); // no cancel: the loop ends by itself
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Started FileTransferAliveThread"));
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "before wait"));
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "after wait"));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Ended FileTransferAliveThread"));
}

TEST(FileTransferAliveThreadTest, CancelEndsAWaitingThreadPromptly) {
    RequestServerConfiguration::getRegisteredInstance()->setValue("alivePublishInterval", "60000");
    FakeTransfer transfer;
    FileTransferAliveThread thread(transfer);
    auto start = std::chrono::steady_clock::now();
    thread.start(true);
    std::this_thread::sleep_for(20ms);
    thread.cancel();
    thread.finalize();
    EXPECT_LT(secondsBetween(start, std::chrono::steady_clock::now()), 2.0);
    EXPECT_FALSE(thread.isRunning());
}
