#include "Platform/RemoteComputation/Service/ServiceInterfaces/WatchDog.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <algorithm>
#include <chrono>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
}

WatchDog::WatchDog(uint64_t period) : m_period(period == 0 ? 1 : period) {}

WatchDog::~WatchDog() {
    stopWatching();
}

void WatchDog::watchThis(Watchable* watchable) {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    if (watchable && std::find(m_watched.begin(), m_watched.end(), watchable) == m_watched.end())
        m_watched.push_back(watchable);
}

bool WatchDog::startWatching() {
    boost::unique_lock<boost::mutex> lock(m_mutex);
    if (m_watching)
        return false;
    if (m_thread.joinable()) {
        // A loop that stopped itself may still be inside its last tick and need the lock to
        // end: wait for it without holding the lock.
        if (m_thread.get_id() == boost::this_thread::get_id())
            return false;
        boost::thread previous = std::move(m_thread);
        lock.unlock();
        previous.join();
        lock.lock();
        if (m_watching || m_thread.joinable())
            return false; // started by another thread meanwhile
    }
    m_watching = true;
    m_stopRequested = false;
    m_thread = boost::thread([this] { run(); });
    return true;
}

bool WatchDog::stopWatching() {
    boost::unique_lock<boost::mutex> lock(m_mutex);
    if (!m_watching && !m_thread.joinable())
        return false;
    m_stopRequested = true;
    m_condition.notify_all();
    if (m_thread.get_id() == boost::this_thread::get_id()) {
        m_watching = false; // called from a tick: the loop ends when the tick returns
        return true;
    }
    boost::thread running = std::move(m_thread);
    lock.unlock();
    if (running.joinable())
        running.join();
    return true;
}

bool WatchDog::isWatching() const {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    return m_watching && !m_stopRequested;
}

void WatchDog::run() {
    auto next = std::chrono::steady_clock::now();
    boost::unique_lock<boost::mutex> lock(m_mutex);
    while (!m_stopRequested) {
        next += std::chrono::milliseconds(m_period);
        auto now = std::chrono::steady_clock::now();
        if (next < now)
            next = now; // a tick overran: go on from now instead of a burst of late ticks
        auto deadline =
            boost::chrono::steady_clock::now() +
            boost::chrono::nanoseconds((next - std::chrono::steady_clock::now()).count());
        m_condition.wait_until(lock, deadline, [this] { return m_stopRequested; });
        if (m_stopRequested)
            break;
        std::vector<Watchable*> watched = m_watched;
        lock.unlock();
        std::vector<Watchable*> finished;
        for (Watchable* w : watched)
            if (!w->watch(false))
                finished.push_back(w);
        lock.lock();
        for (Watchable* w : finished)
            m_watched.erase(std::remove(m_watched.begin(), m_watched.end(), w), m_watched.end());
        if (m_watched.empty() && !finished.empty())
            break;
    }
    std::vector<Watchable*> watched = m_watched;
    m_watching = false;
    lock.unlock();
    for (Watchable* w : watched)
        w->watch(true);
    KS_TRACE("WatchDog stopped.");
}

} // namespace Kestrane
