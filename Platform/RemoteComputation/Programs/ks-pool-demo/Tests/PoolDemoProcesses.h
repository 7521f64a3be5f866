#pragma once

// Runs the real ks-pool-demo in tests and reads what it and its worker processes leave behind:
// its output line by line with the time each line came, the workers' output files, the state of
// processes in /proc.
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Process.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <fstream>
#include <functional>
#include <iomanip>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <poll.h>
#include <regex>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#ifndef KS_BINARY_DIR
#error "KS_BINARY_DIR names the build tree"
#endif

namespace Kestrane {
namespace PoolDemoTesting {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

inline const std::string& demoProgram() {
    static const std::string program = KS_BINARY_DIR "/bin/ks-pool-demo";
    return program;
}

// Environment variables for the processes started while it lives (they inherit this process's
// environment); the old values come back at its end, so that tests run in one process don't
// leak into each other.
class ScopedEnvironment {
public:
    ScopedEnvironment() = default;
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;
    ~ScopedEnvironment() {
        for (auto it = m_saved.rbegin(); it != m_saved.rend(); ++it) {
            if (it->second)
                ::setenv(it->first.c_str(), it->second->c_str(), 1);
            else
                ::unsetenv(it->first.c_str());
        }
    }
    void set(const std::string& name, const std::string& value) {
        save(name);
        ::setenv(name.c_str(), value.c_str(), 1);
    }
    void unset(const std::string& name) {
        save(name);
        ::unsetenv(name.c_str());
    }

private:
    void save(const std::string& name) {
        const char* old = std::getenv(name.c_str());
        m_saved.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
    }
    std::vector<std::pair<std::string, std::optional<std::string>>> m_saved;
};

// A pipe read on a thread of its own, split into lines that carry the time they were read: a
// test can tell when something was said, and a process that writes a lot never blocks.
class OutputLines {
public:
    struct Line {
        Clock::time_point at;
        std::string text;
    };

    explicit OutputLines(int fd) : m_fd(fd), m_thread([this] { run(); }) {}
    ~OutputLines() {
        m_stop = true;
        m_thread.join();
    }
    OutputLines(const OutputLines&) = delete;
    OutputLines& operator=(const OutputLines&) = delete;

    std::string text() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::string all;
        for (const auto& line : m_lines)
            all += line.text + "\n";
        return all + m_partial;
    }
    std::vector<Line> lines() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    // The first line for which `match` holds, waiting up to `limit` for it to come.
    std::optional<Line> waitFor(const std::function<bool(const std::string&)>& match,
                                std::chrono::milliseconds limit) {
        const auto deadline = Clock::now() + limit;
        std::unique_lock<std::mutex> lock(m_mutex);
        size_t checked = 0;
        for (;;) {
            for (; checked < m_lines.size(); ++checked)
                if (match(m_lines[checked].text))
                    return m_lines[checked];
            if (m_closed || Clock::now() >= deadline)
                return std::nullopt;
            m_condition.wait_until(lock, deadline);
        }
    }
    std::optional<Line> waitFor(const std::regex& pattern, std::chrono::milliseconds limit) {
        return waitFor(
            [&pattern](const std::string& text) { return std::regex_search(text, pattern); },
            limit);
    }
    std::optional<Line> find(const std::regex& pattern) { return waitFor(pattern, 0ms); }
    size_t count(const std::regex& pattern) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        size_t n = 0;
        for (const auto& line : m_lines)
            n += std::regex_search(line.text, pattern) ? 1 : 0;
        return n;
    }
    // Waits until the writers have closed the pipe.
    bool waitForClose(std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_condition.wait_for(lock, limit, [this] { return m_closed; });
    }

private:
    void run() {
        char buffer[65536];
        while (!m_stop) {
            pollfd p{m_fd, POLLIN, 0};
            const int ready = ::poll(&p, 1, 50);
            if (ready == 0 || (ready < 0 && errno == EINTR))
                continue;
            const ssize_t n = ready > 0 ? ::read(m_fd, buffer, sizeof(buffer)) : -1;
            if (n < 0 && errno == EINTR)
                continue;
            std::lock_guard<std::mutex> lock(m_mutex);
            if (n <= 0) {
                if (!m_partial.empty())
                    m_lines.push_back({Clock::now(), m_partial});
                m_partial.clear();
                m_closed = true;
                m_condition.notify_all();
                return;
            }
            const auto now = Clock::now();
            m_partial.append(buffer, static_cast<size_t>(n));
            size_t start = 0, end;
            while ((end = m_partial.find('\n', start)) != std::string::npos) {
                m_lines.push_back({now, m_partial.substr(start, end - start)});
                start = end + 1;
            }
            m_partial.erase(0, start);
            m_condition.notify_all();
        }
    }

    int m_fd;
    std::atomic<bool> m_stop{false};
    mutable std::mutex m_mutex;
    std::condition_variable m_condition;
    std::vector<Line> m_lines;
    std::string m_partial;
    bool m_closed = false;
    std::thread m_thread;
};

// The RESULT line of a master.
struct DemoResult {
    unsigned long long primes = 0;
    unsigned int tasks = 0;
    unsigned int failed = 0;
    unsigned int workers = 0;
    double seconds = 0;
};

inline std::optional<DemoResult> resultOf(const std::string& output) {
    std::smatch match;
    static const std::regex line("(^|\\n)RESULT primes=(\\d+) tasks=(\\d+) failed=(\\d+) "
                                 "workers=(\\d+) seconds=([0-9.]+)\\n");
    if (!std::regex_search(output, match, line))
        return std::nullopt;
    DemoResult result;
    result.primes = std::stoull(match[2]);
    result.tasks = static_cast<unsigned int>(std::stoul(match[3]));
    result.failed = static_cast<unsigned int>(std::stoul(match[4]));
    result.workers = static_cast<unsigned int>(std::stoul(match[5]));
    result.seconds = std::stod(match[6]);
    return result;
}

// ks-pool-demo (or another program) started as a real process with both outputs read as they
// come. Killed at the end if it still runs.
class DemoRun {
public:
    explicit DemoRun(const std::vector<std::string>& args,
                     const std::string& program = demoProgram())
        : m_process(program, args), m_begin(Clock::now()) {
        m_process.captureStandardOutput();
        m_process.captureStandardError();
        m_started = m_process.start(Computing::Detached);
        if (m_started) {
            m_out = std::make_unique<OutputLines>(m_process.getStandardOutputFd());
            m_err = std::make_unique<OutputLines>(m_process.getStandardErrorFd());
        }
    }
    ~DemoRun() {
        if (m_started && m_process.isRunning()) {
            m_process.kill(SIGKILL);
            m_process.wait();
        }
    }
    DemoRun(const DemoRun&) = delete;
    DemoRun& operator=(const DemoRun&) = delete;

    bool started() const { return m_started; }
    std::string startError() const { return m_process.getErrorMessage(); }
    pid_t pid() const { return m_process.getPid(); }
    Clock::time_point begin() const { return m_begin; }
    OutputLines& out() { return *m_out; }
    OutputLines& err() { return *m_err; }
    Computing::Process& process() { return m_process; }

    // The exit code (128 + signal when killed), or -2 when it still runs after `limit`. Its
    // output is read to the end then.
    int waitForExit(std::chrono::milliseconds limit) {
        int code = -2;
        if (!m_process.waitFor(static_cast<unsigned int>(limit.count()), code))
            return -2;
        m_ended = Clock::now();
        m_out->waitForClose(2000ms);
        m_err->waitForClose(2000ms);
        return code;
    }
    Clock::time_point ended() const { return m_ended; }
    std::optional<DemoResult> result() const { return resultOf(m_out->text()); }

    // For failure messages: the output and the end of the log.
    std::string describe(size_t logLines = 60) const {
        if (!m_started)
            return "not started: " + m_process.getErrorMessage();
        std::string text = "--- stdout\n" + m_out->text() + "--- stderr (last lines)\n";
        auto lines = m_err->lines();
        for (size_t i = lines.size() > logLines ? lines.size() - logLines : 0; i < lines.size();
             ++i)
            text += lines[i].text.substr(0, 400) + "\n";
        return text;
    }

private:
    Computing::Process m_process;
    Clock::time_point m_begin;
    Clock::time_point m_ended;
    bool m_started = false;
    std::unique_ptr<OutputLines> m_out;
    std::unique_ptr<OutputLines> m_err;
};

inline std::string readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Files directly in `directory` whose names match `name`, with their full paths.
inline std::vector<std::string> filesIn(const std::string& directory, const std::regex& name) {
    std::vector<std::string> found;
    if (DIR* dir = ::opendir(directory.c_str())) {
        while (dirent* entry = ::readdir(dir)) {
            const std::string leaf = entry->d_name;
            if (leaf != "." && leaf != ".." && std::regex_match(leaf, name))
                found.push_back(directory + "/" + leaf);
        }
        ::closedir(dir);
    }
    std::sort(found.begin(), found.end());
    return found;
}

// The process that wrote a log: every log line says "[pid:thread]". 0 while no line is there.
inline pid_t pidOfLog(const std::string& path) {
    std::smatch match;
    const std::string text = readWholeFile(path);
    static const std::regex tag(" \\[(\\d+):\\d+\\] ");
    if (!std::regex_search(text, match, tag))
        return 0;
    return static_cast<pid_t>(std::stol(match[1]));
}

// Process id by output file, for the files of `directory` that match `name` and hold a line.
inline std::map<std::string, pid_t> pidsOfLogs(const std::string& directory,
                                               const std::regex& name) {
    std::map<std::string, pid_t> pids;
    for (const auto& file : filesIn(directory, name))
        if (pid_t pid = pidOfLog(file))
            pids[file] = pid;
    return pids;
}

// The fields of /proc/<pid>/stat from the third (the state) on; empty when there is no such
// process.
inline std::vector<std::string> statFields(pid_t pid) {
    const std::string text = readWholeFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = text.rfind(')');
    std::vector<std::string> fields;
    if (close == std::string::npos)
        return fields;
    std::istringstream rest(text.substr(close + 1));
    for (std::string field; rest >> field;)
        fields.push_back(field);
    return fields;
}

// 'R', 'S', 'T', 'Z' ...; 0 when there is no such process.
inline char processState(pid_t pid) {
    auto fields = statFields(pid);
    return fields.empty() || fields[0].empty() ? 0 : fields[0][0];
}

// The exit code of a zombie, as its parent would get it; empty when the process is not one.
inline std::optional<int> zombieExitCode(pid_t pid) {
    auto fields = statFields(pid);
    // The exit status is field 52 of the file, the 50th from the state on.
    if (fields.size() < 50 || fields[0] != "Z")
        return std::nullopt;
    const int status = std::stoi(fields[49]);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// True when the process no longer runs: there is none, or it is a zombie. A zombie that is a
// child of this process (a subreaper gets the orphans) is reaped.
inline bool processEnded(pid_t pid) {
    const char state = processState(pid);
    if (state == 0)
        return true;
    if (state != 'Z')
        return false;
    ::waitpid(pid, nullptr, WNOHANG);
    return true;
}

inline bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit,
                    std::chrono::milliseconds step = 20ms) {
    const auto deadline = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() >= deadline)
            return condition();
        std::this_thread::sleep_for(step);
    }
    return true;
}

// Ends a process that a test started (directly or through the program under test) and that is
// still there at the test's end; reaps it when it became this process's child.
inline void killLeftover(pid_t pid) {
    if (pid <= 0 || processEnded(pid))
        return;
    ::kill(pid, SIGKILL);
    waitFor([pid] { return processEnded(pid); }, 2000ms, 5ms);
}

// The time of a log line ("2026-01-31 12:00:00.123 ..."), as the system clock reads it.
inline std::optional<std::chrono::system_clock::time_point> logTime(const std::string& line) {
    std::smatch match;
    static const std::regex stamp("^(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d)\\.(\\d{3}) ");
    if (!std::regex_search(line, match, stamp))
        return std::nullopt;
    std::tm parts{};
    std::istringstream in(match[1].str());
    in >> std::get_time(&parts, "%Y-%m-%d %H:%M:%S");
    if (in.fail())
        return std::nullopt;
    parts.tm_isdst = -1;
    return std::chrono::system_clock::from_time_t(std::mktime(&parts)) +
           std::chrono::milliseconds(std::stoi(match[2]));
}

inline std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

} // namespace PoolDemoTesting
} // namespace Kestrane
