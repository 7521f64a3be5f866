#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Thread.h"

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <cstdint>
#include <vector>

namespace Kestrane {

// An object that a WatchDog calls at every tick.
class Watchable {
public:
    virtual ~Watchable() = default;
    // Called with false at every tick, and once with true when watching stops; returning false
    // ends the watching of this object.
    virtual bool watch(bool stopping) = 0;
};

// Calls its watched objects every `period` milliseconds on a thread of its own; after a tick
// that overran, the next one follows at once and the period counts from there.
class WatchDog {
public:
    explicit WatchDog(uint64_t period);
    ~WatchDog();
    WatchDog(const WatchDog&) = delete;
    WatchDog& operator=(const WatchDog&) = delete;

    void watchThis(Watchable* watchable);
    bool startWatching();
    // Stops the ticks; callable from a watched object's watch() as well.
    bool stopWatching();
    bool isWatching() const;

private:
    void run();

    uint64_t m_period;
    mutable boost::mutex m_mutex;
    boost::condition_variable m_condition;
    std::vector<Watchable*> m_watched;
    bool m_watching = false;
    bool m_stopRequested = false;
    boost::thread m_thread;
};

} // namespace Kestrane
