// NOP round trips between two processes: this process as client, with its own RequestServer for
// the replies, and a ks-request-server child as server, through TcpRequestClient::handleRequest.
// Against the same exchange on plain sockets (RawRoundTrip.h) with a raw server child (this
// binary re-executed), with request and reply packages of the sizes that the library puts on the
// wire. Sequential (latency, median per round trip) and from 8 and 64 client threads at once
// (throughput, round trips per second). Each run also counts the CPU time that the client and
// the server process spent per round trip.
//
// The floor runs (RawRoundTrip.h) are the raw exchange with only what the library's design adds
// of necessity: its thread hand-offs and its package coding. They show how much of the distance
// to the raw exchange comes with the design and how much is the library's own.
//
// The BM_Part_ runs take the library's round trip apart: the connection with its ping, the
// heartbeat watch of a wait, and the encoding and decoding of the packages, each alone.
//
// Run: bin/RoundTripBench (from the build directory). The summary at the end compares.
#include "BenchPeers.h"
#include "RawRoundTrip.h"

#include "Platform/RemoteComputation/Service/RequestHandling/Attachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcessWatcher.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using namespace Kestrane;
using namespace BenchPeers;

namespace {

constexpr int c_threads = 8;
constexpr int c_repetitions = 3;
constexpr int c_sequential = 500; // per repetition
constexpr int c_perThread = 100;  // per thread and repetition
constexpr int c_manyThreads = 64;
constexpr int c_perManyThread = 20;
constexpr int c_cpuOnly = 3000;
constexpr int c_coldCoding = 200; // each behind a walk over 64 MB

struct Peers {
    std::unique_ptr<Child> server;
    int publisherPort = -1;
    std::unique_ptr<Child> rawServer;
    std::unique_ptr<RawReplyListener> rawListener;
    std::unique_ptr<Child> floorServer;
    std::unique_ptr<RawReplyListener> floorListener;
    std::unique_ptr<RawReplyListener> handOffListener; // the floor's threads, no package coding
    // Payloads of the "RQ" and "RP" packets of a NOP, as they went over the wire.
    std::string requestPackage;
    std::string replyPackage;
};
Peers* s_peers = nullptr;

// With `watchHeartbeat` the client knows the server's publisher port, as a client does that got
// its host by a callback: every wait for a reply then watches the server's heartbeat.
HostInfo serverHost(bool watchHeartbeat) {
    HostInfo host("127.0.0.1", "localhost");
    host.setRequestServerPort(s_peers->server->port());
    if (watchHeartbeat)
        host.setPublisherPort(s_peers->publisherPort);
    return host;
}

RequestEncoder nopRequest() {
    RequestEncoder request("TestRequest");
    request.addElement("command", "NOP", "  ");
    return request;
}

// The library's own work on the packages of a NOP, one function per place where it happens.
const char* const c_packageId = "0000000000000000-0000000000000000-0000000000000001";

std::string encodeNopRequestPackage() {
    RequestEncoder request = nopRequest();
    std::string copy = request.getEncodedRequest();
    bool hasFiles = false;
    auto attachments = Attachment::createAttachments(copy, hasFiles, true);
    RequestPackageEncoder package(copy, c_packageId, "");
    return package.getEncodedRequestPackage();
}

void decodeNopRequestPackage(const std::string& text) {
    static RequestHandler* handler = RequestServer::getInstance(-1, 0)->getRequestHandler();
    auto package = RequestPackage::decode(text, *handler, nullptr, "127.0.0.1", "127.0.0.1");
    if (!package || !package->getRequest())
        throw std::runtime_error("request package not decoded");
}

std::string encodeNopReplyPackage(const std::string& id) {
    ReplyEncoder reply("TestReply", id);
    reply.addElement("data", "OK");
    std::string text = reply.getEncodedReply("   ", "  ");
    bool hasFiles = false;
    auto attachments = Attachment::createAttachments(text, hasFiles, false);
    ReplyPackageEncoder package(text, 1);
    return package.getEncodedReplyPackage();
}

bool decodeNopReplyPackage(const std::string& text) {
    auto package = ReplyPackage::decode(text, nullptr);
    return package && package->getReply() && package->getReply()->getElement("data") == "OK";
}

// The floor's package work; its server child makes its own request server for the decoding.
RoundTripWork floorWork() {
    RoundTripWork work;
    work.encodeRequest = encodeNopRequestPackage;
    work.decodeRequest = decodeNopRequestPackage;
    work.encodeReply = encodeNopReplyPackage;
    work.decodeReply = [](const std::string& text) {
        if (!decodeNopReplyPackage(text))
            std::fprintf(stderr, "floor: reply package not decoded\n");
    };
    return work;
}

bool libraryNop(TcpRequestClient& client) {
    auto reply = client.handleRequest(nopRequest(), nullptr, "");
    return reply && reply->getType() == "TestReply" && reply->getElement("data") == "OK";
}

void capturePackages() {
    LogCapture capture;
    TcpRequestClient client("calibration", serverHost(false));
    if (!libraryNop(client))
        throw std::runtime_error("calibration NOP failed");
    s_peers->requestPackage = loggedPayload(capture, "SEND", "RQ");
    s_peers->replyPackage = loggedPayload(capture, "RECV", "RP");
    if (s_peers->requestPackage.empty() || s_peers->replyPackage.empty())
        throw std::runtime_error("packages not found in the log");
    std::printf("NOP request package %zu bytes, reply package %zu bytes on the wire\n",
                s_peers->requestPackage.size(), s_peers->replyPackage.size());
}

void rawNop() {
    rawRoundTrip(s_peers->rawServer->port(), *s_peers->rawListener, s_peers->requestPackage.size(),
                 s_peers->replyPackage.size(), 0);
}

void floorNop() {
    static const std::function<std::string()> encodeRequest = encodeNopRequestPackage;
    rawRoundTrip(s_peers->floorServer->port(), *s_peers->floorListener, 0, 0, 0, encodeRequest);
}

void handOffNop() {
    rawRoundTrip(s_peers->floorServer->port(), *s_peers->handOffListener,
                 s_peers->requestPackage.size(), s_peers->replyPackage.size(), 0);
}

// ---- sequential: latency ----

void referenceLatency(benchmark::State& state, const Child& server, void (*nop)()) {
    Latencies latencies(c_sequential);
    CpuPerItem cpu(server.pid());
    for (auto _ : state)
        latencies.time(nop);
    cpu.report(state, static_cast<double>(state.iterations()));
    latencies.report(state);
    state.SetItemsProcessed(state.iterations());
}
void BM_NopLatency_Raw(benchmark::State& state) {
    referenceLatency(state, *s_peers->rawServer, rawNop);
}
void BM_NopLatency_Floor(benchmark::State& state) {
    referenceLatency(state, *s_peers->floorServer, floorNop);
}
void BM_NopLatency_FloorHandOffsOnly(benchmark::State& state) {
    referenceLatency(state, *s_peers->floorServer, handOffNop);
}

void libraryLatency(benchmark::State& state, bool watchHeartbeat) {
    TcpRequestClient client("bench", serverHost(watchHeartbeat));
    Latencies latencies(c_sequential);
    CpuPerItem cpu(s_peers->server->pid());
    for (auto _ : state) {
        bool ok = true;
        latencies.time([&] { ok = libraryNop(client); });
        if (!ok) {
            state.SkipWithError("NOP failed");
            break;
        }
    }
    cpu.report(state, static_cast<double>(state.iterations()));
    latencies.report(state);
    state.SetItemsProcessed(state.iterations());
}
void BM_NopLatency_Library(benchmark::State& state) {
    libraryLatency(state, true);
}
void BM_NopLatency_LibraryNoHeartbeatWatch(benchmark::State& state) {
    libraryLatency(state, false);
}

// ---- 8 and 64 threads: throughput ----

// The CPU counters of a run with threads: taken by the first thread around its loop, which all
// threads enter and leave together.
void referenceThroughput(benchmark::State& state, const Child& server, void (*nop)()) {
    std::optional<CpuPerItem> cpu;
    if (state.thread_index() == 0)
        cpu.emplace(server.pid());
    for (auto _ : state)
        nop();
    if (cpu)
        cpu->report(state, static_cast<double>(state.iterations() * state.threads()));
    state.SetItemsProcessed(state.iterations());
}
void BM_NopThroughput8_Raw(benchmark::State& state) {
    referenceThroughput(state, *s_peers->rawServer, rawNop);
}
void BM_NopThroughput8_Floor(benchmark::State& state) {
    referenceThroughput(state, *s_peers->floorServer, floorNop);
}
void BM_NopThroughput8_FloorHandOffsOnly(benchmark::State& state) {
    referenceThroughput(state, *s_peers->floorServer, handOffNop);
}
// Many more callers than cores: throughput must hold, with no error.
void BM_NopThroughput64_Raw(benchmark::State& state) {
    referenceThroughput(state, *s_peers->rawServer, rawNop);
}

// One client per thread, as independent callers would have.
void libraryThroughput(benchmark::State& state, bool watchHeartbeat) {
    TcpRequestClient client("bench" + std::to_string(state.thread_index()),
                            serverHost(watchHeartbeat));
    std::optional<CpuPerItem> cpu;
    if (state.thread_index() == 0)
        cpu.emplace(s_peers->server->pid());
    for (auto _ : state) {
        if (!libraryNop(client)) {
            state.SkipWithError("NOP failed");
            break;
        }
    }
    if (cpu)
        cpu->report(state, static_cast<double>(state.iterations() * state.threads()));
    state.SetItemsProcessed(state.iterations());
}
void BM_NopThroughput8_Library(benchmark::State& state) {
    libraryThroughput(state, true);
}
void BM_NopThroughput8_LibraryNoHeartbeatWatch(benchmark::State& state) {
    libraryThroughput(state, false);
}
void BM_NopThroughput64_Library(benchmark::State& state) {
    libraryThroughput(state, true);
}

// ---- parts of the library's round trip ----

// Connect, PING/PONG, CLOSE_CONNECTION: the first step of every request.
void BM_Part_PingOnNewConnection_Library(benchmark::State& state) {
    const unsigned int port = static_cast<unsigned int>(s_peers->server->port());
    for (auto _ : state)
        if (!RequestServer::ping("127.0.0.1", port)) {
            state.SkipWithError("ping failed");
            break;
        }
}
void BM_Part_PingOnNewConnection_Raw(benchmark::State& state) {
    const int port = s_peers->rawServer->port();
    for (auto _ : state) {
        int fd = connectLoopback(port);
        writeAll(fd, "C 4 PING", 8);
        PacketReader reader(fd);
        std::string type, answer;
        reader.readPacket(type, answer);
        writeAll(fd, "C 16 CLOSE_CONNECTION", 21);
        ::close(fd);
    }
}

// What a wait for a reply adds when the client knows the server's publisher: a heartbeat
// watcher made, started and stopped.
void BM_Part_HeartbeatWatchStartStop(benchmark::State& state) {
    const HostInfo host = serverHost(true);
    for (auto _ : state) {
        LivingProcessWatcher watcher(host, -1, -1, false);
        watcher.start(true);
    }
    state.SetItemsProcessed(state.iterations());
}

// The client's CPU work on a request before the socket: encoder, attachment scan, package.
void BM_Part_EncodeRequestPackage(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(encodeNopRequestPackage());
}

// The part of the encoding above that looks for data elements in the request text.
void BM_Part_RequestAttachmentScan(benchmark::State& state) {
    const std::string text = nopRequest().getEncodedRequest();
    for (auto _ : state) {
        std::string copy = text;
        bool hasFiles = false;
        benchmark::DoNotOptimize(Attachment::createAttachments(copy, hasFiles, true));
    }
}

// The server's parse and check of the request package and its request.
void BM_Part_DecodeRequestPackage(benchmark::State& state) {
    for (auto _ : state)
        decodeNopRequestPackage(s_peers->requestPackage);
}

// The server's reply: encoder and package.
void BM_Part_EncodeReplyPackage(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(encodeNopReplyPackage(c_packageId));
}

// The client's parse and check of the reply package.
void BM_Part_DecodeReplyPackage(benchmark::State& state) {
    for (auto _ : state)
        if (!decodeNopReplyPackage(s_peers->replyPackage)) {
            state.SkipWithError("reply not decoded");
            break;
        }
}

// The same four codings, each with the caches emptied first (a walk over more memory than the
// last level cache holds, outside the timing): in a real round trip the kernel's network path
// and the other threads run between two codings, and the coding finds little of its code and
// data in the caches.
void emptyCaches() {
    static std::vector<char> walk(64 << 20, 1);
    unsigned sum = 0;
    for (size_t i = 0; i < walk.size(); i += 64)
        sum += static_cast<unsigned char>(walk[i]++);
    benchmark::DoNotOptimize(sum);
}
template <typename Coding> void codingWithEmptyCaches(benchmark::State& state, Coding coding) {
    for (auto _ : state) {
        state.PauseTiming();
        emptyCaches();
        state.ResumeTiming();
        coding();
    }
}
void BM_Part_EncodeRequestPackageCold(benchmark::State& state) {
    codingWithEmptyCaches(state, [] { benchmark::DoNotOptimize(encodeNopRequestPackage()); });
}
void BM_Part_DecodeRequestPackageCold(benchmark::State& state) {
    codingWithEmptyCaches(state, [] { decodeNopRequestPackage(s_peers->requestPackage); });
}
void BM_Part_EncodeReplyPackageCold(benchmark::State& state) {
    codingWithEmptyCaches(state,
                          [] { benchmark::DoNotOptimize(encodeNopReplyPackage(c_packageId)); });
}
void BM_Part_DecodeReplyPackageCold(benchmark::State& state) {
    codingWithEmptyCaches(
        state, [] { benchmark::DoNotOptimize(decodeNopReplyPackage(s_peers->replyPackage)); });
}

// One hand-off from a thread to a waiting one and back, on a condition variable: twice the
// cost of each wake-up that the road of a request has beyond the raw one.
void BM_Part_ThreadHandOffAndBack(benchmark::State& state) {
    std::mutex mutex;
    std::condition_variable condition;
    int turn = 0; // 1: the partner's turn, 0: ours, -1: end
    std::thread partner([&] {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            condition.wait(lock, [&] { return turn != 0; });
            if (turn < 0)
                return;
            turn = 0;
            condition.notify_all();
        }
    });
    for (auto _ : state) {
        std::unique_lock<std::mutex> lock(mutex);
        turn = 1;
        condition.notify_all();
        condition.wait(lock, [&] { return turn == 0; });
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        turn = -1;
    }
    condition.notify_all();
    partner.join();
}

} // namespace

BENCHMARK(BM_NopLatency_Raw)
    ->Iterations(c_sequential)
    ->Repetitions(c_repetitions)
    ->DisplayAggregatesOnly()
    ->UseRealTime();
BENCHMARK(BM_NopLatency_Library)
    ->Iterations(c_sequential)
    ->Repetitions(c_repetitions)
    ->DisplayAggregatesOnly()
    ->UseRealTime();
BENCHMARK(BM_NopLatency_LibraryNoHeartbeatWatch)
    ->Iterations(c_sequential)
    ->Repetitions(c_repetitions)
    ->DisplayAggregatesOnly()
    ->UseRealTime();
BENCHMARK(BM_NopLatency_Floor)
    ->Iterations(c_sequential)
    ->Repetitions(c_repetitions)
    ->DisplayAggregatesOnly()
    ->UseRealTime();
BENCHMARK(BM_NopLatency_FloorHandOffsOnly)
    ->Iterations(c_sequential)
    ->Repetitions(c_repetitions)
    ->DisplayAggregatesOnly()
    ->UseRealTime();
BENCHMARK(BM_NopThroughput8_Raw)
    ->Threads(c_threads)
    ->Iterations(c_perThread)
    ->Repetitions(c_repetitions)
    ->DisplayAggregatesOnly()
    ->UseRealTime();
BENCHMARK(BM_NopThroughput8_Library)
    ->Threads(c_threads)
    ->Iterations(c_perThread)
    ->Repetitions(c_repetitions)
    ->DisplayAggregatesOnly()
    ->UseRealTime();
BENCHMARK(BM_NopThroughput8_LibraryNoHeartbeatWatch)
    ->Threads(c_threads)
    ->Iterations(c_perThread)
    ->Repetitions(c_repetitions)
    ->DisplayAggregatesOnly()
    ->UseRealTime();
BENCHMARK(BM_NopThroughput8_Floor)
    ->Threads(c_threads)
    ->Iterations(c_perThread)
    ->Repetitions(c_repetitions)
    ->DisplayAggregatesOnly()
    ->UseRealTime();
BENCHMARK(BM_NopThroughput8_FloorHandOffsOnly)
    ->Threads(c_threads)
    ->Iterations(c_perThread)
    ->Repetitions(c_repetitions)
    ->DisplayAggregatesOnly()
    ->UseRealTime();
BENCHMARK(BM_NopThroughput64_Raw)
    ->Threads(c_manyThreads)
    ->Iterations(c_perManyThread)
    ->Repetitions(c_repetitions)
    ->DisplayAggregatesOnly()
    ->UseRealTime();
BENCHMARK(BM_NopThroughput64_Library)
    ->Threads(c_manyThreads)
    ->Iterations(c_perManyThread)
    ->Repetitions(c_repetitions)
    ->DisplayAggregatesOnly()
    ->UseRealTime();
BENCHMARK(BM_Part_PingOnNewConnection_Raw)->Iterations(c_sequential * 3)->UseRealTime();
BENCHMARK(BM_Part_PingOnNewConnection_Library)->Iterations(c_sequential * 3)->UseRealTime();
BENCHMARK(BM_Part_HeartbeatWatchStartStop)->Iterations(500)->UseRealTime();
BENCHMARK(BM_Part_HeartbeatWatchStartStop)->Threads(c_threads)->Iterations(100)->UseRealTime();
BENCHMARK(BM_Part_EncodeRequestPackage)->Iterations(c_cpuOnly);
BENCHMARK(BM_Part_RequestAttachmentScan)->Iterations(c_cpuOnly);
BENCHMARK(BM_Part_DecodeRequestPackage)->Iterations(c_cpuOnly);
BENCHMARK(BM_Part_EncodeReplyPackage)->Iterations(c_cpuOnly);
BENCHMARK(BM_Part_DecodeReplyPackage)->Iterations(c_cpuOnly);
BENCHMARK(BM_Part_EncodeRequestPackageCold)->Iterations(c_coldCoding);
BENCHMARK(BM_Part_DecodeRequestPackageCold)->Iterations(c_coldCoding);
BENCHMARK(BM_Part_EncodeReplyPackageCold)->Iterations(c_coldCoding);
BENCHMARK(BM_Part_DecodeReplyPackageCold)->Iterations(c_coldCoding);
BENCHMARK(BM_Part_ThreadHandOffAndBack)->Iterations(c_sequential * 12)->UseRealTime();

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "--raw-server")
        return runRawServer(c_threads);
    if (argc > 1 && std::string(argv[1]) == "--floor-server") {
        Logging::setLevel(LogLevel::Warn);
        static const RoundTripWork work = floorWork();
        // The request server (its handler knows the request types) and a first coding, before
        // the port is announced.
        if (!RequestServer::getInstance(-1, 0))
            return 1;
        decodeNopRequestPackage(encodeNopRequestPackage());
        return runFloorServer(c_threads, work);
    }
    initializeBenchmarks(argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    Logging::setLevel(LogLevel::Warn);
    int result = 0;
    RequestServer* ownServer = nullptr;
    Peers peers;
    s_peers = &peers;
    try {
        // The children first, so that they inherit none of this process's sockets.
        peers.server = startRequestServer();
        peers.publisherPort = peers.server->announcedPort("PUBLISHER");
        peers.rawServer =
            std::make_unique<Child>(selfExecutable(), std::vector<std::string>{"--raw-server"});
        peers.floorServer =
            std::make_unique<Child>(selfExecutable(), std::vector<std::string>{"--floor-server"});
        ownServer = RequestServer::getInstance(-1, 0);
        if (peers.publisherPort <= 0 || !ownServer)
            throw std::runtime_error("no publisher port, or no request server in this process");
        peers.rawListener = std::make_unique<RawReplyListener>();
        peers.floorListener =
            std::make_unique<RawReplyListener>(c_threads, floorWork().decodeReply);
        peers.handOffListener = std::make_unique<RawReplyListener>(c_threads);
        capturePackages();

        KeepingReporter reporter;
        benchmark::RunSpecifiedBenchmarks(&reporter);

        std::printf("\nSummary (ours = library, reference = raw sockets):\n");
        printComparison("NOP round trip, median latency", //
                        reporter.counter("BM_NopLatency_Library", "median_us"),
                        reporter.counter("BM_NopLatency_Raw", "median_us"), "us", false, 1.5);
        printComparison("  the same without heartbeat watch",
                        reporter.counter("BM_NopLatency_LibraryNoHeartbeatWatch", "median_us"),
                        reporter.counter("BM_NopLatency_Raw", "median_us"), "us", false, 1.5);
        printComparison("NOP round trips, 8 threads", //
                        reporter.counter("BM_NopThroughput8_Library", "items_per_second"),
                        reporter.counter("BM_NopThroughput8_Raw", "items_per_second"), "req/s",
                        true, 0.6);
        printComparison(
            "  the same without heartbeat watch",
            reporter.counter("BM_NopThroughput8_LibraryNoHeartbeatWatch", "items_per_second"),
            reporter.counter("BM_NopThroughput8_Raw", "items_per_second"), "req/s", true, 0.6);
        printComparison("NOP round trips, 64 threads",
                        reporter.counter("BM_NopThroughput64_Library", "items_per_second"),
                        reporter.counter("BM_NopThroughput64_Raw", "items_per_second"), "req/s",
                        true, 0);
        // What bounds both: the CPU time that one round trip costs the two processes.
        auto cpu = [&](const std::string& name) {
            double client = reporter.counter(name, "client_cpu_us");
            double server = reporter.counter(name, "server_cpu_us");
            return client < 0 || server < 0 ? -1 : client + server;
        };
        printComparison("CPU per round trip, both processes", cpu("BM_NopLatency_Library"),
                        cpu("BM_NopLatency_Raw"), "us", false, 1.7);
        printComparison("  the same without heartbeat watch",
                        cpu("BM_NopLatency_LibraryNoHeartbeatWatch"), cpu("BM_NopLatency_Raw"),
                        "us", false, 0);
        printComparison("CPU per round trip, 8 threads", cpu("BM_NopThroughput8_Library"),
                        cpu("BM_NopThroughput8_Raw"), "us", false, 0);
        printComparison("  the same without heartbeat watch",
                        cpu("BM_NopThroughput8_LibraryNoHeartbeatWatch"),
                        cpu("BM_NopThroughput8_Raw"), "us", false, 0);

        std::printf(
            "\nThe floor (raw sockets with the design's thread hand-offs and the library's "
            "package coding) against the raw exchange, and the library against the floor:\n");
        // Latency, throughput with 8 threads and CPU of one run's family against another's.
        auto compareRuns = [&](const std::string& title, const std::string& ours,
                               const std::string& reference) {
            printComparison(
                title + ": median latency", reporter.counter("BM_NopLatency_" + ours, "median_us"),
                reporter.counter("BM_NopLatency_" + reference, "median_us"), "us", false, 0);
            printComparison(title + ": 8 threads",
                            reporter.counter("BM_NopThroughput8_" + ours, "items_per_second"),
                            reporter.counter("BM_NopThroughput8_" + reference, "items_per_second"),
                            "req/s", true, 0);
            printComparison(title + ": CPU per round trip", cpu("BM_NopLatency_" + ours),
                            cpu("BM_NopLatency_" + reference), "us", false, 0);
        };
        compareRuns("Hand-offs only vs raw", "FloorHandOffsOnly", "Raw");
        compareRuns("Floor vs raw", "Floor", "Raw");
        compareRuns("Library vs floor", "Library", "Floor");
    } catch (const std::exception& e) {
        std::fprintf(stderr, "RoundTripBench: %s\n", e.what());
        result = 1;
    }
    peers.handOffListener.reset();
    peers.floorListener.reset();
    peers.floorServer.reset();
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
