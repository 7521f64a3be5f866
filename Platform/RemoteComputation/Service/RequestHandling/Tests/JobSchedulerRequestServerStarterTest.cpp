#include "StarterTestSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/JobSchedulerRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Progress.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobStatusLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LoggingSettings.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"
#include "Platform/RemoteComputation/TestSupport/FakeLsf.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;
using TestSupport::TempDir;

namespace {

const std::string c_server = c_requestServer;
const std::string c_maxNumber = "18446744073709551615";

// Keeps what the starter and the wait tell the host.
class RecordingProgress : public Progress {
public:
    bool handleLogMessage(const LogMessage& message) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_messages.push_back(message);
        return true;
    }
    std::vector<LogMessage> messages() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages;
    }

private:
    std::mutex m_mutex;
    std::vector<LogMessage> m_messages;
};

// An adapter whose status answers are lines of the file "states", one per call; the last one
// repeats. Calls are counted in the file "calls".
class StatusAdapter {
public:
    explicit StatusAdapter(const std::vector<std::string>& states) : m_path(m_dir.file("adapter")) {
        std::string lines;
        for (const auto& state : states)
            lines += state + "\n";
        TestSupport::writeFile(m_dir.file("states"), lines);
        TestSupport::writeFile(
            m_path, "#!/bin/bash\n"
                    "dir=$(dirname \"$0\")\n"
                    "n=$(( $(cat \"$dir/calls\" 2>/dev/null || echo 0) + 1 ))\n"
                    "echo $n > \"$dir/calls\"\n"
                    "total=$(wc -l < \"$dir/states\")\n"
                    "line=$(sed -n \"$(( n < total ? n : total ))p\" \"$dir/states\")\n"
                    "if [ \"$line\" = FAIL ]; then echo 'controller down' >&2; exit 1; fi\n"
                    "echo \"Job $2 is $line\"\n"
                    "echo \"STATUS $line\"\n");
        ::chmod(m_path.c_str(), 0755);
    }
    const std::string& path() const { return m_path; }
    int calls() const {
        std::string text = TestSupport::readFile(m_dir.file("calls"));
        return text.empty() ? 0 : std::stoi(text);
    }

private:
    TempDir m_dir;
    std::string m_path;
};

class JobSchedulerRequestServerStarterTest : public StarterTest {
protected:
    // Sends the callback `id` to this process's server in the name of `port`, as a started
    // server would (its own port stands in the callback).
    static void callBack(const std::string& id) {
        ASSERT_TRUE(CallbackRequest::sendCallbackRequest(
            "localhost:" + std::to_string(ownServer()->getPort()) + ":" + id, ""));
    }

    std::string commandLineOf(const std::string& callbackId, const std::string& middle = "") {
        return StarterTest::commandLineOf(c_server, ownServer()->getHostName(), callbackId, middle);
    }
};

} // namespace

// ---- the wait ----

TEST_F(JobSchedulerRequestServerStarterTest, WaitEndsWithTheCallbacksHostAndPort) {
    settings()->setValue("jsUpdateInterval", "10");
    StatusAdapter adapter({"PENDING", "RUNNING"});
    const std::string id = CallbackRequestHandler::createCallbackId();
    std::thread later([&] {
        std::this_thread::sleep_for(300ms);
        callBack(id);
    });
    std::string error;
    auto begin = std::chrono::steady_clock::now();
    auto address =
        CallbackRequestHandler::waitForJobSchedulerCallback(id, adapter.path(), 7, error, nullptr);
    later.join();
    // Woken by the callback, not by the ten-second poll.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
    EXPECT_EQ(address.first, ownServer()->getHostName());
    EXPECT_EQ(address.second, ownServer()->getPort());
    EXPECT_EQ(error, "");
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Job 7 is PENDING\nSTATUS PENDING\n"));
    EXPECT_TRUE(capture.contains(LogLevel::Trace,
                                 "Waiting for callback: Job 7 is RUNNING\nSTATUS RUNNING\n"));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "JobScheduler callback " + id + " received."));
    EXPECT_EQ(adapter.calls(), 2);
}

TEST_F(JobSchedulerRequestServerStarterTest, CallbackBeforeTheWaitIsFoundAfterTheFirstStatus) {
    StatusAdapter adapter({"RUNNING"});
    const std::string id = CallbackRequestHandler::createCallbackId();
    callBack(id);
    std::string error;
    auto address =
        CallbackRequestHandler::waitForJobSchedulerCallback(id, adapter.path(), 7, error, nullptr);
    EXPECT_EQ(address.second, ownServer()->getPort());
    EXPECT_EQ(adapter.calls(), 1);
}

TEST_F(JobSchedulerRequestServerStarterTest, StatusThatCannotBeHadEndsTheWait) {
    StatusAdapter adapter({"FAIL"});
    std::string error;
    auto address = CallbackRequestHandler::waitForJobSchedulerCallback("99", adapter.path(), 7,
                                                                       error, nullptr);
    EXPECT_EQ(address.first, "");
    EXPECT_EQ(address.second, 0u);
    EXPECT_EQ(error, "Error getting status for job 7 from job scheduler.");
    EXPECT_TRUE(capture.contains(LogLevel::Error,
                                 "Callback NOT received Error getting job status:\ncontroller "
                                 "down\nJob scheduler script '" +
                                     adapter.path() + " status' failed with exit code 1"));
}

TEST_F(JobSchedulerRequestServerStarterTest, StatusThatFailsLaterEndsTheWaitToo) {
    settings()->setValue("jsUpdateInterval", "0");
    StatusAdapter adapter({"PENDING", "PENDING", "FAIL"});
    std::string error;
    auto address = CallbackRequestHandler::waitForJobSchedulerCallback("99", adapter.path(), 8,
                                                                       error, nullptr);
    EXPECT_EQ(address.second, 0u);
    EXPECT_EQ(error, "Error getting status for job 8 from job scheduler.");
    EXPECT_EQ(adapter.calls(), 3);
}

TEST_F(JobSchedulerRequestServerStarterTest,
       JobThatEndsWithoutCallingBackEndsTheWaitAtTheNextPoll) {
    settings()->setValue("jsUpdateInterval", "1");
    StatusAdapter adapter({"PENDING", "EXIT"});
    auto progress = std::make_shared<RecordingProgress>();
    std::string error;
    auto begin = std::chrono::steady_clock::now();
    auto address = CallbackRequestHandler::waitForJobSchedulerCallback("99", adapter.path(), 7,
                                                                       error, progress);
    auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(waited, 900ms);
    EXPECT_LT(waited, 2500ms);
    EXPECT_EQ(address.second, 0u);
    EXPECT_EQ(error, "Error staring job with job scheduler: job not running anymore!");
    EXPECT_TRUE(capture.contains(LogLevel::Error,
                                 "Callback NOT received Error getting job status:\nJob 7 is "
                                 "EXIT\nSTATUS EXIT\n"));
    auto messages = progress->messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].text(), c_maxNumber + " Waiting for job scheduler to start job 7...\n" +
                                      "Job 7 is EXIT\nSTATUS EXIT\n\n");
    EXPECT_EQ(messages[0].type(), LogMessage::Info);
    EXPECT_EQ(messages[0].getGroup(), "jobLog");
}

TEST_F(JobSchedulerRequestServerStarterTest, EveryStateAfterRunningMeansTheJobWillNotCallBack) {
    for (const std::string state : {"DONE", "EXIT", "UNKNOWN"}) {
        StatusAdapter adapter({state});
        std::string error;
        auto begin = std::chrono::steady_clock::now();
        auto address = CallbackRequestHandler::waitForJobSchedulerCallback("99", adapter.path(), 7,
                                                                           error, nullptr);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s) << state;
        EXPECT_EQ(address.second, 0u) << state;
        EXPECT_EQ(error, "Error staring job with job scheduler: job not running anymore!") << state;
        EXPECT_EQ(adapter.calls(), 1) << state;
    }
}

TEST_F(JobSchedulerRequestServerStarterTest, ThereIsNoTimeLimitAndErrorCallbacksAreNotLookedAt) {
    settings()->setValue("callbackTimeout", "1");
    settings()->setValue("jsUpdateInterval", "1");
    StatusAdapter adapter({"PENDING", "PENDING", "RUNNING", "RUNNING", "RUNNING"});
    const std::string id = CallbackRequestHandler::createCallbackId();
    std::thread later([&] {
        // An error callback first: the wait goes on as long as the job runs.
        std::this_thread::sleep_for(500ms);
        CallbackRequest::sendCallbackRequest(
            "localhost:" + std::to_string(ownServer()->getPort()) + ":" + id, "licence missing");
        std::this_thread::sleep_for(2000ms);
        callBack(id);
    });
    std::string error;
    auto begin = std::chrono::steady_clock::now();
    auto address =
        CallbackRequestHandler::waitForJobSchedulerCallback(id, adapter.path(), 7, error, nullptr);
    later.join();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 2s);
    EXPECT_EQ(address.second, ownServer()->getPort());
    EXPECT_EQ(error, "");
}

TEST_F(JobSchedulerRequestServerStarterTest, ErrorCallbackShowsOnlyOnceTheJobHasEnded) {
    settings()->setValue("jsUpdateInterval", "1");
    StatusAdapter adapter({"RUNNING", "RUNNING", "EXIT"});
    const std::string id = CallbackRequestHandler::createCallbackId();
    ASSERT_FALSE(CallbackRequest::sendCallbackRequest(
        "localhost:" + std::to_string(ownServer()->getPort()) + ":" + id, "licence missing"));
    std::string error;
    auto address =
        CallbackRequestHandler::waitForJobSchedulerCallback(id, adapter.path(), 7, error, nullptr);
    EXPECT_EQ(address.second, 0u);
    EXPECT_EQ(error, "Error staring job with job scheduler: job not running anymore!");
    EXPECT_EQ(adapter.calls(), 3);
}

// ---- the starter, through the LSF adapter ----

TEST_F(JobSchedulerRequestServerStarterTest, ServerSubmittedThroughLsfCallsBackAnswersAndIsKilled) {
    settings()->setValue("jsUpdateInterval", "1");
    FakeLsf lsf;
    auto progress = std::make_shared<RecordingProgress>();
    auto starter = std::make_shared<JobSchedulerRequestServerStarter>(
        c_server, GenericJobId(), "_job", "ks server", FakeLsf::adapter(), 2, 1, progress);
    TcpRequestClient client("lsf", starter);
    auto reply = client.handleRequest(testRequest("NOP"), nullptr, "");
    ASSERT_NE(reply, nullptr) << starter->getErrorMessage();
    ASSERT_EQ(reply->getType(), "TestReply") << starter->getErrorMessage();
    EXPECT_EQ(starter->getJobSchedulerJobId(), 1);
    EXPECT_EQ(starter->getRequestServerHost(), ownServer()->getHostName());
    EXPECT_GT(starter->getRequestServerPort(), 0u);
    EXPECT_EQ(starter->getDescription(),
              ownServer()->getHostName() + ":" + std::to_string(starter->getRequestServerPort()));
    EXPECT_FALSE(client.isLocal());

    const std::string script = FakeLsf::adapter();
    EXPECT_TRUE(capture.contains(
        LogLevel::Info, "Submitting RequestServer instance '" + c_server +
                            "' using job scheduler script '" + script +
                            "'.\nCommand line: " + commandLineOf("1", "-logFileSuffix _job ")));
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Started RequestServer instance '" + c_server +
                                                     "' using job scheduler script '" + script +
                                                     "'. Job scheduler job ID: 1"));
    auto messages = progress->messages();
    ASSERT_GE(messages.size(), 1u);
    EXPECT_EQ(messages[0].text(), c_maxNumber + " Job submitted to job scheduler. ID = 1\n");
    EXPECT_EQ(messages[0].getGroup(), "jobLog");

    const unsigned int port = starter->getRequestServerPort();
    client.killJobSchedulerJob();
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Killing job 1..."));
    EXPECT_TRUE(capture.containsSubstring("Job 1 killed:\nJob <1> is being terminated"));
    EXPECT_TRUE(
        TestSupport::waitUntil([&] { return !RequestServer::ping("127.0.0.1", port); }, 5000ms));
    Computing::LSFJobStatus status = Computing::LSFJobStatus::Running;
    std::string message;
    EXPECT_TRUE(TestSupport::waitUntil(
        [&] {
            return Computing::JobStatusLSF().execute(1, script, status, message) &&
                   status == Computing::LSFJobStatus::Exit;
        },
        5000ms))
        << message;
}

TEST_F(JobSchedulerRequestServerStarterTest, RejectedSubmissionGivesTheAdaptersWords) {
    FakeLsf lsf;
    ::setenv("FAKE_LSF_SUBMIT_ERROR", "Bad resource requirement syntax. Job not submitted.", 1);
    JobSchedulerRequestServerStarter starter(c_server, GenericJobId(), "", "ks", FakeLsf::adapter(),
                                             1, 1, nullptr);
    EXPECT_FALSE(starter.startRequestServer());
    ::unsetenv("FAKE_LSF_SUBMIT_ERROR");
    const std::string prefix = "Error starting request server using job scheduler script '" +
                               FakeLsf::adapter() + "'.\nCommand line: " + commandLineOf("1") +
                               "\n\n";
    const std::string& text = starter.getErrorMessage();
    ASSERT_EQ(text.rfind(prefix, 0), 0u) << text;
    EXPECT_NE(text.find("Bad resource requirement syntax. Job not submitted."), std::string::npos)
        << text;
    const std::string ending =
        "\n\nJob scheduler script '" + FakeLsf::adapter() + " submit' failed with exit code 1";
    ASSERT_GT(text.size(), ending.size());
    EXPECT_EQ(text.substr(text.size() - ending.size()), ending) << text;
    EXPECT_EQ(starter.getJobSchedulerJobId(), 0);
}

TEST_F(JobSchedulerRequestServerStarterTest, JobWhoseProgramIsMissingEndsTheWaitWithinAnInterval) {
    settings()->setValue("jsUpdateInterval", "1");
    FakeLsf lsf;
    const std::string missing = tmp.file("no-such-server");
    JobSchedulerRequestServerStarter starter(missing, GenericJobId(), "", "ks", FakeLsf::adapter(),
                                             1, 1, nullptr);
    auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(starter.startRequestServer());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 3s);
    std::string expected = "Error getting callback from request server using job scheduler "
                           "script '" +
                           FakeLsf::adapter() + "' with job ID 1.\nCommand line: " + missing +
                           commandLineOf("1").substr(c_server.size()) +
                           "\n\nError staring job with job scheduler: job not running anymore!";
    EXPECT_EQ(starter.getErrorMessage(), expected);
}

TEST_F(JobSchedulerRequestServerStarterTest, KillThatFailsIsLoggedWithTheAdaptersWords) {
    settings()->setValue("jsUpdateInterval", "1");
    FakeLsf lsf;
    JobSchedulerRequestServerStarter starter(c_server, GenericJobId(), "", "ks", FakeLsf::adapter(),
                                             1, 1, nullptr);
    ASSERT_TRUE(starter.startRequestServer()) << starter.getErrorMessage();
    ::setenv("FAKE_LSF_DOWN", "1", 1);
    starter.killJobSchedulerjob();
    ::unsetenv("FAKE_LSF_DOWN");
    EXPECT_TRUE(capture.containsSubstring("Error killing job 1:\n"));
    EXPECT_TRUE(capture.containsSubstring("LSF is down; please wait"));
    // The server still runs: stop it the ordinary way.
    TcpRequestClient client("stop", loopbackHost(static_cast<int>(starter.getRequestServerPort())));
    client.shutdownRequestServer();
}
