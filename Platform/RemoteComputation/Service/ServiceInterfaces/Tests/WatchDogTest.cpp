#include "Platform/RemoteComputation/Service/ServiceInterfaces/WatchDog.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <unistd.h>

using namespace Kestrane;
using TestSupport::waitUntil;
using Clock = std::chrono::steady_clock;

namespace {

// Records the time of every tick and the stop call; `onTick` decides what watch(false) returns.
class Recorder : public Watchable {
public:
    explicit Recorder(std::function<bool(int)> onTick = {}) : m_onTick(std::move(onTick)) {}

    bool watch(bool stopping) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (stopping) {
            ++m_stops;
            m_ticksAtStop = static_cast<int>(m_ticks.size());
            return true;
        }
        m_ticks.push_back(Clock::now());
        int tick = static_cast<int>(m_ticks.size());
        return m_onTick ? m_onTick(tick) : true;
    }

    int ticks() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return static_cast<int>(m_ticks.size());
    }
    std::vector<Clock::time_point> tickTimes() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_ticks;
    }
    int stops() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_stops;
    }
    int ticksAtStop() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_ticksAtStop;
    }

private:
    std::function<bool(int)> m_onTick;
    std::mutex m_mutex;
    std::vector<Clock::time_point> m_ticks;
    int m_stops = 0;
    int m_ticksAtStop = -1;
};

// Runs `action` on another thread; a hang ends the test program with a failure instead of
// blocking it.
void runBounded(const std::function<void()>& action, std::chrono::milliseconds limit,
                const char* what) {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    std::thread([action, done] {
        action();
        done->set_value();
    }).detach();
    if (finished.wait_for(limit) != std::future_status::ready) {
        std::fprintf(stderr, "%s did not return within %lld ms (deadlock)\n", what,
                     static_cast<long long>(limit.count()));
        std::fflush(stderr);
        ::_exit(1);
    }
}

} // namespace

TEST(WatchDogTest, TicksAtThePeriod) {
    constexpr int c_period = 20;
    Recorder recorder;
    WatchDog dog(c_period);
    dog.watchThis(&recorder);
    auto start = Clock::now();
    ASSERT_TRUE(dog.startWatching());
    EXPECT_TRUE(dog.isWatching());
    ASSERT_TRUE(waitUntil([&] { return recorder.ticks() >= 5; }, std::chrono::seconds(10)));
    EXPECT_TRUE(dog.stopWatching());
    auto times = recorder.tickTimes();
    ASSERT_GE(times.size(), 5u);
    for (size_t i = 0; i < times.size(); ++i) {
        auto earliest = start + std::chrono::milliseconds(c_period * static_cast<int>(i + 1) - 2);
        EXPECT_GE(times[i], earliest) << "tick " << i + 1 << " came early";
    }
    EXPECT_LT(times[4] - start, std::chrono::seconds(5));
}

TEST(WatchDogTest, SlowTickIsNotFollowedByABurst) {
    constexpr int c_period = 20;
    std::mutex mutex;
    Clock::time_point slowTickEnd;
    Recorder recorder([&](int tick) {
        if (tick == 1) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5 * c_period));
            std::lock_guard<std::mutex> lock(mutex);
            slowTickEnd = Clock::now();
        }
        return true;
    });
    WatchDog dog(c_period);
    dog.watchThis(&recorder);
    ASSERT_TRUE(dog.startWatching());
    ASSERT_TRUE(waitUntil([&] { return recorder.ticks() >= 5; }, std::chrono::seconds(10)));
    EXPECT_TRUE(dog.stopWatching());
    auto times = recorder.tickTimes();
    std::lock_guard<std::mutex> lock(mutex);
    // The missed ticks are not made up for: at most one tick follows the slow one at once, the
    // next one waits for the period.
    int soon = 0;
    for (const auto& time : times)
        if (time >= slowTickEnd && time < slowTickEnd + std::chrono::milliseconds(c_period / 2))
            ++soon;
    EXPECT_LE(soon, 1) << "missed ticks came back to back";
}

TEST(WatchDogTest, NoTickBeforeThePeriod) {
    Recorder recorder;
    WatchDog dog(10000);
    dog.watchThis(&recorder);
    ASSERT_TRUE(dog.startWatching());
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    auto start = Clock::now();
    EXPECT_TRUE(dog.stopWatching());
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(2)) << "stop wakes the waiting thread";
    EXPECT_EQ(recorder.ticks(), 0);
    EXPECT_EQ(recorder.stops(), 1);
}

TEST(WatchDogTest, StopCallsWatchTrueOnceAndTicksEnd) {
    Recorder first, second;
    WatchDog dog(5);
    dog.watchThis(&first);
    dog.watchThis(&second);
    dog.watchThis(&first); // watched once only
    dog.watchThis(nullptr);
    ASSERT_TRUE(dog.startWatching());
    ASSERT_TRUE(waitUntil([&] { return first.ticks() >= 3; }, std::chrono::seconds(10)));
    EXPECT_TRUE(dog.stopWatching());
    EXPECT_FALSE(dog.isWatching());
    EXPECT_EQ(first.stops(), 1);
    EXPECT_EQ(second.stops(), 1);
    EXPECT_EQ(first.ticksAtStop(), first.ticks());
    int ticks = first.ticks();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(first.ticks(), ticks) << "no tick after the stop";
    EXPECT_EQ(first.ticks(), second.ticks()) << "both are called at every tick";
    EXPECT_FALSE(dog.stopWatching()) << "already stopped";
    EXPECT_EQ(first.stops(), 1);
}

TEST(WatchDogTest, ReturningFalseStopsWatchingThatObject) {
    Recorder quitter([](int tick) { return tick < 3; });
    Recorder stayer;
    WatchDog dog(5);
    dog.watchThis(&quitter);
    dog.watchThis(&stayer);
    ASSERT_TRUE(dog.startWatching());
    ASSERT_TRUE(waitUntil([&] { return stayer.ticks() >= 8; }, std::chrono::seconds(10)));
    EXPECT_TRUE(dog.isWatching());
    EXPECT_TRUE(dog.stopWatching());
    EXPECT_EQ(quitter.ticks(), 3);
    EXPECT_EQ(stayer.stops(), 1);
}

TEST(WatchDogTest, StopWatchingFromInsideWatch) {
    WatchDog* dogPointer = nullptr;
    std::atomic<bool> stopResult{false};
    Recorder recorder([&](int tick) {
        if (tick == 2)
            stopResult = dogPointer->stopWatching();
        return true;
    });
    WatchDog dog(5);
    dogPointer = &dog;
    dog.watchThis(&recorder);
    ASSERT_TRUE(dog.startWatching());
    ASSERT_TRUE(waitUntil([&] { return recorder.stops() == 1; }, std::chrono::seconds(10)));
    EXPECT_TRUE(stopResult);
    EXPECT_FALSE(dog.isWatching());
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(recorder.ticks(), 2);
    EXPECT_EQ(recorder.stops(), 1);
}

TEST(WatchDogTest, StartTwiceIsRefusedAndStopBeforeStartFails) {
    Recorder recorder;
    WatchDog dog(50);
    EXPECT_FALSE(dog.isWatching());
    EXPECT_FALSE(dog.stopWatching());
    dog.watchThis(&recorder);
    EXPECT_TRUE(dog.startWatching());
    EXPECT_FALSE(dog.startWatching());
    EXPECT_TRUE(dog.stopWatching());
}

TEST(WatchDogTest, RestartAfterStop) {
    Recorder recorder;
    WatchDog dog(5);
    dog.watchThis(&recorder);
    ASSERT_TRUE(dog.startWatching());
    ASSERT_TRUE(waitUntil([&] { return recorder.ticks() >= 2; }, std::chrono::seconds(10)));
    ASSERT_TRUE(dog.stopWatching());
    int ticks = recorder.ticks();
    ASSERT_TRUE(dog.startWatching());
    EXPECT_TRUE(dog.isWatching());
    ASSERT_TRUE(waitUntil([&] { return recorder.ticks() >= ticks + 2; }, std::chrono::seconds(10)));
    ASSERT_TRUE(dog.stopWatching());
    EXPECT_EQ(recorder.stops(), 2);
}

TEST(WatchDogTest, RestartRightAfterAStopFromInsideWatch) {
    WatchDog* dogPointer = nullptr;
    std::promise<void> stopped;
    std::atomic<int> phase{0};
    Recorder recorder([&](int) {
        if (phase == 0) {
            phase = 1;
            dogPointer->stopWatching();
            stopped.set_value();
            // Still inside the tick while another thread starts the dog again.
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return true;
    });
    WatchDog dog(5);
    dogPointer = &dog;
    dog.watchThis(&recorder);
    ASSERT_TRUE(dog.startWatching());
    stopped.get_future().wait();
    bool restarted = false;
    runBounded([&] { restarted = dog.startWatching(); }, std::chrono::seconds(5), "startWatching");
    EXPECT_TRUE(restarted);
    EXPECT_TRUE(dog.isWatching());
    ASSERT_TRUE(waitUntil([&] { return recorder.ticks() >= 3; }, std::chrono::seconds(10)));
    runBounded([&] { dog.stopWatching(); }, std::chrono::seconds(5), "stopWatching");
    EXPECT_EQ(recorder.stops(), 2);
}

TEST(WatchDogTest, DestructorStops) {
    Recorder recorder;
    {
        WatchDog dog(5);
        dog.watchThis(&recorder);
        ASSERT_TRUE(dog.startWatching());
        ASSERT_TRUE(waitUntil([&] { return recorder.ticks() >= 1; }, std::chrono::seconds(10)));
    }
    EXPECT_EQ(recorder.stops(), 1);
    int ticks = recorder.ticks();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(recorder.ticks(), ticks);
}

TEST(WatchDogTest, ObjectAddedWhileWatchingGetsTicks) {
    Recorder first, late;
    WatchDog dog(5);
    dog.watchThis(&first);
    ASSERT_TRUE(dog.startWatching());
    ASSERT_TRUE(waitUntil([&] { return first.ticks() >= 2; }, std::chrono::seconds(10)));
    dog.watchThis(&late);
    ASSERT_TRUE(waitUntil([&] { return late.ticks() >= 2; }, std::chrono::seconds(10)));
    EXPECT_TRUE(dog.stopWatching());
    EXPECT_EQ(late.stops(), 1);
    EXPECT_GT(first.ticks(), late.ticks());
}

TEST(WatchDogTest, WhenEveryObjectHasEndedTheDogStops) {
    Recorder once([](int) { return false; });
    WatchDog dog(5);
    dog.watchThis(&once);
    ASSERT_TRUE(dog.startWatching());
    ASSERT_TRUE(waitUntil([&] { return !dog.isWatching(); }, std::chrono::seconds(10)));
    EXPECT_EQ(once.ticks(), 1);
    EXPECT_EQ(once.stops(), 0) << "an object that ended gets no stop call";
    Recorder again;
    dog.watchThis(&again);
    ASSERT_TRUE(dog.startWatching()) << "a dog that stopped by itself starts again";
    ASSERT_TRUE(waitUntil([&] { return again.ticks() >= 1; }, std::chrono::seconds(10)));
    EXPECT_TRUE(dog.stopWatching());
    EXPECT_EQ(once.ticks(), 1);
}
