#include "Platform/RemoteComputation/Service/RequestHandling/CpuWatch.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <boost/chrono/process_cpu_clocks.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/thread.hpp>

#include <omp.h>

#include <cmath>
#include <cstdlib>
#include <sstream>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

const uint64_t c_tickMilliseconds = 50;

std::string currentThreadText() {
    std::ostringstream text;
    text << boost::this_thread::get_id();
    return text.str();
}

template <typename Clock> int64_t nanosecondsNow() {
    return boost::chrono::duration_cast<boost::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}
} // namespace

bool CpuWatch::s_idleSpinControl = true;
bool CpuWatch::s_idleSpinControl_DBG = false;
std::string CpuWatch::s_idleSpinControlEnvSet;

CpuWatch::CpuWatch(int intervalSeconds, int tolerance)
    : m_tolerance(static_cast<uint32_t>(tolerance)) {
    setUp(intervalSeconds, tolerance, countAvailableCores(), nullptr);
}

CpuWatch::CpuWatch(int intervalSeconds, int tolerance, int availableCores,
                   const ProcessTimes& start)
    : m_tolerance(static_cast<uint32_t>(tolerance)) {
    setUp(intervalSeconds, tolerance, availableCores, &start);
}

CpuWatch::~CpuWatch() {
    std::shared_ptr<WatchDog> watchDog;
    {
        boost::lock_guard<boost::mutex> lock(m_mutex);
        if (m_watching && m_watchDog && m_watchDog->isWatching()) {
            watchDog = m_watchDog;
            m_watching = false;
        }
    }
    // Joined outside the mutex: a tick may be waiting for it inside watch().
    if (watchDog)
        watchDog->stopWatching();
    KS_TRACE("CPUwatch (id#" << m_id << "): Stopped watching.");
}

int CpuWatch::countAvailableCores() {
    int cores = omp_get_num_procs();
    unsigned int hardware = boost::thread::hardware_concurrency();
    if (hardware > static_cast<unsigned int>(cores))
        cores = static_cast<int>(hardware);
    return cores;
}

void CpuWatch::setUp(int intervalSeconds, int tolerance, int availableCores,
                     const ProcessTimes* start) {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    if (s_idleSpinControlEnvSet.empty()) {
        const char* value = std::getenv("KS_CPUWATCH_IDLESPINCONTROL");
        if (!value) {
            s_idleSpinControlEnvSet = "NONE";
        } else {
            s_idleSpinControlEnvSet = value;
            if (s_idleSpinControlEnvSet == "DISABLED")
                s_idleSpinControl = false;
            else if (s_idleSpinControlEnvSet == "DEBUG")
                s_idleSpinControl_DBG = true;
        }
    }

    m_availableCores = availableCores;
    m_idleThreshBase /= m_availableCores;
    m_id = currentThreadText();

    if (intervalSeconds < 1) {
        KS_TRACE("CPUwatch (id#" << m_id << "): Disabled.");
        return;
    }

    m_ticksPerCheck = static_cast<uint64_t>(intervalSeconds) * 1000 / c_tickMilliseconds;
    if (tolerance < 1)
        tolerance = 1;
    else if (tolerance > 10)
        tolerance = 10;
    m_tolerance = static_cast<uint32_t>(tolerance);
    KS_TRACE("CPUwatch (id#" << m_id << "): Enabled (Intervals: " << intervalSeconds << "s@"
                             << c_tickMilliseconds << "ms, idle/spinning Tolerance: " << m_tolerance
                             << "/" << 2 * m_tolerance << ", available Cores: " << m_availableCores
                             << ").");

    ProcessTimes times = start ? *start : readProcessTimes();
    m_lastReal = times.real;
    m_lastUser = times.user;
    m_lastSystem = times.system;
    if (!start) {
        m_watchDog = std::make_shared<WatchDog>(c_tickMilliseconds);
        m_watchDog->watchThis(&m_ticker);
        m_watchDog->startWatching();
        m_watching = true;
    }

    if (!s_idleSpinControl)
        KS_TRACE("CPUwatch (id#" << m_id
                                 << "): Idle/spin-control DISABLED by user defined env-settings!");
}

CpuWatch::ProcessTimes CpuWatch::readProcessTimes() {
    return {nanosecondsNow<boost::chrono::process_real_cpu_clock>(),
            nanosecondsNow<boost::chrono::process_user_cpu_clock>(),
            nanosecondsNow<boost::chrono::process_system_cpu_clock>()};
}

bool CpuWatch::watch(bool stopping) {
    return tick(stopping);
}

bool CpuWatch::tick(bool stopping) {
    if (stopping)
        return false;
    boost::lock_guard<boost::mutex> lock(m_mutex);
    uint32_t previous = m_counter++;
    if (previous == 0)
        return true; // the first tick has nothing to compare with
    if (m_tickCounter < m_ticksPerCheck) {
        ++m_tickCounter;
        return true;
    }
    m_tickCounter = 0;
    return measure(readProcessTimes());
}

bool CpuWatch::measureWith(const ProcessTimes& now) {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    ++m_counter;
    return measure(now);
}

bool CpuWatch::measure(const ProcessTimes& now) {
    double dReal = static_cast<double>(now.real - m_lastReal);
    double dUser = static_cast<double>(now.user - m_lastUser);
    double dSystem = static_cast<double>(now.system - m_lastSystem);

    double totalCpuUsage = ((dUser + dSystem) / 1e9) / (dReal / 1e9);
    m_usageSum += totalCpuUsage;
    m_measureCount += 1;
    double cpuFraction = totalCpuUsage / m_availableCores;

    double guessed = 0.0;
    double nCoreFullLoadMatch = std::modf(totalCpuUsage, &guessed);
    if (nCoreFullLoadMatch > 0.025)
        guessed += 1.0;
    if (1.0 > guessed)
        guessed = 1.0;
    else if (guessed > m_availableCores)
        guessed = m_availableCores;

    double cpuLoad = totalCpuUsage / guessed;

    if (m_measureCount < 3)
        m_guessedCoresSum = guessed; // the first estimate replaces the initial one
    else
        m_guessedCoresSum += guessed;

    // A process saturating every core cannot reach the full level: the watch itself and the
    // system take their share.
    double spinBase = 0.999;
    if (guessed == m_availableCores)
        spinBase = m_availableCores == 1 ? 0.995 : 0.985;
    double spinThresh = spinBase * m_spinFactor;

    // Steady use near the long-term average lets the thresholds follow this process's habits.
    double threshCRIT = 0.0;
    if (m_counter > 2 * m_tolerance && m_usageSum > 0 && (cpuLoad < 0.1 || cpuLoad > 0.9)) {
        // Divided by one more than the measurements, so it lies a little below the true mean.
        double eternalAvg = m_usageSum / m_measureCount;
        threshCRIT = std::fabs(1.0 - totalCpuUsage / eternalAvg);
        if (threshCRIT < 0.05) {
            if (m_idleFactor > 0.5 && eternalAvg > totalCpuUsage)
                m_idleFactor *= 0.99;
            if (m_spinFactor > 0.975 && totalCpuUsage > eternalAvg)
                m_spinFactor *= 0.999;
        }
    }

    double eternal_nGuessedCoresAvg = m_guessedCoresSum / (m_measureCount - 1.0);
    double guessedCoresAvgDelta = std::fabs(eternal_nGuessedCoresAvg - guessed);

    if (s_idleSpinControl_DBG)
        KS_TRACE("CPUwatch (id#" << m_id << "/" << boost::this_thread::get_id()
                                 << "): Watching (counter: " << m_counter
                                 << ", totalCpuUsage: " << totalCpuUsage
                                 << ", cpuFraction: " << cpuFraction << ", cpuLoad: " << cpuLoad
                                 << ", guessedNumberOfCoresInUse: " << guessed
                                 << ", idleCount: " << m_idleCount << ", spinCount: " << m_spinCount
                                 << ", nCoreFullLoadMatch: " << nCoreFullLoadMatch
                                 << ")\n\tMessage: CPUwatch: Watching (eternalAvg: "
                                 << m_usageSum / m_measureCount
                                 << ", idleThresh: " << m_idleThreshBase / m_idleFactor
                                 << ", spinThresh: " << spinThresh << ", threshCRIT: " << threshCRIT
                                 << ", eternal_nGuessedCoresAvg: " << eternal_nGuessedCoresAvg
                                 << ", guessedCoresAvgDelta: " << guessedCoresAvgDelta << ")");

    // Only a steady estimate, equal to the last one and to the long-term one, can be suspect.
    bool verdict = s_idleSpinControl && m_lastGuessedCores == guessed &&
                   guessedCoresAvgDelta < 0.05 &&
                   (m_idleThreshBase / m_idleFactor > cpuFraction ||
                    (totalCpuUsage > 0.995 && totalCpuUsage / guessed > spinThresh));

    if (verdict) {
        if (2 * m_idleThreshBase > cpuFraction) {
            // A process starting up is often quiet: that never counts as idle.
            if (m_measureCount > 5)
                m_idleCount += 1;
        } else {
            m_spinCount += 1;
        }

        if (m_idleCount > m_tolerance) {
            std::ostringstream text;
            text << "Process was apparently idle for >" << m_tolerance
                 << " CPU-activity monitoring cycles in sequence -> ";
            if (m_idleTerminationDisabled) {
                text << "monitoring continued as idle termination was disabled on this watch.";
                sendAliveMessage(text.str());
                KS_WARN("CPUwatch (id#" << m_id << "/" << boost::this_thread::get_id()
                                        << "): " << text.str() << " Process suspect of idling...");
            } else {
                text << "monitoring gets stopped.";
                sendAliveMessage(text.str());
                KS_WARN("CPUwatch (id#" << m_id << "/" << boost::this_thread::get_id()
                                        << "): " << text.str() << " Process declared dead.");
                if (m_watching && m_watchDog && m_watchDog->isWatching())
                    m_watchDog->stopWatching();
                return false;
            }
        } else if (m_spinCount > 2 * m_tolerance) {
            std::ostringstream text;
            text << "Process was apparently spinning for >" << 2 * m_tolerance
                 << "  CPU-activity monitoring cycles in sequence -> ";
            if (m_spinTerminationDisabled) {
                text << "monitoring continued as spin termination was disabled on this watch.";
                sendAliveMessage(text.str());
                KS_WARN("CPUwatch (id#" << m_id << "/" << boost::this_thread::get_id() << "): "
                                        << text.str() << " Process suspect of spinning...");
            } else {
                text << "monitoring gets stopped.";
                sendAliveMessage(text.str());
                KS_WARN("CPUwatch (id#" << m_id << "/" << boost::this_thread::get_id()
                                        << "): " << text.str() << " Process declared dead.");
                if (m_watching && m_watchDog && m_watchDog->isWatching())
                    m_watchDog->stopWatching();
                return false;
            }
        }
    } else {
        // The process shows life: move the thresholds back towards their base.
        if (m_idleCount > 0) {
            if (m_idleFactor < 0.95)
                m_idleFactor /= 0.99;
            if (m_idleFactor > 1.0)
                m_idleFactor = 1.0;
            m_idleCount = 0;
        }
        if (m_spinCount > 0) {
            if (m_spinFactor < 1.0)
                m_spinFactor /= 0.99;
            if (m_spinFactor > 1.0)
                m_spinFactor = 1.0;
            m_spinCount = 0;
        }

        double percent = cpuFraction * 100;
        int64_t whole = static_cast<int64_t>(percent);
        // Below one percent the first non-zero digit of up to three decimals still tells a
        // trickle from nothing.
        std::ostringstream fraction;
        if (whole == 0) {
            int64_t tenths = static_cast<int64_t>(percent * 10);
            fraction << "." << tenths;
            if (tenths == 0) {
                int64_t hundredths = static_cast<int64_t>(percent * 100);
                fraction << hundredths;
                if (hundredths == 0)
                    fraction << static_cast<int64_t>(percent * 1000);
            }
        }
        std::ostringstream text;
        text << "Process is busy @ ~" << whole << fraction.str()
             << "% total CPU-activity (average) on estimated " << static_cast<int64_t>(guessed)
             << " busy core(s)...";
        sendAliveMessage(text.str());
    }

    m_lastGuessedCores = static_cast<uint32_t>(guessed);
    m_lastReal = now.real;
    m_lastUser = now.user;
    m_lastSystem = now.system;
    return true;
}

void CpuWatch::connectToAliveSlot(const Signals::Slot<void(const std::string&)>& slot) {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    if (m_aliveConnection.connected())
        m_aliveConnection.disconnect();
    m_aliveConnection = m_aliveSignal.connect(slot);
}

void CpuWatch::disableIdleStateTermination() {
    m_idleTerminationDisabled = true;
    KS_TRACE("CPUwatch (id#" << m_id << "): Idle state termination DISABLED on this watch!");
}

void CpuWatch::disableSpinningStateTermination() {
    m_spinTerminationDisabled = true;
    KS_TRACE("CPUwatch (id#" << m_id << "): Spin state termination DISABLED on this watch!");
}

void CpuWatch::resetCounters() {
    m_idleCount = 0;
    m_spinCount = 0;
    m_lastGuessedCores = 0;
    m_idleFactor = 1.0;
    m_spinFactor = 1.0;
    KS_TRACE("CPUwatch (id#" << m_id << "): Counters reset by active process..!");
}

void CpuWatch::sendAliveMessage(const std::string& text) {
    if (m_aliveConnection.connected())
        m_aliveSignal(text);
    else
        LivingProcess::alive(text, "");
}

bool CpuWatch::isWatching() const {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    return m_watching && m_watchDog && m_watchDog->isWatching();
}

int CpuWatch::getAvailableCores() const {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    return m_availableCores;
}

uint32_t CpuWatch::getTolerance() const {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    return m_tolerance;
}

uint32_t CpuWatch::getIdleCount() const {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    return m_idleCount;
}

uint32_t CpuWatch::getSpinCount() const {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    return m_spinCount;
}

double CpuWatch::getIdleFactor() const {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    return m_idleFactor;
}

double CpuWatch::getSpinFactor() const {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    return m_spinFactor;
}

} // namespace Kestrane
