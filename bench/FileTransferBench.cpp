// A 1 GiB file between two processes over loopback: a TestRequest PUT_FILE whose file attachment
// is forced to travel, from this process to a ks-request-server child that stores it in its
// temporary directory, against a raw copy of the same file with sendfile to a raw receiver child
// (this binary re-executed) that splices it into a file in a directory beside it. Both count
// until the receiver has answered, in MB/s (10^6 bytes).
//
// The file has real bytes, written once per run; all files live in a temporary directory that
// the run removes. Received copies are removed and the disk synced outside the timed part, so
// that one copy's write-back does not fall into the next copy's time.
//
// Run: bin/FileTransferBench (from the build directory).
#include "BenchPeers.h"

#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace Kestrane;
using namespace BenchPeers;
namespace fs = std::filesystem;

namespace {

constexpr uint64_t c_fileSize = 1ULL << 30;
constexpr int c_iterations = 2; // per repetition
constexpr int c_repetitions = 6;

// ---- the raw receiver, run in a child process ----

// Reads one text packet a byte at a time, so that nothing of the file behind it is taken.
bool readHeader(int fd, std::string& type, std::string& payload) {
    auto field = [&](std::string& text) {
        char c;
        for (;;) {
            ssize_t n = ::recv(fd, &c, 1, 0);
            if (n <= 0)
                return false;
            if (c == ' ')
                return true;
            text += c;
        }
    };
    std::string length;
    type.clear();
    if (!field(type) || !field(length))
        return false;
    payload.resize(std::stoul(length));
    size_t done = 0;
    while (done < payload.size()) {
        ssize_t n = ::recv(fd, payload.data() + done, payload.size() - done, 0);
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// Socket to file through a pipe, as a receiver that does not copy through user space would.
bool spliceToFile(int socket, int file, uint64_t size) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0)
        return false;
    const int pipeSize = ::fcntl(pipeFds[1], F_SETPIPE_SZ, 1 << 20);
    const size_t chunk = pipeSize > 0 ? static_cast<size_t>(pipeSize) : 65536;
    uint64_t done = 0;
    bool ok = true;
    while (ok && done < size) {
        ssize_t got =
            ::splice(socket, nullptr, pipeFds[1], nullptr,
                     static_cast<size_t>(std::min<uint64_t>(chunk, size - done)), SPLICE_F_MOVE);
        if (got <= 0) {
            ok = got < 0 && errno == EINTR;
            continue;
        }
        ssize_t left = got;
        while (left > 0) {
            ssize_t moved = ::splice(pipeFds[0], nullptr, file, nullptr, static_cast<size_t>(left),
                                     SPLICE_F_MOVE);
            if (moved <= 0) {
                if (moved < 0 && errno == EINTR)
                    continue;
                ok = false;
                break;
            }
            left -= moved;
        }
        done += static_cast<uint64_t>(got);
    }
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);
    return ok;
}

// "C n FILE <size> <name>", the bytes, then the answer "C 2 OK" (or "C 5 ERROR") once the file
// is written and closed.
void receiveRawFile(int fd, const std::string& directory) {
    std::string type, payload;
    if (!readHeader(fd, type, payload) || type != "C" || payload.rfind("FILE ", 0) != 0)
        return;
    const size_t space = payload.find(' ', 5);
    const uint64_t size = std::stoull(payload.substr(5, space - 5));
    const std::string path = directory + "/" + payload.substr(space + 1);
    int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    bool ok = file >= 0 && spliceToFile(fd, file, size);
    if (file >= 0)
        ok = ::close(file) == 0 && ok;
    writePacket(fd, "C", ok ? "OK" : "ERROR");
}

int runRawReceiver(const std::string& directory) {
    sigset_t signals = blockStopSignals();
    int port = 0;
    int listener = listenLoopback(port);
    std::printf("PORT %d\n", port);
    std::fflush(stdout);
    std::thread([listener, directory] {
        for (;;) {
            int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0)
                continue;
            try {
                receiveRawFile(fd, directory);
            } catch (const std::exception& e) {
                std::fprintf(stderr, "raw receiver: %s\n", e.what());
            }
            ::close(fd);
        }
    }).detach();
    waitForStopSignal(signals);
    return 0;
}

// ---- this process ----

struct Setup {
    fs::path root;         // removed at the end
    fs::path source;       // the file that travels
    fs::path serverTmp;    // the server's temporary path (KS_PATH_TMP)
    fs::path rawDirectory; // where the raw receiver writes
    std::unique_ptr<Child> server;
    int publisherPort = -1;
    std::unique_ptr<Child> rawReceiver;
};
Setup* s_setup = nullptr;

// Real, varied bytes: no sparse file and nothing a file system could shortcut.
void writeSourceFile(const fs::path& path) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        throw std::runtime_error("cannot create " + path.string());
    std::vector<uint64_t> block((4u << 20) / sizeof(uint64_t));
    std::mt19937_64 random(42);
    for (uint64_t written = 0; written < c_fileSize;) {
        for (auto& word : block)
            word = random();
        size_t want = static_cast<size_t>(
            std::min<uint64_t>(block.size() * sizeof(uint64_t), c_fileSize - written));
        const char* data = reinterpret_cast<const char*>(block.data());
        size_t done = 0;
        while (done < want) {
            ssize_t n = ::write(fd, data + done, want - done);
            if (n <= 0)
                throw std::runtime_error("cannot write " + path.string());
            done += static_cast<size_t>(n);
        }
        written += want;
    }
    ::fsync(fd);
    ::close(fd);
}

// The regular files of the size that travels, below `directory`.
std::vector<fs::path> copiesBelow(const fs::path& directory) {
    std::vector<fs::path> found;
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(directory, error);
         !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        if (it->is_regular_file(error) && it->file_size(error) == c_fileSize)
            found.push_back(it->path());
    }
    return found;
}

// Whether `copy` has the source's bytes at 16 places spread over the file.
bool sameBytesSampled(const fs::path& copy) {
    int a = ::open(s_setup->source.c_str(), O_RDONLY | O_CLOEXEC);
    int b = ::open(copy.c_str(), O_RDONLY | O_CLOEXEC);
    bool same = a >= 0 && b >= 0;
    std::vector<char> x(4096), y(4096);
    for (uint64_t i = 0; same && i < 16; ++i) {
        const off_t at = static_cast<off_t>(i * (c_fileSize - x.size()) / 15);
        same = ::pread(a, x.data(), x.size(), at) == static_cast<ssize_t>(x.size()) &&
               ::pread(b, y.data(), y.size(), at) == static_cast<ssize_t>(y.size()) && x == y;
    }
    if (a >= 0)
        ::close(a);
    if (b >= 0)
        ::close(b);
    return same;
}

// The server keeps what it received in its temporary directory; finding the copy there shows
// that the file travelled. It is removed, and the disk synced, before the next copy is timed, so
// that one copy's write-back does not fall into the next copy's time. False without a right
// copy.
bool removeServerCopy() {
    const auto copies = copiesBelow(s_setup->serverTmp);
    bool right = copies.size() == 1 && sameBytesSampled(copies.front());
    for (const auto& path : copies)
        fs::remove(path);
    ::sync();
    return right;
}

void reportRate(benchmark::State& state) {
    state.counters["MB_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()) *
                                                        static_cast<double>(c_fileSize) / 1e6,
                                                    benchmark::Counter::kIsRate);
}

void BM_FileTransfer1GiB_Library(benchmark::State& state) {
    HostInfo host("127.0.0.1", "localhost");
    host.setRequestServerPort(s_setup->server->port());
    host.setPublisherPort(s_setup->publisherPort);
    TcpRequestClient client("bench", host);
    for (auto _ : state) {
        RequestEncoder put("TestRequest");
        put.addElement("command", "PUT_FILE", "  ");
        put.addElement("data", std::to_string(c_fileSize), "  ");
        put.addFilePath("file", FileName(s_setup->source.string()), true, "  ");
        auto reply = client.handleRequest(put, nullptr, "");
        if (!reply || reply->getElement("data") != "OK") {
            state.SkipWithError("PUT_FILE failed");
            break;
        }
        state.PauseTiming();
        const bool travelled = removeServerCopy();
        state.ResumeTiming();
        if (!travelled) {
            state.SkipWithError("no right copy of the file on the server's side");
            break;
        }
    }
    reportRate(state);
}

void BM_FileTransfer1GiB_RawSendfile(benchmark::State& state) {
    const std::string name = "raw-copy.bin";
    for (auto _ : state) {
        int file = ::open(s_setup->source.c_str(), O_RDONLY | O_CLOEXEC);
        int fd = connectLoopback(s_setup->rawReceiver->port());
        writePacket(fd, "C", "FILE " + std::to_string(c_fileSize) + " " + name);
        off_t offset = 0;
        bool ok = true;
        while (ok && static_cast<uint64_t>(offset) < c_fileSize) {
            ssize_t sent = ::sendfile(fd, file, &offset,
                                      static_cast<size_t>(std::min<uint64_t>(
                                          4u << 20, c_fileSize - static_cast<uint64_t>(offset))));
            ok = sent > 0 || (sent < 0 && errno == EINTR);
        }
        std::string type, answer;
        ok = ok && readHeader(fd, type, answer) && answer == "OK";
        ::close(fd);
        ::close(file);
        state.PauseTiming();
        const fs::path copy = s_setup->rawDirectory / name;
        std::error_code error;
        ok = ok && fs::file_size(copy, error) == c_fileSize && sameBytesSampled(copy);
        if (!ok)
            state.SkipWithError("raw copy failed");
        fs::remove(copy, error);
        ::sync();
        state.ResumeTiming();
        if (!ok)
            break;
    }
    reportRate(state);
}

} // namespace

BENCHMARK(BM_FileTransfer1GiB_RawSendfile)
    ->Iterations(c_iterations)
    ->Repetitions(c_repetitions)
    ->DisplayAggregatesOnly()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FileTransfer1GiB_Library)
    ->Iterations(c_iterations)
    ->Repetitions(c_repetitions)
    ->DisplayAggregatesOnly()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    if (argc > 2 && std::string(argv[1]) == "--raw-receiver")
        return runRawReceiver(argv[2]);
    initializeBenchmarks(argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    Logging::setLevel(LogLevel::Warn);
    int result = 0;
    RequestServer* ownServer = nullptr;
    Setup setup;
    s_setup = &setup;
    try {
        std::string pattern = (fs::temp_directory_path() / "ks-filebench-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            throw std::runtime_error("mkdtemp failed");
        setup.root = pattern;
        setup.source = setup.root / "source" / "file-1GiB.bin";
        setup.serverTmp = setup.root / "ks-tmp";
        setup.rawDirectory = setup.root / "raw-received";
        fs::create_directories(setup.source.parent_path());
        fs::create_directories(setup.serverTmp);
        fs::create_directories(setup.rawDirectory);
        // Both processes keep their temporary files inside the run's directory.
        ::setenv("KS_PATH_TMP", setup.serverTmp.c_str(), 1);

        auto started = std::chrono::steady_clock::now();
        writeSourceFile(setup.source);
        std::printf(
            "Wrote %llu bytes to %s in %.1f s\n", static_cast<unsigned long long>(c_fileSize),
            setup.source.c_str(),
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());

        setup.server = startRequestServer();
        setup.publisherPort = setup.server->announcedPort("PUBLISHER");
        setup.rawReceiver = std::make_unique<Child>(
            selfExecutable(),
            std::vector<std::string>{"--raw-receiver", setup.rawDirectory.string()});
        ownServer = RequestServer::getInstance(-1, 0);
        if (setup.publisherPort <= 0 || !ownServer)
            throw std::runtime_error("no publisher port, or no request server in this process");

        KeepingReporter reporter;
        benchmark::RunSpecifiedBenchmarks(&reporter);

        std::printf("\nSummary (ours = library, reference = raw sendfile/splice):\n");
        printComparison("1 GiB file transfer", //
                        reporter.counter("BM_FileTransfer1GiB_Library", "MB_per_s"),
                        reporter.counter("BM_FileTransfer1GiB_RawSendfile", "MB_per_s"), "MB/s",
                        true, 0.8);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "FileTransferBench: %s\n", e.what());
        result = 1;
    }
    setup.rawReceiver.reset();
    setup.server.reset();
    if (ownServer) {
        ownServer->stop();
        ownServer->waitForShutdown();
    }
    if (!setup.root.empty()) {
        std::error_code error;
        fs::remove_all(setup.root, error);
    }
    benchmark::Shutdown();
    return result;
}
