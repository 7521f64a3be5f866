// The pool's side of the worker protocol, driven directly: input requests, results, callbacks and
// lost workers come in as the request handler would pass them, made from XML.
#include "DistributedWorkerTestSupport.h"
#include "ServerTestPeers.h"

#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerCallbackRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerPool.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/CoresStatus.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobRemoveLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceKey.h"
#include "Platform/RemoteComputation/TestSupport/FakeLsf.h"
#include "Platform/RemoteComputation/TestSupport/RemoteServiceProcess.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

class DistributedWorkerPoolTest : public DistributedWorkerTest {
protected:
    static PoolOptions withLimit(unsigned int maxParallelTasks, unsigned int inputWaitMs = 0) {
        PoolOptions options;
        options.settings.setMaxParallelTasks(maxParallelTasks);
        options.inputWaitMs = inputWaitMs;
        return options;
    }

    static std::shared_ptr<Reply> fetch(TestPool& pool, const std::string& worker) {
        auto request = inputRequest(pool.getId(), worker);
        auto reply = decodeReply(pool.getInput(request.get()));
        EXPECT_NE(reply, nullptr);
        if (reply) {
            EXPECT_EQ(reply->getType(), pool.getInputReplyType());
            EXPECT_EQ(reply->getRequestId(), request->getId());
        }
        return reply;
    }

    static std::string statusOf(const std::shared_ptr<Reply>& reply) {
        return reply ? reply->getElement("status") : std::string("<no reply>");
    }
};

} // namespace

// ---- handing out tasks ----

TEST_F(DistributedWorkerPoolTest, EmptyPoolWithoutLongPollRepliesWaitAtOnce) {
    TestPool pool(withLimit(0, 0));
    const auto start = Clock::now();
    auto reply = fetch(pool, "worker_a");
    EXPECT_LT(millisecondsSince(start), 500);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getElement("status"), "WAIT");
    EXPECT_FALSE(reply->hasElement("taskId"));
    EXPECT_TRUE(capture.contains(LogLevel::Info, "No tasks available"));
    EXPECT_EQ(pool.getRunningTaskCount(), 0u);
}

TEST_F(DistributedWorkerPoolTest, LimitZeroNeverHoldsBackTasks) {
    TestPool pool(withLimit(0));
    std::vector<std::shared_ptr<TestTask>> tasks;
    for (int i = 0; i < 6; ++i) {
        tasks.push_back(std::make_shared<TestTask>(i));
        pool.addTask(tasks.back());
    }
    for (int i = 0; i < 6; ++i) {
        auto reply = fetch(pool, "worker_" + std::to_string(i));
        EXPECT_EQ(statusOf(reply), "OK");
    }
    EXPECT_EQ(pool.getRunningTaskCount(), 6u);
    EXPECT_EQ(pool.getWaitingTaskCount(), 0u);
    EXPECT_FALSE(capture.containsSubstring("Maximal number of parallel running tasks reached ("));
}

TEST_F(DistributedWorkerPoolTest, LimitTwoLeavesTheThirdTaskWaiting) {
    TestPool pool(withLimit(2));
    auto first = std::make_shared<TestTask>(1);
    auto second = std::make_shared<TestTask>(2);
    auto third = std::make_shared<TestTask>(3);
    pool.addTask(first);
    pool.addTask(second);
    pool.addTask(third);
    EXPECT_EQ(fetch(pool, "worker_a")->getElement("taskId"), first->getId());
    EXPECT_EQ(fetch(pool, "worker_b")->getElement("taskId"), second->getId());

    auto held = fetch(pool, "worker_c");
    EXPECT_EQ(statusOf(held), "WAIT");
    EXPECT_FALSE(held->hasElement("taskId"));
    EXPECT_TRUE(
        capture.contains(LogLevel::Info, "Maximal number of parallel running tasks reached (2/2)"));
    EXPECT_EQ(pool.getWaitingTaskCount(), 1u);
    EXPECT_EQ(pool.getRunningTaskCount(), 2u);

    // Once a task has ended, the held one is next.
    auto result = resultRequest(pool.getId(), first->getId(), "OK");
    EXPECT_EQ(pool.taskEnded(result.get()), first);
    auto next = fetch(pool, "worker_c");
    EXPECT_EQ(statusOf(next), "OK");
    EXPECT_EQ(next->getElement("taskId"), third->getId());
    EXPECT_EQ(pool.getWaitingTaskCount(), 0u);
}

TEST_F(DistributedWorkerPoolTest, TasksGoOutInTheOrderTheyWereAdded) {
    TestPool pool;
    std::vector<std::shared_ptr<TestTask>> tasks;
    for (int number : {40, 7, 23, 1, 99}) {
        tasks.push_back(std::make_shared<TestTask>(number));
        pool.addTask(tasks.back());
    }
    for (const auto& task : tasks) {
        auto reply = fetch(pool, "worker_a");
        ASSERT_EQ(statusOf(reply), "OK");
        EXPECT_EQ(reply->getElement("taskId"), task->getId());
        EXPECT_EQ(reply->getElement("payload"), "task " + std::to_string(task->getTask4UId()));
        EXPECT_TRUE(capture.contains(LogLevel::Info, "Starting task " + task->getId() +
                                                         " in pool " + pool.getId()));
    }
}

TEST_F(DistributedWorkerPoolTest, ResultOfAWorkerThatWasGivenUpChangesNothing) {
    TestPool pool;
    auto lost = std::make_shared<TestTask>(5);
    auto other = std::make_shared<TestTask>(6);
    pool.addTask(lost);
    pool.addTask(other);
    ASSERT_EQ(fetch(pool, "worker_lost")->getElement("taskId"), lost->getId());
    ASSERT_EQ(fetch(pool, "worker_fine")->getElement("taskId"), other->getId());

    pool.slotWorkerNotResponding("worker_lost", "no heartbeat for a while");
    EXPECT_TRUE(capture.contains(LogLevel::Warn,
                                 "Worker worker_lost not respoding: no heartbeat for a while"));
    auto failures = pool.getFailures();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].task, lost);
    EXPECT_EQ(failures[0].worker, "worker_lost");
    EXPECT_EQ(failures[0].reason, "no heartbeat for a while");
    EXPECT_EQ(pool.getRunningTaskCount(), 1u);

    capture.clear();
    auto late = resultRequest(pool.getId(), lost->getId(), "OK");
    auto ack = decodeReply(pool.handleResult(*late));
    ASSERT_NE(ack, nullptr);
    EXPECT_EQ(ack->getType(), "AckReply");
    auto results = pool.getResults();
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].taskId, lost->getId());
    EXPECT_EQ(results[0].endedTask, nullptr);
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Task " + lost->getId() + " was not running!"));
    EXPECT_EQ(pool.getRunningTaskCount(), 1u);
    EXPECT_EQ(pool.getWaitingTaskCount(), 0u);
    EXPECT_EQ(pool.getFailures().size(), 1u);

    // The other worker's task is still its own.
    auto fine = resultRequest(pool.getId(), other->getId(), "OK");
    EXPECT_EQ(pool.taskEnded(fine.get()), other);
    EXPECT_EQ(pool.getRunningTaskCount(), 0u);
}

TEST_F(DistributedWorkerPoolTest, WorkerGivenUpWithoutATaskFailsNothing) {
    TestPool pool;
    pool.slotWorkerNotResponding("worker_idle", "gone");
    EXPECT_TRUE(capture.contains(LogLevel::Info, "No tasks running on worker worker_idle"));
    EXPECT_TRUE(pool.getFailures().empty());
}

TEST_F(DistributedWorkerPoolTest, WaitForAllTasksReturnsAtOnceWithoutTasks) {
    TestPool pool;
    const auto start = Clock::now();
    auto waited = std::async(std::launch::async, [&] { pool.waitForAllTasks(); });
    EXPECT_EQ(waited.wait_for(2s), std::future_status::ready);
    // Not even one of its 200 ms looks.
    EXPECT_LT(millisecondsSince(start), 150);
}

TEST_F(DistributedWorkerPoolTest, WaitForAllTasksWaitsForAResultOnItsWayToTheProgram) {
    TestPool pool;
    auto task = std::make_shared<TestTask>(1);
    pool.addTask(task);
    ASSERT_EQ(statusOf(fetch(pool, "worker_a")), "OK");
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> taking{false};
    pool.whileTakingResult = [&] {
        taking = true;
        released.wait();
    };
    auto result = resultRequest(pool.getId(), task->getId(), "OK");
    auto delivery = std::async(std::launch::async, [&] { return pool.handleResult(*result); });
    ASSERT_TRUE(eventually([&] { return taking.load(); }, 2000ms));
    EXPECT_EQ(pool.getRunningTaskCount(), 0u);

    // The task is no longer running, but the program has not taken its result yet.
    auto waited = std::async(std::launch::async, [&] { pool.waitForAllTasks(); });
    EXPECT_EQ(waited.wait_for(400ms), std::future_status::timeout);
    release.set_value();
    EXPECT_EQ(waited.wait_for(2s), std::future_status::ready);
    EXPECT_NE(delivery.get(), nullptr);
    EXPECT_EQ(pool.getResults().size(), 1u);
}

TEST_F(DistributedWorkerPoolTest, InputThatThrowsFailsTheTaskAndKeepsTheWorker) {
    TestPool pool;
    auto jobLog = std::make_shared<RecordingJobLog>();
    pool.setJobLog(jobLog);
    const std::string text = "input file <missing> & unreadable";
    auto task = std::make_shared<TestTask>(7);
    task->throwOnInput = [text] { throw std::runtime_error(text); };
    pool.addTask(task);

    auto reply = fetch(pool, "worker_a");
    EXPECT_EQ(statusOf(reply), "WAIT");
    EXPECT_FALSE(reply->hasElement("taskId"));
    auto failures = pool.getFailures();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].task, task);
    EXPECT_EQ(failures[0].worker, "worker_a");
    EXPECT_EQ(failures[0].reason, "Exception while getting input:\n" + text);
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Exception while getting worker input for task " +
                                                      task->getId() + ":\n" + text));
    EXPECT_TRUE(jobLog->contains("\nException while getting input for task 7 for testWorker:\n" +
                                 text + "\n"));
    EXPECT_EQ(pool.getRunningTaskCount(), 0u);
    EXPECT_EQ(pool.getWaitingTaskCount(), 0u);
}

TEST_F(DistributedWorkerPoolTest, InputThatThrowsSomethingElseIsAnUnknownException) {
    TestPool pool;
    auto task = std::make_shared<TestTask>(8);
    task->throwOnInput = [] { throw 42; };
    pool.addTask(task);
    EXPECT_EQ(statusOf(fetch(pool, "worker_a")), "WAIT");
    auto failures = pool.getFailures();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].reason, "Exception while getting input:\nUnknown exception");
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Exception while getting worker input for task " +
                                                      task->getId() + ":\nUnknown exception"));
}

TEST_F(DistributedWorkerPoolTest, DummyTaskStopsTheWorker) {
    TestPool pool;
    pool.addTask(std::make_shared<TestTask>(1, true));
    auto reply = fetch(pool, "worker_a");
    EXPECT_EQ(statusOf(reply), "STOP");
    EXPECT_FALSE(reply->hasElement("taskId"));
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Dummy task in pool " + pool.getId()));
    EXPECT_TRUE(pool.getFailures().empty());
}

// A dummy task stops exactly one worker: it stays running, bound to that worker, and ends with
// the worker, through the same road as a task of a lost worker.
TEST_F(DistributedWorkerPoolTest, DummyTaskStaysRunningUntilItsWorkerEnds) {
    TestPool pool;
    auto dummy = std::make_shared<TestTask>(1, true);
    pool.addTask(dummy);
    EXPECT_EQ(statusOf(fetch(pool, "worker_a")), "STOP");
    EXPECT_EQ(pool.getRunningTaskCount(), 1u);
    EXPECT_TRUE(pool.getFailures().empty());
    // The stopped worker goes away.
    pool.slotWorkerNotResponding("worker_a", "worker ended");
    EXPECT_EQ(pool.getRunningTaskCount(), 0u);
    auto failures = pool.getFailures();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].task, dummy);
    EXPECT_EQ(failures[0].worker, "worker_a");
    EXPECT_EQ(failures[0].reason, "worker ended");
}

// ---- long poll ----

TEST_F(DistributedWorkerPoolTest, LongPollOnAnEmptyPoolWaitsForTheInterval) {
    TestPool pool(withLimit(0, 800));
    const auto start = Clock::now();
    auto reply = fetch(pool, "worker_a");
    const auto waited = millisecondsSince(start);
    EXPECT_EQ(statusOf(reply), "WAIT");
    EXPECT_GE(waited, 780);
    EXPECT_LT(waited, 1800);
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Waiting for new task (800ms)..."));
}

TEST_F(DistributedWorkerPoolTest, LongPollAnswersAtOnceWhenATaskArrives) {
    TestPool pool(withLimit(0, 5000));
    auto task = std::make_shared<TestTask>(3);
    const auto start = Clock::now();
    std::thread adder([&] {
        std::this_thread::sleep_for(200ms);
        pool.addTask(task);
    });
    auto reply = fetch(pool, "worker_a");
    const auto waited = millisecondsSince(start);
    adder.join();
    EXPECT_EQ(statusOf(reply), "OK");
    EXPECT_EQ(reply->getElement("taskId"), task->getId());
    EXPECT_GE(waited, 150);
    EXPECT_LT(waited, 2000);
}

TEST_F(DistributedWorkerPoolTest, StopWorkersDuringALongPollRepliesStop) {
    TestPool pool(withLimit(0, 5000));
    const auto start = Clock::now();
    std::thread stopper([&] {
        std::this_thread::sleep_for(200ms);
        pool.stopWorkers();
    });
    auto reply = fetch(pool, "worker_a");
    const auto waited = millisecondsSince(start);
    stopper.join();
    EXPECT_EQ(statusOf(reply), "STOP");
    EXPECT_GE(waited, 150);
    EXPECT_LT(waited, 2000);
    EXPECT_TRUE(capture.contains(LogLevel::Info, "No more waiting tasks in pool " + pool.getId()));
    // Later requests are told the same at once.
    EXPECT_EQ(statusOf(fetch(pool, "worker_b")), "STOP");
}

// ---- life and registry ----

TEST_F(DistributedWorkerPoolTest, PoolIsFoundByItsIdWhileItLives) {
    std::string id;
    {
        PoolOptions options;
        options.jobName = "registryJob";
        TestPool pool(options);
        id = pool.getId();
        EXPECT_FALSE(id.empty());
        EXPECT_TRUE(capture.contains(LogLevel::Info, "Created DistributedWorkerPool " + id +
                                                         " for job registryJob"));
        EXPECT_EQ(DistributedWorkerPool::getExistingPool(id), &pool);
        TestPool other;
        EXPECT_NE(other.getId(), id);
        EXPECT_EQ(DistributedWorkerPool::getExistingPool(other.getId()), &other);
    }
    EXPECT_EQ(DistributedWorkerPool::getExistingPool(id), nullptr);
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Deleted DistributedWorkerPool " + id));
}

TEST_F(DistributedWorkerPoolTest, PoolOutlivesTheProtocolCallsUnderWayInIt) {
    auto pool = std::make_unique<TestPool>();
    std::atomic<bool> inputDone{false};
    auto task = std::make_shared<TestTask>(1);
    task->throwOnInput = [&] {
        std::this_thread::sleep_for(300ms);
        inputDone = true;
    };
    pool->addTask(task);
    auto request = inputRequest(pool->getId(), "worker_a");
    auto call = std::async(std::launch::async, [&] {
        return DistributedWorkerRequestHandler::getInstance()->handle(request.get());
    });
    const auto deadline = Clock::now() + 2s;
    while (pool->getRunningTaskCount() == 0 && Clock::now() < deadline)
        std::this_thread::sleep_for(5ms);
    ASSERT_EQ(pool->getRunningTaskCount(), 1u);
    pool.reset();
    EXPECT_TRUE(inputDone) << "the pool was destroyed while a call was still inside it";
    EXPECT_NE(call.get(), nullptr);
}

// ---- starting workers on hosts ----

TEST_F(DistributedWorkerPoolTest, HostWhoseCoresCannotBeReadIsSkipped) {
    // With a key the cores are really asked for; nothing listens at the port.
    std::string keyMessage;
    ASSERT_TRUE(RemoteServiceKey::create(tmp.file("service.key"), keyMessage)) << keyMessage;
    setSetting("remoteServiceKeyFile", tmp.file("service.key"));
    const int port = closedPort();
    unsigned int cores = 0, freeCores = 0;
    std::string message;
    ASSERT_FALSE(Computing::CoresStatus("127.0.0.1", port).get(cores, freeCores, message));
    ASSERT_EQ(
        message.rfind(
            "Cannot talk to the remote service at 127.0.0.1:" + std::to_string(port) + ": ", 0),
        0u)
        << message;

    PoolOptions options;
    options.settings.addWorkerHost("127.0.0.1", static_cast<unsigned int>(port), 0);
    TestPool pool(options);
    auto jobLog = std::make_shared<RecordingJobLog>();
    pool.setJobLog(jobLog);
    EXPECT_FALSE(pool.startWorkers());
    EXPECT_TRUE(capture.contains(
        LogLevel::Warn, "Error getting numer of cores from '127.0.0.1:" + std::to_string(port) +
                            "' (" + message + ")."));
    EXPECT_TRUE(
        jobLog->contains("Warning: no workers can be started on 127.0.0.1 (" + message + ").\n"));
    EXPECT_TRUE(jobLog->contains("Error: no testWorkers could be started\n\n"));
    EXPECT_EQ(pool.getWorkerProcessCount(), 0u);
    EXPECT_EQ(pool.getWorkerCount(), 0u);
    EXPECT_EQ(pool.getStartedWorkerCount(), 0u);
}

TEST_F(DistributedWorkerPoolTest, SeparateProcessesAreSpreadOverTheHostsInRounds) {
    // The starts fail at once (no key), which leaves their order in the job log.
    setSetting("remoteServiceKeyFile", tmp.file("no-such.key"));
    const unsigned int port = static_cast<unsigned int>(closedPort());
    PoolOptions options;
    // Two names of this host; the settings order the hosts by name.
    options.settings.addWorkerHost("127.0.0.1", port, 3);
    options.settings.addWorkerHost("127.1", port, 1);
    options.separateProcesses = true;
    TestPool pool(options);
    auto jobLog = std::make_shared<RecordingJobLog>();
    pool.setJobLog(jobLog);
    EXPECT_FALSE(pool.startWorkers());

    auto messages = capture.messages(LogLevel::Trace);
    int position = 0;
    for (const char* expected : {"Creating request client for worker 3 on 127.0.0.1",
                                 "Creating request client for worker 1 on 127.1",
                                 "Creating request client for worker 2 on 127.0.0.1",
                                 "Creating request client for worker 1 on 127.0.0.1"}) {
        int found = indexOfMessage(messages, expected, static_cast<size_t>(position));
        EXPECT_GE(found, 0) << expected;
        position = found < 0 ? position : found + 1;
    }

    // The processes are named in creation order, and started in it.
    std::vector<std::string> attempts;
    for (const auto& line : jobLog->all())
        if (line.rfind("Error starting testWorker on ", 0) == 0)
            attempts.push_back(line.substr(0, line.find('!')));
    EXPECT_EQ(attempts, (std::vector<std::string>{"Error starting testWorker on 127.0.0.1_0",
                                                  "Error starting testWorker on 127.1_1",
                                                  "Error starting testWorker on 127.0.0.1_2",
                                                  "Error starting testWorker on 127.0.0.1_3"}));
    EXPECT_TRUE(jobLog->contains("Starting 3 testWorkers on 127.0.0.1...\n"));
    EXPECT_TRUE(jobLog->contains("Starting 1 testWorker on 127.1...\n"));
    EXPECT_TRUE(jobLog->contains("Error: no testWorkers could be started\n\n"));
    EXPECT_EQ(pool.getWorkerProcessCount(), 0u);
}

TEST_F(DistributedWorkerPoolTest, SharedProcessesTakeOneProcessPerHost) {
    setSetting("remoteServiceKeyFile", tmp.file("no-such.key"));
    const unsigned int port = static_cast<unsigned int>(closedPort());
    PoolOptions options;
    options.settings.addWorkerHost("127.0.0.1", port, 2);
    options.settings.addWorkerHost("127.1", port, 1);
    TestPool pool(options);
    auto jobLog = std::make_shared<RecordingJobLog>();
    pool.setJobLog(jobLog);
    EXPECT_FALSE(pool.startWorkers());
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, "Creating request client for 2 workers on 127.0.0.1"));
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, "Creating request client for 1 workers on 127.1"));
    std::vector<std::string> attempts;
    for (const auto& line : jobLog->all())
        if (line.rfind("Error starting testWorker on ", 0) == 0)
            attempts.push_back(line.substr(0, line.find('!')));
    // One worker of each process per round.
    EXPECT_EQ(attempts, (std::vector<std::string>{"Error starting testWorker on 127.0.0.1",
                                                  "Error starting testWorker on 127.1",
                                                  "Error starting testWorker on 127.0.0.1"}));
}

TEST_F(DistributedWorkerPoolTest, MaxParallelTasksCapsTheWorkersOfAHost) {
    const std::string server = KS_BINARY_DIR "/bin/ks-request-server";
    ownServer();
    // The service and the servers it starts see eight cores and a registry of their own.
    ::setenv("KS_AUTO_SHUTDOWN", "true", 1);
    ::setenv("KS_SHUTDOWN_TIMEOUT", "30", 1);
    ::setenv("KS_COMPUTATION_CORES", "8", 1);
    ::setenv("KS_PATH_TMP", tmp.file("host").c_str(), 1);
    RemoteServiceProcess::Options serviceOptions;
    serviceOptions.allow = {server};
    serviceOptions.arguments = {"--timeout", "2"};
    RemoteServiceProcess service(serviceOptions);
    const bool started = service.start();
    ::unsetenv("KS_AUTO_SHUTDOWN");
    ::unsetenv("KS_SHUTDOWN_TIMEOUT");
    ::unsetenv("KS_COMPUTATION_CORES");
    ::setenv("KS_PATH_TMP", tmp.file("ks").c_str(), 1);
    ASSERT_TRUE(started) << service.standardError();
    setSetting("remoteServiceKeyFile", service.keyFile());
    unsigned int cores = 0, freeCores = 0;
    std::string message;
    ASSERT_TRUE(Computing::CoresStatus("127.0.0.1", service.port()).get(cores, freeCores, message))
        << message;
    ASSERT_EQ(freeCores, 8u);

    PoolOptions options;
    options.settings.addWorkerHost("127.0.0.1", static_cast<unsigned int>(service.port()), 0);
    options.settings.setMaxParallelTasks(2);
    options.workerExecutable = server;
    TestPool pool(options);
    auto jobLog = std::make_shared<RecordingJobLog>();
    pool.setJobLog(jobLog);
    EXPECT_TRUE(pool.startWorkers()) << jobLog->text();
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "2 can be started on 127.0.0.1"));
    EXPECT_TRUE(jobLog->contains("Starting 2 testWorkers on 127.0.0.1...\n")) << jobLog->text();
    EXPECT_TRUE(jobLog->contains("Started 2 testWorkers.\n")) << jobLog->text();
    EXPECT_EQ(pool.getStartedWorkerCount(), 2u);
    pool.stopWorkers();
}

// ---- job scheduler ----

namespace {

// Jobs of the fake scheduler stay pending, so that the test plays the workers' part.
class DistributedWorkerPoolJobSchedulerTest : public DistributedWorkerPoolTest {
protected:
    void SetUp() override {
        DistributedWorkerPoolTest::SetUp();
        ::setenv("FAKE_LSF_HOLD", "1", 1);
    }
    void TearDown() override {
        ::unsetenv("FAKE_LSF_HOLD");
        DistributedWorkerPoolTest::TearDown();
    }

    PoolOptions schedulerOptions(unsigned int jobs, unsigned int workerMaxAliveAge = 60) {
        PoolOptions options;
        options.settings = DistributedWorkerPoolSettings(FakeLsf::adapter());
        options.settings.setMaxParallelTasks(jobs);
        options.workerMaxAliveAge = workerMaxAliveAge;
        return options;
    }

    std::shared_ptr<Reply> callBack(TestPool& pool, unsigned int workerId, const HostInfo& host) {
        auto request = callbackRequest(pool.getId(), workerId, host);
        auto reply = decodeReply(pool.callbackReceived(request.get()));
        EXPECT_NE(reply, nullptr);
        if (reply) {
            EXPECT_EQ(reply->getType(), "AckReply");
            EXPECT_EQ(reply->getRequestId(), request->getId());
        }
        return reply;
    }

    bool jobKilled(int job) {
        return TestSupport::fileExists(lsf.file("lsf/jobs/" + std::to_string(job) + "/killed"));
    }

    FakeLsf lsf;
};

} // namespace

TEST_F(DistributedWorkerPoolJobSchedulerTest, SubmitsOneJobPerParallelTask) {
    TestPool pool(schedulerOptions(2));
    auto jobLog = std::make_shared<RecordingJobLog>();
    pool.setJobLog(jobLog);
    ASSERT_TRUE(pool.startWorkers()) << jobLog->text();
    EXPECT_EQ(pool.getWorkerProcessCount(), 2u);
    EXPECT_EQ(pool.getWorkerCount(), 0u);
    EXPECT_TRUE(jobLog->contains("Submitted 2 testWorkers.\n\n"));
    EXPECT_TRUE(TestSupport::fileExists(lsf.file("lsf/jobs/1/held")));
    EXPECT_TRUE(TestSupport::fileExists(lsf.file("lsf/jobs/2/held")));
}

TEST_F(DistributedWorkerPoolJobSchedulerTest, CallbackOfAnUnknownWorkerIsRefused) {
    TestPool pool(schedulerOptions(1));
    ASSERT_TRUE(pool.startWorkers());
    auto reply = callBack(pool, 5, loopbackHost(closedPort()));
    EXPECT_EQ(statusOf(reply), "WORKER_NOT_FOUND");
    EXPECT_TRUE(capture.contains(LogLevel::Error, "No worker found for id 5"));
    EXPECT_EQ(pool.getWorkerProcessCount(), 1u);
}

TEST_F(DistributedWorkerPoolJobSchedulerTest, StopWorkersRemovesJobsAndStopsLateCallbacks) {
    TestPool pool(schedulerOptions(1));
    ASSERT_TRUE(pool.startWorkers());
    ASSERT_FALSE(jobKilled(1));
    pool.stopWorkers();
    bool removed = false;
    for (const auto& message : capture.messages(LogLevel::Info))
        removed =
            removed || message.rfind("Worker removed from job scheduler (lsfJobId=1):\n", 0) == 0;
    EXPECT_TRUE(removed);
    EXPECT_TRUE(jobKilled(1));
    EXPECT_EQ(pool.getWorkerProcessCount(), 0u);

    auto reply = callBack(pool, 0, loopbackHost(closedPort()));
    EXPECT_EQ(statusOf(reply), "STOP");
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Pool is stopping: stop worker 0"));
}

TEST_F(DistributedWorkerPoolJobSchedulerTest, SecondCallbackOfAWorkerIsRefused) {
    TestPool pool(schedulerOptions(1));
    ASSERT_TRUE(pool.startWorkers());
    // Stands in for the worker's server: it takes the run request, which stays open.
    auto worker = std::make_unique<KestraneTest::ReplyCatcher>();
    auto received = std::async(std::launch::async, [&] { return worker->catchOne("other:1"); });
    HostInfo host = loopbackHost(worker->port());
    host.setPublisherPort(closedPort());
    EXPECT_EQ(statusOf(callBack(pool, 0, host)), "OK");
    EXPECT_TRUE(received.get().closed);
    EXPECT_EQ(pool.getStartedWorkerCount(), 1u);

    auto second = callBack(pool, 0, host);
    EXPECT_EQ(statusOf(second), "WORKER_ALREADY_STARTED");
    EXPECT_TRUE(capture.contains(LogLevel::Error, "No unstarted workers for id 0"));
    // Gone, so that the stop's abort of the run request is refused at once.
    worker.reset();
    pool.stopWorkers();
}

// A worker whose run request could not be sent would never get a task: it is given up at once,
// and a task that waits for it fails instead of waiting for ever.
TEST_F(DistributedWorkerPoolJobSchedulerTest, WorkerWhoseRunRequestFailedIsGivenUp) {
    TestPool pool(schedulerOptions(1));
    ASSERT_TRUE(pool.startWorkers());
    EXPECT_EQ(statusOf(callBack(pool, 0, loopbackHost(closedPort()))), "OK");
    bool warned = false;
    for (const auto& message : capture.messages(LogLevel::Warn))
        warned = warned || message.rfind("Error starting worker: '", 0) == 0;
    EXPECT_TRUE(warned);
    EXPECT_EQ(pool.getStartedWorkerCount(), 0u);
    auto task = std::make_shared<TestTask>(1);
    pool.addTask(task);
    auto waited = std::async(std::launch::async, [&] { pool.waitForAllTasks(); });
    const bool returned = waited.wait_for(3s) == std::future_status::ready;
    EXPECT_TRUE(returned);
    EXPECT_EQ(pool.getWorkerProcessCount(), 0u);
    EXPECT_EQ(pool.getFailures().size(), 1u);
    // Lets a waiter that is still there go (no process is left after this), so that the test
    // ends.
    if (!returned)
        pool.stopWorkers();
}

TEST_F(DistributedWorkerPoolJobSchedulerTest, AddTaskAfterAllWorkersWereLostFailsAtOnce) {
    TestPool pool(schedulerOptions(1));
    ASSERT_TRUE(pool.startWorkers());
    auto waiting = std::make_shared<TestTask>(1);
    pool.addTask(waiting);

    pool.slotWorkerNotResponding("JobSchedulerWorker_0", "job vanished");
    EXPECT_EQ(pool.getWorkerProcessCount(), 0u);
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "No more worker processes!"));
    auto failures = pool.getFailures();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].task, waiting);
    EXPECT_EQ(failures[0].worker, "");
    EXPECT_EQ(failures[0].reason, "All testWorkers failed");

    capture.clear();
    auto late = std::make_shared<TestTask>(2);
    pool.addTask(late);
    failures = pool.getFailures();
    ASSERT_EQ(failures.size(), 2u);
    EXPECT_EQ(failures[1].task, late);
    EXPECT_EQ(failures[1].worker, "");
    EXPECT_EQ(failures[1].reason, "All testWorkers terminated");
    EXPECT_EQ(failures[1].thread, std::this_thread::get_id());
    EXPECT_TRUE(
        capture.contains(LogLevel::Error, "Adding tasks to pool where all workers terminated!"));
    EXPECT_EQ(pool.getWaitingTaskCount(), 0u);
    auto waited = std::async(std::launch::async, [&] { pool.waitForAllTasks(); });
    EXPECT_EQ(waited.wait_for(2s), std::future_status::ready);
}

TEST_F(DistributedWorkerPoolJobSchedulerTest, JobThatLeftTheSchedulerIsGivenUp) {
    // The scheduler is asked every second about jobs that have not called back.
    TestPool pool(schedulerOptions(1, 1));
    ASSERT_TRUE(pool.startWorkers());
    auto waiting = std::make_shared<TestTask>(1);
    pool.addTask(waiting);
    Computing::JobRemoveLSF remove;
    std::string message;
    ASSERT_TRUE(remove.execute(1, FakeLsf::adapter(), message)) << message;

    ASSERT_TRUE(pool.waitForFailures(1, 5s));
    auto failures = pool.getFailures();
    EXPECT_EQ(failures[0].task, waiting);
    EXPECT_EQ(failures[0].reason, "All testWorkers failed");
    EXPECT_EQ(pool.getWorkerProcessCount(), 0u);
    bool reported = false;
    for (const auto& line : capture.messages(LogLevel::Warn))
        reported =
            reported || line.rfind("Job scheduler worker JobSchedulerWorker_0 job is not running "
                                   "anymore: Job 1 not running anymore:\n",
                                   0) == 0;
    EXPECT_TRUE(reported);
}
