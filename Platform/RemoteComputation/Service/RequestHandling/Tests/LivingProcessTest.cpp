#include "RecordingSubscriber.h"

#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcessWatcher.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"

#include <gtest/gtest.h>

#include <atomic>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;

namespace {

void setInterval(const std::string& ms) {
    RequestServerConfiguration::getRegisteredInstance()->setValue("alivePublishInterval", ms);
}

std::function<bool(const ReceivedMessage&)> aliveText(const std::string& text) {
    return [text](const ReceivedMessage& m) {
        return m.topic == "alive" && m.content.size() == 2 && m.content[1] == text;
    };
}

// Subscribes to this process's heartbeat and waits until it arrives.
std::unique_ptr<RecordingSubscriber> settledSubscriber(const std::string& firstText) {
    auto subscriber =
        std::make_unique<RecordingSubscriber>(ownPublisher(), std::vector<std::string>{"alive"});
    subscriber->start(true);
    EXPECT_TRUE(subscriber->waitFor(aliveText(firstText), 5000ms));
    return subscriber;
}

} // namespace

TEST(LivingProcessTest, NothingBeforeTheFirstAlive) {
    setInterval("50");
    RecordingSubscriber subscriber(ownPublisher(), {});
    subscriber.start(true);
    std::this_thread::sleep_for(400ms);
    EXPECT_TRUE(subscriber.messages().empty());
    EXPECT_EQ(LivingProcess::getLastAliveMsg(""), "");
}

TEST(LivingProcessTest, FirstMessageIsCreatedWithPrefix) {
    LogCapture capture;
    setInterval("50");
    LivingProcess::setPrefix("node7:");
    auto subscriber = settledSubscriber("node7:LivingProcess_created");
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Started LivingProcess"));
    EXPECT_TRUE(capture.containsSubstring("Created LivingProcess instance: 0x"));
    EXPECT_EQ(LivingProcess::getLastAliveMsg(""), "LivingProcess_created");
}

TEST(LivingProcessTest, TwoCallsWithinOneIntervalGiveOneMessage) {
    setInterval("300");
    LivingProcess::setPrefix("");
    auto subscriber = settledSubscriber("LivingProcess_created");
    LivingProcess::alive("1", "x");
    LivingProcess::alive("2", "x");
    ASSERT_TRUE(subscriber->waitFor(aliveText("x2"), 3000ms));
    for (const auto& m : subscriber->messages())
        EXPECT_NE(m.content[1], "x1");
    EXPECT_EQ(LivingProcess::getLastAliveMsg("x"), "2");
}

TEST(LivingProcessTest, KeysRepeatInOrderWithTheTimeOfTheirLastCall) {
    LogCapture capture;
    setInterval("50");
    LivingProcess::alive("a", "k1");
    LivingProcess::alive("b", "k2");
    auto subscriber = settledSubscriber("k2b");
    ASSERT_TRUE(subscriber->waitFor(
        [](const ReceivedMessage& m) { return m.content[1] == "k2b" && m.content.size() == 2; },
        2000ms));
    std::this_thread::sleep_for(200ms);
    auto messages = subscriber->messages();
    // Every tick sends "", "k1", "k2" in map order, each with the stamp of its last call.
    std::map<std::string, std::set<std::string>> stamps;
    for (size_t i = 0; i + 2 < messages.size(); ++i) {
        if (messages[i].content[1] == "LivingProcess_created") {
            EXPECT_EQ(messages[i + 1].content[1], "k1a");
            EXPECT_EQ(messages[i + 2].content[1], "k2b");
        }
    }
    for (const auto& m : messages)
        stamps[m.content[1]].insert(m.content[0]);
    EXPECT_EQ(stamps["k1a"].size(), 1u);
    EXPECT_EQ(stamps["k2b"].size(), 1u);
    EXPECT_TRUE(capture.contains(LogLevel::Trace,
                                 "Timeout reached with no change: repeating alive message."));
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "LivingProcess::alive() - k1a"));
}

TEST(LivingProcessTest, AliveAfterShutdownWithoutInstanceDoesNothing) {
    setInterval("50");
    LivingProcess::shutdown();
    LivingProcess::alive("late", "");
    RecordingSubscriber subscriber(ownPublisher(), {});
    subscriber.start(true);
    std::this_thread::sleep_for(300ms);
    EXPECT_TRUE(subscriber.messages().empty());
    EXPECT_EQ(LivingProcess::getLastAliveMsg(""), "");
}

TEST(LivingProcessTest, AliveAfterShutdownWithInstanceOnlyUpdatesTheMaps) {
    LogCapture capture;
    setInterval("50");
    LivingProcess::alive("early", "");
    auto subscriber = settledSubscriber("early");
    LivingProcess::shutdown();
    ASSERT_TRUE(capture.waitFor("Stopped LivingProcess", 2000ms));
    LivingProcess::alive("late", "k");
    EXPECT_EQ(LivingProcess::getLastAliveMsg("k"), "late");
    std::this_thread::sleep_for(300ms);
    for (const auto& m : subscriber->messages())
        EXPECT_NE(m.content[1], "klate");
}

TEST(LivingProcessWatcherTest, AgesStayLowWhileHeartbeatsCome) {
    setInterval("50");
    LivingProcess::alive("working", "");
    LivingProcessWatcher watcher(ownPublisher(), 1, 0, false);
    watcher.start(true);
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(watcher.getLastAliveAge(), 0);
    EXPECT_EQ(watcher.getLastAliveMsg(), "working");
}

TEST(LivingProcessWatcherTest, AliveLimitIsExceededOnlyAboveIt) {
    LogCapture capture;
    Publisher::getInstance(); // a publisher that never sends
    std::atomic<int> raised{0};
    LivingProcessWatcher watcher(ownPublisher(), 1, 0, false);
    auto connection = watcher.maxAliveAgeExceeded().connect([&] { ++raised; });
    watcher.start(true);
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(raised.load(), 0); // an age of 1 is not above 1
    ASSERT_TRUE(capture.waitFor("Max alive message age exceeded (2 > 1)", 2000ms));
    std::this_thread::sleep_for(100ms);
    EXPECT_GT(raised.load(), 1); // raised again at every silent pass
    EXPECT_FALSE(capture.containsSubstring("Max change message age exceeded"));
}

TEST(LivingProcessWatcherTest, ZeroLimitsSwitchTheChecksOff) {
    LogCapture capture;
    Publisher::getInstance();
    std::atomic<int> raised{0};
    LivingProcessWatcher watcher(ownPublisher(), 0, 0, false);
    auto a = watcher.maxAliveAgeExceeded().connect([&] { ++raised; });
    auto c = watcher.maxChangeAgeExceeded().connect([&] { ++raised; });
    watcher.start(true);
    std::this_thread::sleep_for(2200ms);
    EXPECT_GE(watcher.getLastAliveAge(), 2);
    EXPECT_EQ(raised.load(), 0);
    EXPECT_FALSE(capture.containsSubstring("age exceeded"));
}

TEST(LivingProcessWatcherTest, UnchangedHeartbeatMakesTheChangeAgeGrow) {
    LogCapture capture;
    setInterval("50");
    LivingProcess::alive("stuck", "");
    std::atomic<int> raised{0};
    LivingProcessWatcher watcher(ownPublisher(), 1, 1, false);
    auto connection = watcher.maxChangeAgeExceeded().connect([&] { ++raised; });
    watcher.start(true);
    ASSERT_TRUE(capture.waitFor("Max change message age exceeded (2 > 1)", 4000ms));
    for (int i = 0; i < 100 && raised.load() == 0; ++i)
        std::this_thread::sleep_for(10ms); // the signal follows its log line
    EXPECT_GT(raised.load(), 0);
    EXPECT_EQ(watcher.getLastAliveAge(), 0);
    EXPECT_GE(watcher.getLastChangeAge(), 2);
    LivingProcess::alive("moving", "");
    ASSERT_TRUE(capture.waitForSubstring("- moving", 2000ms));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(watcher.getLastChangeAge(), 0);
}

TEST(LivingProcessWatcherTest, ThreeElementsAreNoHeartbeat) {
    LogCapture capture;
    LivingProcessWatcher watcher(ownPublisher(), 0, 0, false);
    watcher.start(true);
    ASSERT_TRUE(publishUntil(
        [] {
            Publisher::getInstance()->publish("alive", {"a", "b", "c"});
        },
        [&] {
            return capture.contains(LogLevel::Error,
                                    "Error: wrong topic (alive) or contnent size (3)!");
        }));
    EXPECT_EQ(watcher.getLastAliveMsg(), "");
    std::this_thread::sleep_for(1100ms);
    EXPECT_GE(watcher.getLastAliveAge(), 1);
}

TEST(LivingProcessWatcherTest, ForwardedTextBecomesOwnHeartbeat) {
    LivingProcessWatcher watcher(ownPublisher(), 0, 0, true);
    watcher.start(true);
    ASSERT_TRUE(publishUntil(
        [] {
            Publisher::getInstance()->publish("alive", {"t1", "child busy"});
        },
        [] { return LivingProcess::getLastAliveMsg("") == "child busy"; }));
    EXPECT_EQ(watcher.getLastAliveMsg(), "child busy");
}
