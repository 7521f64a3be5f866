// Hand-outs per second of a worker pool: near-empty tasks (a range of one number) through 4
// local workers, each hand-out being a GetDistributedWorkerInput and a DistributedWorkerResult
// round trip; and the prime count below 10^8 with 1, 2 and 4 local workers.
#include "Platform/RemoteComputation/Programs/ks-pool-demo/PrimeCountPool.h"
#include "Platform/RemoteComputation/Programs/ks-pool-demo/PrimeCountSchema.h"
#include "Platform/RemoteComputation/Programs/ks-pool-demo/PrimeCountWorker.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

using namespace Kestrane;

namespace {

std::unique_ptr<PrimeCountPool> startPool(unsigned int workers) {
    DistributedWorkerPoolSettings settings;
    settings.addWorkerHost("localhost", 0, workers);
    auto pool = std::make_unique<PrimeCountPool>(settings, KS_POOL_DEMO_PROGRAM,
                                                 GenericJobId(UniqueID::generateId(), "bench"),
                                                 false, PrimeCountTiming::fromEnvironment());
    if (!pool->startWorkers())
        throw std::runtime_error("no worker could be started");
    return pool;
}

void addRanges(PrimeCountPool& pool, uint64_t below, unsigned int tasks) {
    const uint64_t step = below / tasks;
    for (unsigned int i = 0; i < tasks; ++i) {
        const uint64_t from = i * step;
        pool.addTask(std::make_shared<PrimeRangeTask>(static_cast<int>(i), from,
                                                      i + 1 == tasks ? below : from + step));
    }
}

// One pool for all iterations: what is measured is the hand-out, not the start of workers.
void BM_HandOuts4Workers(benchmark::State& state) {
    static std::unique_ptr<PrimeCountPool> pool = startPool(4);
    const unsigned int batch = 2000;
    for (auto _ : state) {
        addRanges(*pool, batch, batch);
        pool->waitForAllTasks();
    }
    state.SetItemsProcessed(state.iterations() * batch);
    if (pool->getFailures() != 0)
        state.SkipWithError("tasks failed");
}

// A whole run of the demo's count, starting and stopping the workers.
void BM_PrimeCountBelow1e8(benchmark::State& state) {
    const auto workers = static_cast<unsigned int>(state.range(0));
    for (auto _ : state) {
        auto pool = startPool(workers);
        addRanges(*pool, 100000000ULL, 200);
        pool->waitForAllTasks();
        if (pool->getPrimes() != 5761455ULL) {
            const std::string error = "wrong count: " + std::to_string(pool->getPrimes()) +
                                      " after " + std::to_string(pool->getDoneTasks()) +
                                      " tasks, " + std::to_string(pool->getFailures()) +
                                      " failures";
            state.SkipWithError(error.c_str());
        }
        pool->stopWorkers();
    }
}

} // namespace

BENCHMARK(BM_HandOuts4Workers)->MinTime(3.0)->UseRealTime();
BENCHMARK(BM_PrimeCountBelow1e8)->Arg(1)->Arg(2)->Arg(4)->Iterations(3)->UseRealTime();

int main(int argc, char** argv) {
    // Four workers hold a core each; the workers inherit this.
    ::setenv("KS_COMPUTATION_CORES", "4", 0);
    ::setenv("KS_LOG_LEVEL", "WARN", 0);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    Logging::setLevel(LogLevel::Warn);
    RequestHandler::getDefaultRequestHandler()->addRequestSchema(PrimeCountSchema());
    DistributedWorkerRequestHandler::getInstance()->addImplementation(
        std::make_shared<PrimeCountWorker>());
    if (!RequestServer::getInstance(-1, 0))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::fflush(stdout);
    // Workers and server threads are still up: no static destructors under them.
    ::_exit(0);
}
