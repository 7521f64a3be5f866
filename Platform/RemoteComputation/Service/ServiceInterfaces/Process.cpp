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

Process::Process(const std::string& executable, const std::vector<std::string>& arguments,
                 Priority)
    : m_executable(executable), m_arguments(arguments) {}

Process::~Process() {
    if (m_stdoutFd >= 0)
        ::close(m_stdoutFd);
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

void Process::captureStandardOutput() { m_captureStdout = true; }

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
    int pipeFds[2] = {-1, -1};
    if (m_captureStdout) {
        if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
            setErrorMessage(std::string("pipe: ") + std::strerror(errno));
            posix_spawn_file_actions_destroy(&actions);
            return false;
        }
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    }
    pid_t pid = -1;
    int rc = ::posix_spawn(&pid, m_executable.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (pipeFds[1] >= 0)
        ::close(pipeFds[1]);
    if (rc != 0) {
        if (pipeFds[0] >= 0)
            ::close(pipeFds[0]);
        setErrorMessage("Cannot start '" + m_executable + "': " + std::strerror(rc));
        return false;
    }
    m_pid = pid;
    m_reaped = false;
    m_stdoutFd = pipeFds[0];
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
