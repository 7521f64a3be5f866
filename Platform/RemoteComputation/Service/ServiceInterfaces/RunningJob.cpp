#include "Platform/RemoteComputation/Service/ServiceInterfaces/RunningJob.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <stdexcept>
#include <sys/file.h>
#include <unistd.h>

namespace Kestrane {
namespace Computing {

namespace {

Logging s_logging(__FILE__);

// Distinguishes the jobs of one process; pid and start time distinguish the processes.
std::atomic<uint64_t> s_nextEntryNumber{1};

// The registry is replaced as a whole (written aside, then renamed), so that a writer that dies
// halfway leaves the previous registry. The lock therefore sits on a file of its own.
struct RegistryPaths {
    std::string registry;
    std::string lock;
};

RegistryPaths registryPaths() {
    FileName directory = PathConfiguration::getKsPathTmp();
    return {(directory / "running-jobs").toString(), (directory / "running-jobs.lock").toString()};
}

std::string errorText(int error) {
    return std::strerror(error);
}

// An flock on an open file description of its own: it excludes the other threads of this
// process as well as other processes. Released when closed.
class RegistryLock {
public:
    RegistryLock(const std::string& path, int operation) {
        m_fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (m_fd < 0) {
            m_error = "cannot open lock file '" + path + "': " + errorText(errno);
            return;
        }
        int result;
        do
            result = ::flock(m_fd, operation);
        while (result != 0 && errno == EINTR);
        if (result != 0) {
            m_error = "cannot lock '" + path + "': " + errorText(errno);
            ::close(m_fd);
            m_fd = -1;
        }
    }
    ~RegistryLock() {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    RegistryLock(const RegistryLock&) = delete;
    RegistryLock& operator=(const RegistryLock&) = delete;

    bool locked() const { return m_fd >= 0; }
    const std::string& error() const { return m_error; }

private:
    int m_fd = -1;
    std::string m_error;
};

// One registry line: "<pid> <start time> <entry number> <cores> <computing type> <job text>".
// The job text comes last because it may hold blanks.
struct Entry {
    pid_t pid = 0;
    uint64_t startTime = 0; // clock ticks after boot; 0: unknown
    uint64_t number = 0;
    unsigned int cores = 0;
    int computingType = 0;
    std::string jobText;
};

bool parseUnsigned(const std::string& text, uint64_t max, uint64_t& value) {
    if (text.empty() || text.size() > 20)
        return false;
    uint64_t result = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        uint64_t digit = static_cast<uint64_t>(c - '0');
        if (result > (max - digit) / 10)
            return false;
        result = result * 10 + digit;
    }
    value = result;
    return true;
}

bool parseInt(const std::string& text, int& value) {
    bool negative = !text.empty() && text[0] == '-';
    uint64_t magnitude = 0;
    uint64_t limit = negative ? uint64_t(std::numeric_limits<int>::max()) + 1
                              : uint64_t(std::numeric_limits<int>::max());
    if (!parseUnsigned(negative ? text.substr(1) : text, limit, magnitude))
        return false;
    value =
        negative ? static_cast<int>(-static_cast<int64_t>(magnitude)) : static_cast<int>(magnitude);
    return true;
}

bool parseEntry(const std::string& line, Entry& entry) {
    std::string fields[5];
    size_t at = 0;
    for (int i = 0; i < 5; ++i) {
        size_t blank = line.find(' ', at);
        fields[i] = line.substr(at, blank == std::string::npos ? std::string::npos : blank - at);
        if (blank == std::string::npos) {
            // Only the job text may be missing, blank included.
            if (i < 4)
                return false;
            at = line.size();
        } else {
            at = blank + 1;
        }
    }
    uint64_t pid = 0, startTime = 0, number = 0, cores = 0;
    if (!parseUnsigned(fields[0], std::numeric_limits<pid_t>::max(), pid) || pid == 0 ||
        !parseUnsigned(fields[1], std::numeric_limits<uint64_t>::max(), startTime) ||
        !parseUnsigned(fields[2], std::numeric_limits<uint64_t>::max(), number) ||
        !parseUnsigned(fields[3], std::numeric_limits<unsigned int>::max(), cores) ||
        !parseInt(fields[4], entry.computingType))
        return false;
    entry.pid = static_cast<pid_t>(pid);
    entry.startTime = startTime;
    entry.number = number;
    entry.cores = static_cast<unsigned int>(cores);
    entry.jobText = line.substr(at);
    return true;
}

std::string formatEntry(const Entry& entry) {
    return std::to_string(entry.pid) + " " + std::to_string(entry.startTime) + " " +
           std::to_string(entry.number) + " " + std::to_string(entry.cores) + " " +
           std::to_string(entry.computingType) + " " + entry.jobText + "\n";
}

// A registry line as a log line shows it: short and printable.
std::string shown(const std::string& line) {
    constexpr size_t c_shown = 80;
    std::string text;
    for (size_t i = 0; i < line.size() && i < c_shown; ++i) {
        unsigned char byte = static_cast<unsigned char>(line[i]);
        text += byte >= 0x20 && byte < 0x7f ? line[i] : '?';
    }
    return line.size() > c_shown ? text + "..." : text;
}

std::string oneLine(std::string text) {
    for (char& c : text)
        if (c == '\n' || c == '\r')
            c = ' ';
    return text;
}

// Start time (field 22 of /proc/<pid>/stat) and state of a process; false when it can't be read.
bool readProcessStat(pid_t pid, uint64_t& startTime, char& state) {
    std::string path = "/proc/" + std::to_string(pid) + "/stat";
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char buffer[1024];
    ssize_t length;
    do
        length = ::read(fd, buffer, sizeof(buffer) - 1);
    while (length < 0 && errno == EINTR);
    ::close(fd);
    if (length <= 0)
        return false;
    std::string text(buffer, static_cast<size_t>(length));
    // The command name in parentheses may hold blanks and parentheses itself.
    size_t close = text.rfind(')');
    if (close == std::string::npos || close + 2 >= text.size())
        return false;
    state = text[close + 2];
    size_t at = close + 2;
    // The state is field 3, the start time field 22.
    for (int field = 3; field < 22; ++field) {
        at = text.find(' ', at);
        if (at == std::string::npos)
            return false;
        ++at;
    }
    size_t end = text.find(' ', at);
    uint64_t value = 0;
    if (!parseUnsigned(text.substr(at, end == std::string::npos ? std::string::npos : end - at),
                       std::numeric_limits<uint64_t>::max(), value))
        return false;
    startTime = value;
    return true;
}

uint64_t ownStartTime() {
    uint64_t startTime = 0;
    char state = 0;
    return readProcessStat(::getpid(), startTime, state) ? startTime : 0;
}

// A process that is gone, a zombie (its exit has freed its cores already) or a later process
// under the same pid holds nothing.
bool isLive(const Entry& entry) {
    if (::kill(entry.pid, 0) != 0 && errno == ESRCH)
        return false;
    uint64_t startTime = 0;
    char state = 0;
    // Without /proc the signal test is all there is.
    if (!readProcessStat(entry.pid, startTime, state))
        return true;
    if (state == 'Z' || state == 'X')
        return false;
    return entry.startTime == 0 || entry.startTime == startTime;
}

// What the registry holds: the entries of live processes, and what a rewrite leaves out.
struct Registry {
    std::vector<Entry> live;
    std::vector<Entry> ended;
    bool malformed = false;

    bool stale() const { return malformed || !ended.empty(); }
};

// Malformed lines are logged and left out. A missing file is an empty registry.
bool readRegistry(const std::string& path, Registry& registry, std::string& error) {
    registry = Registry();
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT)
            return true;
        error = "cannot open '" + path + "': " + errorText(errno);
        return false;
    }
    std::string text;
    char buffer[65536];
    for (;;) {
        ssize_t length = ::read(fd, buffer, sizeof(buffer));
        if (length < 0 && errno == EINTR)
            continue;
        if (length < 0) {
            error = "cannot read '" + path + "': " + errorText(errno);
            ::close(fd);
            return false;
        }
        if (length == 0)
            break;
        text.append(buffer, static_cast<size_t>(length));
    }
    ::close(fd);
    size_t lineNumber = 0;
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(at, end - at);
        at = end + 1;
        ++lineNumber;
        Entry entry;
        if (!parseEntry(line, entry)) {
            KS_WARN("Skipped malformed line " << lineNumber << " of the running jobs registry '"
                                              << path << "': '" << shown(line) << "'");
            registry.malformed = true;
        } else if (isLive(entry)) {
            registry.live.push_back(entry);
        } else {
            registry.ended.push_back(entry);
        }
    }
    return true;
}

// Reads the registry under a shared lock; false with `error`.
bool readLive(std::vector<Entry>& live, std::string& error) {
    RegistryPaths paths = registryPaths();
    RegistryLock lock(paths.lock, LOCK_SH);
    if (!lock.locked()) {
        error = lock.error();
        return false;
    }
    Registry registry;
    if (!readRegistry(paths.registry, registry, error))
        return false;
    live = std::move(registry.live);
    return true;
}

bool writeAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t written = ::write(fd, text.data() + done, text.size() - done);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        done += static_cast<size_t>(written);
    }
    return true;
}

// Only under the exclusive lock: one writer at a time may use the side file.
bool writeRegistry(const std::string& path, const std::vector<Entry>& entries, std::string& error) {
    std::string text;
    for (const auto& entry : entries)
        text += formatEntry(entry);
    std::string next = path + ".new";
    int fd = ::open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        error = "cannot create '" + next + "': " + errorText(errno);
        return false;
    }
    bool written = writeAll(fd, text);
    int writeError = errno;
    if (::close(fd) != 0 && written) {
        written = false;
        writeError = errno;
    }
    if (!written) {
        error = "cannot write '" + next + "': " + errorText(writeError);
        ::unlink(next.c_str());
        return false;
    }
    if (::rename(next.c_str(), path.c_str()) != 0) {
        error = "cannot rename '" + next + "' to '" + path + "': " + errorText(errno);
        ::unlink(next.c_str());
        return false;
    }
    return true;
}

// Replaces the registry by the live entries; the ended ones are logged as freed once written.
bool rewriteRegistry(const std::string& path, const Registry& registry, std::string& error) {
    if (!writeRegistry(path, registry.live, error))
        return false;
    for (const auto& entry : registry.ended)
        KS_INFO("Freed " << entry.cores << " cores of job '" << shown(entry.jobText)
                         << "' of process " << entry.pid << ", which has ended");
    return true;
}

uint64_t sumOfCores(const std::vector<Entry>& entries) {
    uint64_t sum = 0;
    for (const auto& entry : entries)
        sum += entry.cores;
    return sum;
}

} // namespace

RunningJob::RunningJob(const std::string& description) : m_description(description) {}

RunningJob::~RunningJob() {
    try {
        remove();
    } catch (...) {
        // A destructor must not throw; remove() has logged what it could.
    }
}

bool RunningJob::add(int computationCores, unsigned int cores, int computingType,
                     const std::string& jobText) {
    if (m_added)
        throw std::logic_error("RunningJob '" + m_description + "' is entered already");
    Entry own;
    own.pid = ::getpid();
    own.startTime = ownStartTime();
    own.number = s_nextEntryNumber++;
    own.cores = cores;
    own.computingType = computingType;
    own.jobText = oneLine(jobText);
    const uint64_t hostCores = capacity(computationCores);
    std::string error;
    uint64_t used = 0;
    bool fits = false;
    try {
        RegistryPaths paths = registryPaths();
        RegistryLock lock(paths.lock, LOCK_EX);
        Registry registry;
        if (!lock.locked()) {
            error = lock.error();
        } else if (readRegistry(paths.registry, registry, error)) {
            used = sumOfCores(registry.live);
            fits = used == 0 || used + cores <= hostCores;
            if (fits)
                registry.live.push_back(own);
            if (fits || registry.stale())
                rewriteRegistry(paths.registry, registry, error);
        }
    } catch (const std::exception& e) {
        error = e.what();
    }
    if (!error.empty()) {
        KS_ERROR("Job '" << m_description << "' can't take " << cores << " cores: " << error);
        return false;
    }
    if (!fits) {
        KS_DEBUG("Job '" << m_description << "' waits for " << cores << " cores: " << used << " of "
                         << hostCores << " are taken");
        return false;
    }
    KS_DEBUG("Job '" << m_description << "' took " << cores << " cores; " << used + cores << " of "
                     << hostCores << " are taken");
    m_added = true;
    m_pid = own.pid;
    m_entryNumber = own.number;
    m_cores = cores;
    return true;
}

void RunningJob::remove() {
    if (!m_added)
        return;
    m_added = false;
    // A copy made by fork(): the entry is the parent's.
    if (::getpid() != m_pid)
        return;
    std::string error;
    try {
        RegistryPaths paths = registryPaths();
        RegistryLock lock(paths.lock, LOCK_EX);
        Registry registry;
        if (!lock.locked()) {
            error = lock.error();
        } else if (readRegistry(paths.registry, registry, error)) {
            auto& live = registry.live;
            auto own = std::find_if(live.begin(), live.end(), [&](const Entry& entry) {
                return entry.pid == m_pid && entry.number == m_entryNumber;
            });
            bool found = own != live.end();
            if (found)
                live.erase(own);
            else
                KS_WARN("Job '" << m_description << "' was no longer in the running jobs registry");
            if (found || registry.stale())
                rewriteRegistry(paths.registry, registry, error);
        }
    } catch (const std::exception& e) {
        error = e.what();
    }
    if (!error.empty())
        KS_ERROR("Job '" << m_description << "' can't give back its " << m_cores
                         << " cores; they stay taken until this process ends: " << error);
    else
        KS_DEBUG("Job '" << m_description << "' gave back " << m_cores << " cores");
}

unsigned int RunningJob::usedCores() {
    std::vector<Entry> live;
    std::string error;
    try {
        if (readLive(live, error))
            return static_cast<unsigned int>(
                std::min<uint64_t>(sumOfCores(live), std::numeric_limits<unsigned int>::max()));
    } catch (const std::exception& e) {
        error = e.what();
    }
    KS_ERROR("Can't count the cores that running jobs take: " << error);
    return 0;
}

std::vector<RunningJob::Job> RunningJob::runningJobs() {
    std::vector<Entry> live;
    std::string error;
    try {
        if (readLive(live, error)) {
            std::vector<Job> jobs;
            for (const auto& entry : live)
                jobs.push_back({entry.pid, entry.cores, entry.computingType, entry.jobText});
            return jobs;
        }
    } catch (const std::exception& e) {
        error = e.what();
    }
    KS_ERROR("Can't list the running jobs: " << error);
    return {};
}

unsigned int RunningJob::capacity(int computationCores) {
    if (computationCores > 0)
        return static_cast<unsigned int>(computationCores);
    long online = ::sysconf(_SC_NPROCESSORS_ONLN);
    return online > 0 ? static_cast<unsigned int>(online) : 1;
}

} // namespace Computing
} // namespace Kestrane
