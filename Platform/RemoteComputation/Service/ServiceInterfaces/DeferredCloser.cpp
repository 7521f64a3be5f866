#include "Platform/RemoteComputation/Service/ServiceInterfaces/DeferredCloser.h"

#include <cerrno>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Kestrane {
namespace Computing {

namespace {
// Reads per connection and sweep: a peer that keeps sending cannot hold the sweep.
constexpr int c_readsPerSweep = 16;
// Sweeps that find nothing before the thread sleeps until a hand-over wakes it.
constexpr int c_emptyRoundsBeforeSleep = 2;

DeferredCloser* s_instance = nullptr;
} // namespace

DeferredCloser& DeferredCloser::instance() {
    static DeferredCloser* const made = [] {
        s_instance = new DeferredCloser(c_mostHeld, c_sweepInterval);
        // The closer's lock is held across fork, so the child gets it in a known state, and
        // the child, which has no closer thread, starts over with nothing held.
        ::pthread_atfork([] { s_instance->m_mutex.lock(); }, [] { s_instance->m_mutex.unlock(); },
                         [] {
                             s_instance->forgetAfterFork();
                             s_instance->m_mutex.unlock();
                         });
        return s_instance;
    }();
    return *made;
}

DeferredCloser::DeferredCloser(size_t mostHeld, std::chrono::milliseconds sweepInterval)
    : m_mostHeld(mostHeld < 1 ? 1 : mostHeld), m_sweepInterval(sweepInterval) {}

DeferredCloser::~DeferredCloser() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_work.notify_all();
    if (m_thread)
        m_thread->join();
    for (const Held& held : m_held)
        ::close(held.handle);
}

void DeferredCloser::hand(int handle, std::chrono::milliseconds limit) {
    int givenUp = -1;
    bool asleep;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_thread)
            m_thread = std::make_unique<std::thread>([this] { run(); });
        asleep = m_asleep;
        m_held.push_back(Held{handle, Clock::now() + limit});
        if (m_held.size() > m_mostHeld) {
            givenUp = m_held.front().handle;
            m_held.pop_front();
        }
    }
    if (givenUp >= 0)
        ::close(givenUp); // too many waiting: this one keeps its TIME_WAIT on our side
    if (asleep)
        m_work.notify_one();
}

size_t DeferredCloser::getHeldCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_held.size();
}

void DeferredCloser::run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    int emptyRounds = 0;
    for (;;) {
        // Peers close within moments: waiting a sweep interval first finds most of them closed.
        m_work.wait_for(lock, m_sweepInterval, [this] { return m_stopping; });
        if (m_stopping)
            return;
        if (!m_held.empty()) {
            emptyRounds = 0;
            sweepLocked();
        } else if (++emptyRounds >= c_emptyRoundsBeforeSleep) {
            // Idle: sleep until a connection comes. Under steady use the sweeps go on by the
            // clock alone, and a hand-over wakes nobody.
            m_asleep = true;
            m_work.wait(lock, [this] { return m_stopping || !m_held.empty(); });
            m_asleep = false;
            emptyRounds = 0;
        }
    }
}

void DeferredCloser::sweepLocked() {
    const auto now = Clock::now();
    auto kept = m_held.begin();
    for (auto it = m_held.begin(); it != m_held.end(); ++it) {
        if (isFinished(*it, now))
            ::close(it->handle);
        else
            *kept++ = *it;
    }
    m_held.erase(kept, m_held.end());
}

bool DeferredCloser::isFinished(const Held& held, Clock::time_point now) {
    char discard[4096];
    for (int read = 0; read < c_readsPerSweep; ++read) {
        const ssize_t got = ::recv(held.handle, discard, sizeof(discard), MSG_DONTWAIT);
        if (got == 0)
            return true; // the peer closed
        if (got > 0)
            continue;
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            break;
        return true; // failed: nothing is left to wait for
    }
    return now >= held.deadline;
}

void DeferredCloser::forgetAfterFork() {
    // The thread did not come along: its object stands for nothing here and is let go as it
    // is (neither joined nor detached); the next hand-over starts a thread of the child's own.
    [[maybe_unused]] std::thread* gone = m_thread.release();
    for (const Held& held : m_held)
        ::close(held.handle); // the child's copies; the parent's closer closes its own
    m_held.clear();
    m_asleep = false;
}

} // namespace Computing
} // namespace Kestrane
