// A worker against a pool in the same process: the worker's client talks to this process's own
// request server on 127.0.0.1, which passes its requests to the pool, as between two processes.
#include "DistributedWorkerTestSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerSubscriber.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Publisher.h"
#include "Platform/RemoteComputation/Service/RequestHandling/WorkerProcess.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RunningJob.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

class DistributedWorkerLoopTest : public DistributedWorkerTest {
protected:
    void SetUp() override {
        DistributedWorkerTest::SetUp();
        setSetting("computationCores", "4");
        ownServer();
    }

    std::shared_ptr<DistributedWorker> makeWorker(std::shared_ptr<TestWorkerImpl> impl,
                                                  const std::string& poolId,
                                                  bool releaseCoresAfterEachTask) {
        auto client = std::make_shared<TcpRequestClient>("DistributedWorkerPool",
                                                         loopbackHost(ownServer()->getPort()));
        return std::make_shared<DistributedWorker>(
            impl, c_worker, poolId, GenericJobId(UniqueID::generateId(), "workerJob"), 1,
            releaseCoresAfterEachTask, client);
    }

    // The worker has had its "WAIT" and pauses: no request of it is under way when the pool goes.
    bool workerIdle() {
        return capture.waitFor("Worker 'worker_a' waiting for next input...", 5000ms);
    }

    // The pool's thread that serves a long poll must be done before the pool goes.
    static void stopPool(TestPool& pool, LogCapture& capture) {
        pool.stopWorkers();
        capture.waitFor("No more waiting tasks in pool " + pool.getId(), 5000ms);
    }

    // Watches the cores that this host's registry counts, from the first doWork on.
    class CoreSampler {
    public:
        explicit CoreSampler(TestWorkerImpl& impl)
            : thread([this, &impl] {
                  while (!stopRequested) {
                      if (impl.getStarts().empty()) {
                          std::this_thread::sleep_for(1ms);
                          continue;
                      }
                      const unsigned int used = Computing::RunningJob::usedCores();
                      {
                          std::lock_guard<std::mutex> lock(mutex);
                          samples.push_back({Clock::now(), used});
                      }
                      std::this_thread::sleep_for(200us);
                  }
              }) {}
        ~CoreSampler() { stop(); }
        void stop() {
            stopRequested = true;
            if (thread.joinable())
                thread.join();
        }
        // The smallest count seen between `from` and `to`, and how often it was looked at.
        std::pair<unsigned int, size_t> minimum(Clock::time_point from, Clock::time_point to) {
            std::lock_guard<std::mutex> lock(mutex);
            unsigned int least = ~0u;
            size_t looks = 0;
            for (const auto& sample : samples)
                if (sample.first >= from && sample.first <= to) {
                    least = std::min(least, sample.second);
                    ++looks;
                }
            return {least, looks};
        }

    private:
        std::atomic<bool> stopRequested{false};
        std::mutex mutex;
        std::vector<std::pair<Clock::time_point, unsigned int>> samples;
        std::thread thread;
    };

    const std::string c_worker = "worker_a";
};

} // namespace

TEST_F(DistributedWorkerLoopTest, WorkThatReturnsNothingIsReportedAsEmptyReply) {
    TestPool pool;
    auto task = std::make_shared<TestTask>(1);
    pool.addTask(task);
    auto impl = std::make_shared<TestWorkerImpl>();
    impl->work = [](DistributedWorker*, std::shared_ptr<Reply>) { return nullptr; };
    {
        WorkerThread worker(makeWorker(impl, pool.getId(), false));
        ASSERT_TRUE(pool.waitForResults(1, 5000ms));
        EXPECT_TRUE(workerIdle());
    }
    auto results = pool.getResults();
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].taskId, task->getId());
    EXPECT_EQ(results[0].status, "ERROR");
    EXPECT_EQ(results[0].errorMessage, "empty reply");
    EXPECT_EQ(results[0].endedTask, task);
    EXPECT_EQ(impl->getInputs().at(0)->getElement("payload"), "task 1");
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Worker 'worker_a' calling doWork() for task " +
                                                     task->getId() + "..."));
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Worker 'worker_a' calling doWork() done."));
}

TEST_F(DistributedWorkerLoopTest, WorkThatThrowsIsReportedWithItsText) {
    TestPool pool;
    const std::string markup = "disk <full> & \"more\"";
    std::vector<std::shared_ptr<TestTask>> tasks;
    for (int i = 0; i < 3; ++i) {
        tasks.push_back(std::make_shared<TestTask>(i));
        pool.addTask(tasks.back());
    }
    auto impl = std::make_shared<TestWorkerImpl>();
    impl->work = [&markup](DistributedWorker*,
                           std::shared_ptr<Reply> input) -> std::shared_ptr<RequestEncoder> {
        const std::string payload = input->getElement("payload");
        if (payload == "task 0")
            throw std::runtime_error("x");
        if (payload == "task 1")
            throw std::runtime_error(markup);
        throw 7;
    };
    {
        WorkerThread worker(makeWorker(impl, pool.getId(), false));
        ASSERT_TRUE(pool.waitForResults(3, 5000ms));
        EXPECT_TRUE(workerIdle());
    }
    auto results = pool.getResults();
    ASSERT_EQ(results.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(results[i].taskId, tasks[i]->getId());
        EXPECT_EQ(results[i].status, "ERROR");
    }
    EXPECT_EQ(results[0].errorMessage, "x");
    EXPECT_EQ(results[1].errorMessage, markup);
    EXPECT_EQ(results[2].errorMessage, "Unknown exception");
    EXPECT_TRUE(capture.contains(LogLevel::Error,
                                 "std::exception while worker 'worker_a' called doWork():\nx"));
    EXPECT_TRUE(capture.contains(LogLevel::Error,
                                 "Unknown exception while worker 'worker_a' called doWork()"));
}

TEST_F(DistributedWorkerLoopTest, ReplyWithAnotherStatusAndNoTaskIdStillReachesDoWork) {
    // A pool that is not there answers with the base reply type and its own status.
    auto impl = std::make_shared<TestWorkerImpl>();
    impl->inputReplyType = "GetDistributedWorkerInputReply";
    impl->work = [](DistributedWorker* worker, std::shared_ptr<Reply>) {
        worker->stop();
        return nullptr;
    };
    WorkerThread worker(makeWorker(impl, UniqueID::generateId(), false));
    ASSERT_TRUE(impl->waitForDoWork(1, 5000ms));
    EXPECT_TRUE(worker.hasEnded(5000ms));
    auto input = impl->getInputs().at(0);
    EXPECT_EQ(input->getElement("status"), "POOL_NOT_FOUND");
    EXPECT_FALSE(input->hasElement("taskId"));
    EXPECT_EQ(input->getElement("taskId"), "");
    EXPECT_TRUE(
        capture.contains(LogLevel::Info, "Worker 'worker_a' calling doWork() for task ..."));
    EXPECT_EQ(impl->stopWorkCalls.load(), 1);
}

TEST_F(DistributedWorkerLoopTest, InputReplyOfAnotherTypeStopsTheWorker) {
    PoolOptions options;
    options.inputReplyType = "AckReply";
    TestPool pool(options);
    auto impl = std::make_shared<TestWorkerImpl>();
    WorkerThread worker(makeWorker(impl, pool.getId(), false));
    EXPECT_TRUE(worker.hasEnded(5000ms));
    EXPECT_TRUE(capture.contains(LogLevel::Error,
                                 "Error getting input for worker 'worker_a' (unexpected reply type "
                                 "'AckReply'). Stopping worker..."));
    EXPECT_EQ(impl->doWorkCalls(), 0u);
    EXPECT_EQ(Computing::RunningJob::usedCores(), 0u);
}

TEST_F(DistributedWorkerLoopTest, StopEndsTheWaitForACoreAtOnce) {
    setSetting("computationCores", "1");
    Computing::RunningJob holder("test holder");
    ASSERT_TRUE(holder.add(1, 1, 0, "held by the test"));
    TestPool pool;
    pool.addTask(std::make_shared<TestTask>(1));
    auto impl = std::make_shared<TestWorkerImpl>();
    impl->coreCheckIntervalS = 10;
    auto shared = makeWorker(impl, pool.getId(), false);
    WorkerThread worker(shared);
    ASSERT_TRUE(capture.waitForSubstring("worker_a: no cores available. Waiting for ", 5000ms));
    EXPECT_EQ(LivingProcess::getLastAliveMsg("worker_a#"), "_waiting_free_core");

    const auto start = Clock::now();
    shared->stop();
    EXPECT_TRUE(worker.hasEnded(2000ms));
    EXPECT_LT(millisecondsSince(start), 1000);
    EXPECT_EQ(impl->doWorkCalls(), 0u);
    // The pool was never asked.
    EXPECT_EQ(pool.getWaitingTaskCount(), 1u);
    EXPECT_EQ(impl->stopWorkCalls.load(), 1);
    holder.remove();
}

TEST_F(DistributedWorkerLoopTest, StopDuringABlockingInputRequestCancelsIt) {
    PoolOptions options;
    options.inputWaitMs = 10000;
    TestPool pool(options);
    auto impl = std::make_shared<TestWorkerImpl>();
    auto shared = makeWorker(impl, pool.getId(), false);
    {
        WorkerThread worker(shared);
        ASSERT_TRUE(capture.waitFor("Waiting for new task (10000ms)...", 5000ms));
        const auto start = Clock::now();
        shared->stop();
        EXPECT_TRUE(worker.hasEnded(3000ms));
        EXPECT_LT(millisecondsSince(start), 2000);
    }
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Error getting input for worker 'worker_a' (null "
                                                  "reply). Stopping worker..."));
    EXPECT_EQ(impl->doWorkCalls(), 0u);
    EXPECT_EQ(Computing::RunningJob::usedCores(), 0u);
    stopPool(pool, capture);
}

TEST_F(DistributedWorkerLoopTest, ReleasingWorkerGivesTheCoreBackBetweenTasks) {
    TestPool pool;
    for (int i = 0; i < 3; ++i)
        pool.addTask(std::make_shared<TestTask>(i));
    auto impl = std::make_shared<TestWorkerImpl>();
    impl->coreCheckIntervalS = 1;
    std::vector<unsigned int> usedDuringWork;
    impl->work = [&usedDuringWork](DistributedWorker* worker, std::shared_ptr<Reply> input) {
        usedDuringWork.push_back(Computing::RunningJob::usedCores());
        return TestWorkerImpl::okResult(worker, input);
    };
    CoreSampler sampler(*impl);
    {
        WorkerThread worker(makeWorker(impl, pool.getId(), true));
        ASSERT_TRUE(pool.waitForResults(3, 10000ms));
        EXPECT_TRUE(workerIdle());
    }
    sampler.stop();
    EXPECT_EQ(usedDuringWork, (std::vector<unsigned int>{1, 1, 1}));
    auto starts = impl->getStarts();
    auto ends = impl->getEnds();
    ASSERT_EQ(starts.size(), 3u);
    for (size_t i = 0; i + 1 < starts.size(); ++i) {
        const auto gap =
            std::chrono::duration_cast<std::chrono::milliseconds>(starts[i + 1] - ends[i]);
        // 0.5 to 1 times the core check interval of 1 s.
        EXPECT_GE(gap.count(), 450) << "between task " << i << " and " << i + 1;
        auto least = sampler.minimum(ends[i], starts[i + 1]);
        EXPECT_GT(least.second, 0u);
        EXPECT_EQ(least.first, 0u) << "between task " << i << " and " << i + 1;
    }
    EXPECT_TRUE(capture.containsSubstring(
        "worker_a: giving time to other thread/processes to get core. Waiting for "));
}

TEST_F(DistributedWorkerLoopTest, HoldingWorkerKeepsItsCoreUntilThePoolHasNoWork) {
    TestPool pool;
    for (int i = 0; i < 5; ++i)
        pool.addTask(std::make_shared<TestTask>(i));
    auto impl = std::make_shared<TestWorkerImpl>();
    impl->coreCheckIntervalS = 1;
    impl->inputWaitIntervalS = 10;
    CoreSampler sampler(*impl);
    WorkerThread worker(makeWorker(impl, pool.getId(), false));
    ASSERT_TRUE(pool.waitForResults(5, 10000ms));
    auto starts = impl->getStarts();
    auto ends = impl->getEnds();
    ASSERT_EQ(starts.size(), 5u);
    auto least = sampler.minimum(starts.front(), ends.back());
    EXPECT_GT(least.second, 0u);
    EXPECT_EQ(least.first, 1u);
    for (size_t i = 0; i + 1 < starts.size(); ++i)
        EXPECT_LT(
            std::chrono::duration_cast<std::chrono::milliseconds>(starts[i + 1] - ends[i]).count(),
            450)
            << "between task " << i << " and " << i + 1;

    // "WAIT" ends the holding: the core goes back while the worker waits for input.
    EXPECT_TRUE(
        TestSupport::waitUntil([] { return Computing::RunningJob::usedCores() == 0; }, 5000ms));
    EXPECT_FALSE(worker.hasEnded(0ms));
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Worker 'worker_a' waiting for next input..."));
    EXPECT_TRUE(capture.waitFor(
        "worker_a: no input available. Waiting for 10000ms before retrying...", 5000ms));
}

TEST_F(DistributedWorkerLoopTest, HeartbeatNamesTheWorkerAndItsCore) {
    setSetting("alivePublishInterval", "100");
    TestPool pool;
    pool.addTask(std::make_shared<TestTask>(1));
    auto impl = std::make_shared<TestWorkerImpl>();
    std::string duringWork;
    impl->work = [&duringWork](DistributedWorker* worker, std::shared_ptr<Reply> input) {
        duringWork = LivingProcess::getLastAliveMsg("worker_a#");
        return TestWorkerImpl::okResult(worker, input);
    };

    // The pool's watch, subscribed to this process's publisher, sees what the worker says.
    DistributedWorkerSubscriber subscriber(60, 600);
    WorkerProcess process;
    process.name = "this_process";
    HostInfo host = loopbackHost(ownServer()->getPort());
    host.setPublisherPort(Publisher::getInstance()->getPort());
    subscriber.addWorker(process, host, "worker_a");
    subscriber.start();

    {
        WorkerThread worker(makeWorker(impl, pool.getId(), false));
        ASSERT_TRUE(pool.waitForResults(1, 5000ms));
        EXPECT_TRUE(workerIdle());
        auto received = [this] {
            for (const auto& message : capture.messages(LogLevel::Trace))
                if (message.rfind("ALIVE_RECV - ", 0) == 0 && message.size() > 21 &&
                    message.compare(message.size() - 21, 21, " - worker_a#_got_core") == 0)
                    return true;
            return false;
        };
        EXPECT_TRUE(eventually(received, 5000ms));
        EXPECT_TRUE(capture.contains(LogLevel::Info, "workerName='worker_a'"));
    }
    subscriber.stop();
    subscriber.finalize();
    EXPECT_EQ(duringWork, "_got_core");
    auto messages = capture.messages(LogLevel::Trace);
    int gettingCore = indexOfMessage(messages, "LivingProcess::alive() - worker_a#_getting_core");
    ASSERT_GE(gettingCore, 0);
    int gotCore = indexOfMessage(messages, "LivingProcess::alive() - worker_a#_got_core",
                                 static_cast<size_t>(gettingCore));
    EXPECT_GT(gotCore, gettingCore);
}

TEST_F(DistributedWorkerLoopTest, RunRequestsOfOneProcessShareOneWatcherOfThePool) {
    TestPool pool;
    for (int i = 0; i < 4; ++i)
        pool.addTask(std::make_shared<TestTask>(i));
    auto impl = std::make_shared<TestWorkerImpl>();
    impl->inputWaitIntervalS = 10;
    DistributedWorkerRequestHandler::getInstance()->addImplementation(impl);

    // Both run requests go to this process's server, as a pool sends them to a worker process.
    TcpRequestClient client("workerProcess", loopbackHost(ownServer()->getPort()));
    const GenericJobId job(UniqueID::generateId(), "runJob");
    std::vector<RequestEncoder> runs{runEncoder(pool.getId(), "worker_1", job, 1, false),
                                     runEncoder(pool.getId(), "worker_2", job, 1, false)};
    std::vector<std::shared_ptr<Reply>> replies(2);
    std::vector<std::thread> senders;
    for (size_t i = 0; i < runs.size(); ++i)
        senders.emplace_back([&, i] { replies[i] = client.handleRequest(runs[i], nullptr, ""); });

    const bool done = pool.waitForResults(4, 10000ms);
    const bool bothStarted =
        capture.waitForSubstring("Starting execution of DistributedWorker 'worker_2'", 5000ms) &&
        capture.waitForSubstring("Starting execution of DistributedWorker 'worker_1'", 5000ms);
    const bool bothIdle = capture.waitFor("Worker 'worker_1' waiting for next input...", 5000ms) &&
                          capture.waitFor("Worker 'worker_2' waiting for next input...", 5000ms);
    for (const auto& run : runs)
        client.abortRequest(run.getId());
    for (auto& sender : senders)
        sender.join();
    ASSERT_TRUE(done);
    EXPECT_TRUE(bothStarted);
    EXPECT_TRUE(bothIdle);

    // The process's watch of its pool is made at its first run request and kept: a later run of
    // this test in the same process finds it made.
    static int s_runsInProcess = 0;
    const size_t expected = s_runsInProcess++ == 0 ? 1u : 0u;
    size_t subscriptions = 0;
    for (const auto& message : capture.messages(LogLevel::Info))
        subscriptions += message.rfind("Subscribed to topic alive on ", 0) == 0;
    EXPECT_EQ(subscriptions, expected);
    for (size_t i = 0; i < replies.size(); ++i) {
        ASSERT_NE(replies[i], nullptr);
        EXPECT_EQ(replies[i]->getType(), "AckReply");
        EXPECT_EQ(replies[i]->getRequestId(), runs[i].getId());
        EXPECT_EQ(replies[i]->getElement("status"), "ABORTED");
    }
    EXPECT_EQ(pool.getResults().size(), 4u);
}
