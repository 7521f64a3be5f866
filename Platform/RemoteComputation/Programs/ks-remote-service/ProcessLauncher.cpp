#include "ProcessLauncher.h"
#include "LogText.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <csignal>
#include <ctime>
#include <iomanip>
#include <pthread.h>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

std::string fileNameOf(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}
} // namespace

std::string ProcessLauncher::countOfPrograms(size_t count) {
    return std::to_string(count) + (count == 1 ? " started program" : " started programs");
}

ProcessLauncher::ProcessLauncher(std::string logDirectory, unsigned int maxProcesses,
                                 std::chrono::milliseconds scanPeriod)
    : m_logDirectory(std::move(logDirectory)), m_maxProcesses(maxProcesses),
      m_scanPeriod(scanPeriod) {
    m_reaper = std::thread([this] { reapLoop(); });
}

ProcessLauncher::~ProcessLauncher() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    // Ends a wait for SIGCHLD at once: the reaper thread blocks the signal, so it stays pending
    // for that thread.
    ::pthread_kill(m_reaper.native_handle(), SIGCHLD);
    m_reaper.join();
}

std::string ProcessLauncher::logFileName(const std::string& program, std::time_t time,
                                         uint64_t sequence) {
    std::tm local{};
    ::localtime_r(&time, &local);
    char stamp[32];
    std::strftime(stamp, sizeof(stamp), "%Y%m%d-%H%M%S", &local);
    // The service's pid keeps two services that share a directory apart.
    return fileNameOf(program) + "-" + stamp + "-" + std::to_string(::getpid()) + "-" +
           std::to_string(sequence) + ".log";
}

std::string ProcessLauncher::quoteArguments(const std::vector<std::string>& arguments) {
    std::string text;
    for (const auto& argument : arguments) {
        std::string quoted;
        for (char c : argument) {
            if (c == '\'' || c == '\\')
                quoted += '\\';
            quoted += c;
        }
        text += (text.empty() ? "'" : " '") + escapeControlCharacters(quoted) + "'";
    }
    return text;
}

bool ProcessLauncher::start(const std::string& program, const std::vector<std::string>& arguments,
                            pid_t& pid, std::string& reason) {
    std::lock_guard<std::mutex> lock(m_mutex);
    // A child that has just ended frees its place even before the reaper has seen it.
    reapEnded();
    if (m_children.size() >= m_maxProcesses) {
        reason = "the service runs " + countOfPrograms(m_children.size()) +
                 " already, its --max-processes limit; wait until one ends or start the "
                 "service with a higher limit";
        return false;
    }
    std::string logFile =
        m_logDirectory + "/" + logFileName(program, std::time(nullptr), ++m_sequence);
    auto process = std::make_unique<Computing::Process>(program, arguments);
    process->setOutputFile(logFile);
    if (!process->start(Computing::Detached)) {
        reason = process->getErrorMessage();
        return false;
    }
    pid = process->getPid();
    std::vector<std::string> argv{program};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    KS_INFO("Started process " << pid << ": " << quoteArguments(argv) << "; output in " << logFile);
    m_children.emplace(
        pid, Child{std::move(process), fileNameOf(program), std::chrono::steady_clock::now()});
    m_changed.notify_all();
    return true;
}

size_t ProcessLauncher::runningCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_children.size();
}

void ProcessLauncher::reapEnded() {
    for (auto it = m_children.begin(); it != m_children.end();) {
        Child& child = it->second;
        if (child.process->isRunning()) {
            ++it;
            continue;
        }
        int code = child.process->wait();
        auto runTime = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - child.started);
        KS_INFO("Process " << it->first << " (" << child.program << ") ended with exit code "
                           << code << " after " << std::fixed << std::setprecision(1)
                           << runTime.count() / 1000.0 << " s");
        it = m_children.erase(it);
    }
}

void ProcessLauncher::reapLoop() {
    sigset_t childSignal;
    sigemptyset(&childSignal);
    sigaddset(&childSignal, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &childSignal, nullptr);
    timespec period{static_cast<time_t>(m_scanPeriod.count() / 1000),
                    static_cast<long>(m_scanPeriod.count() % 1000) * 1000000L};
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            reapEnded();
            m_changed.wait(lock, [this] { return m_stopping || !m_children.empty(); });
            if (m_stopping)
                return;
        }
        ::sigtimedwait(&childSignal, nullptr, &period);
    }
}

} // namespace Kestrane
