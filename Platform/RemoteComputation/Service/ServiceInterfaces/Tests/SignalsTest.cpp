#include "Platform/RemoteComputation/Service/ServiceInterfaces/Signals.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<std::string> s_calls;
void freeFunction(const std::string& text) {
    s_calls.push_back("free:" + text);
}

class Receiver : public Signals::Trackable {
public:
    void onText(const std::string& text) { received.push_back(text); }
    void onNumber(int value) { sum += value; }
    std::vector<std::string> received;
    int sum = 0;
};

class PlainReceiver {
public:
    void onText(const std::string& text) { received.push_back(text); }
    std::vector<std::string> received;
};

class SignalsTest : public ::testing::Test {
protected:
    void SetUp() override { s_calls.clear(); }
};

} // namespace

TEST_F(SignalsTest, SlotsRunInConnectOrderAndAtFrontGoesFirst) {
    Signals::Signal<void(int)> signal;
    std::vector<int> order;
    Signals::Connection a = signal.connect([&](int v) { order.push_back(10 + v); });
    Signals::Connection b = signal.connect([&](int v) { order.push_back(20 + v); });
    Signals::Connection c =
        signal.connect([&](int v) { order.push_back(30 + v); }, Signals::AtFront);
    signal(1);
    EXPECT_EQ(order, (std::vector<int>{31, 11, 21}));
    EXPECT_EQ(signal.numSlots(), 3u);
}

TEST_F(SignalsTest, FunctionPointerSignatureForm) {
    Signals::Signal<void (*)(const std::string&)> signal;
    Signals::Connection connection = signal.connect(&freeFunction);
    EXPECT_TRUE(connection.connected());
    signal(std::string("hello"));
    EXPECT_EQ(s_calls, std::vector<std::string>{"free:hello"});

    Signals::Slot<void (*)(const std::string&)> slot(&freeFunction);
    Signals::Connection second = signal.connect(slot, Signals::AtFront);
    signal(std::string("x"));
    EXPECT_EQ(s_calls, (std::vector<std::string>{"free:hello", "free:x", "free:x"}));
}

TEST_F(SignalsTest, ConnectionDisconnectsWhenDestroyed) {
    Signals::Signal<void(int)> signal;
    int calls = 0;
    {
        Signals::Connection connection = signal.connect([&](int) { ++calls; });
        signal(0);
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(signal.numSlots(), 1u);
    }
    signal(0);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(signal.empty());
}

TEST_F(SignalsTest, ExplicitDisconnect) {
    Signals::Signal<void(int)> signal;
    int calls = 0;
    Signals::Connection connection = signal.connect([&](int) { ++calls; });
    EXPECT_TRUE(connection.connected());
    connection.disconnect();
    EXPECT_FALSE(connection.connected());
    signal(0);
    EXPECT_EQ(calls, 0);
    connection.disconnect(); // twice is harmless
    EXPECT_FALSE(connection.connected());
}

TEST_F(SignalsTest, DefaultConnectionIsNotConnected) {
    Signals::Connection connection;
    EXPECT_FALSE(connection.connected());
    connection.disconnect();
    EXPECT_FALSE(connection.connected());
}

TEST_F(SignalsTest, ReleaseWithoutDisconnectKeepsTheSlot) {
    Signals::Signal<void(int)> signal;
    int calls = 0;
    {
        Signals::Connection connection = signal.connect([&](int) { ++calls; });
        connection.releaseWithoutDisconnect();
        EXPECT_FALSE(connection.connected());
    }
    signal(0);
    signal(0);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(signal.numSlots(), 1u);
    signal.disconnectAllSlots();
    signal(0);
    EXPECT_EQ(calls, 2);
}

TEST_F(SignalsTest, MoveAssignmentTakesOverAndDropsTheOldConnection) {
    Signals::Signal<void(int)> signal;
    int first = 0, second = 0;
    Signals::Connection connection = signal.connect([&](int) { ++first; });
    Signals::Connection other = signal.connect([&](int) { ++second; });
    connection = std::move(other);
    EXPECT_FALSE(other.connected());
    EXPECT_TRUE(connection.connected());
    signal(0);
    EXPECT_EQ(first, 0) << "the slot of the overwritten connection is gone";
    EXPECT_EQ(second, 1);

    Signals::Connection moved(std::move(connection));
    EXPECT_TRUE(moved.connected());
    EXPECT_FALSE(connection.connected());
    signal(0);
    EXPECT_EQ(second, 2);
}

TEST_F(SignalsTest, TrackedTrackableEndsTheSlotWhenItDies) {
    Signals::Signal<void(const std::string&)> signal;
    Signals::Connection connection;
    std::vector<std::string> seen;
    {
        Receiver receiver;
        connection = signal.connect(Signals::slot(&receiver, &Receiver::onText));
        signal(std::string("one"));
        seen = receiver.received;
        EXPECT_TRUE(connection.connected());
    }
    EXPECT_EQ(seen, std::vector<std::string>{"one"});
    EXPECT_FALSE(connection.connected());
    signal(std::string("two")); // would reach a dead object if the slot were still there
    EXPECT_TRUE(signal.empty());
}

TEST_F(SignalsTest, ReleasedConnectionOfTrackableStillEndsWithTheObject) {
    Signals::Signal<void(int)> signal;
    {
        auto receiver = std::make_unique<Receiver>();
        Signals::Connection connection =
            signal.connect(Signals::slot(receiver.get(), &Receiver::onNumber));
        connection.releaseWithoutDisconnect();
        signal(5);
        EXPECT_EQ(receiver->sum, 5);
    }
    signal(7);
    EXPECT_TRUE(signal.empty());
}

TEST_F(SignalsTest, CopyOfTrackableIsTrackedOnItsOwn) {
    Signals::Signal<void(int)> signal;
    Receiver original;
    Signals::Connection connection;
    {
        Receiver copy(original);
        connection = signal.connect(Signals::slot(&copy, &Receiver::onNumber));
        signal(1);
        EXPECT_EQ(copy.sum, 1);
    }
    EXPECT_FALSE(connection.connected());
    Signals::Connection onOriginal = signal.connect(Signals::slot(&original, &Receiver::onNumber));
    signal(2);
    EXPECT_EQ(original.sum, 2);
}

TEST_F(SignalsTest, SharedPtrTracking) {
    Signals::Signal<void(const std::string&)> signal;
    auto receiver = std::make_shared<PlainReceiver>();
    std::weak_ptr<PlainReceiver> weak = receiver;
    Signals::Connection connection =
        signal.connect(Signals::slot(receiver, &PlainReceiver::onText));
    signal(std::string("a"));
    EXPECT_EQ(receiver->received, std::vector<std::string>{"a"});
    EXPECT_EQ(weak.use_count(), 1) << "the slot does not keep the object alive";
    receiver.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_FALSE(connection.connected());
    signal(std::string("b"));
    EXPECT_TRUE(signal.empty());
}

TEST_F(SignalsTest, UntrackedMemberSlot) {
    Signals::Signal<void(const std::string&)> signal;
    PlainReceiver receiver;
    Signals::Connection connection =
        signal.connect(Signals::slot(&receiver, &PlainReceiver::onText));
    signal(std::string("x"));
    EXPECT_EQ(receiver.received, std::vector<std::string>{"x"});
}

TEST_F(SignalsTest, DisconnectAllSlots) {
    Signals::Signal<void(int)> signal;
    int calls = 0;
    Signals::Connection a = signal.connect([&](int) { ++calls; });
    Signals::Connection b = signal.connect([&](int) { ++calls; });
    signal.disconnectAllSlots();
    EXPECT_FALSE(a.connected());
    EXPECT_FALSE(b.connected());
    EXPECT_TRUE(signal.empty());
    signal(0);
    EXPECT_EQ(calls, 0);
}

TEST_F(SignalsTest, SlotMayDisconnectItselfDuringTheCall) {
    Signals::Signal<void(int)> signal;
    int calls = 0;
    Signals::Connection connection;
    connection = signal.connect([&](int) {
        ++calls;
        connection.disconnect();
    });
    signal(0);
    signal(0);
    EXPECT_EQ(calls, 1);
}

TEST_F(SignalsTest, ArgumentsArePassedByReference) {
    Signals::Signal<void(int&)> signal;
    Signals::Connection a = signal.connect([](int& v) { v += 1; });
    Signals::Connection b = signal.connect([](int& v) { v *= 10; });
    int value = 1;
    signal(value);
    EXPECT_EQ(value, 20);
}

TEST_F(SignalsTest, PrivateAliases) {
    Signals::Private::SignalHandler handler;
    Signals::Connection connection = handler.connect(&freeFunction);
    handler(std::string("p"));
    EXPECT_EQ(s_calls, std::vector<std::string>{"free:p"});
}

TEST_F(SignalsTest, ConnectionMayOutliveItsSignal) {
    Signals::Connection connection;
    int calls = 0;
    {
        Signals::Signal<void(int)> signal;
        connection = signal.connect([&](int) { ++calls; });
        signal(1);
    }
    EXPECT_FALSE(connection.connected());
    connection.disconnect(); // nothing left to disconnect; must not touch the dead signal
    EXPECT_EQ(calls, 1);
}

TEST_F(SignalsTest, SignalFromManyThreadsReachesEverySlot) {
    Signals::Signal<void(int)> signal;
    std::atomic<int> first{0}, second{0};
    Signals::Connection a = signal.connect([&](int v) { first += v; });
    Signals::Connection b = signal.connect([&](int v) { second += v; });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i)
                signal(1);
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(first, 2000);
    EXPECT_EQ(second, 2000);
}
