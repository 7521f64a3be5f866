#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Kestrane {
namespace Computing {

// The cores that running jobs hold on this host, counted across every process of the user: each
// job enters itself in a registry file in the temporary directory before it starts working, so
// that workers of different pools and programs never give the host more work than it has cores.
// A process that ends without leaving the registry (crash, SIGKILL) is noticed by its pid and
// start time, and its cores come back with the next entry.
//
// One object belongs to one thread at a time; distinct objects and the static functions may be
// used from any thread and any process at once.
class RunningJob {
public:
    struct Job {
        pid_t pid = 0;
        unsigned int cores = 0;
        int computingType = 0;
        std::string jobText;
    };

    // `description` names the job in log lines.
    explicit RunningJob(const std::string& description);
    // Leaves the registry when still entered.
    ~RunningJob();
    RunningJob(const RunningJob&) = delete;
    RunningJob& operator=(const RunningJob&) = delete;

    // Enters the job with `cores` when they fit into capacity(computationCores) beside the cores
    // that live jobs hold, or when no live job holds any core (a job bigger than the host runs
    // alone rather than never). False when they don't fit, or with an error line in the log when
    // the registry can't be used. Line breaks of `jobText` become blanks. Throws
    // std::logic_error when the job is entered already.
    bool add(int computationCores, unsigned int cores, int computingType,
             const std::string& jobText);
    // Leaves the registry; nothing happens when the job is not entered.
    void remove();
    bool isAdded() const { return m_added; }

    // Sum of the cores that live jobs of this host and user hold; 0 with an error line in the
    // log when the registry can't be read.
    static unsigned int usedCores();
    // The live jobs, in the order they were entered; empty (and an error line) as above.
    static std::vector<Job> runningJobs();
    // `computationCores` when above 0, otherwise the online cores of this host (at least 1).
    static unsigned int capacity(int computationCores);

private:
    std::string m_description;
    bool m_added = false;
    pid_t m_pid = 0;
    uint64_t m_entryNumber = 0;
    unsigned int m_cores = 0;
};

} // namespace Computing
} // namespace Kestrane
