#include "RecordingSubscriber.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <gtest/gtest.h>
#include <zmq.hpp>
#include <zmq_addon.hpp>

#include <array>

#include <memory>
#include <regex>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;

namespace {
bool isAlive(const ReceivedMessage& m) {
    return m.topic == "alive";
}
} // namespace

TEST(PublisherTest, ListenPortZeroLetsTheSystemPick) {
    LogCapture capture;
    Publisher* publisher = Publisher::getInstance();
    ASSERT_NE(publisher, nullptr);
    EXPECT_GT(publisher->getPort(), 0);
    EXPECT_EQ(Publisher::getInstance(), publisher);
    EXPECT_TRUE(capture.containsSubstring("Created Publisher instance: 0x"));
    EXPECT_TRUE(capture.containsSubstring("Publisher started on tcp://0.0.0.0:" +
                                          std::to_string(publisher->getPort())));
}

TEST(PublisherTest, TakenSinglePortGivesFatalLineAndNoPort) {
    LogCapture capture;
    Computing::ListenSocket taken(0, 1, 4);
    int port = taken.getListenPort();
    auto config = RequestServerConfiguration::getRegisteredInstance();
    config->setValue("listenPort", std::to_string(port));
    config->setValue("portRange", "1");
    Publisher* publisher = Publisher::getInstance();
    EXPECT_EQ(publisher->getPort(), -1);
    std::string range = std::to_string(port) + "-" + std::to_string(port);
    EXPECT_TRUE(capture.contains(LogLevel::Fatal, "ERROR: can't find free port in " + range +
                                                      ". Publisher not started!"));
    EXPECT_EQ(capture.count("Trying to create publisher on port " + std::to_string(port)), 1u);
    EXPECT_TRUE(capture.containsSubstring("Created Publisher instance (port range=" + range));
    // Publishing still works and reaches nobody.
    publisher->publish("alive", {"a", "b"});
}

TEST(PublisherTest, PortSearchStartsAtARandomPointAndRotates) {
    LogCapture capture;
    // Three consecutive taken ports: every one is tried once, in a rotated order.
    std::vector<std::unique_ptr<Computing::ListenSocket>> taken;
    int first = 0;
    for (int attempt = 0; attempt < 50 && taken.size() < 3; ++attempt) {
        taken.clear();
        auto probe = std::make_unique<Computing::ListenSocket>(0, 1, 4);
        first = probe->getListenPort();
        taken.push_back(std::move(probe));
        try {
            taken.push_back(std::make_unique<Computing::ListenSocket>(first + 1, 1, 4));
            taken.push_back(std::make_unique<Computing::ListenSocket>(first + 2, 1, 4));
        } catch (const Computing::Error&) {
        }
    }
    ASSERT_EQ(taken.size(), 3u);
    auto config = RequestServerConfiguration::getRegisteredInstance();
    config->setValue("listenPort", std::to_string(first));
    config->setValue("portRange", "3");
    EXPECT_EQ(Publisher::getInstance()->getPort(), -1);
    std::vector<int> tried;
    std::regex pattern("Trying to create publisher on port ([0-9]+)");
    for (const auto& m : capture.messages(LogLevel::Trace)) {
        std::smatch match;
        if (std::regex_match(m, match, pattern))
            tried.push_back(std::stoi(match[1]));
    }
    ASSERT_EQ(tried.size(), 3u);
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(tried[i], first + (tried[0] - first + static_cast<int>(i)) % 3);
    EXPECT_TRUE(capture.containsSubstring("Creating publisher on port " + std::to_string(first) +
                                          " failed: "));
}

TEST(PublisherTest, FramesAreTopicWithBarThenContent) {
    zmq::context_t context;
    zmq::socket_t sub(context, zmq::socket_type::sub);
    sub.connect("tcp://127.0.0.1:" + std::to_string(Publisher::getInstance()->getPort()));
    sub.set(zmq::sockopt::subscribe, "");
    std::vector<zmq::message_t> frames;
    ASSERT_TRUE(publishUntil(
        [] {
            Publisher::getInstance()->publish("alive", {"stamp", "text"});
        },
        [&] {
            frames.clear();
            return zmq::recv_multipart(sub, std::back_inserter(frames), zmq::recv_flags::dontwait)
                .has_value();
        }));
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[0].to_string(), "alive|");
    EXPECT_EQ(frames[1].to_string(), "stamp");
    EXPECT_EQ(frames[2].to_string(), "text");
}

TEST(PublisherTest, LogMessageFrames) {
    LogCapture capture;
    RecordingSubscriber subscriber(ownPublisher(), {Publisher::c_topicLogMessage});
    subscriber.start(true);
    LogMessage message("disk almost full", LogMessage::Error, "jobLog");
    message.setTimeStamp(-42);
    ASSERT_TRUE(publishUntil([&] { Publisher::getInstance()->publishLogMessage(message); },
                             [&] { return !subscriber.messages().empty(); }));
    auto received = subscriber.messages().front();
    EXPECT_EQ(received.topic, "logMsg");
    EXPECT_EQ(received.content,
              (std::vector<std::string>{"ERROR", "jobLog", "-42", "disk almost full"}));
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, "LOGMSG - ERROR - jobLog - -42 - disk almost full"));
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, "PUBLISH - logMsg ERROR jobLog -42 disk almost full"));
}

TEST(SubscriberTest, TopicEndMarkKeepsLongerTopicsOut) {
    RecordingSubscriber alive(ownPublisher(), {"alive"});
    RecordingSubscriber everything(ownPublisher(), {});
    alive.start(true);
    everything.start(true);
    ASSERT_TRUE(publishUntil(
        [] {
            Publisher::getInstance()->publish("alive2", {"x"});
            Publisher::getInstance()->publish("alive", {"y"});
        },
        [&] {
            auto all = everything.messages();
            bool sawAlive2 = false;
            for (auto& m : all)
                sawAlive2 |= m.topic == "alive2";
            return sawAlive2 && alive.waitFor(isAlive, 0ms);
        }));
    for (const auto& m : alive.messages())
        EXPECT_EQ(m.topic, "alive");
}

TEST(SubscriberTest, EmptyListSeesTopicsWithoutEndMark) {
    zmq::context_t context;
    zmq::socket_t pub(context, zmq::socket_type::pub);
    pub.bind("tcp://127.0.0.1:*");
    std::string endpoint = pub.get(zmq::sockopt::last_endpoint);
    HostInfo host;
    host.setIp("127.0.0.1");
    host.setPublisherPort(std::stoi(endpoint.substr(endpoint.rfind(':') + 1)));
    RecordingSubscriber everything(host, {});
    everything.start(true);
    ASSERT_TRUE(publishUntil(
        [&] {
            std::array<zmq::const_buffer, 2> frames{zmq::str_buffer("plain"),
                                                    zmq::str_buffer("value")};
            zmq::send_multipart(pub, frames);
        },
        [&] { return !everything.messages().empty(); }));
    auto m = everything.messages().front();
    EXPECT_EQ(m.topic, "plai"); // the last character is taken as the end mark
    EXPECT_EQ(m.content, std::vector<std::string>{"value"});
}

TEST(SubscriberTest, OneFrameMessageHasEmptyContent) {
    RecordingSubscriber subscriber(ownPublisher(), {"bare"});
    subscriber.start(true);
    ASSERT_TRUE(publishUntil([] { Publisher::getInstance()->publish("bare", {}); },
                             [&] { return !subscriber.messages().empty(); }));
    auto m = subscriber.messages().front();
    EXPECT_EQ(m.topic, "bare");
    EXPECT_TRUE(m.content.empty());
}

TEST(SubscriberTest, PublisherWithoutPortIsRefusedAndIdsAreNotReused) {
    LogCapture capture;
    RecordingSubscriber subscriber(std::vector<HostInfo>{}, {"alive"});
    HostInfo noPort;
    noPort.setIp("127.0.0.1");
    EXPECT_EQ(subscriber.addPublisher(noPort), -1);
    EXPECT_TRUE(
        capture.containsSubstring("Trying to subscribe to publisher with not enough HostInfo: "));
    HostInfo noAddress;
    noAddress.setPublisherPort(4000);
    EXPECT_EQ(subscriber.addPublisher(noAddress), -1);
    EXPECT_EQ(subscriber.addPublisher(ownPublisher()), 0);
    EXPECT_EQ(subscriber.addPublisher(ownPublisher()), 1);
    subscriber.removePublisher(0);
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Publisher 0 removed."));
    EXPECT_EQ(subscriber.addPublisher(ownPublisher()), 2);
    EXPECT_TRUE(capture.containsSubstring("Subscribed to topic alive on tcp://127.0.0.1:"));
}

TEST(SubscriberTest, SilentPublishersAreReportedAndStopIsPrompt) {
    LogCapture capture;
    RecordingSubscriber subscriber(ownPublisher(), {"nothing"});
    subscriber.start(true);
    std::this_thread::sleep_for(300ms);
    int passes = subscriber.silentPasses(0);
    EXPECT_GT(passes, 5);   // about 30 at 10 ms per silent pass
    EXPECT_LT(passes, 100); // the idle loop waits between passes
    auto start = std::chrono::steady_clock::now();
    subscriber.stop();
    subscriber.finalize();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Subscriber stopped."));
}

TEST(SubscriberTest, BacklogDrainsAtFullSpeed) {
    RecordingSubscriber subscriber(ownPublisher(), {"burst"});
    subscriber.start(true);
    ASSERT_TRUE(publishUntil([] { Publisher::getInstance()->publish("burst", {"warmup"}); },
                             [&] { return !subscriber.messages().empty(); }));
    for (int i = 0; i < 500; ++i) // below the queue limits, where PUB drops
        Publisher::getInstance()->publish("burst", {std::to_string(i)});
    ASSERT_TRUE(
        subscriber.waitFor([](const ReceivedMessage& m) { return m.content[0] == "499"; }, 5000ms));
}
