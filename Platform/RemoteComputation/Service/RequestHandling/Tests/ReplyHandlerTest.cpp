#include "Platform/RemoteComputation/Service/RequestHandling/ReplyHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LocalRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Progress.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/StandardRequestSchema.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractJobLog.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/TestSupport/ServerProcess.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <future>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace Kestrane;
using namespace std::chrono_literals;

namespace {

using Package = std::shared_ptr<ReplyPackage>;

Package decodePackage(const std::string& replyXml, int serial) {
    RequestXmlHelper::getInstance()->addSchema(StandardRequestSchema());
    std::map<std::string, std::shared_ptr<Attachment>> attachments;
    return ReplyPackage::decode(ReplyPackageEncoder(replyXml, serial).getEncodedReplyPackage(),
                                &attachments);
}

// A progress package with one log line per text, each of type WARNING in group "grp".
Package progressPackage(const std::string& requestId, int serial,
                        const std::vector<std::string>& texts) {
    ReplyEncoder encoder("ProgressUpdate", requestId);
    for (size_t i = 0; i < texts.size(); ++i)
        encoder.addText("<requestLogMessage messageType=\"WARNING\" messageGroup=\"grp\" "
                        "timestamp=\"" +
                        std::to_string(1000 + i) + "\">" + texts[i] + "</requestLogMessage>");
    return decodePackage(encoder.getEncodedReply("   ", "  "), serial);
}

Package progressPackage(const std::string& requestId, int serial, const std::string& text) {
    return progressPackage(requestId, serial, std::vector<std::string>{text});
}

Package replyPackage(const std::string& requestId, int serial) {
    ReplyEncoder encoder("TestReply", requestId);
    encoder.addElement("data", "done");
    return decodePackage(encoder.getEncodedReply("   ", "  "), serial);
}

// Records what reaches it; with a gate it holds every call until the gate opens.
class RecordingProgress : public Progress {
public:
    explicit RecordingProgress(bool gated = false) : m_open(!gated) {}

    bool handleLogMessage(const LogMessage& message) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_entered;
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return m_open; });
        m_messages.push_back(message);
        m_changed.notify_all();
        return true;
    }
    void open() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    bool waitForEntered(int count, std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, limit, [&] { return m_entered >= count; });
    }
    bool waitForMessages(size_t count, std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, limit, [&] { return m_messages.size() >= count; });
    }
    std::vector<LogMessage> messages() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages;
    }
    std::vector<std::string> texts() const {
        std::vector<std::string> result;
        for (const auto& message : messages())
            result.push_back(message.text());
        return result;
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open;
    int m_entered = 0;
    std::vector<LogMessage> m_messages;
};

// Text of the verdict inside an unreachable reply, or "" for any other package.
std::string verdictOf(const Package& package) {
    auto reply = package
                     ? std::dynamic_pointer_cast<RequestServerUnreachableReply>(package->getReply())
                     : nullptr;
    return reply ? reply->getErrorMessage() : std::string();
}

// A port on loopback on which nobody listens any more.
int closedPort() {
    Computing::ListenSocket listener(0, 1, 1);
    return listener.getListenPort();
}

HostInfo deadHost() {
    HostInfo host("127.0.0.1", "localhost");
    host.setRequestServerPort(closedPort());
    return host;
}

void configure(const std::string& name, const std::string& value) {
    RequestServerConfiguration::getRegisteredInstance()->setValue(name, value);
}

std::string waitingLine(int serial, const std::string& id, int lastHandled) {
    return "Waiting for reply packets with serial < " + std::to_string(serial) +
           " (requestId=" + id + ", lastHandledSerial=" + std::to_string(lastHandled) +
           ") to be handled";
}

// receiveReply in a thread of its own. A waiter still waiting when the test ends (after a
// failed check) is cancelled, so that the test ends as well.
struct Waiter {
    ReplyHandler& handler;
    std::string id;
    std::future<Package> future;

    ~Waiter() {
        if (future.valid() && future.wait_for(0s) != std::future_status::ready)
            handler.cancellReceiveReply(id);
    }
    template <typename Duration> std::future_status wait_for(Duration limit) {
        return future.wait_for(limit);
    }
    Package get() { return future.get(); }
};

class ReplyHandlerTest : public ::testing::Test {
protected:
    ReplyHandler handler;
    const std::string id = UniqueID::generateId();
    LogCapture capture;

    Waiter receiveAsync(TcpRequestClient* client, std::shared_ptr<Progress> progress,
                        int publisherPort, unsigned int maxWaitTime) {
        return Waiter{handler, id, std::async(std::launch::async, [=] {
                          return handler.receiveReply(id, client, progress, nullptr, publisherPort,
                                                      false, maxWaitTime, FileName());
                      })};
    }
    // Returns once the waiter of `id` has registered itself.
    void waitUntilPending() {
        ASSERT_TRUE(capture.waitFor("Waiting for reply to request " + id, 5000ms));
        auto deadline = std::chrono::steady_clock::now() + 5s;
        while (handler.getPendingRepliesCount() == 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(5ms);
        ASSERT_EQ(handler.getPendingRepliesCount(), 1);
    }
};

} // namespace

// ---- delivery and collection ----

TEST_F(ReplyHandlerTest, ReplyWakesWaiterAndFiresSignalAfterwards) {
    std::vector<std::string> signalled;
    auto connection =
        handler.getReplyReceivedSignal().connect(Signals::Slot<void(const std::string&)>(
            [&](const std::string& requestId) { signalled.push_back(requestId); }));
    auto waiter = receiveAsync(nullptr, nullptr, -1, 0);
    waitUntilPending();
    auto package = replyPackage(id, 0);
    handler.handleReply(package);
    ASSERT_EQ(waiter.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(waiter.get(), package);
    EXPECT_EQ(signalled, std::vector<std::string>{id});
    EXPECT_EQ(handler.getPendingRepliesCount(), 0);
    // One line from the delivery, one from the waiter's collection.
    EXPECT_EQ(capture.count("Received reply for request " + id), 2u);
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "replyJobLog = 0"));
    // Collected: nothing is left to fetch.
    EXPECT_EQ(handler.getReply(id), nullptr);
}

TEST_F(ReplyHandlerTest, ProgressLinesReachTheSinkWithTypeGroupAndTime) {
    auto sink = std::make_shared<RecordingProgress>();
    auto waiter = receiveAsync(nullptr, sink, -1, 0);
    waitUntilPending();
    handler.handleProgress(progressPackage(id, 0, std::vector<std::string>{"first", "second"}));
    handler.handleProgress(progressPackage(id, 1, "third"));
    auto messages = sink->messages();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0].text(), "first");
    EXPECT_EQ(messages[0].type(), LogMessage::Warning);
    EXPECT_EQ(messages[0].getGroup(), "grp");
    EXPECT_EQ(messages[0].timeStamp(), 1000);
    EXPECT_EQ(messages[1].text(), "second");
    EXPECT_EQ(messages[1].timeStamp(), 1001);
    EXPECT_EQ(messages[2].text(), "third");
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Received progress update for request " + id));
    EXPECT_TRUE(capture.contains(LogLevel::Trace,
                                 "ReplyHandler::handleProgress - sendLogMessage - grp first"));
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "ReplyHandler::handleProgress"));
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "ReplyHandler::handleProgress - end"));
    EXPECT_TRUE(capture.containsSubstring("prgoress="));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Last handled serial for request " + id + ": 1"));
    // Serial 0 stands outside the sequence and moves nothing.
    EXPECT_FALSE(capture.contains("Last handled serial for request " + id + ": 0"));
    handler.handleReply(replyPackage(id, 2));
    ASSERT_EQ(waiter.wait_for(5s), std::future_status::ready);
    EXPECT_NE(waiter.get(), nullptr);
    EXPECT_FALSE(capture.containsSubstring("Waiting for reply packets"));
}

TEST_F(ReplyHandlerTest, RepeatedSerialIsReportedAndKeepsTheLastValue) {
    auto sink = std::make_shared<RecordingProgress>();
    handler.registerProgress(id, sink);
    handler.setLastReplySerial(id, 3);
    handler.handleProgress(progressPackage(id, 3, "again"));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Last handled serial for request " + id +
                                                      " not sequential!  3 !< 3"));
    EXPECT_EQ(sink->texts(), std::vector<std::string>{"again"});
    // Still 3: serial 4 passes without waiting, 5 then follows it.
    handler.handleProgress(progressPackage(id, 4, "four"));
    EXPECT_FALSE(capture.containsSubstring("Waiting for reply packets"));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Last handled serial for request " + id + ": 4"));
}

TEST_F(ReplyHandlerTest, GetReplyOfUnknownIdWarnsAndGivesNull) {
    EXPECT_EQ(handler.getReply(id), nullptr);
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "Reply for " + id + " not available"));
}

TEST_F(ReplyHandlerTest, GetReplyFetchesWithoutWaiting) {
    auto package = replyPackage(id, 0);
    handler.handleReply(package);
    EXPECT_EQ(handler.getReply(id), package);
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Got reply for request " + id));
    EXPECT_EQ(handler.getReply(id), nullptr);
}

TEST_F(ReplyHandlerTest, CancelWinsOverAReplyThatHasArrived) {
    auto package = replyPackage(id, 0);
    handler.handleReply(package);
    handler.cancellReceiveReply(id);
    EXPECT_EQ(handler.receiveReply(id, nullptr, nullptr, nullptr, -1, false, 0, FileName()),
              nullptr);
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Cancelled reply for request " + id));
    EXPECT_EQ(handler.getPendingRepliesCount(), 0);
    // The reply that lost stays behind until somebody fetches it.
    EXPECT_EQ(handler.getReply(id), package);
}

TEST_F(ReplyHandlerTest, WaiterKeepsJobLogAndAttachmentPathOnlyWhileWaiting) {
    const FileName path("/tmp/reply-attachments");
    Waiter waiter{handler, id, std::async(std::launch::async, [&] {
                      return handler.receiveReply(id, nullptr, nullptr, nullptr, -1, false, 0,
                                                  path);
                  })};
    waitUntilPending();
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Setting replyAttachmentPath for request " + id +
                                                      " to '" + path.toNativeString() + "'"));
    EXPECT_EQ(handler.getReplyAttachmentPath(id).toString(), path.toString());
    handler.handleReply(replyPackage(id, 0));
    ASSERT_EQ(waiter.wait_for(5s), std::future_status::ready);
    EXPECT_TRUE(handler.getReplyAttachmentPath(id).empty());
}

TEST_F(ReplyHandlerTest, JobLogIsKeptPerRequestWithATraceLine) {
    class NullJobLog : public AbstractJobLog {
    public:
        std::string getName() override { return "null"; }
        int logMessage(const std::string&, int64_t, bool) override { return 0; }
        std::shared_ptr<void> getJobContext() override { return nullptr; }
        int flush() override { return 0; }
    };
    auto jobLog = std::make_shared<NullJobLog>();
    EXPECT_EQ(handler.getReplyJobLog(id), nullptr);
    handler.setReplyJobLog(id, jobLog);
    EXPECT_EQ(handler.getReplyJobLog(id), jobLog);
    std::ostringstream pointer;
    pointer << jobLog.get();
    EXPECT_TRUE(capture.contains(LogLevel::Trace,
                                 "Set reply JobLog for request " + id + " to " + pointer.str()));
    // Nothing in this system fills the alive information.
    std::string message = "m", time = "t", change = "c";
    EXPECT_FALSE(handler.getLastAliveInfo(id, message, time, change));
    EXPECT_EQ(message, "m");
    // A cancel clears the job log.
    handler.cancellReceiveReply(id);
    EXPECT_EQ(handler.getReplyJobLog(id), nullptr);
}

// ---- serial order ----

TEST_F(ReplyHandlerTest, SerialThreeWaitsForTwoAndTheSinkSeesTwoFirst) {
    auto sink = std::make_shared<RecordingProgress>();
    handler.registerProgress(id, sink);
    handler.handleProgress(progressPackage(id, 0, "zero"));
    handler.handleProgress(progressPackage(id, 1, "one"));
    auto three = std::async(std::launch::async,
                            [&] { handler.handleProgress(progressPackage(id, 3, "three")); });
    ASSERT_TRUE(capture.waitFor(waitingLine(3, id, 1), 5000ms));
    EXPECT_EQ(three.wait_for(200ms), std::future_status::timeout);
    EXPECT_EQ(sink->texts(), (std::vector<std::string>{"zero", "one"}));
    handler.handleProgress(progressPackage(id, 2, "two"));
    ASSERT_EQ(three.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(sink->texts(), (std::vector<std::string>{"zero", "one", "two", "three"}));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Last handled serial for request " + id + ": 3"));
    EXPECT_FALSE(capture.containsSubstring("Missing reply packet(s)"));
}

// A package whose predecessors never came waits (for five minutes, which the test below
// shows); here the predecessors come late and release it at once.
TEST_F(ReplyHandlerTest, SerialFiveWithNothingBeforeItWaitsForItsPredecessors) {
    auto sink = std::make_shared<RecordingProgress>();
    handler.registerProgress(id, sink);
    auto five = std::async(std::launch::async,
                           [&] { handler.handleProgress(progressPackage(id, 5, "five")); });
    ASSERT_TRUE(capture.waitFor(waitingLine(5, id, -1), 5000ms));
    EXPECT_EQ(five.wait_for(500ms), std::future_status::timeout);
    EXPECT_TRUE(sink->texts().empty());
    for (int serial = 0; serial < 5; ++serial)
        handler.handleProgress(progressPackage(id, serial, std::to_string(serial)));
    ASSERT_EQ(five.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(sink->texts(), (std::vector<std::string>{"0", "1", "2", "3", "4", "five"}));
    EXPECT_FALSE(capture.containsSubstring("Missing reply packet(s)"));
}

// Takes five minutes: run it by hand with --gtest_also_run_disabled_tests.
TEST_F(ReplyHandlerTest, DISABLED_SerialFiveAloneIsHandledAfterFiveMinutesWithAnError) {
    auto sink = std::make_shared<RecordingProgress>();
    handler.registerProgress(id, sink);
    auto start = std::chrono::steady_clock::now();
    handler.handleProgress(progressPackage(id, 5, "five"));
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, 299s);
    EXPECT_LT(waited, 302s);
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Missing reply packet(s) with serial < 5 "
                                                  "(requestId=" +
                                                      id + ", lastHandledSerial=-1)"));
    EXPECT_EQ(sink->texts(), std::vector<std::string>{"five"});
}

TEST_F(ReplyHandlerTest, ReconnectMarkerLetsAnySerialPass) {
    auto sink = std::make_shared<RecordingProgress>();
    handler.registerProgress(id, sink);
    handler.setLastReplySerial(id, -1);
    auto seventeen = std::async(std::launch::async,
                                [&] { handler.handleProgress(progressPackage(id, 17, "x")); });
    ASSERT_EQ(seventeen.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(sink->texts(), std::vector<std::string>{"x"});
    EXPECT_FALSE(capture.containsSubstring("Waiting for reply packets"));
    EXPECT_TRUE(
        capture.contains(LogLevel::Debug, "Last handled serial for request " + id + ": 17"));
    // The sequence goes on from there.
    handler.handleProgress(progressPackage(id, 18, "y"));
    EXPECT_FALSE(capture.containsSubstring("Waiting for reply packets"));
}

TEST_F(ReplyHandlerTest, ProgressBeforeTheWaiterIsCachedAndReplayedToTheSink) {
    handler.handleProgress(progressPackage(id, 0, "early zero"));
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Received progress update for request that is "
                                                 "not pending. Caching progress update..."));
    // The cache moved the serial on: serial 1 does not wait.
    auto one = std::async(std::launch::async,
                          [&] { handler.handleProgress(progressPackage(id, 1, "early one")); });
    ASSERT_EQ(one.wait_for(2s), std::future_status::ready);
    EXPECT_FALSE(capture.containsSubstring("Waiting for reply packets"));
    EXPECT_EQ(capture.count("Received progress update for request that is not pending. Caching "
                            "progress update..."),
              2u);

    auto sink = std::make_shared<RecordingProgress>();
    auto waiter = receiveAsync(nullptr, sink, -1, 0);
    ASSERT_TRUE(sink->waitForMessages(2, 5000ms));
    EXPECT_EQ(sink->texts(), (std::vector<std::string>{"early zero", "early one"}));
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Handling cached progress updates..."));
    waitUntilPending();
    handler.handleProgress(progressPackage(id, 2, "live two"));
    handler.handleReply(replyPackage(id, 3));
    ASSERT_EQ(waiter.wait_for(5s), std::future_status::ready);
    EXPECT_NE(waiter.get(), nullptr);
    EXPECT_EQ(sink->texts(), (std::vector<std::string>{"early zero", "early one", "live two"}));
    EXPECT_FALSE(capture.containsSubstring("Waiting for reply packets"));
}

TEST_F(ReplyHandlerTest, ProgressOfAPendingRequestWithoutSinkIsNotCached) {
    auto waiter = receiveAsync(nullptr, nullptr, -1, 0);
    waitUntilPending();
    handler.handleProgress(progressPackage(id, 0, "zero"));
    handler.handleProgress(progressPackage(id, 1, "one"));
    EXPECT_FALSE(capture.containsSubstring("Caching progress update"));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Last handled serial for request " + id + ": 1"));
    handler.handleReply(replyPackage(id, 2));
    ASSERT_EQ(waiter.wait_for(5s), std::future_status::ready);
    EXPECT_FALSE(capture.containsSubstring("Waiting for reply packets"));
}

TEST_F(ReplyHandlerTest, ReplyWaitsForASlowProgressSinkBeforeIt) {
    auto sink = std::make_shared<RecordingProgress>(true);
    std::atomic<bool> replied{false};
    std::future<void> progress, reply;
    // Declared behind the threads, so that it opens the sink before they are joined, however
    // the test ends.
    struct OpenOnExit {
        RecordingProgress& sink;
        ~OpenOnExit() { sink.open(); }
    } openOnExit{*sink};
    handler.registerProgress(id, sink);
    handler.setLastReplySerial(id, 2);
    progress = std::async(std::launch::async,
                          [&] { handler.handleProgress(progressPackage(id, 3, "slow")); });
    ASSERT_TRUE(sink->waitForEntered(1, 5000ms));
    reply = std::async(std::launch::async, [&] {
        handler.handleReply(replyPackage(id, 4));
        replied = true;
    });
    ASSERT_TRUE(capture.waitFor(waitingLine(4, id, 2), 5000ms));
    std::this_thread::sleep_for(200ms);
    EXPECT_FALSE(replied.load());
    sink->open();
    ASSERT_EQ(progress.wait_for(5s), std::future_status::ready);
    ASSERT_EQ(reply.wait_for(5s), std::future_status::ready);
    EXPECT_TRUE(replied.load());
    EXPECT_NE(handler.getReply(id), nullptr);
}

// ---- verdicts ----

TEST_F(ReplyHandlerTest, NullClientNeverGivesAVerdictOnlyACancelEndsTheWait) {
    configure("rPingIntervalSec", "1");
    auto waiter = receiveAsync(nullptr, nullptr, 0, 1);
    waitUntilPending();
    EXPECT_EQ(waiter.wait_for(2500ms), std::future_status::timeout);
    handler.cancellReceiveReply(id);
    ASSERT_EQ(waiter.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(waiter.get(), nullptr);
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Cancelled reply for request " + id));
    EXPECT_FALSE(capture.containsSubstring("Max wait time reached"));
    EXPECT_EQ(handler.getPendingRepliesCount(), 0);
}

TEST_F(ReplyHandlerTest, MaxWaitTimeZeroNeverGivesTheMaxWaitVerdict) {
    configure("rPingIntervalSec", "1");
    TcpRequestClient client("silent", deadHost());
    auto waiter = receiveAsync(&client, nullptr, -1, 0);
    waitUntilPending();
    // Two check intervals pass without a verdict.
    EXPECT_EQ(waiter.wait_for(2500ms), std::future_status::timeout);
    auto package = replyPackage(id, 0);
    handler.handleReply(package);
    ASSERT_EQ(waiter.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(waiter.get(), package);
    EXPECT_FALSE(capture.containsSubstring("Max wait time reached"));
}

TEST_F(ReplyHandlerTest, DeadServerWithoutPublisherAndWithoutLimitWaitsUntilCancelled) {
    configure("rPingIntervalSec", "1");
    TcpRequestClient client("dead", deadHost());
    auto waiter = receiveAsync(&client, nullptr, -1, 0);
    waitUntilPending();
    EXPECT_EQ(waiter.wait_for(2500ms), std::future_status::timeout);
    handler.cancellReceiveReply(id);
    ASSERT_EQ(waiter.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(waiter.get(), nullptr);
    EXPECT_FALSE(capture.containsSubstring("LivingProcessWatcher"));
}

TEST_F(ReplyHandlerTest, MaxWaitTimeFiveWithASilentServerGivesTheVerdictForFiveSeconds) {
    configure("rPingIntervalSec", "1");
    TcpRequestClient client("silent", deadHost());
    auto start = std::chrono::steady_clock::now();
    auto package = handler.receiveReply(id, &client, nullptr, nullptr, -1, false, 5, FileName());
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, 5s);
    EXPECT_LT(waited, 6500ms);
    ASSERT_NE(package, nullptr);
    EXPECT_EQ(package->getReply()->getType(), "RequestServerUnreachableReply");
    EXPECT_EQ(verdictOf(package), "No reply before max wait time (5s)");
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "Max wait time reached (5s)"));
    EXPECT_EQ(handler.getPendingRepliesCount(), 0);
}

// A local server is checked at the local interval: with a publisher that never speaks, the
// not-alive verdict comes within a few seconds, not after the ten of the remote interval.
TEST_F(ReplyHandlerTest, LocalClientIsCheckedAtTheLocalInterval) {
    configure("rPingIntervalSec", "10");
    configure("localRPingIntervalSec", "1");
    configure("maxAliveAge", "1");
    HostInfo silent = deadHost();
    silent.setPublisherPort(closedPort());
    // The starter is never asked to start: the client has a host. It only makes it local.
    auto starter = std::make_shared<LocalRequestServerStarter>("local-server", GenericJobId(), "");
    TcpRequestClient client("local", starter, silent);
    ASSERT_TRUE(client.isLocal());
    auto start = std::chrono::steady_clock::now();
    auto package = handler.receiveReply(id, &client, nullptr, nullptr, client.getPublisherPort(),
                                        false, 8, FileName());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 6s);
    EXPECT_EQ(verdictOf(package).rfind("Remote process not alive anymore? age = ", 0), 0u)
        << verdictOf(package);
}

namespace {

// A real server process that publishes its heartbeat every 100 ms.
class WatchedServer {
public:
    WatchedServer() {
        ::setenv("KS_ALIVE_PUBLISH_INTERVAL", "100", 1);
        m_started = m_process.start();
    }
    bool ready() { return m_started && m_process.port() > 0 && m_process.publisherPort() > 0; }
    HostInfo host() {
        HostInfo info("127.0.0.1", "localhost");
        info.setRequestServerPort(m_process.port());
        info.setPublisherPort(m_process.publisherPort());
        return info;
    }
    Testing::ServerProcess& process() { return m_process; }

private:
    Testing::ServerProcess m_process{{}};
    bool m_started = false;
};

int ageIn(const std::string& verdict, const std::string& prefix) {
    if (verdict.rfind(prefix, 0) != 0)
        return -1;
    return std::stoi(verdict.substr(prefix.size()));
}

} // namespace

TEST_F(ReplyHandlerTest, StoppedServerGivesTheNotAliveVerdictAndTellsTheProgress) {
    WatchedServer server;
    ASSERT_TRUE(server.ready());
    configure("rPingIntervalSec", "1");
    configure("maxAliveAge", "1");
    TcpRequestClient client("watched", server.host());
    auto sink = std::make_shared<RecordingProgress>();
    auto waiter = receiveAsync(&client, sink, client.getPublisherPort(), 0);
    // While the heartbeat comes, the wait goes on.
    EXPECT_EQ(waiter.wait_for(2500ms), std::future_status::timeout);
    ASSERT_TRUE(server.process().process().kill(SIGSTOP));
    ASSERT_EQ(waiter.wait_for(6s), std::future_status::ready);
    const std::string prefix = "Remote process not alive anymore? age = ";
    const std::string verdict = verdictOf(waiter.get());
    const int age = ageIn(verdict, prefix);
    EXPECT_GT(age, 1) << verdict;
    EXPECT_TRUE(
        capture.contains(LogLevel::Warn, "LivingProcessWatcher age = " + std::to_string(age)));
    EXPECT_TRUE(capture.contains(LogLevel::Error, verdict));
    ASSERT_EQ(sink->messages().size(), 1u);
    EXPECT_EQ(sink->messages()[0].text(),
              "RequestServer unreachable (" + client.getDescription() + ")!");
    EXPECT_EQ(sink->messages()[0].type(), LogMessage::Error);
    EXPECT_EQ(sink->messages()[0].getGroup(), "");
    EXPECT_EQ(handler.getPendingRepliesCount(), 0);
    // The sink's registration is gone: a late progress package is only cached.
    handler.handleProgress(progressPackage(id, 0, "late"));
    EXPECT_EQ(sink->messages().size(), 1u);
    EXPECT_TRUE(capture.contains("Received progress update for request that is not pending. "
                                 "Caching progress update..."));
    server.process().process().kill(SIGCONT);
}

TEST_F(ReplyHandlerTest, UnchangingHeartbeatGivesTheHangingVerdictAndKeepsTheProgress) {
    WatchedServer server;
    ASSERT_TRUE(server.ready());
    configure("rPingIntervalSec", "1");
    configure("maxChangeAge", "1");
    TcpRequestClient client("watched", server.host());
    auto sink = std::make_shared<RecordingProgress>();
    auto start = std::chrono::steady_clock::now();
    // The limit only bounds the test if the verdict failed to come.
    auto package = handler.receiveReply(id, &client, sink, nullptr, client.getPublisherPort(),
                                        false, 8, FileName());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 6s);
    const std::string prefix = "Remote process hanging? age = ";
    const std::string verdict = verdictOf(package);
    const int age = ageIn(verdict, prefix);
    EXPECT_GT(age, 1) << verdict;
    EXPECT_TRUE(capture.contains(LogLevel::Warn,
                                 "LivingProcessWatcher change age = " + std::to_string(age)));
    EXPECT_TRUE(capture.contains(LogLevel::Error, verdict));
    // The heartbeat itself was fresh all along.
    EXPECT_TRUE(capture.containsSubstring("LivingProcessWatcher alive age = 0"));
    EXPECT_FALSE(capture.containsSubstring("Remote process not alive anymore"));
    EXPECT_TRUE(sink->messages().empty());
    EXPECT_EQ(handler.getPendingRepliesCount(), 0);
    // The sink stays registered: a late progress package still reaches it.
    handler.handleProgress(progressPackage(id, 0, "late"));
    EXPECT_EQ(sink->texts(), std::vector<std::string>{"late"});
}
