#pragma once

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>

#include <string>

namespace Kestrane {

class Runnable {
public:
    virtual ~Runnable() = default;
};

// Base of every long-running activity. A derived class supplies executeRun(); start() runs
// prepareRun(), executeRun() and finalizeRun() on a new thread. Each derived class has its own
// way to end its loop; finalize() only waits for the end. Derived destructors stop their loop
// and call finalize() first.
class Thread : public Runnable {
public:
    enum BlockingLevel { NonBlocking = 0, Blocking = 1 };
    // Passed on to worker pools; the system's scheduler decides.
    enum Priority { Lowest = 0, Low = 1, Normal = 2, High = 3, Highest = 4 };

    explicit Thread(const std::string& name);
    ~Thread() override;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    virtual void executeRun() = 0;
    virtual void finalizeRun() {}
    virtual void sendFinishSignal(bool finished);
    virtual BlockingLevel blockingLevel() { return NonBlocking; }

    bool start(bool startNow = true);
    // Blocks until the run has ended; safe on a thread that ended or never started.
    void finalize();
    bool isRunning() const;
    const std::string& getName() const { return m_name; }
    static void sleep(unsigned int milliseconds);

protected:
    virtual void prepareRun() {}
    virtual void abortRun() {}

private:
    void run();

    std::string m_name;
    boost::thread m_thread;
    mutable boost::mutex m_stateMutex;
    boost::condition_variable m_finishedCondition;
    bool m_started = false;
    bool m_finished = false;
};

} // namespace Kestrane
