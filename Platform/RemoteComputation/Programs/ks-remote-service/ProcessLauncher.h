#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Process.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Kestrane {

// Starts the programs of the service, each detached (a session of its own, stdin /dev/null)
// with its output in a log file of its own, keeps at most `maxProcesses` of them running, and
// reaps them as they end, so that neither zombies pile up nor the limit stays used.
//
// Ends are noticed through SIGCHLD when the process blocks it in every thread (as the service
// does) and a reaper thread takes it; otherwise, and as a safety net, every `scanPeriod`.
class ProcessLauncher {
public:
    ProcessLauncher(std::string logDirectory, unsigned int maxProcesses,
                    std::chrono::milliseconds scanPeriod = std::chrono::milliseconds(1000));
    // Stops reaping; children that still run are left running.
    ~ProcessLauncher();
    ProcessLauncher(const ProcessLauncher&) = delete;
    ProcessLauncher& operator=(const ProcessLauncher&) = delete;

    // Starts `program` (an absolute path) with `arguments` (argv[1..]). False with `reason`, a
    // text for the client, when the limit is reached or the program cannot be started.
    bool start(const std::string& program, const std::vector<std::string>& arguments, pid_t& pid,
               std::string& reason);
    size_t runningCount() const;

    // "<program file name>-<YYYYmmdd-HHMMSS>-<pid of the service>-<sequence>.log"
    static std::string logFileName(const std::string& program, std::time_t time, uint64_t sequence);
    // Each argument in single quotes, with quotes, backslashes and control characters escaped,
    // so that spaces, empty arguments and line breaks are visible in one log line.
    static std::string quoteArguments(const std::vector<std::string>& arguments);
    // "1 started program", "2 started programs"
    static std::string countOfPrograms(size_t count);

private:
    struct Child {
        std::unique_ptr<Computing::Process> process;
        std::string program;
        std::chrono::steady_clock::time_point started;
    };

    void reapLoop();
    // Reaps the children that have ended; with m_mutex held.
    void reapEnded();

    std::string m_logDirectory;
    unsigned int m_maxProcesses;
    std::chrono::milliseconds m_scanPeriod;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<pid_t, Child> m_children;
    uint64_t m_sequence = 0;
    bool m_stopping = false;
    std::thread m_reaper;
};

} // namespace Kestrane
