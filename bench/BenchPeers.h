// Helpers shared by the benchmarks that run between two processes: child processes (the real
// ks-request-server, and the benchmark binary itself re-executed as a raw peer), plain socket
// input and output for the raw reference implementations, and a reporter that keeps the figures
// of each run for the comparison printed at the end.
#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Process.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#ifndef KS_REQUEST_SERVER_PROGRAM
#error "KS_REQUEST_SERVER_PROGRAM names the ks-request-server executable"
#endif

namespace BenchPeers {

inline std::string selfExecutable() {
    char path[4096];
    ssize_t n = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0)
        throw std::runtime_error("readlink /proc/self/exe");
    return std::string(path, static_cast<size_t>(n));
}

// ---- child processes ----

// A child that announces "PORT <n>" on the first line of its standard output. Its standard error
// stays this process's, so that its warnings are seen.
class Child {
public:
    Child(const std::string& executable, const std::vector<std::string>& args)
        : m_process(executable, args) {
        m_process.captureStandardOutput();
        if (!m_process.start(Kestrane::Computing::Detached))
            throw std::runtime_error("cannot start " + executable + ": " +
                                     m_process.getErrorMessage());
        m_port = announcedPort("PORT");
        if (m_port <= 0) {
            stop();
            throw std::runtime_error(executable + " announced no port");
        }
    }
    ~Child() { stop(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    int port() const { return m_port; }
    // The number behind `word` on the next line of standard output, or -1.
    int announcedPort(const std::string& word) {
        std::string line = nextLine(std::chrono::milliseconds(20000));
        if (line.rfind(word + " ", 0) != 0)
            return -1;
        return std::stoi(line.substr(word.size() + 1));
    }
    pid_t pid() const { return m_process.getPid(); }
    // SIGTERM and a wait for the end; SIGKILL only for a child that does not stop by itself.
    void stop() {
        if (!m_process.isRunning())
            return;
        m_process.kill(SIGTERM);
        int code = 0;
        if (!m_process.waitFor(20000, code)) {
            std::fprintf(stderr, "child %d did not stop on SIGTERM; killing it\n",
                         static_cast<int>(m_process.getPid()));
            m_process.kill(SIGKILL);
            m_process.wait();
        }
    }

private:
    std::string nextLine(std::chrono::milliseconds limit) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        size_t end;
        while ((end = m_output.find('\n')) == std::string::npos) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd p{m_process.getStandardOutputFd(), POLLIN, 0};
            if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0)
                return std::string();
            char buffer[256];
            ssize_t n = ::read(p.fd, buffer, sizeof(buffer));
            if (n <= 0)
                return std::string();
            m_output.append(buffer, static_cast<size_t>(n));
        }
        std::string line = m_output.substr(0, end);
        m_output.erase(0, end + 1);
        return line;
    }

    Kestrane::Computing::Process m_process;
    std::string m_output;
    int m_port = -1;
};

// The real server program, quiet but for warnings; `environment` is set for its start only.
inline std::unique_ptr<Child>
startRequestServer(const std::vector<std::pair<std::string, std::string>>& environment = {}) {
    for (const auto& [name, value] : environment)
        ::setenv(name.c_str(), value.c_str(), 1);
    auto child = std::make_unique<Child>(KS_REQUEST_SERVER_PROGRAM,
                                         std::vector<std::string>{"-logLevel", "WARN"});
    for (const auto& [name, value] : environment)
        ::unsetenv(name.c_str());
    return child;
}

// Blocks SIGTERM and SIGINT in the calling thread (and the threads it starts later), then
// waits for one of them. For the raw peers, whose threads must not take the signal.
inline sigset_t blockStopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}
inline void waitForStopSignal(const sigset_t& signals) {
    int signal = 0;
    sigwait(&signals, &signal);
}

// ---- plain sockets ----

inline void noDelay(int fd) {
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
}

// A loopback listener on a port that the system picks.
inline int listenLoopback(int& port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(fd, 512) != 0)
        throw std::runtime_error(std::string("listen: ") + std::strerror(errno));
    socklen_t length = sizeof(address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    return fd;
}

inline int connectLoopback(int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        throw std::runtime_error(std::string("connect: ") + std::strerror(errno));
    }
    noDelay(fd);
    return fd;
}

inline void writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            throw std::runtime_error(std::string("send: ") + std::strerror(errno));
        data += n;
        size -= static_cast<size_t>(n);
    }
}

// One text packet: "TYPE LENGTH payload", header and payload in one write.
inline void writePacket(int fd, const std::string& type, const std::string& payload) {
    std::string packet = type + " " + std::to_string(payload.size()) + " " + payload;
    writeAll(fd, packet.data(), packet.size());
}

// Buffered packet reader: one recv fills the buffer with as much as has come.
class PacketReader {
public:
    explicit PacketReader(int fd) : m_fd(fd), m_buffer(new char[c_bufferSize]) {}

    // False at the end of the connection.
    bool readPacket(std::string& type, std::string& payload) {
        type.clear();
        std::string length;
        char c;
        while (readByte(c) && c != ' ')
            type += c;
        while (readByte(c) && c != ' ')
            length += c;
        if (type.empty() || length.empty())
            return false;
        payload.resize(std::stoul(length));
        return readBlock(payload.data(), payload.size());
    }
    // Raw bytes behind a packet, first from the buffer, then straight from the socket.
    bool readBlock(char* data, size_t size) {
        size_t fromBuffer = std::min(size, m_end - m_begin);
        std::memcpy(data, m_buffer.get() + m_begin, fromBuffer);
        m_begin += fromBuffer;
        size_t done = fromBuffer;
        while (done < size) {
            ssize_t n = ::recv(m_fd, data + done, size - done, 0);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return false;
            done += static_cast<size_t>(n);
        }
        return true;
    }
    size_t buffered() const { return m_end - m_begin; }

private:
    bool readByte(char& c) {
        if (m_begin == m_end) {
            ssize_t n;
            do
                n = ::recv(m_fd, m_buffer.get(), c_bufferSize, 0);
            while (n < 0 && errno == EINTR);
            if (n <= 0)
                return false;
            m_begin = 0;
            m_end = static_cast<size_t>(n);
        }
        c = m_buffer[m_begin++];
        return true;
    }

    static constexpr size_t c_bufferSize = 64 * 1024;
    int m_fd;
    std::unique_ptr<char[]> m_buffer; // not zeroed, as in the library's sockets
    size_t m_begin = 0;
    size_t m_end = 0;
};

// ---- running ----

// benchmark::Initialize with the defaults of these runs in front of the command line, which can
// still change them: repetitions run in random order, so that a phase of load from elsewhere on
// the machine does not fall on one side of a comparison only.
inline void initializeBenchmarks(int& argc, char**& argv) {
    static std::vector<std::string> defaults{"--benchmark_enable_random_interleaving=true"};
    static std::vector<char*> args;
    args.push_back(argv[0]);
    for (auto& flag : defaults)
        args.push_back(flag.data());
    for (int i = 1; i < argc; ++i)
        args.push_back(argv[i]);
    args.push_back(nullptr);
    argc = static_cast<int>(args.size()) - 1;
    argv = args.data();
    benchmark::Initialize(&argc, argv);
}

// ---- reporting ----

// The payload of the first packet of `type` that the captured log shows going out ("SEND") or
// coming in ("RECV"): what the library put on the wire (whole below 10000 characters).
inline std::string loggedPayload(const Kestrane::LogCapture& capture, const std::string& direction,
                                 const std::string& type) {
    for (const auto& message : capture.messages()) {
        if (message.rfind(direction + " ", 0) != 0)
            continue;
        auto at = message.find(" - " + type + " ");
        if (at != std::string::npos)
            return message.substr(at + type.size() + 4);
    }
    return std::string();
}

// CPU time (user and system, all threads) of this process and of a child over a stretch of
// work, per item of that work.
class CpuPerItem {
public:
    explicit CpuPerItem(pid_t child) : m_child(child) {
        m_self = cpuSeconds(::getpid());
        m_childStart = cpuSeconds(child);
    }
    // Sets the counters "client_cpu_us" and "server_cpu_us" per item.
    void report(benchmark::State& state, double items) const {
        if (items <= 0)
            return;
        state.counters["client_cpu_us"] = (cpuSeconds(::getpid()) - m_self) * 1e6 / items;
        state.counters["server_cpu_us"] = (cpuSeconds(m_child) - m_childStart) * 1e6 / items;
    }
    static double cpuSeconds(pid_t pid) {
        std::FILE* file = std::fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "r");
        if (!file)
            return 0;
        char text[2048];
        size_t n = std::fread(text, 1, sizeof(text) - 1, file);
        std::fclose(file);
        text[n] = 0;
        // Fields 14 and 15, utime and stime, counted after the command name in parentheses.
        const char* at = std::strrchr(text, ')');
        if (!at)
            return 0;
        unsigned long long utime = 0, stime = 0;
        if (std::sscanf(at + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &utime,
                        &stime) != 2)
            return 0;
        return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
    }

private:
    pid_t m_child;
    double m_self = 0;
    double m_childStart = 0;
};

// The wall time of each iteration, for a median that a few slow ones (other processes on the
// machine) do not move.
class Latencies {
public:
    explicit Latencies(size_t expected) { m_microseconds.reserve(expected); }
    template <typename Work> void time(Work&& work) {
        auto start = std::chrono::steady_clock::now();
        work();
        m_microseconds.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
                .count());
    }
    // Sets the counters "median_us", "p10_us" and "p90_us".
    void report(benchmark::State& state) {
        if (m_microseconds.empty())
            return;
        std::sort(m_microseconds.begin(), m_microseconds.end());
        auto at = [&](double fraction) {
            return m_microseconds[static_cast<size_t>(
                fraction * static_cast<double>(m_microseconds.size() - 1))];
        };
        state.counters["median_us"] = at(0.5);
        state.counters["p10_us"] = at(0.1);
        state.counters["p90_us"] = at(0.9);
    }

private:
    std::vector<double> m_microseconds;
};

// The console output as usual, and the figures of every run kept by name for the summary.
class KeepingReporter : public benchmark::ConsoleReporter {
public:
    // Colours only on a terminal: the figures usually go into a file.
    KeepingReporter() : ConsoleReporter(::isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}
    // Of repeated runs the median counts, else the one run.
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            if (run.error_occurred)
                continue;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.run_type != Run::RT_Iteration && !median)
                continue;
            Figures& figures = m_figures[run.run_name.function_name];
            if (figures.fromMedian && !median)
                continue;
            figures.fromMedian = median;
            figures.realSecondsPerIteration = run.GetAdjustedRealTime();
            for (const auto& [name, counter] : run.counters)
                figures.counters[name] = counter.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    struct Figures {
        bool fromMedian = false;
        double realSecondsPerIteration = 0;
        std::map<std::string, double> counters;
    };
    // A counter of the named benchmark, or a negative value when it did not run.
    double counter(const std::string& benchmarkName, const std::string& counterName) const {
        auto run = m_figures.find(benchmarkName);
        if (run == m_figures.end())
            return -1;
        auto found = run->second.counters.find(counterName);
        return found == run->second.counters.end() ? -1 : found->second;
    }

private:
    std::map<std::string, Figures> m_figures;
};

// One line of the summary: ours against the reference, and whether the target is met (no
// target for `target` 0).
inline void printComparison(const std::string& what, double ours, double reference,
                            const std::string& unit, bool higherIsBetter, double target) {
    if (ours <= 0 || reference <= 0) {
        std::printf("%-44s not measured\n", what.c_str());
        return;
    }
    double ratio = ours / reference;
    if (target <= 0) {
        std::printf("%-44s ours %12.2f %-6s reference %12.2f %-6s ratio %6.3f\n", what.c_str(),
                    ours, unit.c_str(), reference, unit.c_str(), ratio);
        return;
    }
    bool met = higherIsBetter ? ratio >= target : ratio <= target;
    std::printf("%-44s ours %12.2f %-6s reference %12.2f %-6s ratio %6.3f (target %s %.2f): %s\n",
                what.c_str(), ours, unit.c_str(), reference, unit.c_str(), ratio,
                higherIsBetter ? ">=" : "<=", target, met ? "met" : "NOT met");
}

} // namespace BenchPeers
