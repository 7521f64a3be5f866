// ks-pool-demo: counts the primes below a bound with a pool of worker processes. Run by a person
// it is the master; started by a starter or a job scheduler it is a worker process.
#include "PoolDemoOptions.h"
#include "PrimeCountPool.h"
#include "PrimeCountSchema.h"
#include "PrimeCountWorker.h"
#include "PrimeSieve.h"
#include "ProgressLine.h"

#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerCallbackRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractJobLog.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/GenericJobId.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LoggingSettings.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <limits.h>
#include <pthread.h>
#include <thread>
#include <unistd.h>

using namespace Kestrane;

namespace {
Logging s_logging(__FILE__);

// The pool's user-visible lines go to standard output.
class ConsoleJobLog : public AbstractJobLog {
public:
    std::string getName() override { return "Console"; }
    int logMessage(const std::string& text, int64_t, bool) override {
        std::fputs(text.c_str(), stdout);
        std::fflush(stdout);
        return 0;
    }
    std::shared_ptr<void> getJobContext() override { return nullptr; }
    int flush() override { return std::fflush(stdout); }
};

sigset_t blockStopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

// Within the grace that job schedulers give between SIGTERM and SIGKILL.
constexpr std::chrono::milliseconds c_workerStopLimit(10000);

void stopServerOnSignal(sigset_t signals, RequestServer* server) {
    int signal = 0;
    if (sigwait(&signals, &signal) == 0) {
        KS_INFO("Received signal " << signal << ", stopping the worker process");
        // The workers first, while the server still takes the replies to what they send: a
        // server waits for the run requests that hold them.
        if (!DistributedWorkerRequestHandler::getInstance()->stopWorkers(c_workerStopLimit))
            KS_WARN("Workers still running " << c_workerStopLimit.count()
                                             << " ms after the signal: stopping anyway");
        server->stop();
    }
}

std::string ownExecutable(const char* argv0) {
    char path[PATH_MAX];
    ssize_t length = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length <= 0)
        return argv0;
    path[length] = '\0';
    return path;
}

void registerPrimeCounter() {
    RequestHandler::getDefaultRequestHandler()->addRequestSchema(PrimeCountSchema());
    DistributedWorkerRequestHandler::getInstance()->addImplementation(
        std::make_shared<PrimeCountWorker>());
}

int runWorkerProcess(const WorkerCommandLine& worker, const char* argv0, sigset_t signals) {
    registerPrimeCounter();
    RequestServer* server = RequestServer::getInstance(-1, 0);
    if (!server) {
        const std::string error = RequestServer::getErrorMessage();
        std::cerr << "ks-pool-demo: " << error << "\n";
        if (!worker.callback.empty())
            CallbackRequest::sendCallbackRequest(worker.callback, "ks-pool-demo: " + error);
        return 1;
    }
    server->setExecutableName(argv0);
    if (!worker.jobId.empty()) {
        std::string text = worker.jobId, message;
        server->setJobId(GenericJobId::fromString(text, message));
    }
    LivingProcess::alive("Worker process running", "");
    const bool called = worker.jobSchedulerWorker()
                            ? DistributedWorkerCallbackRequest::sendCallback(
                                  worker.poolId, worker.poolHost, worker.poolPort, worker.workerId)
                            : CallbackRequest::sendCallbackRequest(worker.callback, "");
    if (!called) {
        server->stop();
        server->waitForShutdown();
        LivingProcess::shutdown();
        Logging::flush();
        return 1;
    }
    std::thread(stopServerOnSignal, signals, server).detach();
    server->waitForShutdown();
    LivingProcess::shutdown();
    KS_INFO("ks-pool-demo worker process stopped.");
    Logging::flush();
    return 0;
}

DistributedWorkerPoolSettings settingsOf(const PoolDemoOptions& options) {
    if (!options.scheduler.empty()) {
        DistributedWorkerPoolSettings settings(options.scheduler);
        settings.setMaxParallelTasks(options.jobs);
        return settings;
    }
    DistributedWorkerPoolSettings settings;
    if (options.hosts.empty())
        settings.addWorkerHost("localhost", 0, options.workers);
    for (const auto& host : options.hosts)
        settings.addWorkerHost(host.name, host.port, host.maxWorkers);
    return settings;
}

void killOneWorker(PrimeCountPool& pool) {
    const auto pids = pool.getWorkerPids();
    if (pids.empty()) {
        std::printf("No worker process has reported yet: none killed.\n");
        return;
    }
    const pid_t pid = static_cast<pid_t>(*pids.begin());
    if (::kill(pid, SIGKILL) == 0)
        std::printf("Killed worker process %d (SIGKILL).\n", static_cast<int>(pid));
    else
        std::printf("Could not kill worker process %d.\n", static_cast<int>(pid));
}

int runMaster(const PoolDemoOptions& options, const char* argv0) {
    registerPrimeCounter();
    if (!RequestServer::getInstance(-1, 0)) {
        std::cerr << "ks-pool-demo: " << RequestServer::getErrorMessage() << "\n";
        return 1;
    }
    const auto start = std::chrono::steady_clock::now();
    PrimeCountPool pool(settingsOf(options), ownExecutable(argv0),
                        GenericJobId(UniqueID::generateId(), "primes"), options.separateProcesses,
                        PrimeCountTiming::fromEnvironment());
    pool.setJobLog(std::make_shared<ConsoleJobLog>());
    if (!pool.startWorkers()) {
        std::cerr << "ks-pool-demo: no worker could be started (the log tells why)\n";
        return 1;
    }
    const uint64_t step = options.below / options.tasks;
    for (unsigned int i = 0; i < options.tasks; ++i) {
        const uint64_t from = i * step;
        const uint64_t to = i + 1 == options.tasks ? options.below : from + step;
        pool.addTask(std::make_shared<PrimeRangeTask>(static_cast<int>(i), from, to));
    }
    std::atomic<bool> allEnded{false};
    std::thread waiter([&] {
        pool.waitForAllTasks();
        allEnded = true;
    });
    ProgressLine progress(stdout);
    bool killed = !options.killAWorkerAfter;
    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        if (allEnded)
            break;
        progress.show({pool.getDoneTasks(), options.tasks, pool.getRunningTaskCount(),
                       pool.getFailures(), pool.getWorkerCount()});
        const auto elapsed = std::chrono::steady_clock::now() - start;
        if (!killed && elapsed >= std::chrono::seconds(*options.killAWorkerAfter)) {
            progress.finish();
            killOneWorker(pool);
            killed = true;
        }
    }
    waiter.join();
    progress.show({pool.getDoneTasks(), options.tasks, pool.getRunningTaskCount(),
                   pool.getFailures(), pool.getWorkerCount()});
    progress.finish();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const size_t workers = pool.getStartedWorkerCount();
    pool.stopWorkers();

    const uint64_t expected = countPrimes(0, options.below);
    std::printf("RESULT primes=%llu tasks=%u failed=%u workers=%zu seconds=%.2f\n",
                static_cast<unsigned long long>(pool.getPrimes()), options.tasks,
                pool.getFailures(), workers, seconds);
    if (pool.getPrimes() != expected || pool.getDoneTasks() != options.tasks) {
        std::printf("WRONG: %u of %u tasks done, %u lost; the count below %llu is %llu\n",
                    pool.getDoneTasks(), options.tasks, pool.getLostTasks(),
                    static_cast<unsigned long long>(options.below),
                    static_cast<unsigned long long>(expected));
        return 1;
    }
    return 0;
}
} // namespace

int main(int argc, char** argv) {
    const sigset_t signals = blockStopSignals();
    std::vector<std::string> args(argv + 1, argv + argc);
    std::optional<WorkerCommandLine> worker;
    PoolDemoOptions options;
    try {
        LoggingSettings::get()->applyEnvironment();
        LoggingSettings::get()->parseCommandLine(args);
        worker = WorkerCommandLine::parse(args);
        if (!worker)
            options = PoolDemoOptions::parse(args);
    } catch (const std::exception& e) {
        std::cerr << "ks-pool-demo: " << e.what() << "\n" << PoolDemoOptions::usage();
        return 2;
    }
    if (worker)
        return runWorkerProcess(*worker, argv[0], signals);
    if (options.help) {
        std::cout << PoolDemoOptions::usage();
        return 0;
    }
    const int code = runMaster(options, argv[0]);
    Logging::flush();
    // The request server's threads are still at work: no static destructors under them.
    std::fflush(stdout);
    ::_exit(code);
}
