// A distributed worker pool whose workers are jobs of a real Slurm cluster: ks-pool-demo as the
// master, run through the slurm adapter. scripts/test.sh starts a one-node cluster on this
// machine and names it by SLURM_CONF. Its node runs one job per core, and each worker job asks
// for one core.
#include "Platform/RemoteComputation/Programs/ks-pool-demo/Tests/PoolDemoProcesses.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobRemoveLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobStatusLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <regex>
#include <set>
#include <string>

using namespace Kestrane;
using namespace Kestrane::PoolDemoTesting;
using Computing::LSFJobStatus;

namespace {

const std::string c_adapter = KS_SOURCE_DIR "/scripts/job-schedulers/slurm";
// Primes below 5 * 10^6, below 3 * 10^9 and below 6 * 10^9.
const unsigned long long c_primesBelow5e6 = 348513ULL;
const unsigned long long c_primesBelow3e9 = 144449537ULL;
const unsigned long long c_primesBelow6e9 = 279545368ULL;

LSFJobStatus statusOf(int job, std::string& message) {
    LSFJobStatus status = LSFJobStatus::Unknown;
    if (!Computing::JobStatusLSF().execute(job, c_adapter, status, message))
        ADD_FAILURE() << "no status for job " << job << ":\n" << message;
    return status;
}

// A job that will never run (again): Slurm has ended it or never will start it.
bool ended(int job) {
    std::string message;
    const LSFJobStatus status = statusOf(job, message);
    return status == LSFJobStatus::Done || status == LSFJobStatus::Exit;
}

// The program's full path, from PATH: Process starts no program by its bare name.
std::string inPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::string directories = path ? path : "/usr/bin:/bin";
    size_t start = 0;
    while (start <= directories.size()) {
        size_t end = directories.find(':', start);
        if (end == std::string::npos)
            end = directories.size();
        const std::string candidate = directories.substr(start, end - start) + "/" + program;
        if (::access(candidate.c_str(), X_OK) == 0)
            return candidate;
        start = end + 1;
    }
    return program;
}

// Runs a Slurm command to its end; its exit code, and its output in `output`.
int slurmCommand(const std::string& program, const std::vector<std::string>& args,
                 std::string& output) {
    DemoRun command(args, inPath(program));
    if (!command.started()) {
        output = command.startError();
        return -1;
    }
    const int code = command.waitForExit(30000ms);
    output = command.out().text() + command.err().text();
    return code;
}

class DistributedWorkerPoolSlurmTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* conf = std::getenv("SLURM_CONF");
        ASSERT_TRUE(conf && *conf)
            << "SLURM_CONF is not set: these tests need the Slurm cluster that scripts/test.sh "
               "starts (or: shared/tools/slurm/start-local-slurm.sh, then . $SCHED_DIR/env.sh)";
        // The jobs' output files land in the master's KS_PATH_TMP.
        env.set("KS_PATH_TMP", tmp.directory("master"));
        env.set("KS_JOB_STATE_DIR", tmp.directory("jobs"));
        env.set("KS_LOG_LEVEL", "INFO");
        env.unset("KS_SLURM_SBATCH_OPTIONS");
        env.unset("KS_COMPUTATION_CORES");
        env.unset("KS_CONFIG_FILE");
    }
    void TearDown() override {
        // Nothing is left in the cluster for the next test.
        std::string message;
        for (const auto& job : jobs)
            Computing::JobRemoveLSF().execute(job.second, c_adapter, message);
    }

    // The demo as the master of `count` worker jobs.
    std::unique_ptr<DemoRun> startMaster(unsigned int count, const std::string& below,
                                         const std::string& tasks) {
        auto demo = std::make_unique<DemoRun>(
            std::vector<std::string>{"--scheduler", c_adapter, "--jobs", std::to_string(count),
                                     "--below", below, "--tasks", tasks});
        EXPECT_TRUE(demo->started()) << demo->startError();
        return demo;
    }
    // Waits for the submission of all `count` jobs and notes them by worker number: "Worker N
    // submitted to job scheduler:" then the adapter's "JOB <number>".
    bool waitForJobs(DemoRun& demo, unsigned int count) {
        if (!demo.out().waitFor(std::regex("^Submitted \\d+ workers?\\.$"), 60000ms))
            return false;
        int worker = -1;
        std::smatch match;
        static const std::regex submitted("^Worker (\\d+) submitted to job scheduler:$");
        static const std::regex number("^JOB (\\d+)$");
        for (const auto& line : demo.out().lines()) {
            if (std::regex_search(line.text, match, submitted))
                worker = std::stoi(match[1]);
            else if (worker >= 0 && std::regex_search(line.text, match, number))
                jobs[worker] = std::stoi(match[1]);
        }
        return jobs.size() == count;
    }
    // The worker job's output (its log), in the master's KS_PATH_TMP.
    std::string jobOutput(int job) const {
        return readWholeFile(tmp.file("master") + "/primes-" + std::to_string(job) + ".out");
    }
    static std::string lastLines(const std::string& text, size_t count) {
        size_t at = text.size();
        for (size_t i = 0; i <= count && at != std::string::npos && at > 0; ++i)
            at = text.rfind('\n', at - 1);
        return at == std::string::npos ? text : text.substr(at + 1);
    }
    // Waits until no job of the run is pending or running any more.
    void expectAllJobsEnded(std::chrono::milliseconds limit = 30000ms) {
        for (const auto& job : jobs) {
            const bool gone = waitFor([&] { return ended(job.second); }, limit, 200ms);
            EXPECT_TRUE(gone) << "job " << job.second << " of worker " << job.first
                              << " is still there; the end of its output:\n"
                              << lastLines(jobOutput(job.second), 40);
            std::string output;
            slurmCommand("squeue", {"-h", "-j", std::to_string(job.second), "-o", "%T"}, output);
            EXPECT_EQ(output.find("PENDING"), std::string::npos) << output;
            EXPECT_EQ(output.find("RUNNING"), std::string::npos) << output;
        }
    }
    // Cores of the cluster's nodes, that is how many one-core worker jobs run at once.
    static unsigned int clusterCores() {
        std::string output;
        if (slurmCommand("sinfo", {"-h", "-o", "%C"}, output) != 0)
            return 0;
        // "allocated/idle/other/total"
        std::smatch match;
        if (!std::regex_search(output, match, std::regex("\\d+/\\d+/\\d+/(\\d+)")))
            return 0;
        return static_cast<unsigned int>(std::stoul(match[1]));
    }

    TestSupport::TempDir tmp;
    ScopedEnvironment env;
    // Job number by worker number.
    std::map<int, int> jobs;
};

size_t countIn(const std::string& text, const std::string& piece) {
    size_t count = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1))
        ++count;
    return count;
}

} // namespace

TEST_F(DistributedWorkerPoolSlurmTest, TwoWorkerJobsCountExactly) {
    // 60 tasks of 50 million numbers, about 4 s for one job alone: the second job has started
    // long before the first could count everything, even on a loaded machine.
    auto demo = startMaster(2, "3000000000", "60");
    ASSERT_TRUE(waitForJobs(*demo, 2)) << demo->describe();
    ASSERT_EQ(demo->waitForExit(120000ms), 0) << demo->describe();
    auto result = demo->result();
    ASSERT_TRUE(result) << demo->describe();
    EXPECT_EQ(result->primes, c_primesBelow3e9);
    EXPECT_EQ(result->tasks, 60u);
    EXPECT_EQ(result->failed, 0u);
    EXPECT_EQ(result->workers, 2u);
    // A worker logs a result as sent after the master has taken it: only an ended job's output
    // is whole.
    expectAllJobsEnded();
    // Both jobs counted, and every task was counted once.
    size_t results = 0;
    for (const auto& job : jobs) {
        const std::string output = jobOutput(job.second);
        EXPECT_NE(output.find("Starting execution of DistributedWorker 'JobSchedulerWorker_" +
                              std::to_string(job.first) + "'"),
                  std::string::npos)
            << output;
        results += countIn(output, "Results from worker");
    }
    EXPECT_EQ(results, 60u);
}

TEST_F(DistributedWorkerPoolSlurmTest, JobsBeyondTheFreeCoresAreRemovedAtTheEnd) {
    const unsigned int cores = clusterCores();
    ASSERT_GT(cores, 0u) << "sinfo tells no cores";
    // Long enough work (see above) that every job that gets a core calls back before the end.
    auto demo = startMaster(3, "3000000000", "60");
    ASSERT_TRUE(waitForJobs(*demo, 3)) << demo->describe();
    ASSERT_EQ(demo->waitForExit(120000ms), 0) << demo->describe();
    auto result = demo->result();
    ASSERT_TRUE(result) << demo->describe();
    EXPECT_EQ(result->primes, c_primesBelow3e9);
    EXPECT_EQ(result->failed, 0u);
    // One job per core runs; the others wait until the pool stops and removes them.
    EXPECT_EQ(result->workers, std::min(3u, cores));
    const std::string log = demo->err().text();
    for (const auto& job : jobs) {
        const bool calledBack = demo->out()
                                    .find(std::regex("^Worker JobSchedulerWorker_" +
                                                     std::to_string(job.first) + " started on "))
                                    .has_value();
        if (!calledBack) {
            EXPECT_NE(log.find("Worker removed from job scheduler (lsfJobId=" +
                               std::to_string(job.second) + ")"),
                      std::string::npos)
                << "job " << job.second;
        }
    }
    expectAllJobsEnded();
}

TEST_F(DistributedWorkerPoolSlurmTest, HeldJobsThatNeverCalledBackAreRemovedAtTheEnd) {
    // Held jobs stay pending until released: only the released one ever runs.
    env.set("KS_SLURM_SBATCH_OPTIONS", "--hold");
    auto demo = startMaster(3, "5000000", "30");
    ASSERT_TRUE(waitForJobs(*demo, 3)) << demo->describe();
    std::string message;
    for (const auto& job : jobs)
        EXPECT_EQ(statusOf(job.second, message), LSFJobStatus::Pending) << message;
    std::string output;
    ASSERT_EQ(slurmCommand("scontrol", {"release", std::to_string(jobs[1])}, output), 0) << output;

    ASSERT_EQ(demo->waitForExit(120000ms), 0) << demo->describe();
    auto result = demo->result();
    ASSERT_TRUE(result) << demo->describe();
    EXPECT_EQ(result->primes, c_primesBelow5e6);
    EXPECT_EQ(result->failed, 0u);
    EXPECT_EQ(result->workers, 1u);
    const std::string log = demo->err().text();
    for (int worker : {0, 2})
        EXPECT_NE(log.find("Worker removed from job scheduler (lsfJobId=" +
                           std::to_string(jobs[worker]) + ")"),
                  std::string::npos)
            << "job " << jobs[worker];
    expectAllJobsEnded();
    // Removed before they ever ran: cancelled, not done.
    for (int worker : {0, 2})
        EXPECT_EQ(statusOf(jobs[worker], message), LSFJobStatus::Exit) << message;
    EXPECT_EQ(statusOf(jobs[1], message), LSFJobStatus::Done) << message;
}

TEST_F(DistributedWorkerPoolSlurmTest, JobCancelledBeforeItsCallbackIsGivenUp) {
    env.set("KS_SLURM_SBATCH_OPTIONS", "--hold");
    // The job scheduler is asked every 3 s.
    env.set("KS_POOL_DEMO_WORKER_MAX_ALIVE_AGE", "3");
    auto demo = startMaster(2, "5000000", "30");
    ASSERT_TRUE(waitForJobs(*demo, 2)) << demo->describe();
    std::string message;
    ASSERT_EQ(statusOf(jobs[0], message), LSFJobStatus::Pending) << message;

    ASSERT_TRUE(Computing::JobRemoveLSF().execute(jobs[0], c_adapter, message)) << message;
    const auto cancelled = Clock::now();
    auto noticed = demo->err().waitFor(
        std::regex(" WARN .* Worker job '" + std::to_string(jobs[0]) + "' not running anymore"),
        20000ms);
    ASSERT_TRUE(noticed) << demo->describe();
    const double delay = std::chrono::duration<double>(noticed->at - cancelled).count();
    std::printf("cancelled job noticed after %.2f s\n", delay);
    // One check period (3 s) and the status command.
    EXPECT_LT(delay, 6.0);
    EXPECT_TRUE(demo->err().waitFor(
        std::regex(" WARN .* Job scheduler worker JobSchedulerWorker_0 job is not running "
                   "anymore: Job " +
                   std::to_string(jobs[0]) + " not running anymore:"),
        2000ms))
        << demo->describe();
    // The pool goes on with the other job once it runs.
    std::string output;
    ASSERT_EQ(slurmCommand("scontrol", {"release", std::to_string(jobs[1])}, output), 0) << output;
    ASSERT_EQ(demo->waitForExit(120000ms), 0) << demo->describe();
    auto result = demo->result();
    ASSERT_TRUE(result) << demo->describe();
    EXPECT_EQ(result->primes, c_primesBelow5e6);
    EXPECT_EQ(result->failed, 0u);
    EXPECT_EQ(result->workers, 1u);
    expectAllJobsEnded();
}

TEST_F(DistributedWorkerPoolSlurmTest, JobCancelledAfterItsCallbackLeavesTheCountToTheOthers) {
    // Pings every second: a job's process is gone soon after Slurm has ended it.
    env.set("KS_LOCAL_R_PING_INTERVAL_SEC", "1");
    env.set("KS_R_PING_INTERVAL_SEC", "1");
    // 80 tasks of 75 million numbers, about 0.1 s each: the other job alone counts for longer
    // than Slurm takes to end the cancelled one.
    auto demo = startMaster(2, "6000000000", "80");
    ASSERT_TRUE(waitForJobs(*demo, 2)) << demo->describe();
    for (int worker : {0, 1})
        ASSERT_TRUE(demo->out().waitFor(
            std::regex("^Worker JobSchedulerWorker_" + std::to_string(worker) + " started on "),
            60000ms))
            << demo->describe();
    const int victim = jobs[1];
    ASSERT_TRUE(
        waitFor([&] { return countIn(jobOutput(victim), "calling doWork()") >= 2; }, 20000ms));
    std::string message;
    ASSERT_TRUE(Computing::JobRemoveLSF().execute(victim, c_adapter, message)) << message;
    const auto cancelled = Clock::now();
    const auto cancelledAt = std::chrono::system_clock::now();

    // Slurm's SIGTERM stops the job's worker, whose run request then replies; a process that
    // did not get that far is found gone by the ping.
    auto gone = demo->err().waitFor(std::regex("Worker JobSchedulerWorker_1 terminated\\.|"
                                               "Worker process JobSchedulerWorker_1 has ended"),
                                    30000ms);
    ASSERT_TRUE(gone) << demo->describe();
    std::printf("cancelled job's process given up after %.2f s\n",
                std::chrono::duration<double>(gone->at - cancelled).count());
    // At the latest: Slurm's SIGKILL after KillWait (5 s here), then the next ping.
    EXPECT_LT(std::chrono::duration<double>(gone->at - cancelled).count(), 10.0);

    ASSERT_EQ(demo->waitForExit(120000ms), 0) << demo->describe();
    auto result = demo->result();
    ASSERT_TRUE(result) << demo->describe();
    EXPECT_EQ(result->primes, c_primesBelow6e9);
    EXPECT_EQ(result->tasks, 80u);
    EXPECT_EQ(result->workers, 2u);
    EXPECT_EQ(statusOf(victim, message), LSFJobStatus::Exit) << message;

    // The task that the cancelled job was counting either ended with its result (the worker
    // finishes it on SIGTERM) or failed with its process, and was counted again elsewhere.
    const std::string output = jobOutput(victim);
    const size_t signalled = output.find("Received signal 15");
    ASSERT_NE(signalled, std::string::npos) << output;
    std::string task;
    const std::string before = output.substr(0, signalled);
    const std::regex begun("calling doWork\\(\\) for task (\\S+)\\.\\.\\.");
    for (auto it = std::sregex_iterator(before.begin(), before.end(), begun);
         it != std::sregex_iterator(); ++it)
        task = (*it)[1];
    ASSERT_FALSE(task.empty());
    const std::string log = demo->err().text();
    const bool endedWithResult =
        std::regex_search(log, std::regex("Task " + task + " in pool \\S+ ended"));
    const bool failed = std::regex_search(
        log,
        std::regex("Task " + task + " in pool \\S+ was running on worker that has terminated"));
    EXPECT_NE(endedWithResult, failed) << "task " << task;
    EXPECT_EQ(result->failed, failed ? 1u : 0u);
    if (failed) {
        EXPECT_TRUE(std::regex_search(log, std::regex("Task \\d+ failed on 'JobSchedulerWorker_1' "
                                                      "\\(1\\. time\\): No reply before worker "
                                                      "terminated\\.")));
    }
    // The other job counted on after the cancel.
    const std::string other = jobOutput(jobs[0]);
    bool later = false;
    for (const auto& line : linesOf(other))
        if (line.find("Results from worker") != std::string::npos)
            if (auto at = logTime(line))
                later = later || *at > cancelledAt;
    EXPECT_TRUE(later);
    expectAllJobsEnded();
}
