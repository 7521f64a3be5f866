#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Signals.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/WatchDog.h"

#include <boost/thread/mutex.hpp>

#include <cstdint>
#include <memory>
#include <string>

namespace Kestrane {

// Judges this process by its own CPU clocks: idling (far less than one core for a long time) or
// spinning (a constant whole number of cores with no variation, as a livelock does). Each
// measurement sends a one-line state text through the heartbeat (or the connected slot); a
// process found dead is only reported, and the watch stops. Nothing gets killed here: whoever
// reads the heartbeat draws the consequences.
class CpuWatch : public Watchable {
public:
    // Measures every intervalSeconds (below 1: disabled, no watchdog); tolerance is clamped to
    // 1..10 measurements in a row for idle, twice that for spinning.
    CpuWatch(int intervalSeconds, int tolerance);
    ~CpuWatch() override;
    CpuWatch(const CpuWatch&) = delete;
    CpuWatch& operator=(const CpuWatch&) = delete;

    // Called by the watchdog every tick; false ends the watching.
    bool watch(bool stopping) override;

    // Texts go to this slot instead of the heartbeat; replaces a slot connected before.
    void connectToAliveSlot(const Signals::Slot<void(const std::string&)>& slot);
    // The verdict is still reported, but the watch goes on.
    void disableIdleStateTermination();
    void disableSpinningStateTermination();
    // For a process that knows it is about to be quiet: the next measurement cannot give a
    // verdict.
    void resetCounters();

protected:
    // Process clock readings, in nanoseconds.
    struct ProcessTimes {
        int64_t real;
        int64_t user;
        int64_t system;
    };

    // A watch with a chosen core count and start clocks, and without a watchdog: measurements
    // happen only through measureWith().
    CpuWatch(int intervalSeconds, int tolerance, int availableCores, const ProcessTimes& start);

    // Counts a tick and performs the measurement that is due at it, with the given clocks.
    bool measureWith(const ProcessTimes& now);

    static ProcessTimes readProcessTimes();

    // Whether this object's watchdog is still ticking.
    bool isWatching() const;
    int getAvailableCores() const;
    uint32_t getTolerance() const;
    uint32_t getIdleCount() const;
    uint32_t getSpinCount() const;
    double getIdleFactor() const;
    double getSpinFactor() const;

private:
    // What the watchdog calls. A member of its own: the watchdog's thread then never reads this
    // object's vptr, which the constructor and destructor of a derived class rewrite while the
    // ticks go on.
    class Ticker : public Watchable {
    public:
        explicit Ticker(CpuWatch& owner) : m_owner(owner) {}
        bool watch(bool stopping) override { return m_owner.tick(stopping); }

    private:
        CpuWatch& m_owner;
    };

    bool tick(bool stopping);
    void setUp(int intervalSeconds, int tolerance, int availableCores, const ProcessTimes* start);
    // Steps of one measurement; the mutex is held.
    bool measure(const ProcessTimes& now);
    void sendAliveMessage(const std::string& text);
    static int countAvailableCores();

    static bool s_idleSpinControl;
    static bool s_idleSpinControl_DBG;
    static std::string s_idleSpinControlEnvSet;

    mutable boost::mutex m_mutex;
    bool m_watching = false;
    // Before the watchdog, so that it outlives the watchdog's thread.
    Ticker m_ticker{*this};
    std::shared_ptr<WatchDog> m_watchDog;
    bool m_idleTerminationDisabled = false;
    bool m_spinTerminationDisabled = false;
    uint64_t m_ticksPerCheck = 0;
    uint64_t m_tickCounter = 0;
    uint32_t m_tolerance;
    uint32_t m_counter = 0;
    uint32_t m_idleCount = 0;
    uint32_t m_spinCount = 0;
    int32_t m_availableCores = 1;
    uint32_t m_measureCount = 1;
    double m_usageSum = 0.0;
    uint32_t m_lastGuessedCores = 1;
    double m_guessedCoresSum = 1.0;
    double m_idleThreshBase = 0.333333;
    double m_idleFactor = 1.0;
    double m_spinFactor = 1.0;
    std::string m_id;
    int64_t m_lastReal = 0;
    int64_t m_lastUser = 0;
    int64_t m_lastSystem = 0;
    Signals::Signal<void(const std::string&)> m_aliveSignal;
    Signals::Connection m_aliveConnection;
};

} // namespace Kestrane
