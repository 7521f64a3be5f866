#include "Platform/RemoteComputation/Service/RequestHandling/CpuWatch.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"

#include <gtest/gtest.h>

#include <boost/thread/thread.hpp>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace Kestrane;

namespace {

std::string threadText() {
    std::ostringstream text;
    text << boost::this_thread::get_id();
    return text.str();
}

std::string idleEndText(int tolerance) {
    return "Process was apparently idle for >" + std::to_string(tolerance) +
           " CPU-activity monitoring cycles in sequence -> monitoring gets stopped.";
}

std::string idleGoesOnText(int tolerance) {
    return "Process was apparently idle for >" + std::to_string(tolerance) +
           " CPU-activity monitoring cycles in sequence -> monitoring continued as idle "
           "termination was disabled on this watch.";
}

std::string spinEndText(int tolerance) {
    return "Process was apparently spinning for >" + std::to_string(2 * tolerance) +
           "  CPU-activity monitoring cycles in sequence -> monitoring gets stopped.";
}

std::string spinGoesOnText(int tolerance) {
    return "Process was apparently spinning for >" + std::to_string(2 * tolerance) +
           "  CPU-activity monitoring cycles in sequence -> monitoring continued as spin "
           "termination was disabled on this watch.";
}

std::string busyText(const std::string& percent, int cores) {
    return "Process is busy @ ~" + percent + "% total CPU-activity (average) on estimated " +
           std::to_string(cores) + " busy core(s)...";
}

// Verdict log line of a measurement made on the calling thread.
std::string warnLine(const std::string& text, const std::string& ending) {
    return "CPUwatch (id#" + threadText() + "/" + threadText() + "): " + text + ending;
}

// A watch with its own clock: each measurement follows one second of wall time in which the
// process used the given number of cores.
class FedCpuWatch : public CpuWatch {
public:
    FedCpuWatch(int tolerance, int availableCores)
        : CpuWatch(1, tolerance, availableCores, ProcessTimes{0, 0, 0}) {}

    bool measureSecond(double userCores, double systemCores = 0.0) {
        m_now.real += 1000000000;
        m_now.user += std::llround(userCores * 1e9);
        m_now.system += std::llround(systemCores * 1e9);
        return measureWith(m_now);
    }

    void collectTexts() {
        connectToAliveSlot([this](const std::string& text) { texts.push_back(text); });
    }

    using CpuWatch::getIdleCount;
    using CpuWatch::getIdleFactor;
    using CpuWatch::getSpinCount;
    using CpuWatch::getSpinFactor;
    using CpuWatch::getTolerance;
    using CpuWatch::isWatching;

    std::vector<std::string> texts;

private:
    ProcessTimes m_now{0, 0, 0};
};

// A watch made by the public constructor, with a watchdog.
class ProbedCpuWatch : public CpuWatch {
public:
    using CpuWatch::CpuWatch;
    using CpuWatch::getAvailableCores;
    using CpuWatch::isWatching;
};

const double c_idleCores = 0.001;

} // namespace

TEST(CpuWatchTest, IntervalBelowOneDisablesTheWatch) {
    LogCapture capture;
    std::vector<std::string> texts;
    {
        ProbedCpuWatch watch(0, 3);
        watch.connectToAliveSlot([&texts](const std::string& text) { texts.push_back(text); });
        EXPECT_TRUE(
            capture.contains(LogLevel::Trace, "CPUwatch (id#" + threadText() + "): Disabled."));
        EXPECT_FALSE(capture.containsSubstring("Enabled"));
        EXPECT_FALSE(watch.isWatching());
        // An enabled watch with this interval would measure at every tick and reach a verdict
        // well within this time.
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
    }
    EXPECT_TRUE(texts.empty());
    EXPECT_EQ(capture.count("WatchDog stopped."), 0u);
    EXPECT_TRUE(capture.contains("CPUwatch (id#" + threadText() + "): Stopped watching."));
}

TEST(CpuWatchTest, ToleranceIsClampedAndShownInTheEnabledLine) {
    LogCapture capture;
    const std::string prefix = "CPUwatch (id#" + threadText() + "): Enabled (Intervals: 1s@50ms, ";
    {
        FedCpuWatch low(0, 3);
        EXPECT_EQ(low.getTolerance(), 1u);
        EXPECT_TRUE(capture.contains(
            LogLevel::Trace, prefix + "idle/spinning Tolerance: 1/2, available Cores: 3)."));
    }
    {
        FedCpuWatch high(11, 5);
        EXPECT_EQ(high.getTolerance(), 10u);
        EXPECT_TRUE(capture.contains(
            LogLevel::Trace, prefix + "idle/spinning Tolerance: 10/20, available Cores: 5)."));
    }
    {
        FedCpuWatch inRange(7, 2);
        EXPECT_EQ(inRange.getTolerance(), 7u);
        EXPECT_TRUE(capture.contains(
            LogLevel::Trace, prefix + "idle/spinning Tolerance: 7/14, available Cores: 2)."));
    }
    // Without the debug setting no measurement is traced.
    FedCpuWatch watch(1, 2);
    watch.measureSecond(1.0);
    EXPECT_FALSE(capture.containsSubstring("): Watching ("));
}

TEST(CpuWatchTest, PublicConstructorCountsCoresAndDestructionStopsTheWatchDog) {
    LogCapture capture;
    {
        ProbedCpuWatch watch(2, 11);
        EXPECT_TRUE(watch.isWatching());
        EXPECT_GE(watch.getAvailableCores(),
                  static_cast<int>(boost::thread::hardware_concurrency()));
        EXPECT_GE(watch.getAvailableCores(), 1);
        EXPECT_TRUE(capture.contains(
            LogLevel::Trace,
            "CPUwatch (id#" + threadText() +
                "): Enabled (Intervals: 2s@50ms, idle/spinning Tolerance: 10/20, available "
                "Cores: " +
                std::to_string(watch.getAvailableCores()) + ")."));
        EXPECT_EQ(capture.count("WatchDog stopped."), 0u);
    }
    EXPECT_EQ(capture.count("WatchDog stopped."), 1u);
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, "CPUwatch (id#" + threadText() + "): Stopped watching."));
}

TEST(CpuWatchTest, MeasuresOnEveryTwentyFirstTickAfterTheFirst) {
    FedCpuWatch watch(1, 2); // one second: 20 ticks per check
    watch.collectTexts();
    // With the estimate forgotten, every measurement reports.
    watch.resetCounters();
    for (int tick = 1; tick <= 21; ++tick)
        ASSERT_TRUE(watch.watch(false)) << tick;
    EXPECT_TRUE(watch.texts.empty());
    ASSERT_TRUE(watch.watch(false));
    EXPECT_EQ(watch.texts.size(), 1u);

    watch.resetCounters();
    for (int tick = 1; tick <= 20; ++tick)
        ASSERT_TRUE(watch.watch(false)) << tick;
    EXPECT_EQ(watch.texts.size(), 1u);
    ASSERT_TRUE(watch.watch(false));
    EXPECT_EQ(watch.texts.size(), 2u);

    // The stopping call touches nothing.
    watch.resetCounters();
    for (int tick = 1; tick <= 30; ++tick)
        EXPECT_FALSE(watch.watch(true));
    EXPECT_EQ(watch.texts.size(), 2u);
    for (int tick = 1; tick <= 20; ++tick)
        ASSERT_TRUE(watch.watch(false)) << tick;
    EXPECT_EQ(watch.texts.size(), 2u);
    ASSERT_TRUE(watch.watch(false));
    EXPECT_EQ(watch.texts.size(), 3u);
}

TEST(CpuWatchTest, IdleIsDeclaredAfterToleranceAndNeverBeforeTheSixthMeasurement) {
    for (int tolerance : {1, 2, 3}) {
        SCOPED_TRACE(tolerance);
        LogCapture capture;
        FedCpuWatch watch(tolerance, 2);
        watch.collectTexts();
        int last = 5 + tolerance;
        for (int measurement = 1; measurement < last; ++measurement) {
            ASSERT_TRUE(watch.measureSecond(c_idleCores)) << measurement;
            EXPECT_EQ(watch.getIdleCount(), static_cast<uint32_t>(std::max(0, measurement - 4)));
            EXPECT_EQ(watch.getSpinCount(), 0u);
        }
        EXPECT_TRUE(watch.texts.empty());
        EXPECT_TRUE(capture.messages(LogLevel::Warn).empty());

        EXPECT_FALSE(watch.measureSecond(c_idleCores));
        EXPECT_EQ(watch.texts, std::vector<std::string>{idleEndText(tolerance)});
        EXPECT_EQ(
            capture.messages(LogLevel::Warn),
            std::vector<std::string>{warnLine(idleEndText(tolerance), " Process declared dead.")});
        EXPECT_FALSE(watch.isWatching());
    }
}

TEST(CpuWatchTest, OneCoreSpinIsDeclaredAfterTwiceTolerance) {
    for (int tolerance : {1, 3}) {
        SCOPED_TRACE(tolerance);
        LogCapture capture;
        FedCpuWatch watch(tolerance, 2);
        watch.collectTexts();
        for (int measurement = 1; measurement <= 2 * tolerance; ++measurement) {
            // User and system time both count.
            ASSERT_TRUE(watch.measureSecond(0.25, 0.75)) << measurement;
            EXPECT_EQ(watch.getSpinCount(), static_cast<uint32_t>(measurement));
            EXPECT_EQ(watch.getIdleCount(), 0u);
        }
        EXPECT_TRUE(watch.texts.empty());
        EXPECT_TRUE(capture.messages(LogLevel::Warn).empty());

        EXPECT_FALSE(watch.measureSecond(1.0));
        EXPECT_EQ(watch.texts, std::vector<std::string>{spinEndText(tolerance)});
        EXPECT_EQ(
            capture.messages(LogLevel::Warn),
            std::vector<std::string>{warnLine(spinEndText(tolerance), " Process declared dead.")});
    }
}

TEST(CpuWatchTest, SpinJustBelowTheLimitIsNotSuspect) {
    FedCpuWatch watch(1, 2);
    watch.collectTexts();
    // 0.998 of one core is below 0.999 of it.
    for (int measurement = 1; measurement <= 10; ++measurement)
        ASSERT_TRUE(watch.measureSecond(0.998)) << measurement;
    EXPECT_EQ(watch.getSpinCount(), 0u);
    EXPECT_EQ(watch.texts.size(), 10u);
    EXPECT_EQ(watch.texts.back(), busyText("49", 1));
}

TEST(CpuWatchTest, AllCoresSaturatedUseTheLowerSpinLimit) {
    // 1.99 cores: 0.995 per core, above the 0.985 that applies when every core is busy.
    FedCpuWatch all(1, 2);
    all.collectTexts();
    ASSERT_TRUE(all.measureSecond(1.99)); // the estimate moves from 1 to 2
    EXPECT_EQ(all.getSpinCount(), 0u);
    ASSERT_TRUE(all.measureSecond(1.99));
    ASSERT_TRUE(all.measureSecond(1.99));
    EXPECT_EQ(all.getSpinCount(), 2u);
    EXPECT_FALSE(all.measureSecond(1.99));
    EXPECT_EQ(all.texts, (std::vector<std::string>{busyText("99", 2), spinEndText(1)}));

    // The same load on three cores must pass the 0.999 limit, and does not.
    FedCpuWatch some(1, 3);
    some.collectTexts();
    for (int measurement = 1; measurement <= 10; ++measurement) {
        ASSERT_TRUE(some.measureSecond(1.99)) << measurement;
        EXPECT_EQ(some.getSpinCount(), 0u);
    }
    EXPECT_EQ(some.texts, std::vector<std::string>(10, busyText("66", 2)));

    // A single core has a limit of its own: 0.995.
    FedCpuWatch single(1, 1);
    single.collectTexts();
    ASSERT_TRUE(single.measureSecond(0.997));
    ASSERT_TRUE(single.measureSecond(0.997));
    EXPECT_FALSE(single.measureSecond(0.997));
    EXPECT_EQ(single.texts, std::vector<std::string>{spinEndText(1)});
}

TEST(CpuWatchTest, AlternatingIdleAndBusyIsNeverDeclaredDead) {
    LogCapture capture;
    FedCpuWatch watch(1, 2);
    watch.collectTexts();
    for (int measurement = 1; measurement <= 40; ++measurement) {
        bool busy = measurement % 2 == 0;
        ASSERT_TRUE(watch.measureSecond(busy ? 0.61 : c_idleCores)) << measurement;
        EXPECT_LE(watch.getIdleCount(), 1u);
        if (busy) {
            EXPECT_EQ(watch.getIdleCount(), 0u);
        }
    }
    EXPECT_EQ(watch.texts, std::vector<std::string>(20, busyText("30", 1)));
    EXPECT_TRUE(capture.messages(LogLevel::Warn).empty());
}

TEST(CpuWatchTest, BusyTextShowsPercentAndCoreEstimate) {
    FedCpuWatch watch(1, 4);
    watch.collectTexts();
    struct Case {
        double cores;
        std::string percent;
        int estimate;
    };
    const std::vector<Case> cases = {
        {0.018, "0.4", 1},     {0.0018, "0.04", 1}, {0.00018, "0.004", 1}, {0.0, "0.000", 1},
        {0.0916, "2", 1},      {1.02, "25", 1},     {1.03, "25", 2},       {2.02, "50", 2},
        {2.03, "50", 3},       {2.5, "62", 3},      {3.9, "97", 4},        {4.4, "110", 4},
        {0.00038, "0.009", 1}, {0.0038, "0.09", 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.cores);
        // The forgotten estimate keeps any verdict away, so every measurement reports.
        watch.resetCounters();
        watch.texts.clear();
        ASSERT_TRUE(watch.measureSecond(c.cores));
        EXPECT_EQ(watch.texts, std::vector<std::string>{busyText(c.percent, c.estimate)});
    }
}

TEST(CpuWatchTest, ResetCountersLogsAndPreventsTheNextVerdict) {
    LogCapture capture;
    FedCpuWatch watch(1, 2);
    watch.collectTexts();
    ASSERT_TRUE(watch.measureSecond(1.0));
    ASSERT_TRUE(watch.measureSecond(1.0));
    EXPECT_EQ(watch.getSpinCount(), 2u);
    watch.resetCounters();
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "CPUwatch (id#" + threadText() +
                                                      "): Counters reset by active process..!"));
    EXPECT_EQ(watch.getSpinCount(), 0u);
    ASSERT_TRUE(watch.measureSecond(1.0));
    EXPECT_EQ(watch.texts, std::vector<std::string>{busyText("50", 1)});
    // Counting starts again from zero.
    ASSERT_TRUE(watch.measureSecond(1.0));
    ASSERT_TRUE(watch.measureSecond(1.0));
    EXPECT_FALSE(watch.measureSecond(1.0));
    EXPECT_EQ(watch.texts.back(), spinEndText(1));
}

TEST(CpuWatchTest, ChangedEstimateResetsBothCounts) {
    FedCpuWatch watch(3, 4);
    watch.collectTexts();
    for (int measurement = 1; measurement <= 6; ++measurement)
        ASSERT_TRUE(watch.measureSecond(c_idleCores));
    EXPECT_EQ(watch.getIdleCount(), 2u);
    ASSERT_TRUE(watch.measureSecond(1.0)); // still one core: a spin suspect
    EXPECT_EQ(watch.getIdleCount(), 2u);
    EXPECT_EQ(watch.getSpinCount(), 1u);
    EXPECT_TRUE(watch.texts.empty());

    ASSERT_TRUE(watch.measureSecond(2.0));
    EXPECT_EQ(watch.getIdleCount(), 0u);
    EXPECT_EQ(watch.getSpinCount(), 0u);
    EXPECT_EQ(watch.texts, std::vector<std::string>{busyText("50", 2)});

    // Back to a low load: the estimate differs from the last one at measurement 9, and the
    // long-term estimate stays off by 0.05 or more up to measurement 20.
    watch.texts.clear();
    for (int measurement = 9; measurement <= 20; ++measurement) {
        ASSERT_TRUE(watch.measureSecond(c_idleCores)) << measurement;
        EXPECT_EQ(watch.getIdleCount(), 0u) << measurement;
    }
    EXPECT_EQ(watch.texts, std::vector<std::string>(12, busyText("0.02", 1)));
    ASSERT_TRUE(watch.measureSecond(c_idleCores));
    EXPECT_EQ(watch.getIdleCount(), 1u);
    ASSERT_TRUE(watch.measureSecond(c_idleCores));
    ASSERT_TRUE(watch.measureSecond(c_idleCores));
    EXPECT_FALSE(watch.measureSecond(c_idleCores));
    EXPECT_EQ(watch.texts.back(), idleEndText(3));
}

TEST(CpuWatchTest, DisabledIdleTerminationRepeatsTheVerdictAndGoesOn) {
    LogCapture capture;
    FedCpuWatch watch(1, 2);
    watch.collectTexts();
    watch.disableIdleStateTermination();
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, "CPUwatch (id#" + threadText() +
                                              "): Idle state termination DISABLED on this watch!"));
    for (int measurement = 1; measurement <= 5; ++measurement)
        ASSERT_TRUE(watch.measureSecond(c_idleCores));
    EXPECT_TRUE(watch.texts.empty());
    for (int measurement = 6; measurement <= 9; ++measurement) {
        ASSERT_TRUE(watch.measureSecond(c_idleCores)) << measurement;
        EXPECT_EQ(watch.getIdleCount(), static_cast<uint32_t>(measurement - 4));
    }
    EXPECT_EQ(watch.texts, std::vector<std::string>(4, idleGoesOnText(1)));
    EXPECT_EQ(
        capture.messages(LogLevel::Warn),
        std::vector<std::string>(4, warnLine(idleGoesOnText(1), " Process suspect of idling...")));

    ASSERT_TRUE(watch.measureSecond(0.61));
    EXPECT_EQ(watch.getIdleCount(), 0u);
    EXPECT_EQ(watch.texts.back(), busyText("30", 1));

    // Spinning still ends the watch.
    ASSERT_TRUE(watch.measureSecond(1.0));
    ASSERT_TRUE(watch.measureSecond(1.0));
    EXPECT_FALSE(watch.measureSecond(1.0));
    EXPECT_EQ(watch.texts.back(), spinEndText(1));
}

TEST(CpuWatchTest, DisabledSpinTerminationRepeatsTheVerdictAndGoesOn) {
    LogCapture capture;
    FedCpuWatch watch(1, 2);
    watch.collectTexts();
    watch.disableSpinningStateTermination();
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, "CPUwatch (id#" + threadText() +
                                              "): Spin state termination DISABLED on this watch!"));
    ASSERT_TRUE(watch.measureSecond(1.0));
    ASSERT_TRUE(watch.measureSecond(1.0));
    EXPECT_TRUE(watch.texts.empty());
    for (int measurement = 3; measurement <= 6; ++measurement) {
        ASSERT_TRUE(watch.measureSecond(1.0)) << measurement;
        EXPECT_EQ(watch.getSpinCount(), static_cast<uint32_t>(measurement));
    }
    EXPECT_EQ(watch.texts, std::vector<std::string>(4, spinGoesOnText(1)));
    EXPECT_EQ(capture.messages(LogLevel::Warn),
              std::vector<std::string>(
                  4, warnLine(spinGoesOnText(1), " Process suspect of spinning...")));

    ASSERT_TRUE(watch.measureSecond(0.61));
    EXPECT_EQ(watch.getSpinCount(), 0u);
    EXPECT_EQ(watch.texts.back(), busyText("30", 1));
}

TEST(CpuWatchTest, SteadySpinLowersTheSpinLimitAndLifeRaisesIt) {
    FedCpuWatch watch(1, 2);
    watch.collectTexts();
    watch.disableSpinningStateTermination();
    for (int measurement = 1; measurement <= 19; ++measurement)
        ASSERT_TRUE(watch.measureSecond(1.0));
    EXPECT_EQ(watch.getSpinFactor(), 1.0);
    // From measurement 21 on the usage lies within 5% of the long-term average, and the factor
    // shrinks by 0.999 until it is no longer above 0.975.
    for (int measurement = 20; measurement <= 60; ++measurement)
        ASSERT_TRUE(watch.measureSecond(1.0));
    const double lowest = std::pow(0.999, 26);
    EXPECT_DOUBLE_EQ(watch.getSpinFactor(), lowest);

    // 0.996 of a core is now above the lowered limit.
    watch.texts.clear();
    ASSERT_TRUE(watch.measureSecond(0.996));
    EXPECT_EQ(watch.texts, std::vector<std::string>{spinGoesOnText(1)});
    EXPECT_DOUBLE_EQ(watch.getSpinFactor(), lowest);

    // Life moves the factor back by one step of 0.99.
    ASSERT_TRUE(watch.measureSecond(0.61));
    EXPECT_EQ(watch.getSpinCount(), 0u);
    EXPECT_DOUBLE_EQ(watch.getSpinFactor(), lowest / 0.99);
    ASSERT_TRUE(watch.measureSecond(0.61)); // no suspect before it: no change
    EXPECT_DOUBLE_EQ(watch.getSpinFactor(), lowest / 0.99);

    // Without that history the same load is no suspect.
    FedCpuWatch fresh(1, 2);
    fresh.collectTexts();
    for (int measurement = 1; measurement <= 10; ++measurement)
        ASSERT_TRUE(fresh.measureSecond(0.996));
    EXPECT_EQ(fresh.getSpinCount(), 0u);
    EXPECT_EQ(fresh.texts, std::vector<std::string>(10, busyText("49", 1)));
}

TEST(CpuWatchTest, IdleFactorFollowsUseBelowTheAverageAndRecoversOnlyBelow95Percent) {
    // A long steady history, then a little less than the average: each such measurement
    // multiplies the idle factor by 0.99, which raises the idle level.
    auto watchWithHistory = [] {
        auto watch = std::make_unique<FedCpuWatch>(1, 2);
        watch->collectTexts();
        watch->disableIdleStateTermination();
        for (int measurement = 1; measurement <= 40; ++measurement)
            EXPECT_TRUE(watch->measureSecond(0.05));
        EXPECT_EQ(watch->getIdleFactor(), 1.0);
        return watch;
    };

    auto once = watchWithHistory();
    ASSERT_TRUE(once->measureSecond(0.047));
    EXPECT_DOUBLE_EQ(once->getIdleFactor(), 0.99);
    ASSERT_TRUE(once->measureSecond(0.61));
    EXPECT_EQ(once->getIdleCount(), 0u);
    // Only a factor below 0.95 moves back.
    EXPECT_DOUBLE_EQ(once->getIdleFactor(), 0.99);

    auto often = watchWithHistory();
    for (int measurement = 1; measurement <= 6; ++measurement)
        ASSERT_TRUE(often->measureSecond(0.047));
    EXPECT_DOUBLE_EQ(often->getIdleFactor(), std::pow(0.99, 6));
    ASSERT_TRUE(often->measureSecond(0.61));
    EXPECT_DOUBLE_EQ(often->getIdleFactor(), std::pow(0.99, 5));
    EXPECT_EQ(often->texts.back(), busyText("30", 1));
}

TEST(CpuWatchTest, TextsGoToTheConnectedSlotInsteadOfTheHeartbeat) {
    LogCapture capture;
    FedCpuWatch watch(1, 4);
    watch.resetCounters();
    ASSERT_TRUE(watch.measureSecond(0.22));
    EXPECT_EQ(LivingProcess::getLastAliveMsg(""), busyText("5", 1));
    EXPECT_TRUE(capture.contains("LivingProcess::alive() - " + busyText("5", 1)));

    std::vector<std::string> first;
    std::vector<std::string> second;
    watch.connectToAliveSlot([&first](const std::string& text) { first.push_back(text); });
    watch.resetCounters();
    ASSERT_TRUE(watch.measureSecond(0.42));
    EXPECT_EQ(first, std::vector<std::string>{busyText("10", 1)});

    // A new slot replaces the first one.
    watch.connectToAliveSlot([&second](const std::string& text) { second.push_back(text); });
    watch.resetCounters();
    ASSERT_TRUE(watch.measureSecond(0.62));
    EXPECT_EQ(first.size(), 1u);
    EXPECT_EQ(second, std::vector<std::string>{busyText("15", 1)});

    EXPECT_EQ(LivingProcess::getLastAliveMsg(""), busyText("5", 1));
    EXPECT_EQ(capture.count("LivingProcess::alive() - " + busyText("10", 1)), 0u);
    EXPECT_EQ(capture.count("LivingProcess::alive() - " + busyText("15", 1)), 0u);
    LivingProcess::shutdown();
}

TEST(CpuWatchTest, IdleProcessIsDeclaredDeadInRealTime) {
    LogCapture capture;
    ProbedCpuWatch watch(1, 1);
    std::vector<std::string> texts;
    watch.connectToAliveSlot([&texts](const std::string& text) { texts.push_back(text); });
    auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(capture.waitForSubstring("Process declared dead.", std::chrono::seconds(12)));
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    // Six measurements of 21 ticks of 50 ms, after a first tick that measures nothing.
    EXPECT_GE(seconds, 6.2);
    EXPECT_LE(seconds, 9.0);
    EXPECT_TRUE(capture.waitFor("WatchDog stopped.", std::chrono::seconds(2)));
    EXPECT_FALSE(watch.isWatching());

    EXPECT_EQ(texts, std::vector<std::string>{idleEndText(1)});
    std::vector<std::string> warnings = capture.messages(LogLevel::Warn);
    ASSERT_EQ(warnings.size(), 1u);
    const std::string head = "CPUwatch (id#" + threadText() + "/";
    const std::string tail = "): " + idleEndText(1) + " Process declared dead.";
    EXPECT_EQ(warnings[0].compare(0, head.size(), head), 0) << warnings[0];
    ASSERT_GT(warnings[0].size(), head.size() + tail.size());
    EXPECT_EQ(warnings[0].substr(warnings[0].size() - tail.size()), tail);
    // The verdict falls on the watchdog's thread, not on this one.
    EXPECT_NE(warnings[0], warnLine(idleEndText(1), " Process declared dead."));
}

// The environment setting is read once per process, at the first construction; ctest runs each
// test in a process of its own.
TEST(CpuWatchTest, DebugSettingTracesEveryMeasurement) {
    setenv("KS_CPUWATCH_IDLESPINCONTROL", "DEBUG", 1);
    LogCapture capture;
    FedCpuWatch watch(1, 3);
    watch.collectTexts();
    ASSERT_TRUE(watch.measureSecond(1.0));
    ASSERT_TRUE(watch.measureSecond(1.5));
    ASSERT_TRUE(watch.measureSecond(2.0));
    const std::string head = "CPUwatch (id#" + threadText() + "/" + threadText() + "): Watching (";
    std::vector<std::string> expected = {
        head + "counter: 1, totalCpuUsage: 1, cpuFraction: 0.333333, cpuLoad: 1, "
               "guessedNumberOfCoresInUse: 1, idleCount: 0, spinCount: 0, nCoreFullLoadMatch: "
               "0)\n\tMessage: CPUwatch: Watching (eternalAvg: 0.5, idleThresh: 0.111111, "
               "spinThresh: 0.999, threshCRIT: 0, eternal_nGuessedCoresAvg: 1, "
               "guessedCoresAvgDelta: 0)",
        head + "counter: 2, totalCpuUsage: 1.5, cpuFraction: 0.5, cpuLoad: 0.75, "
               "guessedNumberOfCoresInUse: 2, idleCount: 0, spinCount: 1, nCoreFullLoadMatch: "
               "0.5)\n\tMessage: CPUwatch: Watching (eternalAvg: 0.833333, idleThresh: "
               "0.111111, spinThresh: 0.999, threshCRIT: 0, eternal_nGuessedCoresAvg: 1.5, "
               "guessedCoresAvgDelta: 0.5)",
        head + "counter: 3, totalCpuUsage: 2, cpuFraction: 0.666667, cpuLoad: 1, "
               "guessedNumberOfCoresInUse: 2, idleCount: 0, spinCount: 0, nCoreFullLoadMatch: "
               "0)\n\tMessage: CPUwatch: Watching (eternalAvg: 1.125, idleThresh: 0.111111, "
               "spinThresh: 0.999, threshCRIT: 0.777778, eternal_nGuessedCoresAvg: 1.66667, "
               "guessedCoresAvgDelta: 0.333333)"};
    std::vector<std::string> traced;
    for (const std::string& message : capture.messages(LogLevel::Trace))
        if (message.rfind(head, 0) == 0)
            traced.push_back(message);
    EXPECT_EQ(traced, expected);
}

TEST(CpuWatchTest, DisabledSettingReportsButNeverDecides) {
    setenv("KS_CPUWATCH_IDLESPINCONTROL", "DISABLED", 1);
    LogCapture capture;
    FedCpuWatch watch(1, 2);
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, "CPUwatch (id#" + threadText() +
                                              "): Idle/spin-control DISABLED by user defined "
                                              "env-settings!"));
    watch.collectTexts();
    for (int measurement = 1; measurement <= 10; ++measurement)
        ASSERT_TRUE(watch.measureSecond(0.009)) << measurement;
    for (int measurement = 11; measurement <= 20; ++measurement)
        ASSERT_TRUE(watch.measureSecond(1.0)) << measurement;
    std::vector<std::string> expected(10, busyText("0.4", 1));
    expected.insert(expected.end(), 10, busyText("50", 1));
    EXPECT_EQ(watch.texts, expected);
    EXPECT_EQ(watch.getIdleCount(), 0u);
    EXPECT_EQ(watch.getSpinCount(), 0u);
    EXPECT_TRUE(capture.messages(LogLevel::Warn).empty());
}
