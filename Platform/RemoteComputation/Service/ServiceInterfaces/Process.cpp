#include "Platform/RemoteComputation/Service/ServiceInterfaces/Process.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace Kestrane {
namespace Computing {

Process::Process(const std::string& executable, const std::vector<std::string>& arguments, Priority)
    : m_executable(executable), m_arguments(arguments) {}

Process::~Process() {
    if (m_stdoutFd >= 0)
        ::close(m_stdoutFd);
    if (m_stderrFd >= 0)
        ::close(m_stderrFd);
    int code;
    if (m_pid > 0 && !m_reaped && !reap(false, code)) {
        pid_t pid = m_pid;
        std::thread([pid] {
            int status;
            while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
        }).detach();
    }
}

void Process::captureStandardOutput() {
    m_captureStdout = true;
}
void Process::captureStandardError() {
    m_captureStderr = true;
}

namespace {
// A pipe whose write end becomes the child's descriptor `target`.
bool redirect(posix_spawn_file_actions_t& actions, int target, int fds[2], std::string& error) {
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        error = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    posix_spawn_file_actions_adddup2(&actions, fds[1], target);
    return true;
}
} // namespace

bool Process::start(StartMode) {
    if (m_pid > 0 && !m_reaped) {
        // One child at a time: a child that has ended is reaped before the next one starts.
        int code;
        if (!reap(false, code)) {
            setErrorMessage("Cannot start '" + m_executable + "': it is already running (pid " +
                            std::to_string(m_pid) + ")");
            return false;
        }
    }
    if (m_stdoutFd >= 0) {
        ::close(m_stdoutFd);
        m_stdoutFd = -1;
    }
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(m_executable.c_str()));
    for (auto& arg : m_arguments)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    int outFds[2] = {-1, -1};
    int errFds[2] = {-1, -1};
    std::string error;
    auto closeAll = [&] {
        for (int fd : {outFds[0], outFds[1], errFds[0], errFds[1]})
            if (fd >= 0)
                ::close(fd);
    };
    if ((m_captureStdout && !redirect(actions, STDOUT_FILENO, outFds, error)) ||
        (m_captureStderr && !redirect(actions, STDERR_FILENO, errFds, error))) {
        setErrorMessage(error);
        posix_spawn_file_actions_destroy(&actions);
        closeAll();
        return false;
    }
    pid_t pid = -1;
    int rc = ::posix_spawn(&pid, m_executable.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        closeAll();
        setErrorMessage("Cannot start '" + m_executable + "': " + std::strerror(rc));
        return false;
    }
    for (int fd : {outFds[1], errFds[1]})
        if (fd >= 0)
            ::close(fd);
    m_pid = pid;
    m_reaped = false;
    m_stdoutFd = outFds[0];
    m_stderrFd = errFds[0];
    return true;
}

bool Process::reap(bool block, int& exitCode) {
    if (m_reaped) {
        exitCode = m_exitCode;
        return true;
    }
    if (m_pid <= 0) {
        exitCode = -1;
        return true;
    }
    int status = 0;
    pid_t result;
    do {
        result = ::waitpid(m_pid, &status, block ? 0 : WNOHANG);
    } while (result < 0 && errno == EINTR);
    if (result == 0)
        return false;
    m_reaped = true;
    if (result < 0)
        m_exitCode = -1;
    else if (WIFEXITED(status))
        m_exitCode = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        m_exitCode = 128 + WTERMSIG(status);
    exitCode = m_exitCode;
    return true;
}

bool Process::isRunning() {
    int code;
    return m_pid > 0 && !reap(false, code);
}

int Process::wait() {
    int code = -1;
    reap(true, code);
    return code;
}

bool Process::waitFor(unsigned int milliseconds, int& exitCode) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!reap(false, exitCode)) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

bool Process::kill(int signal) {
    if (m_pid <= 0 || m_reaped)
        return false;
    return ::kill(m_pid, signal) == 0;
}

} // namespace Computing
} // namespace Kestrane
