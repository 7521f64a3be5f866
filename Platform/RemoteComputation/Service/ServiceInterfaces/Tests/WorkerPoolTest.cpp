#include "Platform/RemoteComputation/Service/ServiceInterfaces/WorkerPool.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <unistd.h>

using namespace Kestrane;
using TestSupport::waitUntil;

namespace {

struct Counters {
    std::atomic<int> running{0};
    std::atomic<int> maxRunning{0};
    std::atomic<int> finished{0};
    std::mutex mutex;
    std::condition_variable released;
    bool open = true;

    void close() {
        std::lock_guard<std::mutex> lock(mutex);
        open = false;
    }
    void release() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            open = true;
        }
        released.notify_all();
    }
};

class CountingTask : public Tasks::Task {
public:
    CountingTask(Counters& counters, std::function<void()> body = {})
        : Task("counting"), m_counters(counters), m_body(std::move(body)) {}

    void execute() override {
        int now = ++m_counters.running;
        int seen = m_counters.maxRunning;
        while (now > seen && !m_counters.maxRunning.compare_exchange_weak(seen, now)) {
        }
        if (m_body)
            m_body();
        {
            std::unique_lock<std::mutex> lock(m_counters.mutex);
            m_counters.released.wait(lock, [this] { return m_counters.open; });
        }
        --m_counters.running;
        ++m_counters.finished;
    }

private:
    Counters& m_counters;
    std::function<void()> m_body;
};

class OrderTask : public Tasks::Task {
public:
    explicit OrderTask(std::vector<std::string>& calls) : Task("order"), m_calls(calls) {}
    void prepareRun() override { m_calls.push_back("prepareRun"); }
    void execute() override { m_calls.push_back("execute"); }
    void finalize() override { m_calls.push_back("finalize"); }
    void finalizeRun() override { m_calls.push_back("finalizeRun"); }

private:
    std::vector<std::string>& m_calls;
};

class ThrowingTask : public Tasks::Task {
public:
    ThrowingTask() : Task("thrower") {}
    void execute() override { throw std::runtime_error("task failed"); }
};

} // namespace

TEST(WorkerPoolTest, NeverMoreThanSizeTasksAtOnceAndAllRun) {
    Counters counters;
    Tasks::WorkerPool pool(3, Thread::Normal);
    EXPECT_EQ(pool.getSize(), 3u);
    for (int i = 0; i < 30; ++i)
        pool.addTask(std::make_shared<CountingTask>(
            counters, [] { std::this_thread::sleep_for(std::chrono::milliseconds(2)); }));
    pool.waitForAllTasks();
    EXPECT_EQ(counters.finished, 30);
    EXPECT_LE(counters.maxRunning, 3);
    EXPECT_GE(counters.maxRunning, 1);
    EXPECT_EQ(pool.getBusyWorkersCount(), 0u);
    EXPECT_EQ(pool.getQueuedTasksCount(), 0u);
}

TEST(WorkerPoolTest, BusyCountAndQueueWhileTasksBlock) {
    Counters counters;
    counters.close();
    Tasks::WorkerPool pool(2, Thread::Normal);
    for (int i = 0; i < 5; ++i)
        pool.addTask(std::make_shared<CountingTask>(counters));
    EXPECT_TRUE(
        waitUntil([&] { return pool.getBusyWorkersCount() == 2; }, std::chrono::seconds(10)));
    EXPECT_EQ(counters.running, 2);
    EXPECT_EQ(pool.getQueuedTasksCount(), 3u);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(counters.maxRunning, 2) << "queued tasks wait for a free worker";
    counters.release();
    pool.waitForAllTasks();
    EXPECT_EQ(counters.finished, 5);
    EXPECT_EQ(pool.getBusyWorkersCount(), 0u);
}

TEST(WorkerPoolTest, WaitForAllTasksWaitsForRunningTasks) {
    Counters counters;
    counters.close();
    Tasks::WorkerPool pool(2, Thread::Normal);
    pool.addTask(std::make_shared<CountingTask>(counters));
    pool.addTask(std::make_shared<CountingTask>(counters));
    ASSERT_TRUE(waitUntil([&] { return counters.running == 2; }, std::chrono::seconds(10)));
    std::atomic<bool> waited{false};
    std::thread waiter([&] {
        pool.waitForAllTasks();
        waited = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(waited) << "returned while tasks were running";
    counters.release();
    waiter.join();
    EXPECT_TRUE(waited);
    EXPECT_EQ(counters.finished, 2);
}

TEST(WorkerPoolTest, WaitWithoutTasksReturnsAtOnce) {
    Tasks::WorkerPool pool(2, Thread::Normal);
    pool.waitForAllTasks();
    EXPECT_EQ(pool.getBusyWorkersCount(), 0u);
}

TEST(WorkerPoolTest, TasksAreReleasedAfterRunning) {
    Counters counters;
    Tasks::WorkerPool pool(2, Thread::Normal);
    std::vector<std::weak_ptr<Tasks::Task>> tasks;
    for (int i = 0; i < 10; ++i) {
        auto task = std::make_shared<CountingTask>(counters);
        tasks.push_back(task);
        pool.addTask(task);
    }
    pool.waitForAllTasks();
    for (const auto& task : tasks)
        EXPECT_TRUE(task.expired());
}

TEST(WorkerPoolTest, PoolKeepsTaskAliveUntilItRuns) {
    Counters counters;
    counters.close();
    Tasks::WorkerPool pool(1, Thread::Normal);
    pool.addTask(std::make_shared<CountingTask>(counters));
    std::weak_ptr<Tasks::Task> queued;
    {
        auto task = std::make_shared<CountingTask>(counters);
        queued = task;
        pool.addTask(task);
    }
    EXPECT_FALSE(queued.expired());
    counters.release();
    pool.waitForAllTasks();
    EXPECT_TRUE(queued.expired());
    EXPECT_EQ(counters.finished, 2);
}

TEST(WorkerPoolTest, OperationsRunInOrder) {
    std::vector<std::string> calls;
    Tasks::WorkerPool pool(1, Thread::Normal);
    pool.addTask(std::make_shared<OrderTask>(calls));
    pool.waitForAllTasks();
    EXPECT_EQ(calls,
              (std::vector<std::string>{"prepareRun", "execute", "finalize", "finalizeRun"}));
}

TEST(WorkerPoolTest, FailingTaskIsLoggedAndPoolGoesOn) {
    LogCapture capture;
    Counters counters;
    Tasks::WorkerPool pool(1, Thread::Normal);
    pool.addTask(std::make_shared<ThrowingTask>());
    pool.addTask(std::make_shared<CountingTask>(counters));
    pool.waitForAllTasks();
    EXPECT_TRUE(
        capture.contains(LogLevel::Error, "Task 'thrower' ended by std::exception: task failed"));
    EXPECT_EQ(counters.finished, 1);
}

TEST(WorkerPoolTest, SizeZeroMeansOneWorkerAndNullTaskIsIgnored) {
    Counters counters;
    Tasks::WorkerPool pool(0, Thread::Normal);
    EXPECT_EQ(pool.getSize(), 1u);
    pool.addTask(nullptr);
    for (int i = 0; i < 5; ++i)
        pool.addTask(std::make_shared<CountingTask>(counters));
    pool.waitForAllTasks();
    EXPECT_EQ(counters.finished, 5);
    EXPECT_EQ(counters.maxRunning, 1);
}

TEST(WorkerPoolTest, ManyThreadsAddAtOnce) {
    Counters counters;
    Tasks::WorkerPool pool(4, Thread::Normal);
    std::vector<std::thread> adders;
    for (int t = 0; t < 4; ++t)
        adders.emplace_back([&] {
            for (int i = 0; i < 50; ++i)
                pool.addTask(std::make_shared<CountingTask>(counters));
        });
    for (auto& adder : adders)
        adder.join();
    pool.waitForAllTasks();
    EXPECT_EQ(counters.finished, 200);
    EXPECT_LE(counters.maxRunning, 4);
}

TEST(WorkerPoolTest, DestroyingThePoolRunsQueuedTasks) {
    Counters counters;
    counters.close();
    {
        Tasks::WorkerPool pool(1, Thread::Normal);
        for (int i = 0; i < 4; ++i)
            pool.addTask(std::make_shared<CountingTask>(counters));
        ASSERT_TRUE(waitUntil([&] { return counters.running == 1; }, std::chrono::seconds(10)));
        counters.release();
    }
    EXPECT_EQ(counters.finished, 4);
}

TEST(WorkerPoolTest, PoolIsReusableAfterWaiting) {
    Counters counters;
    Tasks::WorkerPool pool(2, Thread::Normal);
    for (int round = 1; round <= 3; ++round) {
        for (int i = 0; i < 4; ++i)
            pool.addTask(std::make_shared<CountingTask>(counters));
        pool.waitForAllTasks();
        EXPECT_EQ(counters.finished, 4 * round);
    }
}

TEST(WorkerPoolTest, QueuedTasksRunInArrivalOrder) {
    std::mutex mutex;
    std::vector<int> order;
    Counters counters;
    counters.close();
    Tasks::WorkerPool pool(1, Thread::Normal);
    pool.addTask(std::make_shared<CountingTask>(counters));
    for (int i = 0; i < 10; ++i)
        pool.addTask(std::make_shared<CountingTask>(counters, [&, i] {
            std::lock_guard<std::mutex> lock(mutex);
            order.push_back(i);
        }));
    counters.release();
    pool.waitForAllTasks();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST(WorkerPoolTest, TaskAddedWhileThePoolIsDestroyedStillRuns) {
    Counters counters;
    counters.close();
    std::atomic<bool> followUpRan{false};
    std::atomic<bool> destroyed{false};
    auto pool = std::make_unique<Tasks::WorkerPool>(4, Thread::Normal);
    Tasks::WorkerPool* raw = pool.get();
    pool->addTask(std::make_shared<CountingTask>(counters, [&] {
        // Runs while another thread destroys the pool; queues a follow-up when released.
        std::unique_lock<std::mutex> lock(counters.mutex);
        counters.released.wait(lock, [&] { return counters.open; });
        lock.unlock();
        raw->addTask(std::make_shared<CountingTask>(counters, [&] { followUpRan = true; }));
    }));
    ASSERT_TRUE(waitUntil([&] { return counters.running == 1; }, std::chrono::seconds(10)));
    std::thread destroyer([&] {
        pool.reset();
        destroyed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // the destructor is waiting
    counters.release();
    if (!waitUntil([&] { return destroyed.load(); }, std::chrono::seconds(10))) {
        std::fprintf(stderr, "the pool's destructor did not return\n");
        std::fflush(stderr);
        ::_exit(1);
    }
    destroyer.join();
    EXPECT_TRUE(followUpRan);
    EXPECT_EQ(counters.finished, 2);
}
