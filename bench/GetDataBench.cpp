// 10^7 doubles (80 MB) from a server process to this one, end to end: a TestRequest GET_DATA to
// a ks-request-server child, its reply with the array as an attachment, and
// Reply::getDoubleArray in this process. Against the same round trip on plain sockets
// (RawRoundTrip.h), where the raw server child makes the same values and sends them as one raw
// block. Both in MB/s of array data (10^6 bytes), with the CPU time of the client and the server
// process per round trip.
//
// Run: bin/GetDataBench (from the build directory).
#include "BenchPeers.h"
#include "RawRoundTrip.h"

#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

using namespace Kestrane;
using namespace BenchPeers;

namespace {

constexpr uint64_t c_count = 10000000;
constexpr double c_bytes = static_cast<double>(c_count * sizeof(double));
constexpr int c_iterations = 3; // per repetition
constexpr int c_repetitions = 3;

struct Peers {
    std::unique_ptr<Child> server;
    int publisherPort = -1;
    std::unique_ptr<Child> rawServer;
    std::unique_ptr<RawReplyListener> rawListener;
    // Payload sizes of the "RQ" and "RP" packets of a GET_DATA, as measured on the wire.
    size_t requestSize = 0;
    size_t replySize = 0;
};
Peers* s_peers = nullptr;

HostInfo serverHost() {
    HostInfo host("127.0.0.1", "localhost");
    host.setRequestServerPort(s_peers->server->port());
    host.setPublisherPort(s_peers->publisherPort);
    return host;
}

// The values of GET_DATA: (i + 1) * 0.1; a few spots are checked.
bool valuesAreRight(const double* values) {
    for (uint64_t i : {uint64_t(0), uint64_t(1), c_count / 2, c_count - 1})
        if (values[i] != static_cast<double>(i + 1) * 0.1)
            return false;
    return true;
}

// One GET_DATA; the array is checked and freed.
bool libraryGetData(TcpRequestClient& client) {
    RequestEncoder request("TestRequest");
    request.addElement("command", "GET_DATA", "  ");
    request.addElement("data", std::to_string(c_count), "  ");
    auto reply = client.handleRequest(request, nullptr, "");
    if (!reply || reply->getType() != "TestReply" ||
        reply->getArraySize("attachment", "") != c_count)
        return false;
    double* values = reply->getDoubleArray("attachment");
    bool ok = values && valuesAreRight(values);
    std::free(values);
    return ok;
}

void measurePackageSizes() {
    LogCapture capture;
    TcpRequestClient client("calibration", serverHost());
    if (!libraryGetData(client))
        throw std::runtime_error("calibration GET_DATA failed");
    s_peers->requestSize = loggedPayload(capture, "SEND", "RQ").size();
    s_peers->replySize = loggedPayload(capture, "RECV", "RP").size();
    if (s_peers->requestSize == 0 || s_peers->replySize == 0)
        throw std::runtime_error("package sizes not found in the log");
    std::printf("GET_DATA request package %zu bytes, reply package %zu bytes on the wire\n",
                s_peers->requestSize, s_peers->replySize);
}

void reportRate(benchmark::State& state) {
    state.counters["MB_per_s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * c_bytes / 1e6, benchmark::Counter::kIsRate);
}

void BM_GetData10M_Library(benchmark::State& state) {
    TcpRequestClient client("bench", serverHost());
    CpuPerItem cpu(s_peers->server->pid());
    for (auto _ : state)
        if (!libraryGetData(client)) {
            state.SkipWithError("GET_DATA failed");
            break;
        }
    cpu.report(state, static_cast<double>(state.iterations()));
    reportRate(state);
}

void BM_GetData10M_Raw(benchmark::State& state) {
    CpuPerItem cpu(s_peers->rawServer->pid());
    for (auto _ : state) {
        auto reply = rawRoundTrip(s_peers->rawServer->port(), *s_peers->rawListener,
                                  s_peers->requestSize, s_peers->replySize, c_count);
        bool ok = reply.block && reply.blockSize == c_count * sizeof(double) &&
                  valuesAreRight(reinterpret_cast<const double*>(reply.block));
        std::free(reply.block);
        if (!ok) {
            state.SkipWithError("raw data wrong");
            break;
        }
    }
    cpu.report(state, static_cast<double>(state.iterations()));
    reportRate(state);
}

} // namespace

BENCHMARK(BM_GetData10M_Raw)
    ->Iterations(c_iterations)
    ->Repetitions(c_repetitions)
    ->DisplayAggregatesOnly()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GetData10M_Library)
    ->Iterations(c_iterations)
    ->Repetitions(c_repetitions)
    ->DisplayAggregatesOnly()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "--raw-server")
        return runRawServer(2);
    initializeBenchmarks(argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    Logging::setLevel(LogLevel::Warn);
    int result = 0;
    RequestServer* ownServer = nullptr;
    Peers peers;
    s_peers = &peers;
    try {
        peers.server = startRequestServer();
        peers.publisherPort = peers.server->announcedPort("PUBLISHER");
        peers.rawServer =
            std::make_unique<Child>(selfExecutable(), std::vector<std::string>{"--raw-server"});
        ownServer = RequestServer::getInstance(-1, 0);
        if (peers.publisherPort <= 0 || !ownServer)
            throw std::runtime_error("no publisher port, or no request server in this process");
        peers.rawListener = std::make_unique<RawReplyListener>();
        measurePackageSizes();

        KeepingReporter reporter;
        benchmark::RunSpecifiedBenchmarks(&reporter);

        std::printf("\nSummary (ours = library, reference = raw sockets):\n");
        printComparison("GET_DATA 10^7 doubles end to end", //
                        reporter.counter("BM_GetData10M_Library", "MB_per_s"),
                        reporter.counter("BM_GetData10M_Raw", "MB_per_s"), "MB/s", true, 0);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "GetDataBench: %s\n", e.what());
        result = 1;
    }
    peers.rawListener.reset();
    peers.rawServer.reset();
    peers.server.reset();
    if (ownServer) {
        ownServer->stop();
        ownServer->waitForShutdown();
    }
    benchmark::Shutdown();
    return result;
}
