#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Process.h"

#include <chrono>
#include <csignal>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

#ifndef KS_BINARY_DIR
#error "KS_BINARY_DIR names the build tree"
#endif

namespace Kestrane {
namespace Testing {

// Reads from a pipe until `stop` returns true for what came, the pipe closes, or the time is up.
template <typename Stop> std::string readPipe(int fd, std::chrono::milliseconds limit, Stop stop) {
    std::string text;
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!stop(text)) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            break;
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0)
            break;
        char buffer[4096];
        ssize_t n = ::read(fd, buffer, sizeof(buffer));
        if (n <= 0)
            break;
        text.append(buffer, n);
    }
    return text;
}

// ks-request-server started as a real process, with its output captured.
class ServerProcess {
public:
    explicit ServerProcess(std::vector<std::string> args)
        : m_process(KS_BINARY_DIR "/bin/ks-request-server", args) {
        m_process.captureStandardOutput();
        m_process.captureStandardError();
    }
    ~ServerProcess() {
        if (m_process.isRunning()) {
            m_process.kill(SIGKILL);
            m_process.wait();
        }
    }

    bool start() { return m_process.start(Computing::Detached); }
    // Line `index` (from 0) of standard output, waiting for it at most `limit`.
    std::string line(size_t index,
                     std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
        auto lines = [this] {
            std::vector<std::string> result;
            size_t start = 0, end;
            while ((end = m_stdout.find('\n', start)) != std::string::npos) {
                result.push_back(m_stdout.substr(start, end - start));
                start = end + 1;
            }
            return result;
        };
        if (lines().size() <= index)
            m_stdout += readPipe(m_process.getStandardOutputFd(), limit, [&](const std::string& t) {
                size_t count = 0;
                for (char c : m_stdout + t)
                    count += c == '\n';
                return count > index;
            });
        auto all = lines();
        return index < all.size() ? all[index] : std::string();
    }
    std::string firstLine(std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
        return line(0, limit);
    }
    // The number behind `word` at the start of line `index`, or -1.
    int announced(size_t index, const std::string& word) {
        std::string text = line(index);
        if (text.rfind(word + " ", 0) != 0)
            return -1;
        return std::stoi(text.substr(word.size() + 1));
    }
    // The port of the "PORT <n>" first line, or -1.
    int port() { return announced(0, "PORT"); }
    // The port of the "PUBLISHER <n>" second line, or -1.
    int publisherPort() { return announced(1, "PUBLISHER"); }
    // Standard error until the process closes it (it ends) or the time is up.
    std::string standardError(std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
        m_stderr += readPipe(m_process.getStandardErrorFd(), limit,
                             [](const std::string&) { return false; });
        return m_stderr;
    }
    // Exit code, or -2 when it is still running after `limit`.
    int waitForExit(std::chrono::milliseconds limit) {
        int code = -2;
        if (!m_process.waitFor(static_cast<unsigned int>(limit.count()), code))
            return -2;
        return code;
    }
    Computing::Process& process() { return m_process; }

private:
    Computing::Process m_process;
    std::string m_stdout;
    std::string m_stderr;
};

} // namespace Testing
} // namespace Kestrane
