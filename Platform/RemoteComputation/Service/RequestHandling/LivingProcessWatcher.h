#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/Subscriber.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Signals.h"

#include <atomic>
#include <chrono>
#include <string>

namespace Kestrane {

// Watches the heartbeat of one process: records when an alive message last came and when its
// content last changed, and raises a signal on every silent pass while either age is beyond its
// limit (limits of 0 or less switch a check off).
class LivingProcessWatcher : public Subscriber {
public:
    LivingProcessWatcher(const HostInfo& host, int maxAliveAge, int maxChangeAge,
                         bool forwardAlive);
    ~LivingProcessWatcher() override;

    // Whole seconds since the last heartbeat / the last change of its content.
    int getLastAliveAge() const;
    int getLastChangeAge() const;
    std::string getLastAliveMsg() const;
    std::string getLastTimeStamp() const;

    Signals::Signal<void()>& maxAliveAgeExceeded() { return m_maxAliveAgeExceeded; }
    Signals::Signal<void()>& maxChangeAgeExceeded() { return m_maxChangeAgeExceeded; }

    void handleMessage(int publisherId, const std::string& topic,
                       const std::vector<std::string>& content) override;
    void handleNoNewMessage(int publisherId) override;

private:
    using Clock = std::chrono::steady_clock;
    static int secondsSince(Clock::rep since);

    Signals::Signal<void()> m_maxAliveAgeExceeded;
    Signals::Signal<void()> m_maxChangeAgeExceeded;
    // Written by the watcher's thread only, read by any thread.
    std::atomic<Clock::rep> m_lastAliveTime;
    std::atomic<Clock::rep> m_lastChangeTime;
    mutable boost::mutex m_textMutex;
    std::string m_lastTimeStamp;
    std::string m_lastMsg;
    HostInfo m_hostInfo;
    int m_maxAliveAge;
    int m_maxChangeAge;
    bool m_forwardAlive;
};

} // namespace Kestrane
