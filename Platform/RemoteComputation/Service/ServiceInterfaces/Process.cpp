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
void Process::captureStandardOutputAndError() {
    m_captureStdout = true;
    m_mergeStderr = true;
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

bool Process::start(StartMode mode) {
    if (m_pid > 0 && !m_reaped) {
        // One child at a time: a child that has ended is reaped before the next one starts.
        int code;
        if (!reap(false, code)) {
            setErrorMessage("Cannot start '" + m_executable + "': it is already running (pid " +
                            std::to_string(m_pid) + ")");
            return false;
        }
    }
    for (int* fd : {&m_stdoutFd, &m_stderrFd})
        if (*fd >= 0) {
            ::close(*fd);
            *fd = -1;
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
    int outputFd = -1;
    std::string error;
    auto closeAll = [&] {
        for (int fd : {outFds[0], outFds[1], errFds[0], errFds[1], outputFd})
            if (fd >= 0)
                ::close(fd);
    };
    // Opened here rather than in the child, so that a bad path gets a message of its own.
    if (!m_outputFile.empty()) {
        outputFd = ::open(m_outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (outputFd < 0)
            error = "Cannot open output file '" + m_outputFile + "': " + std::strerror(errno);
        else {
            if (!m_captureStdout)
                posix_spawn_file_actions_adddup2(&actions, outputFd, STDOUT_FILENO);
            if (!m_captureStderr && !m_mergeStderr)
                posix_spawn_file_actions_adddup2(&actions, outputFd, STDERR_FILENO);
        }
    }
    if (!error.empty() || (m_captureStdout && !redirect(actions, STDOUT_FILENO, outFds, error)) ||
        (m_captureStderr && !redirect(actions, STDERR_FILENO, errFds, error))) {
        setErrorMessage(error);
        posix_spawn_file_actions_destroy(&actions);
        closeAll();
        return false;
    }
    if (m_mergeStderr && !m_captureStderr)
        posix_spawn_file_actions_adddup2(&actions, outFds[1], STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // The child starts with no signal blocked: servers block SIGTERM and the like in every
    // thread to take them in one, and a mask is inherited across exec.
    sigset_t noSignals;
    sigemptyset(&noSignals);
    posix_spawnattr_setsigmask(&attributes, &noSignals);
    short flags = POSIX_SPAWN_SETSIGMASK;
    if (mode == Detached) {
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        flags |= POSIX_SPAWN_SETSID;
    }
    // Only the three standard streams go to the child: a long-lived server that held, say, a
    // log file or the pipe of whoever started its starter would keep it open as long as it runs.
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    posix_spawnattr_setflags(&attributes, flags);
    pid_t pid = -1;
    int rc = ::posix_spawn(&pid, m_executable.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        closeAll();
        setErrorMessage("Cannot start '" + m_executable + "': " + std::strerror(rc));
        return false;
    }
    for (int fd : {outFds[1], errFds[1], outputFd})
        if (fd >= 0)
            ::close(fd);
    m_detached = mode == Detached;
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

bool Process::killGroup(int signal) {
    // An Attached child shares our group: signalling it would hit this process too. Once the
    // child is reaped its id may belong to somebody else.
    if (m_pid <= 0 || !m_detached || m_reaped)
        return false;
    return ::kill(-m_pid, signal) == 0;
}

} // namespace Computing
} // namespace Kestrane
