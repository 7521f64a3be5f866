#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingError.h"

#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Kestrane {
namespace Computing {

// Attached: the child shares this process's session and standard streams. Detached: it gets a
// session of its own (a terminal's Ctrl-C or the end of the starter's session leaves it alone,
// and killGroup() reaches everything it started) and reads /dev/null.
enum StartMode { Attached = 0, Detached = 1 };

// A program started on this host with posix_spawn. A child is always reaped: by wait(), or, when
// the object goes away first, by a reaper thread, so that no zombie is left behind.
class Process : public ErrorMessage {
public:
    enum Priority { Low = 0, Normal = 1, High = 2 };

    Process(const std::string& executable, const std::vector<std::string>& arguments,
            Priority priority = Normal);
    ~Process() override;
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Starts the program; false with getErrorMessage() when it cannot be started or a child
    // started earlier by this object still runs.
    bool start(StartMode mode = Detached);
    pid_t getPid() const { return m_pid; }
    bool isRunning();
    // Waits for the end and returns the exit code (128 + signal for a killed process, -1 when
    // not started).
    int wait();
    // Waits at most `milliseconds`; false when still running.
    bool waitFor(unsigned int milliseconds, int& exitCode);
    bool kill(int signal);
    // Signals the child's whole process group; only a Detached child has one of its own.
    bool killGroup(int signal);

    // Standard output / error of the child through pipes, when asked for before start().
    void captureStandardOutput();
    void captureStandardError();
    // Standard output and error through one pipe (getStandardOutputFd()), in the order written.
    void captureStandardOutputAndError();
    int getStandardOutputFd() const { return m_stdoutFd; }
    int getStandardErrorFd() const { return m_stderrFd; }
    // Appends the child's standard output and error (those not captured) to this file, created
    // with mode 0644 when missing. Asked for before start().
    void setOutputFile(const std::string& path) { m_outputFile = path; }

private:
    bool reap(bool block, int& exitCode);

    std::string m_executable;
    std::vector<std::string> m_arguments;
    pid_t m_pid = -1;
    bool m_reaped = false;
    int m_exitCode = -1;
    bool m_captureStdout = false;
    bool m_captureStderr = false;
    bool m_mergeStderr = false;
    bool m_detached = false;
    std::string m_outputFile;
    int m_stdoutFd = -1;
    int m_stderrFd = -1;
};

} // namespace Computing
} // namespace Kestrane
