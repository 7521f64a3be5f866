// The pool's watch over its workers' heartbeats, fed by hand: the subscriber's thread is not
// started, so that the test decides what arrives and when the ages are looked at.
#include "DistributedWorkerTestSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerSubscriber.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Publisher.h"
#include "Platform/RemoteComputation/Service/RequestHandling/WorkerProcess.h"

#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;

namespace {

class DistributedWorkerSubscriberTest : public DistributedWorkerTest {
protected:
    struct Lost {
        std::string worker;
        std::string reason;
    };

    void watch(DistributedWorkerSubscriber& subscriber) {
        connection = subscriber.workerLost().connect(
            Signals::Slot<void(const std::string&, const std::string&)>(
                [this](const std::string& worker, const std::string& reason) {
                    std::lock_guard<std::mutex> lock(mutex);
                    lost.push_back({worker, reason});
                }));
    }
    std::vector<Lost> getLost() {
        std::lock_guard<std::mutex> lock(mutex);
        return lost;
    }
    // A publisher address where nothing publishes: the thread that would read it is not running.
    static HostInfo quietPublisher() {
        HostInfo host = loopbackHost(closedPort());
        host.setPublisherPort(closedPort());
        return host;
    }
    static WorkerProcess process(const std::string& name) {
        WorkerProcess worker;
        worker.name = name;
        return worker;
    }

    Signals::Connection connection;
    std::mutex mutex;
    std::vector<Lost> lost;
};

} // namespace

TEST_F(DistributedWorkerSubscriberTest, AliveMessageWithoutWorkerNameIsIgnoredQuietly) {
    DistributedWorkerSubscriber subscriber(1, 1);
    watch(subscriber);
    WorkerProcess host = process("host_0");
    subscriber.addWorker(host, quietPublisher(), "worker_a");
    capture.clear();
    subscriber.handleMessage(0, Publisher::c_topicAlive,
                             {"20240101 120000", "LivingProcess_created"});
    EXPECT_TRUE(capture.contains(
        LogLevel::Trace,
        "ALIVE_RECV - ignoring alive message with no worker name prefix: LivingProcess_created"));
    EXPECT_TRUE(capture.messages(LogLevel::Error).empty());
    EXPECT_FALSE(capture.containsSubstring("workerName="));
    subscriber.handleNoNewMessage(0);
    EXPECT_TRUE(getLost().empty());
}

TEST_F(DistributedWorkerSubscriberTest, WrongTopicOrContentSizeIsAnError) {
    DistributedWorkerSubscriber subscriber(1, 1);
    watch(subscriber);
    subscriber.handleMessage(0, Publisher::c_topicLog, {"stamp", "worker_a#text"});
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Error: wrong topic (" + Publisher::c_topicLog +
                                                      ") or content size (2)!"));
    subscriber.handleMessage(0, Publisher::c_topicAlive, {"worker_a#text"});
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Error: wrong topic (" + Publisher::c_topicAlive +
                                                      ") or content size (1)!"));
    subscriber.handleMessage(0, Publisher::c_topicAlive, {"stamp", "worker_a#text", "extra"});
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Error: wrong topic (" + Publisher::c_topicAlive +
                                                      ") or content size (3)!"));
    EXPECT_FALSE(capture.containsSubstring("workerName="));
}

TEST_F(DistributedWorkerSubscriberTest, SilentAndStuckWorkersAreReportedOnce) {
    DistributedWorkerSubscriber subscriber(1, 1);
    watch(subscriber);
    WorkerProcess first = process("host_0");
    WorkerProcess second = process("host_1");
    const HostInfo publisher = quietPublisher();
    subscriber.addWorker(first, publisher, "silent");
    subscriber.addWorker(first, publisher, "busy");
    subscriber.addWorker(second, publisher, "stuck");
    subscriber.addWorker(second, publisher, "removed");
    subscriber.removeWorker(second, "removed");

    // "busy" says something new each time, "stuck" the same thing again; the messages without a
    // worker name count for nobody, "silent" included.
    const auto start = std::chrono::steady_clock::now();
    int round = 0;
    while (std::chrono::steady_clock::now() - start < 2200ms) {
        ++round;
        subscriber.handleMessage(
            0, Publisher::c_topicAlive,
            {"stamp " + std::to_string(round), "busy#step " + std::to_string(round)});
        subscriber.handleMessage(0, Publisher::c_topicAlive, {"stamp 0", "stuck#same"});
        subscriber.handleMessage(0, Publisher::c_topicAlive,
                                 {"stamp " + std::to_string(round), "silent is not a prefix"});
        std::this_thread::sleep_for(100ms);
    }
    subscriber.handleNoNewMessage(0);

    std::map<std::string, std::string> reasons;
    for (const auto& entry : getLost())
        reasons[entry.worker] = entry.reason;
    EXPECT_EQ(getLost().size(), 2u);
    EXPECT_EQ(reasons["silent"],
              "Worker is not running anymore (no alive messages for 2s, limit is 1s)");
    EXPECT_EQ(reasons["stuck"],
              "Worker is not being updated anymore (no changes for 2s, limit is 1s)");
    EXPECT_EQ(reasons.count("busy"), 0u);
    EXPECT_EQ(reasons.count("removed"), 0u);
    EXPECT_TRUE(capture.contains(LogLevel::Warn,
                                 "Max alive message age exceeded for worker silent (2 > 1)"));
    EXPECT_TRUE(capture.contains(LogLevel::Info, "workerName='busy'"));
    // The pool's own heartbeat shows what its workers last did.
    EXPECT_EQ(LivingProcess::getLastAliveMsg(""), "busy#step " + std::to_string(round));

    // Reported once: the next look finds them gone.
    subscriber.handleNoNewMessage(0);
    EXPECT_EQ(getLost().size(), 2u);
}

TEST_F(DistributedWorkerSubscriberTest, ZeroAgesSwitchTheChecksOff) {
    DistributedWorkerSubscriber subscriber(0, 0);
    watch(subscriber);
    WorkerProcess host = process("host_0");
    subscriber.addWorker(host, quietPublisher(), "quiet");
    std::this_thread::sleep_for(1100ms);
    subscriber.handleNoNewMessage(0);
    EXPECT_TRUE(getLost().empty());
}
