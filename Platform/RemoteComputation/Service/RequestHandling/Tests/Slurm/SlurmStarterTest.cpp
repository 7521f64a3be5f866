// Servers started as jobs of a real Slurm cluster, through the slurm adapter. scripts/test.sh
// starts a one-node cluster on this machine and names it by SLURM_CONF.
#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/JobSchedulerRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Progress.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobRemoveLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobStatusLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Process.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"
#include "Platform/RemoteComputation/TestSupport/ServerProcess.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <regex>
#include <set>
#include <string>
#include <thread>

using namespace Kestrane;
using namespace std::chrono_literals;
using Computing::LSFJobStatus;

namespace {

const std::string c_server = KS_BINARY_DIR "/bin/ks-request-server";
const std::string c_adapter = KS_SOURCE_DIR "/scripts/job-schedulers/slurm";

// Notes the job's number as soon as it is submitted.
class JobNumber : public Progress {
public:
    bool handleLogMessage(const LogMessage& message) override {
        std::smatch match;
        const std::string& text = message.text();
        if (std::regex_search(text, match,
                              std::regex("Job submitted to job scheduler. ID = (\\d+)")))
            m_job = std::stoi(match[1]);
        return true;
    }
    int job() const { return m_job; }

private:
    std::atomic<int> m_job{0};
};

LSFJobStatus statusOf(int job, std::string& message) {
    LSFJobStatus status = LSFJobStatus::Unknown;
    if (!Computing::JobStatusLSF().execute(job, c_adapter, status, message))
        ADD_FAILURE() << "no status for job " << job << ":\n" << message;
    return status;
}

class SlurmStarterTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* conf = std::getenv("SLURM_CONF");
        ASSERT_TRUE(conf && *conf)
            << "SLURM_CONF is not set: these tests need the Slurm cluster that scripts/test.sh "
               "starts (or: shared/tools/slurm/start-local-slurm.sh, then . $SCHED_DIR/env.sh)";
        PathConfiguration::setKsPathTmp(FileName(tmp.file("client")));
        ::setenv("KS_PATH_TMP", tmp.file("server").c_str(), 1);
        ::setenv("KS_JOB_STATE_DIR", tmp.file("jobs").c_str(), 1);
        ::setenv("KS_AUTO_SHUTDOWN", "true", 1);
        ::setenv("KS_SHUTDOWN_TIMEOUT", "60", 1);
        RequestServerConfiguration::getRegisteredInstance()->setValue("jsUpdateInterval", "2");
        ASSERT_NE(RequestServer::getInstance(-1, 0), nullptr);
    }
    void TearDown() override {
        // Nothing is left in the cluster for the next test.
        std::string message;
        for (int job : jobs)
            Computing::JobRemoveLSF().execute(job, c_adapter, message);
        ::unsetenv("KS_SLURM_SBATCH_OPTIONS");
    }

    std::shared_ptr<JobSchedulerRequestServerStarter> starter(const std::string& executable,
                                                              std::shared_ptr<Progress> progress) {
        return std::make_shared<JobSchedulerRequestServerStarter>(
            executable, GenericJobId(), "", "ks-test", c_adapter, 1, 1, progress);
    }

    TestSupport::TempDir tmp;
    LogCapture capture;
    std::set<int> jobs;
};

RequestEncoder nop() {
    RequestEncoder encoder("TestRequest");
    encoder.addElement("command", "NOP", "  ");
    return encoder;
}

} // namespace

TEST_F(SlurmStarterTest, ServerStartedAsAJobCallsBackAnswersAndIsKilled) {
    auto job = starter(c_server, nullptr);
    TcpRequestClient client("slurm", job);
    auto begin = std::chrono::steady_clock::now();
    auto reply = client.handleRequest(nop(), nullptr, "");
    jobs.insert(job->getJobSchedulerJobId());
    ASSERT_NE(reply, nullptr) << job->getErrorMessage();
    ASSERT_EQ(reply->getType(), "TestReply") << job->getErrorMessage();
    std::printf("Slurm start to first reply: %.0f ms\n",
                std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin)
                    .count());
    EXPECT_GT(job->getJobSchedulerJobId(), 0);
    EXPECT_EQ(job->getRequestServerHost(), RequestServer::getInstance(-1, 0)->getHostName());
    std::string message;
    EXPECT_EQ(statusOf(job->getJobSchedulerJobId(), message), LSFJobStatus::Running) << message;

    const unsigned int port = job->getRequestServerPort();
    client.killJobSchedulerJob();
    EXPECT_TRUE(capture.contains(
        LogLevel::Info, "Killing job " + std::to_string(job->getJobSchedulerJobId()) + "..."));
    EXPECT_TRUE(TestSupport::waitUntil(
        [&] { return statusOf(job->getJobSchedulerJobId(), message) == LSFJobStatus::Exit; },
        20000ms))
        << message;
    EXPECT_TRUE(TestSupport::waitUntil(
        [&] { return !RequestServer::ping(job->getRequestServerHost(), port); }, 10000ms));
}

TEST_F(SlurmStarterTest, JobWhoseProgramIsMissingEndsTheWaitWithinOneInterval) {
    auto job = starter(tmp.file("no-such-server"), nullptr);
    auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(job->startRequestServer());
    jobs.insert(job->getJobSchedulerJobId());
    auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_NE(job->getErrorMessage().find(
                  "\n\nError staring job with job scheduler: job not running anymore!"),
              std::string::npos)
        << job->getErrorMessage();
    // Slurm runs the job within a second or two; its end is seen at the next poll (2 s).
    EXPECT_LT(waited, 8s);
    std::string message;
    EXPECT_EQ(statusOf(job->getJobSchedulerJobId(), message), LSFJobStatus::Exit) << message;
}

TEST_F(SlurmStarterTest, PendingJobThatIsCancelledEndsTheWait) {
    ::setenv("KS_SLURM_SBATCH_OPTIONS", "--hold", 1);
    auto number = std::make_shared<JobNumber>();
    auto job = starter(c_server, number);
    std::atomic<bool> started{true};
    std::thread wait([&] { started = job->startRequestServer(); });
    ASSERT_TRUE(TestSupport::waitUntil([&] { return number->job() > 0; }, 10000ms));
    jobs.insert(number->job());
    std::string message;
    EXPECT_EQ(statusOf(number->job(), message), LSFJobStatus::Pending) << message;
    // Held: it stays pending for as long as nobody releases it.
    std::this_thread::sleep_for(2500ms);
    EXPECT_EQ(statusOf(number->job(), message), LSFJobStatus::Pending) << message;

    auto cancelled = std::chrono::steady_clock::now();
    ASSERT_TRUE(Computing::JobRemoveLSF().execute(number->job(), c_adapter, message)) << message;
    wait.join();
    EXPECT_LT(std::chrono::steady_clock::now() - cancelled, 6s);
    EXPECT_FALSE(started);
    EXPECT_NE(job->getErrorMessage().find("Error staring job with job scheduler: job not running "
                                          "anymore!"),
              std::string::npos)
        << job->getErrorMessage();
}

TEST_F(SlurmStarterTest, KsStartsAServerThatEndsItsJobWhenShutDown) {
    auto run = [](const std::vector<std::string>& args, std::string& out) {
        Computing::Process ks(KS_BINARY_DIR "/bin/ks", args);
        ks.captureStandardOutputAndError();
        if (!ks.start(Computing::Detached))
            return -1;
        out = Testing::readPipe(ks.getStandardOutputFd(), 60000ms,
                                [](const std::string&) { return false; });
        int code = -1;
        if (!ks.waitFor(10000, code)) {
            ks.kill(SIGKILL);
            return -2;
        }
        return code;
    };
    std::string out;
    auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(run({"start", "scheduler", c_adapter}, out), 0) << out;
    std::printf("ks start scheduler slurm: %.0f ms\n",
                std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin)
                    .count());
    std::smatch match;
    ASSERT_TRUE(std::regex_search(out, match, std::regex("\\nSTARTED ([^ ]+) ")) ||
                std::regex_search(out, match, std::regex("^STARTED ([^ ]+) ")))
        << out;
    const std::string target = match[1];
    ASSERT_TRUE(std::regex_search(out, match, std::regex("ID = (\\d+)"))) << out;
    const int job = std::stoi(match[1]);
    jobs.insert(job);

    EXPECT_EQ(run({"ping", target}, out), 0) << out;
    EXPECT_EQ(run({"test", target, "NOP"}, out), 0) << out;
    EXPECT_EQ(run({"shutdown", target}, out), 0) << out;
    std::string message;
    EXPECT_TRUE(TestSupport::waitUntil([&] { return statusOf(job, message) == LSFJobStatus::Done; },
                                       20000ms))
        << message;
}
