#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

namespace Kestrane {
namespace Computing {

// Closes finished connections of the connecting side once their peers have closed them. The
// side that closes first keeps the connection's TIME_WAIT, and that must be the accepting side;
// but waiting for its close on the thread that said the last words cost that thread a sleep
// and a wake-up per connection. Here one thread looks at all connections handed over, once per
// sweep interval while connections come: one wake-up serves many connections, none when idle.
//
// Usage: `DeferredCloser::instance().hand(handle, limit)`; the handle is the closer's from then
// on. The process's closer carries on in a child made by fork.
class DeferredCloser {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::milliseconds c_sweepInterval{10};
    static constexpr size_t c_mostHeld = 1024;

    // The process's closer; never destroyed, so that connections ended at exit still get it.
    static DeferredCloser& instance();

    // A closer of its own, for tests: beyond `mostHeld` connections the oldest is closed at once.
    DeferredCloser(size_t mostHeld, std::chrono::milliseconds sweepInterval);
    // Closes what it still holds, without waiting for the peers.
    ~DeferredCloser();
    DeferredCloser(const DeferredCloser&) = delete;
    DeferredCloser& operator=(const DeferredCloser&) = delete;

    // Takes `handle` and closes it once the peer has closed its side, or after `limit`. What
    // still arrives on it is dropped.
    void hand(int handle, std::chrono::milliseconds limit);
    size_t getHeldCount() const;

private:
    struct Held {
        int handle;
        Clock::time_point deadline;
    };

    void run();
    // Closes the held connections whose peers have closed or whose time is up. Under the lock,
    // as every use of the allocator by this thread is: the lock is held across fork, and a child
    // made while this thread is inside the allocator finds it locked under some allocators (the
    // sanitizers').
    void sweepLocked();
    // Whether `held` can be closed now; drops what arrived on it.
    static bool isFinished(const Held& held, Clock::time_point now);
    void forgetAfterFork();

    const size_t m_mostHeld;
    const std::chrono::milliseconds m_sweepInterval;
    mutable std::mutex m_mutex;
    std::condition_variable m_work;
    std::deque<Held> m_held;
    std::unique_ptr<std::thread> m_thread;
    bool m_stopping = false;
    // The thread waits for a hand-over, not for the clock: a hand-over must wake it.
    bool m_asleep = false;
};

} // namespace Computing
} // namespace Kestrane
