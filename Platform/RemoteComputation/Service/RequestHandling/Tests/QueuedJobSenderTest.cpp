#include "HandlerTestSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/StartQueuedJobRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/StartQueuedJobRequestHandler.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/TestSupport/ServerProcess.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;

namespace {

std::string sendingLine(int port, const std::string& jobId, const std::string& cancel,
                        const std::string& message) {
    return "Sending StartQueuedJobRequest to 127.0.0.1:" + std::to_string(port) + " for jobId '" +
           jobId + "' (cancel=" + cancel + ", errorMessage='" + message + "').";
}

std::string sentLine(int port, const std::string& jobId) {
    return "StartQueuedJobRequest sent to 127.0.0.1:" + std::to_string(port) + " (jobId=" + jobId +
           ").";
}

// The job of a queued-job test, run by the test request "QUEUED_NOP" in another process.
class QueuedNop {
public:
    QueuedNop(int port, const std::string& jobId) : m_client("job", loopbackHost(port)) {
        m_thread = std::thread([this, jobId] {
            m_reply = m_client.handleRequest(testRequest("QUEUED_NOP", jobId), nullptr, "");
        });
    }
    ~QueuedNop() {
        if (m_thread.joinable())
            m_thread.join();
    }
    std::shared_ptr<Reply> join() {
        m_thread.join();
        return m_reply;
    }

private:
    TcpRequestClient m_client;
    std::shared_ptr<Reply> m_reply;
    std::thread m_thread;
};

} // namespace

TEST(QueuedJobSenderTest, StartReturnsOnlyOnceTheJobHasEnded) {
    RequestServer* server = ownServer();
    ASSERT_NE(server, nullptr);
    const int port = server->getPort();
    const std::string jobId = UniqueID::generateId();
    LogCapture capture;
    std::atomic<bool> started{false};
    std::atomic<bool> ended{false};
    std::thread job([&] {
        started = StartQueuedJobRequestHandler::waitForStartJobRequest(jobId, 10);
        std::this_thread::sleep_for(200ms);
        ended = true;
        StartQueuedJobRequestHandler::jobEnded(jobId);
    });
    const bool sent =
        StartQueuedJobRequest::sendStartQueuedJobRequest("127.0.0.1", port, jobId, false, "");
    // The manager's call is the job's whole run.
    EXPECT_TRUE(ended.load());
    job.join();
    EXPECT_TRUE(sent);
    EXPECT_TRUE(started.load());
    EXPECT_TRUE(capture.contains(LogLevel::Trace, sendingLine(port, jobId, "0", "")));
    EXPECT_TRUE(capture.contains(LogLevel::Info, sentLine(port, jobId)));
    EXPECT_EQ(StartQueuedJobRequestHandler::getErrorMessage(jobId), "");
}

TEST(QueuedJobSenderTest, CancelReturnsWithoutAReply) {
    RequestServer* server = ownServer();
    ASSERT_NE(server, nullptr);
    const int port = server->getPort();
    const std::string jobId = UniqueID::generateId();
    LogCapture capture;
    EXPECT_TRUE(StartQueuedJobRequest::sendStartQueuedJobRequest("127.0.0.1", port, jobId, true,
                                                                 "no licence left"));
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, sendingLine(port, jobId, "1", "no licence left")));
    EXPECT_TRUE(capture.contains(LogLevel::Info, sentLine(port, jobId)));
    // The handler answers, but the package asked for no reply, so the answer goes nowhere.
    EXPECT_TRUE(capture.waitForSubstring(
        "Ignoring reply for HandleRequestTask: type=StartQueuedJobRequest, id=", 5000ms));
    EXPECT_FALSE(capture.containsSubstring("Sending reply for HandleRequestTask: "
                                           "type=StartQueuedJobRequest"));

    // The job learns of the cancel and its reason, once.
    EXPECT_TRUE(StartQueuedJobRequestHandler::waitForStartJobRequest(jobId, 5));
    EXPECT_EQ(StartQueuedJobRequestHandler::getErrorMessage(jobId), "no licence left");
    EXPECT_EQ(StartQueuedJobRequestHandler::getErrorMessage(jobId), "");
}

TEST(QueuedJobSenderTest, DeadJobServerFailsBeforeAnyRequestGoesOut) {
    ownServer();
    const int port = closedPort();
    const std::string jobId = UniqueID::generateId();
    for (bool cancel : {false, true}) {
        LogCapture capture;
        EXPECT_FALSE(StartQueuedJobRequest::sendStartQueuedJobRequest("127.0.0.1", port, jobId,
                                                                      cancel, "x"));
        EXPECT_TRUE(capture.contains(LogLevel::Error,
                                     "Can't connect to KS*Job: client returned no reply."));
        EXPECT_FALSE(capture.containsSubstring("Sending StartQueuedJobRequest"));
        EXPECT_FALSE(capture.containsSubstring("StartQueuedJobRequest sent to"));
    }
}

TEST(QueuedJobSenderTest, StartsAJobInAnotherProcess) {
    ownServer();
    ServerProcess child({});
    ASSERT_TRUE(child.start());
    const int port = child.port();
    ASSERT_GT(port, 0);
    const std::string jobId = UniqueID::generateId();
    QueuedNop job(port, jobId);
    LogCapture capture;
    EXPECT_TRUE(
        StartQueuedJobRequest::sendStartQueuedJobRequest("127.0.0.1", port, jobId, false, ""));
    EXPECT_TRUE(capture.contains(LogLevel::Info, sentLine(port, jobId)));
    auto reply = job.join();
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "TestReply");
    EXPECT_EQ(reply->getElement("data"), "OK");
    TcpRequestClient(std::string("stop"), loopbackHost(port)).shutdownRequestServer();
    EXPECT_EQ(child.waitForExit(10000ms), 0);
}

TEST(QueuedJobSenderTest, CancelsAJobInAnotherProcess) {
    ownServer();
    ServerProcess child({});
    ASSERT_TRUE(child.start());
    const int port = child.port();
    ASSERT_GT(port, 0);
    const std::string jobId = UniqueID::generateId();
    QueuedNop job(port, jobId);
    EXPECT_TRUE(StartQueuedJobRequest::sendStartQueuedJobRequest("127.0.0.1", port, jobId, true,
                                                                 "queue closed"));
    // A cancelled wait counts as received: the probe job ends normally.
    auto reply = job.join();
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "TestReply");
    EXPECT_EQ(reply->getElement("data"), "OK");
    TcpRequestClient(std::string("stop"), loopbackHost(port)).shutdownRequestServer();
    EXPECT_EQ(child.waitForExit(10000ms), 0);
}

TEST(QueuedJobSenderTest, JobServerThatDiesDuringTheJobGivesFalse) {
    ownServer();
    // The heartbeat tells the end of the job's process within about two seconds.
    settings()->setValue("maxAliveAge", "2");
    settings()->setValue("rPingIntervalSec", "1");
    ::setenv("KS_ALIVE_PUBLISH_INTERVAL", "200", 1);
    ServerProcess child({"-logLevel", "DEBUG"});
    ASSERT_TRUE(child.start());
    const int port = child.port();
    ASSERT_GT(port, 0);
    const std::string jobId = UniqueID::generateId();
    LogCapture capture;
    std::atomic<bool> result{true};
    std::thread manager([&] {
        result =
            StartQueuedJobRequest::sendStartQueuedJobRequest("127.0.0.1", port, jobId, false, "");
    });
    // Nobody in the child ends this job: its handler holds the request until the process dies.
    const std::string created =
        "Created HandleRequestTask for request with type = 'StartQueuedJobRequest'";
    std::string errors =
        readPipe(child.process().getStandardErrorFd(), 10000ms,
                 [&](const std::string& text) { return text.find(created) != std::string::npos; });
    ASSERT_NE(errors.find(created), std::string::npos) << errors;
    ASSERT_TRUE(child.process().kill(SIGKILL));
    manager.join();
    EXPECT_FALSE(result.load());
    EXPECT_TRUE(capture.containsSubstring(
        "Unexpected reply type received for StartQueuedJobRequest to 127.0.0.1:" +
        std::to_string(port) + " for jobId '" + jobId + "': RequestServerUnreachableReply"));
    EXPECT_FALSE(capture.containsSubstring("StartQueuedJobRequest sent to"));
}
