#include "RecordingSubscriber.h"

#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcessWatcher.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SharedSubscriptions.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;

namespace {

using Sockets = RecordingSubscriber::Sockets;

bool hasContent(const ReceivedMessage& m, const std::string& text) {
    return !m.content.empty() && m.content[0] == text;
}

// Publishes `text` on `topic` until `subscriber` has it.
bool publishUntilSeen(RecordingSubscriber& subscriber, const std::string& topic,
                      const std::string& text) {
    return publishUntil([&] { Publisher::getInstance()->publish(topic, {text}); },
                        [&] {
                            for (const auto& m : subscriber.messages())
                                if (hasContent(m, text))
                                    return true;
                            return false;
                        });
}

class SharedSubscriptionsTest : public ::testing::Test {
protected:
    void SetUp() override { SharedSubscriptions::instance().setKeepOpen(300ms); }
    void TearDown() override { SharedSubscriptions::instance().setKeepOpen(10000ms); }

    // Waits until the shared sockets that nobody uses have closed.
    static bool waitForSockets(size_t count, std::chrono::milliseconds limit) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (SharedSubscriptions::instance().openSockets() != count) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            std::this_thread::sleep_for(10ms);
        }
        return true;
    }
};

} // namespace

TEST_F(SharedSubscriptionsTest, SubscribersOfOneEndpointShareOneSocketAndAllGetEachMessage) {
    ASSERT_TRUE(waitForSockets(0, 2000ms));
    RecordingSubscriber first(ownPublisher(), {"shared"}, Sockets::Shared);
    RecordingSubscriber second(ownPublisher(), {"shared"}, Sockets::Shared);
    first.start(true);
    second.start(true);
    ASSERT_TRUE(publishUntilSeen(first, "shared", "one"));
    EXPECT_EQ(SharedSubscriptions::instance().openSockets(), 1u);
    // Whatever reached one reached the other: they read the same socket.
    Publisher::getInstance()->publish("shared", {"two"});
    EXPECT_TRUE(
        first.waitFor([](const ReceivedMessage& m) { return hasContent(m, "two"); }, 2000ms));
    EXPECT_TRUE(
        second.waitFor([](const ReceivedMessage& m) { return hasContent(m, "two"); }, 2000ms));
    EXPECT_EQ(first.messages().back().topic, "shared");
    EXPECT_EQ(first.messages().back().publisherId, 0);
}

TEST_F(SharedSubscriptionsTest, ANewSubscriberOfAnOpenSocketMissesNothingSentAfterItsStart) {
    ASSERT_TRUE(waitForSockets(0, 2000ms));
    RecordingSubscriber keeper(ownPublisher(), {"joiner"}, Sockets::Shared);
    keeper.start(true);
    ASSERT_TRUE(publishUntilSeen(keeper, "joiner", "warm"));
    // The socket is open and subscribed: a newcomer needs no handshake and sees the very next
    // message (a socket of its own would miss the messages of its first milliseconds).
    for (int i = 0; i < 20; ++i) {
        RecordingSubscriber newcomer(ownPublisher(), {"joiner"}, Sockets::Shared);
        newcomer.start(true);
        // start() has registered it; its first silent pass shows that the poll has taken it up.
        auto deadline = std::chrono::steady_clock::now() + 2000ms;
        while (newcomer.silentPasses(0) == 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(1ms);
        const std::string text = "m" + std::to_string(i);
        Publisher::getInstance()->publish("joiner", {text});
        EXPECT_TRUE(
            newcomer.waitFor([&](const ReceivedMessage& m) { return hasContent(m, text); }, 2000ms))
            << text;
    }
}

TEST_F(SharedSubscriptionsTest, AnUnusedSocketClosesAfterTheKeepOpenTimeAndTheThreadEnds) {
    ASSERT_TRUE(waitForSockets(0, 2000ms));
    {
        RecordingSubscriber subscriber(ownPublisher(), {"closing"}, Sockets::Shared);
        subscriber.start(true);
        ASSERT_TRUE(publishUntilSeen(subscriber, "closing", "x"));
    }
    // Still open right after the last subscriber left, for the next wait.
    EXPECT_EQ(SharedSubscriptions::instance().openSockets(), 1u);
    EXPECT_TRUE(waitForSockets(0, 2000ms));
    // And it opens again on demand.
    RecordingSubscriber again(ownPublisher(), {"closing"}, Sockets::Shared);
    again.start(true);
    EXPECT_TRUE(publishUntilSeen(again, "closing", "y"));
}

TEST_F(SharedSubscriptionsTest, NoCallAfterStopAndSilentPassesKeepTheirPace) {
    RecordingSubscriber subscriber(ownPublisher(), {"quiet"}, Sockets::Shared);
    subscriber.start(true);
    std::this_thread::sleep_for(300ms);
    int passes = subscriber.silentPasses(0);
    EXPECT_GT(passes, 5);   // about 30 at 10 ms per silent pass
    EXPECT_LT(passes, 100); // the poll waits between passes
    auto start = std::chrono::steady_clock::now();
    subscriber.stop();
    subscriber.finalize();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
    int after = subscriber.silentPasses(0);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(subscriber.silentPasses(0), after);
}

namespace {
// Removes its own publisher from inside a call, as a handler that gives up a peer does.
class SelfRemovingSubscriber : public RecordingSubscriber {
public:
    SelfRemovingSubscriber() : RecordingSubscriber(ownPublisher(), {"self"}, Sockets::Shared) {}
    void handleNoNewMessage(int id) override {
        ++calls;
        if (!removed.exchange(true))
            removePublisher(id);
    }
    std::atomic<int> calls{0};
    std::atomic<bool> removed{false};
};
} // namespace

TEST_F(SharedSubscriptionsTest, ASubscriberMayLeaveFromInsideItsOwnCall) {
    SelfRemovingSubscriber subscriber;
    subscriber.start(true);
    auto deadline = std::chrono::steady_clock::now() + 2000ms;
    while (!subscriber.removed && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(5ms);
    ASSERT_TRUE(subscriber.removed);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(subscriber.calls, 1); // that call was the last
}

TEST_F(SharedSubscriptionsTest, WatchersOfOneServerShareTheSubscriptionAndKeepTheirOwnAges) {
    ASSERT_TRUE(waitForSockets(0, 2000ms));
    LivingProcessWatcher first(ownPublisher(), -1, -1, false);
    LivingProcessWatcher second(ownPublisher(), -1, -1, false);
    first.start(true);
    second.start(true);
    auto deadline = std::chrono::steady_clock::now() + 5000ms;
    while ((first.getLastAliveMsg().empty() || second.getLastAliveMsg().empty()) &&
           std::chrono::steady_clock::now() < deadline) {
        Publisher::getInstance()->publish(Publisher::c_topicAlive, {"stamp", "text"});
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_EQ(first.getLastAliveMsg(), "text");
    EXPECT_EQ(second.getLastAliveMsg(), "text");
    EXPECT_EQ(first.getLastTimeStamp(), "stamp");
    EXPECT_EQ(SharedSubscriptions::instance().openSockets(), 1u);
    // A third watcher starts with its own state: the first message it sees is a change to it.
    LivingProcessWatcher third(ownPublisher(), -1, -1, false);
    EXPECT_EQ(third.getLastAliveMsg(), "");
    third.start(true);
    deadline = std::chrono::steady_clock::now() + 2000ms;
    while (third.getLastAliveMsg().empty() && std::chrono::steady_clock::now() < deadline) {
        Publisher::getInstance()->publish(Publisher::c_topicAlive, {"stamp", "text"});
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_EQ(third.getLastAliveMsg(), "text");
    EXPECT_EQ(third.getLastChangeAge(), 0);
}
