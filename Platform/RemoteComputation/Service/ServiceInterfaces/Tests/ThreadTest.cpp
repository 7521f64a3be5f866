#include "Platform/RemoteComputation/Service/ServiceInterfaces/Thread.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>

using namespace Kestrane;

namespace {

// Records the calls of its run; executeRun runs `body`.
class RecordingThread : public Thread {
public:
    explicit RecordingThread(std::function<void()> body = {}, const std::string& name = "recorder")
        : Thread(name), m_body(std::move(body)) {}
    ~RecordingThread() override { finalize(); }

    void executeRun() override {
        record("execute");
        m_threadId = std::this_thread::get_id();
        if (m_body)
            m_body();
    }
    void finalizeRun() override { record("finalize"); }

    std::vector<std::string> calls() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }
    std::thread::id threadId() const { return m_threadId; }

protected:
    void prepareRun() override { record("prepare"); }

private:
    void record(const std::string& what) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_calls.push_back(what);
    }
    std::function<void()> m_body;
    std::mutex m_mutex;
    std::vector<std::string> m_calls;
    std::thread::id m_threadId;
};

// A gate that a thread's body waits at until the test opens it.
class Gate {
public:
    void open() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_open = true;
        }
        m_condition.notify_all();
    }
    void pass() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_condition.wait(lock, [this] { return m_open; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_condition;
    bool m_open = false;
};

} // namespace

TEST(ThreadTest, StartRunsPrepareExecuteFinalizeOnAnotherThread) {
    RecordingThread thread;
    EXPECT_EQ(thread.getName(), "recorder");
    EXPECT_FALSE(thread.isRunning());
    EXPECT_TRUE(thread.start(true));
    thread.finalize();
    EXPECT_EQ(thread.calls(), (std::vector<std::string>{"prepare", "execute", "finalize"}));
    EXPECT_NE(thread.threadId(), std::this_thread::get_id());
    EXPECT_FALSE(thread.isRunning());
}

TEST(ThreadTest, FinalizeWaitsForTheEnd) {
    Gate gate;
    std::atomic<bool> bodyDone{false};
    RecordingThread thread([&] {
        gate.pass();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        bodyDone = true;
    });
    ASSERT_TRUE(thread.start(true));
    EXPECT_TRUE(thread.isRunning());
    gate.open();
    thread.finalize();
    EXPECT_TRUE(bodyDone);
    EXPECT_FALSE(thread.isRunning());
    EXPECT_EQ(thread.calls().back(), "finalize");
}

TEST(ThreadTest, FinalizeIsSafeTwiceAndBeforeStart) {
    RecordingThread thread;
    thread.finalize(); // never started: returns at once
    EXPECT_TRUE(thread.calls().empty());
    ASSERT_TRUE(thread.start(true));
    thread.finalize();
    thread.finalize();
    EXPECT_EQ(thread.calls().size(), 3u);
}

TEST(ThreadTest, SecondStartIsRefused) {
    Gate gate;
    RecordingThread thread([&] { gate.pass(); });
    EXPECT_FALSE(thread.start(false));
    EXPECT_FALSE(thread.isRunning());
    EXPECT_TRUE(thread.start(true));
    EXPECT_FALSE(thread.start(true));
    gate.open();
    thread.finalize();
    EXPECT_EQ(thread.calls().size(), 3u) << "the body ran once";
}

TEST(ThreadTest, FinalizeFromInsideTheThreadDoesNotBlock) {
    RecordingThread* self = nullptr;
    RecordingThread thread([&] { self->finalize(); });
    self = &thread;
    ASSERT_TRUE(thread.start(true));
    thread.finalize();
    EXPECT_EQ(thread.calls().size(), 3u);
}

TEST(ThreadTest, StdExceptionInExecuteRunIsLogged) {
    LogCapture capture;
    RecordingThread thread([] { throw std::runtime_error("boom"); }, "thrower");
    ASSERT_TRUE(thread.start(true));
    thread.finalize();
    EXPECT_TRUE(
        capture.contains(LogLevel::Error, "Thread 'thrower' ended by std::exception: boom"));
    EXPECT_FALSE(thread.isRunning());
}

TEST(ThreadTest, KsExceptionInExecuteRunIsLoggedWithItsName) {
    LogCapture capture;
    RecordingThread thread([] { throw KsExceptionNested("bad state", "Test", "f", "file.cpp", 3); },
                           "nested");
    ASSERT_TRUE(thread.start(true));
    thread.finalize();
    EXPECT_TRUE(capture.containsSubstring("Thread 'nested' ended by KsExceptionNested: "));
    EXPECT_TRUE(capture.containsSubstring("bad state"));
}

TEST(ThreadTest, UnknownExceptionInExecuteRunIsLogged) {
    LogCapture capture;
    RecordingThread thread([] { throw 17; }, "odd");
    ASSERT_TRUE(thread.start(true));
    thread.finalize();
    EXPECT_TRUE(capture.contains("Thread 'odd' ended by an unknown exception"));
}

TEST(ThreadTest, SendFinishSignalMarksTheEnd) {
    Gate gate;
    RecordingThread thread([&] { gate.pass(); });
    ASSERT_TRUE(thread.start(true));
    EXPECT_TRUE(thread.isRunning());
    gate.open();
    thread.finalize();
    thread.sendFinishSignal(false);
    EXPECT_TRUE(thread.isRunning()) << "started and not marked finished";
    thread.sendFinishSignal(true);
    EXPECT_FALSE(thread.isRunning());
    EXPECT_EQ(thread.blockingLevel(), Thread::NonBlocking);
}

TEST(ThreadTest, SleepBlocksAtLeastTheTime) {
    auto start = std::chrono::steady_clock::now();
    Thread::sleep(15);
    auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(15));
    EXPECT_LT(elapsed, std::chrono::seconds(2));
}

TEST(ThreadTest, ManyThreadsRunAtOnce) {
    std::atomic<int> inside{0};
    std::atomic<int> done{0};
    Gate gate;
    std::vector<std::unique_ptr<RecordingThread>> threads;
    for (int i = 0; i < 6; ++i)
        threads.push_back(std::make_unique<RecordingThread>([&] {
            ++inside;
            gate.pass();
            ++done;
        }));
    for (auto& thread : threads)
        ASSERT_TRUE(thread->start(true));
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (inside < 6 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(inside, 6);
    EXPECT_EQ(done, 0);
    gate.open();
    for (auto& thread : threads)
        thread->finalize();
    EXPECT_EQ(done, 6);
}
