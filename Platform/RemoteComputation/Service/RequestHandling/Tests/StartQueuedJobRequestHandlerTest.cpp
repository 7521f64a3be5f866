#include "Platform/RemoteComputation/Service/RequestHandling/StartQueuedJobRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/AbortRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LocalRequestClient.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/StartQueuedJobRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

using namespace Kestrane;
using namespace std::chrono_literals;

namespace {

RequestEncoder startRequest(const std::string& jobId, bool cancel, const std::string& message,
                            bool withOptionalElements = true) {
    RequestEncoder encoder("StartQueuedJobRequest");
    encoder.addElement("jobId", jobId, "  ");
    if (withOptionalElements) {
        encoder.addElement("cancelJob", cancel, "  ");
        encoder.addElement("errorMessage", message, "  ");
    }
    return encoder;
}

// Runs a request through the process's default handler on a thread of its own, as a pool thread
// of the server would, and keeps the reply.
class ManagerThread {
public:
    explicit ManagerThread(RequestEncoder request) : m_request(std::move(request)) {
        m_thread = std::thread([this] {
            // The default handler registers the schema on first use.
            LocalRequestClient client(nullptr);
            m_reply = client.handleRequest(m_request, nullptr, "");
            m_done = true;
        });
    }
    ~ManagerThread() {
        if (m_thread.joinable())
            m_thread.join();
    }
    bool done() const { return m_done; }
    std::shared_ptr<Reply> join() {
        m_thread.join();
        return m_reply;
    }

private:
    RequestEncoder m_request;
    std::shared_ptr<Reply> m_reply;
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

void expectAck(const std::shared_ptr<Reply>& reply, const std::string& requestId) {
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "AckReply");
    EXPECT_EQ(reply->getRequestId(), requestId);
    EXPECT_EQ(reply->getElement("status"), "OK");
}

std::string newJobId() {
    return UniqueID::generateId();
}

} // namespace

TEST(StartQueuedJobRequestHandlerTest, DecodesOnlyItsOwnTypeAndReadsAllFields) {
    RequestHandler::getDefaultRequestHandler();
    StartQueuedJobRequestHandler handler;
    EXPECT_EQ(handler.getDescription(), "StartQueuedJobRequestHandler");

    const std::string jobId = newJobId();
    RequestEncoder full = startRequest(jobId, true, "no licence left");
    XmlRequest fullXml(full.getEncodedRequest(), true);
    auto decoded = handler.decodeRequest(fullXml);
    ASSERT_NE(decoded, nullptr);
    auto start = dynamic_cast<StartQueuedJobRequest*>(decoded.get());
    ASSERT_NE(start, nullptr);
    EXPECT_EQ(start->getJobId(), jobId);
    EXPECT_TRUE(start->getCancelJob());
    EXPECT_EQ(start->getErrorMessage(), "no licence left");
    EXPECT_EQ(start->getId(), full.getId());
    EXPECT_EQ(start->getSourceString(), fullXml.getSourceString());
    EXPECT_FALSE(start->getSourceString().empty());
    EXPECT_TRUE(handler.canHandle(decoded.get()));

    RequestEncoder bare = startRequest(jobId, true, "", false);
    XmlRequest bareXml(bare.getEncodedRequest(), true);
    auto bareDecoded = handler.decodeRequest(bareXml);
    ASSERT_NE(bareDecoded, nullptr);
    auto bareStart = static_cast<StartQueuedJobRequest*>(bareDecoded.get());
    EXPECT_FALSE(bareStart->getCancelJob());
    EXPECT_EQ(bareStart->getErrorMessage(), "");

    RequestEncoder abort("AbortRequest");
    abort.addElement("jobId", jobId, "  ");
    XmlRequest abortXml(abort.getEncodedRequest(), true);
    EXPECT_EQ(handler.decodeRequest(abortXml), nullptr);
    AbortRequest other(abortXml.getRootElement());
    EXPECT_FALSE(handler.canHandle(&other));
    EXPECT_FALSE(handler.canHandle(nullptr));
}

TEST(StartQueuedJobRequestHandlerTest, NullAndForeignRequestsThrow) {
    RequestHandler::getDefaultRequestHandler();
    StartQueuedJobRequestHandler handler;
    LogCapture capture;
    try {
        handler.handle(nullptr);
        FAIL() << "no exception";
    } catch (const KsExceptionNested& e) {
        EXPECT_EQ(std::string(e.what()), "Can't handle NULL request.");
    }
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Can't handle NULL request."));

    RequestEncoder abort("AbortRequest");
    abort.addElement("requestId", UniqueID::generateId(), "  ");
    XmlRequest abortXml(abort.getEncodedRequest(), true);
    AbortRequest other(abortXml.getRootElement());
    try {
        handler.handle(&other);
        FAIL() << "no exception";
    } catch (const KsExceptionNested& e) {
        EXPECT_EQ(std::string(e.what()), "Unsuported request");
    }
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Unsuported request 'AbortRequest'."));
}

TEST(StartQueuedJobRequestHandlerTest, StartBeforeWaitReturnsAtOnceAndReplyWaitsForJobEnd) {
    LogCapture capture;
    const std::string jobId = newJobId();
    RequestEncoder request = startRequest(jobId, false, "");
    ManagerThread manager(request);
    ASSERT_TRUE(capture.waitFor("Waiting for queued job ended " + jobId, 5000ms));

    // The start is there: even a zero time-out succeeds, without any wait.
    auto before = std::chrono::steady_clock::now();
    EXPECT_TRUE(StartQueuedJobRequestHandler::waitForStartJobRequest(jobId, 0));
    EXPECT_LT(std::chrono::steady_clock::now() - before, 100ms);
    EXPECT_TRUE(
        capture.contains(LogLevel::Debug, "StartJobRequest for jobId " + jobId + " received."));
    EXPECT_FALSE(capture.containsSubstring("Skipping short wait: "));
    EXPECT_EQ(StartQueuedJobRequestHandler::getErrorMessage(jobId), "");

    // The manager's request stays open while the job runs.
    std::this_thread::sleep_for(300ms);
    EXPECT_FALSE(manager.done());

    StartQueuedJobRequestHandler::jobEnded(jobId);
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Queued job ended " + jobId));
    expectAck(manager.join(), request.getId());
}

TEST(StartQueuedJobRequestHandlerTest, WaitingJobIsReleasedByStartFromAnotherThread) {
    LogCapture capture;
    const std::string jobId = newJobId();
    std::atomic<bool> result{false};
    std::thread job(
        [&] { result = StartQueuedJobRequestHandler::waitForStartJobRequest(jobId, 30); });
    ASSERT_TRUE(capture.waitFor("Waiting for StartJobRequest for jobId " + jobId + ", timeout 30s",
                                5000ms));

    RequestEncoder request = startRequest(jobId, false, "");
    ManagerThread manager(request);
    job.join();
    EXPECT_TRUE(result);
    EXPECT_TRUE(
        capture.contains(LogLevel::Debug, "StartJobRequest for jobId " + jobId + " received."));
    ASSERT_TRUE(capture.waitFor("Waiting for queued job ended " + jobId, 5000ms));
    EXPECT_FALSE(manager.done());
    StartQueuedJobRequestHandler::jobEnded(jobId);
    expectAck(manager.join(), request.getId());
}

TEST(StartQueuedJobRequestHandlerTest, CancelWithMessageIsAnsweredAtOnce) {
    RequestHandler::getDefaultRequestHandler();
    LogCapture capture;
    const std::string jobId = newJobId();
    RequestEncoder request = startRequest(jobId, true, "queue was shut down");
    LocalRequestClient client(nullptr);
    // On this thread: a cancel does not wait for the job.
    expectAck(client.handleRequest(request, nullptr, ""), request.getId());
    EXPECT_FALSE(capture.containsSubstring("Waiting for queued job ended"));

    EXPECT_TRUE(StartQueuedJobRequestHandler::waitForStartJobRequest(jobId, 5));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "StartJobRequest for jobId " + jobId +
                                                      " received: job cancelled."));
    EXPECT_EQ(StartQueuedJobRequestHandler::getErrorMessage(jobId), "queue was shut down");
    EXPECT_EQ(StartQueuedJobRequestHandler::getErrorMessage(jobId), "");
}

TEST(StartQueuedJobRequestHandlerTest, CancelWithoutMessageLeavesNoMessage) {
    RequestHandler::getDefaultRequestHandler();
    const std::string jobId = newJobId();
    std::atomic<bool> result{false};
    LogCapture capture;
    std::thread job(
        [&] { result = StartQueuedJobRequestHandler::waitForStartJobRequest(jobId, 30); });
    ASSERT_TRUE(capture.waitForSubstring("Waiting for StartJobRequest for jobId " + jobId, 5000ms));
    LocalRequestClient client(nullptr);
    RequestEncoder request = startRequest(jobId, true, "");
    expectAck(client.handleRequest(request, nullptr, ""), request.getId());
    job.join();
    EXPECT_TRUE(result);
    EXPECT_EQ(StartQueuedJobRequestHandler::getErrorMessage(jobId), "");
}

TEST(StartQueuedJobRequestHandlerTest, JobEndedForJobNeverStartedDoesNothing) {
    LogCapture capture;
    const std::string jobId = newJobId();
    StartQueuedJobRequestHandler::jobEnded(jobId);
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Queued job ended " + jobId));

    // The job is not counted as ended: a start that comes later still waits for the end.
    RequestEncoder request = startRequest(jobId, false, "");
    ManagerThread manager(request);
    ASSERT_TRUE(capture.waitFor("Waiting for queued job ended " + jobId, 5000ms));
    std::this_thread::sleep_for(200ms);
    EXPECT_FALSE(manager.done());
    StartQueuedJobRequestHandler::jobEnded(jobId);
    expectAck(manager.join(), request.getId());
}

TEST(StartQueuedJobRequestHandlerTest, ZeroTimeoutSkipsTheWait) {
    LogCapture capture;
    const std::string jobId = newJobId();
    auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(StartQueuedJobRequestHandler::waitForStartJobRequest(jobId, 0));
    EXPECT_LT(std::chrono::steady_clock::now() - before, 100ms);
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Waiting for StartJobRequest for jobId " + jobId +
                                                      ", timeout 0s"));
    bool skipped = false;
    for (const auto& line : capture.messages(LogLevel::Debug))
        if (line.rfind("Skipping short wait: ", 0) == 0 && line.size() > 23 &&
            line.compare(line.size() - 2, 2, "ms") == 0)
            skipped = true;
    EXPECT_TRUE(skipped);
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "StartJobRequest " + jobId +
                                                     " NOT received before timeout (0sec)."));
}

TEST(StartQueuedJobRequestHandlerTest, WaitTimesOutAfterItsLimit) {
    LogCapture capture;
    const std::string jobId = newJobId();
    auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(StartQueuedJobRequestHandler::waitForStartJobRequest(jobId, 1));
    auto elapsed = std::chrono::steady_clock::now() - before;
    // The last stretch below 101 ms is skipped.
    EXPECT_GE(elapsed, 850ms);
    EXPECT_LT(elapsed, 3000ms);
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "StartJobRequest " + jobId +
                                                     " NOT received before timeout (1sec)."));
}

TEST(StartQueuedJobRequestHandlerTest, AbortEndsTheWaitWithFalse) {
    LogCapture capture;
    const std::string jobId = newJobId();
    std::atomic<bool> result{true};
    std::thread job(
        [&] { result = StartQueuedJobRequestHandler::waitForStartJobRequest(jobId, 30); });
    ASSERT_TRUE(capture.waitForSubstring("Waiting for StartJobRequest for jobId " + jobId, 5000ms));
    auto before = std::chrono::steady_clock::now();
    StartQueuedJobRequestHandler::abortWaitingJob(jobId);
    job.join();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 2000ms);
    EXPECT_FALSE(result);
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Aborting wait for job " + jobId + "..."));
    EXPECT_TRUE(capture.contains(LogLevel::Debug,
                                 "Wait for StartJobRequest for jobId " + jobId + " aborted."));
}

TEST(StartQueuedJobRequestHandlerTest, AbortWinsOverStartAndReleasesTheManager) {
    LogCapture capture;
    const std::string jobId = newJobId();
    StartQueuedJobRequestHandler::abortWaitingJob(jobId);
    // The aborted job's start request is answered at once.
    RequestEncoder request = startRequest(jobId, false, "");
    ManagerThread manager(request);
    expectAck(manager.join(), request.getId());
    EXPECT_FALSE(capture.contains("Waiting for queued job ended " + jobId));
    EXPECT_FALSE(StartQueuedJobRequestHandler::waitForStartJobRequest(jobId, 5));
    EXPECT_TRUE(capture.contains(LogLevel::Debug,
                                 "Wait for StartJobRequest for jobId " + jobId + " aborted."));
}
