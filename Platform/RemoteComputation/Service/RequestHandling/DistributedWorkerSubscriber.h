#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/Subscriber.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Signals.h"

#include <boost/thread/mutex.hpp>

#include <chrono>
#include <map>
#include <set>
#include <string>

namespace Kestrane {

struct WorkerProcess;

// The pool's watch over the heartbeats of its workers: one subscription per worker process,
// worker names taken from the messages (the part before "#"), and a signal for each worker whose
// heartbeat stopped or stopped changing for longer than allowed. A lost worker is reported once.
class DistributedWorkerSubscriber : public Subscriber {
public:
    using WorkerLostSignal = Signals::Signal<void(const std::string&, const std::string&)>;

    // Ages in seconds; 0 switches that check off.
    DistributedWorkerSubscriber(unsigned int maxAliveAge, unsigned int maxChangeAge);
    ~DistributedWorkerSubscriber() override;

    // Raised on the subscriber's thread with the worker's name and the reason.
    WorkerLostSignal& workerLost() { return m_workerLost; }

    // Starts watching the worker; subscribes to its process's publisher at the first worker.
    void addWorker(WorkerProcess& process, const HostInfo& host, const std::string& workerName);
    // Stops watching the worker; unsubscribes when it was the process's last one.
    void removeWorker(WorkerProcess& process, const std::string& workerName);
    void removeProcess(WorkerProcess& process);

    void handleMessage(int publisherId, const std::string& topic,
                       const std::vector<std::string>& content) override;
    void handleNoNewMessage(int publisherId) override;

private:
    using Clock = std::chrono::steady_clock;
    struct WorkerState {
        Clock::time_point lastAliveTime;
        Clock::time_point lastChangeTime;
        std::string lastTimeStamp;
        std::string lastMsg;
    };
    struct ProcessState {
        std::set<std::string> workers;
        int publisherId = -1;
    };
    void forgetProcess(const std::string& processName);

    WorkerLostSignal m_workerLost;
    unsigned int m_maxAliveAge;
    unsigned int m_maxChangeAge;
    std::map<std::string, WorkerState> m_workers;
    std::map<std::string, ProcessState> m_processes;
    boost::mutex m_mutex;
};

} // namespace Kestrane
