// ks-pool-demo with its workers on this host: the real master and real worker processes, started
// the way a person starts them. Workers are lost by SIGKILL and SIGSTOP, and the master by
// SIGKILL and SIGSTOP, to see each way of noticing a loss at work.
#include "PoolDemoProcesses.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <gtest/gtest.h>

#include <set>
#include <sys/prctl.h>

using namespace Kestrane;
using namespace Kestrane::PoolDemoTesting;

namespace {

using Args = std::vector<std::string>;

// Primes below 2 * 10^6 and below 3 * 10^9.
const unsigned long long c_primesBelow2e6 = 148933ULL;
const unsigned long long c_primesBelow3e9 = 144449537ULL;

const std::regex c_workerLog("ks-pool-demo-\\d+-\\d+\\.log");

// The name of the worker that a worker process ran (one per process with
// --separate-processes); empty while it has not started.
std::string workerNameIn(const std::string& log) {
    std::smatch match;
    static const std::regex started("Starting execution of DistributedWorker '([^']+)'");
    return std::regex_search(log, match, started) ? match[1].str() : std::string();
}

// The task that the log's worker was counting when the log stopped: a doWork() begun and not
// done. Empty when it was between tasks.
std::string taskInWork(const std::string& log) {
    static const std::regex begun("calling doWork\\(\\) for task (\\S+)\\.\\.\\.$");
    static const std::regex done("calling doWork\\(\\) done\\.$");
    std::string task;
    for (const auto& line : linesOf(log)) {
        std::smatch match;
        if (std::regex_search(line, match, begun))
            task = match[1];
        else if (std::regex_search(line, done))
            task.clear();
    }
    return task;
}

size_t countIn(const std::string& text, const std::regex& pattern) {
    return static_cast<size_t>(std::distance(
        std::sregex_iterator(text.begin(), text.end(), pattern), std::sregex_iterator()));
}

// The time of the last stamped line of a log.
std::optional<std::chrono::system_clock::time_point> lastLogTime(const std::string& log) {
    std::optional<std::chrono::system_clock::time_point> last;
    for (const auto& line : linesOf(log))
        if (auto at = logTime(line))
            last = at;
    return last;
}

double secondsBetween(std::chrono::system_clock::time_point from,
                      std::chrono::system_clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

class PoolDemoLocalTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Worker processes orphaned by their master come to this process, which reaps them.
        ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        env.set("KS_PATH_TMP", tmp.path());
        // The checks read INFO lines of the logs.
        env.set("KS_LOG_LEVEL", "INFO");
        // Every online core is there for the workers.
        env.unset("KS_COMPUTATION_CORES");
        env.unset("KS_CONFIG_FILE");
    }
    void TearDown() override {
        // Worker processes still there are ours: their master was started here.
        for (const auto& log : workerLogs())
            killLeftover(log.second);
    }

    std::string serversDirectory() const { return tmp.path() + "/started-servers"; }
    // The worker processes' output files, with the process ids that wrote them.
    std::map<std::string, pid_t> workerLogs() const {
        return pidsOfLogs(serversDirectory(), c_workerLog);
    }
    // Waits until `count` worker processes have written their output file, each with a worker
    // that has begun `tasks` tasks.
    std::map<std::string, pid_t> waitForWorkers(size_t count, size_t tasks,
                                                std::chrono::milliseconds limit = 20000ms) {
        std::map<std::string, pid_t> logs;
        static const std::regex begun("calling doWork\\(\\) for task");
        waitFor(
            [&] {
                logs = workerLogs();
                if (logs.size() < count)
                    return false;
                for (const auto& log : logs)
                    if (countIn(readWholeFile(log.first), begun) < tasks)
                        return false;
                return true;
            },
            limit);
        return logs;
    }

    TestSupport::TempDir tmp;
    ScopedEnvironment env;
};

} // namespace

TEST_F(PoolDemoLocalTest, TwoWorkersInOneProcessCountExactly) {
    DemoRun demo({"--workers", "2", "--below", "2000000", "--tasks", "40"});
    ASSERT_TRUE(demo.started()) << demo.startError();
    ASSERT_EQ(demo.waitForExit(60000ms), 0) << demo.describe();
    auto result = demo.result();
    ASSERT_TRUE(result) << demo.describe();
    EXPECT_EQ(result->primes, c_primesBelow2e6);
    EXPECT_EQ(result->tasks, 40u);
    EXPECT_EQ(result->failed, 0u);
    EXPECT_EQ(result->workers, 2u);
    EXPECT_NE(demo.out().text().find("tasks 40/40 done, 0 running, 0 failed"), std::string::npos)
        << demo.describe();

    // Both workers ran in one process of their own, and between them counted every task once.
    auto logs = workerLogs();
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_NE(logs.begin()->second, demo.pid());
    const std::string log = readWholeFile(logs.begin()->first);
    EXPECT_NE(log.find("Starting execution of DistributedWorker 'worker_localhost_0'"),
              std::string::npos);
    EXPECT_NE(log.find("Starting execution of DistributedWorker 'worker_localhost_1'"),
              std::string::npos);
    EXPECT_EQ(countIn(log, std::regex("Results from worker '[^']+' for task \\S+ sent")), 40u);
}

TEST_F(PoolDemoLocalTest, TwoWorkersInSeparateProcessesCountExactly) {
    DemoRun demo({"--workers", "2", "--below", "2000000", "--tasks", "40", "--separate-processes"});
    ASSERT_TRUE(demo.started()) << demo.startError();
    ASSERT_EQ(demo.waitForExit(60000ms), 0) << demo.describe();
    auto result = demo.result();
    ASSERT_TRUE(result) << demo.describe();
    EXPECT_EQ(result->primes, c_primesBelow2e6);
    EXPECT_EQ(result->tasks, 40u);
    EXPECT_EQ(result->failed, 0u);
    EXPECT_EQ(result->workers, 2u);

    auto logs = workerLogs();
    ASSERT_EQ(logs.size(), 2u);
    std::set<pid_t> pids{demo.pid()};
    std::set<std::string> names;
    size_t results = 0;
    for (const auto& entry : logs) {
        EXPECT_TRUE(pids.insert(entry.second).second) << "pid " << entry.second << " twice";
        const std::string log = readWholeFile(entry.first);
        EXPECT_EQ(countIn(log, std::regex("Starting execution of DistributedWorker")), 1u);
        names.insert(workerNameIn(log));
        results += countIn(log, std::regex("Results from worker '[^']+' for task \\S+ sent"));
    }
    EXPECT_EQ(names, (std::set<std::string>{"worker_localhost_0", "worker_localhost_1"}));
    EXPECT_EQ(results, 40u);
}

namespace {

// Runs a short count `runs` times, in turn with separate worker processes and with one, and
// expects every worker process to be gone within 3 s of its master's end. Whether anything is
// left to hold a worker depends on a race (see below), hence the several runs.
void expectWorkerProcessesEndWithTheirMaster(ScopedEnvironment& env, int runs) {
    for (int run = 0; run < runs; ++run) {
        const bool separate = run % 2 == 0;
        SCOPED_TRACE("run " + std::to_string(run + 1) +
                     (separate ? ", separate processes" : ", one process"));
        TestSupport::TempDir runTmp;
        env.set("KS_PATH_TMP", runTmp.path());
        Args args{"--workers", "2", "--below", "2000000", "--tasks", "40"};
        if (separate)
            args.push_back("--separate-processes");
        DemoRun demo(args);
        ASSERT_TRUE(demo.started()) << demo.startError();
        ASSERT_EQ(demo.waitForExit(60000ms), 0) << demo.describe();
        auto logs = pidsOfLogs(runTmp.path() + "/started-servers", c_workerLog);
        ASSERT_EQ(logs.size(), separate ? 2u : 1u);
        for (const auto& entry : logs) {
            const bool ended = waitFor([&] { return processEnded(entry.second); }, 3000ms);
            EXPECT_TRUE(ended) << "worker process " << entry.second
                               << " still runs 3 s after its master ended; its last line:\n"
                               << linesOf(readWholeFile(entry.first)).back();
            if (ended) {
                EXPECT_NE(readWholeFile(entry.first).find("ks-pool-demo worker process stopped."),
                          std::string::npos);
            }
            killLeftover(entry.second);
        }
    }
}

} // namespace

// A worker's run request is aborted when its master stops the pool; the reply of that run
// request may find the master gone. A server told to shut down tries the rest of the reply at once
// instead of waiting between attempts, so the worker process ends with its master.
TEST_F(PoolDemoLocalTest, WorkerProcessesEndWithinSecondsOfTheirMaster) {
    expectWorkerProcessesEndWithTheirMaster(env, 12);
}

// Without waits between reply attempts (KS_SEND_REPLY_RETRY_DELAY=0) nothing else holds a
// worker process once its master has ended: the rest of the stop is complete.
TEST_F(PoolDemoLocalTest, WorkerProcessesEndWithTheirMasterWhenRepliesAreNotRetriedLater) {
    env.set("KS_SEND_REPLY_RETRY_DELAY", "0");
    expectWorkerProcessesEndWithTheirMaster(env, 8);
}

TEST_F(PoolDemoLocalTest, WorkerKilledBySigkillFailsItsTaskAndTheOtherCarriesOn) {
    // Only the end of the process tells: no heartbeat limits, the ping every second.
    env.set("KS_POOL_DEMO_WORKER_MAX_ALIVE_AGE", "0");
    env.set("KS_POOL_DEMO_WORKER_MAX_CHANGE_AGE", "0");
    env.set("KS_LOCAL_R_PING_INTERVAL_SEC", "1");
    // 40 tasks of 75 million numbers: about 0.1 s each, for about 3 s on two cores.
    DemoRun demo({"--separate-processes", "--workers", "2", "--kill-a-worker-after", "1", "--below",
                  "3000000000", "--tasks", "40"});
    ASSERT_TRUE(demo.started()) << demo.startError();
    auto killed =
        demo.out().waitFor(std::regex("^Killed worker process (\\d+) \\(SIGKILL\\)\\.$"), 30000ms);
    ASSERT_TRUE(killed) << demo.describe();
    const pid_t pid = static_cast<pid_t>(std::stol(killed->text.substr(22)));
    ASSERT_EQ(demo.waitForExit(120000ms), 0) << demo.describe();
    auto result = demo.result();
    ASSERT_TRUE(result) << demo.describe();
    // Work was left after the kill, or the kill proves nothing.
    EXPECT_GT(result->seconds, 2.0) << "this machine is too fast for the test's amount of work";
    EXPECT_EQ(result->primes, c_primesBelow3e9);
    EXPECT_EQ(result->tasks, 40u);
    EXPECT_EQ(result->workers, 2u);

    std::string killedLog, otherLog;
    for (const auto& entry : workerLogs())
        (entry.second == pid ? killedLog : otherLog) = readWholeFile(entry.first);
    ASSERT_FALSE(killedLog.empty()) << "no output file of process " << pid;
    ASSERT_FALSE(otherLog.empty());
    EXPECT_TRUE(processEnded(pid));
    const std::string name = workerNameIn(killedLog);
    ASSERT_FALSE(name.empty());
    const std::string log = demo.err().text();

    // What the killed worker was counting, as its output file stopped.
    const std::string task = taskInWork(killedLog);
    if (task.empty()) {
        // Killed between two tasks (rare with tasks of 0.1 s): nothing to fail.
        std::printf("The killed worker was between tasks.\n");
        EXPECT_EQ(result->failed, 0u);
        EXPECT_NE(log.find("No tasks running on worker " + name), std::string::npos);
        return;
    }
    EXPECT_EQ(result->failed, 1u);
    auto warned = demo.err().find(std::regex(" WARN .* Task " + task +
                                             " in pool \\S+ was running on worker that has "
                                             "terminated$"));
    ASSERT_TRUE(warned) << demo.describe();
    EXPECT_TRUE(std::regex_search(log, std::regex(" WARN .* Task \\d+ failed on '" + name +
                                                  "' \\(1\\. time\\): No reply before worker "
                                                  "terminated\\.\n")))
        << demo.describe();

    // Noticed soon: the log's own times, from the killed worker's last line on.
    auto lastSign = lastLogTime(killedLog);
    auto noticed = logTime(warned->text);
    ASSERT_TRUE(lastSign && noticed);
    const double delay = secondsBetween(*lastSign, *noticed);
    std::printf("SIGKILL of %s noticed within %.2f s\n", name.c_str(), delay);
    EXPECT_LT(delay, 3.0);

    // The other worker counted on after the loss was noticed.
    bool laterResult = false;
    for (const auto& line : linesOf(otherLog))
        if (line.find("Results from worker") != std::string::npos)
            if (auto at = logTime(line))
                laterResult = laterResult || *at > *noticed;
    EXPECT_TRUE(laterResult);
}

TEST_F(PoolDemoLocalTest, WorkerStoppedBySigstopIsGivenUpByItsHeartbeat) {
    env.set("KS_POOL_DEMO_WORKER_MAX_ALIVE_AGE", "2");
    // The pings come too late to act: only the heartbeat can.
    env.set("KS_LOCAL_R_PING_INTERVAL_SEC", "600");
    env.set("KS_R_PING_INTERVAL_SEC", "600");
    // A stopped process takes connections but never answers: the master's shutdown request to
    // it gives up after that long.
    env.set("KS_SOCKET_TIMEOUT", "3");
    DemoRun demo(
        {"--separate-processes", "--workers", "2", "--below", "3000000000", "--tasks", "40"});
    ASSERT_TRUE(demo.started()) << demo.startError();
    auto logs = waitForWorkers(2, 2);
    ASSERT_EQ(logs.size(), 2u) << demo.describe();
    const std::string file = logs.begin()->first;
    const pid_t pid = logs.begin()->second;

    // Stopped in the middle of a task, so that the pool has a task to fail.
    std::string task;
    for (int attempt = 0; attempt < 50 && task.empty(); ++attempt) {
        ASSERT_EQ(::kill(pid, SIGSTOP), 0);
        ASSERT_TRUE(waitFor([&] { return processState(pid) == 'T'; }, 2000ms, 1ms));
        task = taskInWork(readWholeFile(file));
        if (task.empty()) {
            ::kill(pid, SIGCONT);
            std::this_thread::sleep_for(10ms);
        }
    }
    const auto stopped = Clock::now();
    ASSERT_FALSE(task.empty()) << "the worker was never caught counting";
    const std::string name = workerNameIn(readWholeFile(file));
    ASSERT_FALSE(name.empty());

    auto warned =
        demo.err().waitFor(std::regex(" WARN .* Max alive message age exceeded for worker " + name +
                                      " \\(\\d+ > 2\\)$"),
                           20000ms);
    ASSERT_TRUE(warned) << demo.describe();
    const double delay = secondsBetween(stopped, warned->at);
    std::printf("SIGSTOP of %s noticed after %.2f s\n", name.c_str(), delay);
    // Older than 2 s is seen at a check after 3 s; the heartbeat's own second comes on top.
    EXPECT_GT(delay, 1.5);
    EXPECT_LT(delay, 6.0);
    EXPECT_TRUE(demo.err().waitFor(std::regex(" WARN .* Task " + task +
                                              " in pool \\S+ was running on worker that is not "
                                              "responding$"),
                                   5000ms))
        << demo.describe();
    EXPECT_TRUE(demo.err().waitFor(
        std::regex(" WARN .* Task \\d+ failed on '" + name +
                   "' \\(1\\. time\\): Worker is not running anymore \\(no alive messages for "
                   "[34]s, limit is 2s\\)$"),
        5000ms))
        << demo.describe();

    ASSERT_EQ(demo.waitForExit(120000ms), 0) << demo.describe();
    auto result = demo.result();
    ASSERT_TRUE(result) << demo.describe();
    EXPECT_EQ(result->primes, c_primesBelow3e9);
    EXPECT_EQ(result->tasks, 40u);
    EXPECT_EQ(result->failed, 1u);
    EXPECT_EQ(result->workers, 2u);
    // The pool gave the process up but could not end it: it is still stopped, and ours to end.
    EXPECT_EQ(processState(pid), 'T');
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    EXPECT_TRUE(waitFor([&] { return processEnded(pid); }, 2000ms, 5ms));
}

namespace {

// Ends (SIGKILL) or stops (SIGSTOP) the master of a big count once its workers are at work, and
// watches each worker process end by itself: "FATAL ... Orvel main not running anymore! Killing
// process..." once, then exit code 1 after a grace of 10 s. A stopped master can't reap them:
// they stay zombies whose exit code /proc tells, and come to this process when the master is
// killed at the end; the workers of a killed master come to this process at once.
void expectWorkersEndWhenTheirMasterIsLost(DemoRun& demo, const std::map<std::string, pid_t>& logs,
                                           int signal, double fatalWithin) {
    ASSERT_TRUE(demo.process().kill(signal));
    const auto lost = Clock::now();
    if (signal == SIGKILL) {
        EXPECT_EQ(demo.waitForExit(5000ms), 128 + SIGKILL);
    }
    static const std::regex fatal(
        " FATAL .* Orvel main not running anymore! Killing process\\.\\.\\.");
    // All processes are watched at once: each one's times count from its own lines.
    struct Watch {
        std::optional<Clock::time_point> fatalSeen;
        std::optional<Clock::time_point> endSeen;
        std::optional<int> code;
    };
    std::map<pid_t, Watch> watches;
    waitFor(
        [&] {
            bool all = true;
            for (const auto& entry : logs) {
                const pid_t pid = entry.second;
                Watch& watch = watches[pid];
                if (!watch.fatalSeen && std::regex_search(readWholeFile(entry.first), fatal))
                    watch.fatalSeen = Clock::now();
                if (!watch.code) {
                    int status = 0;
                    if (::waitpid(pid, &status, WNOHANG) == pid)
                        watch.code =
                            WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                    else
                        watch.code = zombieExitCode(pid);
                    if (watch.code)
                        watch.endSeen = Clock::now();
                }
                all = all && watch.code.has_value();
            }
            return all;
        },
        std::chrono::milliseconds(static_cast<int>(fatalWithin * 1000) + 15000), 10ms);
    for (const auto& entry : logs) {
        const pid_t pid = entry.second;
        SCOPED_TRACE("worker process " + std::to_string(pid));
        const Watch& watch = watches[pid];
        ASSERT_TRUE(watch.fatalSeen) << readWholeFile(entry.first);
        std::printf("FATAL of process %d %.2f s after its master was lost\n", static_cast<int>(pid),
                    secondsBetween(lost, *watch.fatalSeen));
        EXPECT_LT(secondsBetween(lost, *watch.fatalSeen), fatalWithin);
        ASSERT_TRUE(watch.code) << "still running";
        const double grace = secondsBetween(*watch.fatalSeen, *watch.endSeen);
        std::printf("process %d ended %.2f s after its FATAL line, exit code %d\n",
                    static_cast<int>(pid), grace, *watch.code);
        EXPECT_GT(grace, 9.0);
        EXPECT_LT(grace, 11.5);
        EXPECT_EQ(watch.code, std::optional<int>(1));
        EXPECT_EQ(countIn(readWholeFile(entry.first), fatal), 1u);
    }
    if (signal != SIGSTOP)
        return;
    ASSERT_TRUE(demo.process().kill(SIGKILL));
    EXPECT_EQ(demo.waitForExit(5000ms), 128 + SIGKILL);
    // Now this process's children: their exit code once more, from waitpid.
    for (const auto& entry : logs) {
        int status = 0;
        ASSERT_TRUE(
            waitFor([&] { return ::waitpid(entry.second, &status, WNOHANG) == entry.second; },
                    2000ms, 5ms));
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 1);
    }
}

} // namespace

TEST_F(PoolDemoLocalTest, WorkerProcessesEndWhenTheirMasterIsKilled) {
    env.set("KS_POOL_DEMO_POOL_MAX_ALIVE_AGE", "2");
    // Far more than the test's time: the count never ends by itself.
    DemoRun demo(
        {"--separate-processes", "--workers", "2", "--below", "9000000000", "--tasks", "900"});
    ASSERT_TRUE(demo.started()) << demo.startError();
    auto logs = waitForWorkers(2, 1);
    ASSERT_EQ(logs.size(), 2u) << demo.describe();
    // Older than 2 s is seen at a check after 3 s, plus up to a second of heartbeat.
    expectWorkersEndWhenTheirMasterIsLost(demo, logs, SIGKILL, 5.0);
}

TEST_F(PoolDemoLocalTest, TwoWorkersOfOneProcessShareOneWatchOfTheirMaster) {
    env.set("KS_POOL_DEMO_POOL_MAX_ALIVE_AGE", "2");
    DemoRun demo({"--workers", "2", "--below", "9000000000", "--tasks", "900"});
    ASSERT_TRUE(demo.started()) << demo.startError();
    auto logs = waitForWorkers(1, 2);
    ASSERT_EQ(logs.size(), 1u) << demo.describe();
    const std::string log = readWholeFile(logs.begin()->first);
    ASSERT_NE(log.find("Starting execution of DistributedWorker 'worker_localhost_1'"),
              std::string::npos);
    ASSERT_NE(log.find("Starting execution of DistributedWorker 'worker_localhost_0'"),
              std::string::npos);
    expectWorkersEndWhenTheirMasterIsLost(demo, logs, SIGKILL, 5.0);
}

// A stopped master takes connections but answers nothing. Its workers' requests to it give up
// after a socket timeout of 1 s here, so that nothing they send it waits long.
TEST_F(PoolDemoLocalTest, WorkerProcessesEndWhenTheirMasterStopsHeartbeating) {
    env.set("KS_POOL_DEMO_POOL_MAX_ALIVE_AGE", "2");
    env.set("KS_SOCKET_TIMEOUT", "1");
    DemoRun demo(
        {"--separate-processes", "--workers", "2", "--below", "9000000000", "--tasks", "900"});
    ASSERT_TRUE(demo.started()) << demo.startError();
    auto logs = waitForWorkers(2, 1);
    ASSERT_EQ(logs.size(), 2u) << demo.describe();
    expectWorkersEndWhenTheirMasterIsLost(demo, logs, SIGSTOP, 10.0);
}

// With the default socket timeout (300 s): the stop of a worker must not wait for its abort of
// the open request at a master that does not answer, so the FATAL line follows the watch's
// warning at once.
TEST_F(PoolDemoLocalTest, WorkerProcessesEndSoonWhenTheirMasterStopsHeartbeating) {
    env.set("KS_POOL_DEMO_POOL_MAX_ALIVE_AGE", "2");
    DemoRun demo(
        {"--separate-processes", "--workers", "2", "--below", "9000000000", "--tasks", "900"});
    ASSERT_TRUE(demo.started()) << demo.startError();
    auto logs = waitForWorkers(2, 1);
    ASSERT_EQ(logs.size(), 2u) << demo.describe();
    expectWorkersEndWhenTheirMasterIsLost(demo, logs, SIGSTOP, 5.0);
}

// SIGTERM (a person's kill, Slurm's scancel) stops the process's workers, whose run requests then
// reply, and the server: the master goes on with its other worker.
TEST_F(PoolDemoLocalTest, WorkerProcessEndsOnSigterm) {
    DemoRun demo(
        {"--separate-processes", "--workers", "2", "--below", "3000000000", "--tasks", "40"});
    ASSERT_TRUE(demo.started()) << demo.startError();
    auto logs = waitForWorkers(2, 2);
    ASSERT_EQ(logs.size(), 2u) << demo.describe();
    const pid_t pid = logs.begin()->second;
    ASSERT_EQ(::kill(pid, SIGTERM), 0);
    EXPECT_TRUE(waitFor(
        [&] {
            return readWholeFile(logs.begin()->first)
                       .find("Received signal 15, stopping the worker process") !=
                   std::string::npos;
        },
        2000ms));
    EXPECT_TRUE(waitFor([&] { return processEnded(pid); }, 5000ms))
        << "the worker process still runs 5 s after SIGTERM";
    ASSERT_EQ(demo.waitForExit(30000ms), 0) << demo.describe();
    auto result = demo.result();
    ASSERT_TRUE(result) << demo.describe();
    EXPECT_EQ(result->primes, c_primesBelow3e9);
}
