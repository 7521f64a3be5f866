#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcessWatcher.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Publisher.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <boost/thread/lock_guard.hpp>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
}

LivingProcessWatcher::LivingProcessWatcher(const HostInfo& host, int maxAliveAge, int maxChangeAge,
                                           bool forwardAlive)
    // A watcher often lives for one wait only: it shares the process's subscription.
    : Subscriber(host, {Publisher::c_topicAlive}, Sockets::Shared),
      m_lastAliveTime(Clock::now().time_since_epoch().count()),
      m_lastChangeTime(Clock::now().time_since_epoch().count()), m_hostInfo(host),
      m_maxAliveAge(maxAliveAge), m_maxChangeAge(maxChangeAge), m_forwardAlive(forwardAlive) {
    KS_TRACE("Created LivingProcessWatcher for " << host.toString()
                                                 << ", maxAliveAge=" << maxAliveAge
                                                 << ", maxChangeAge=" << maxChangeAge);
}

LivingProcessWatcher::~LivingProcessWatcher() {
    stop();
    finalize();
}

int LivingProcessWatcher::secondsSince(Clock::rep since) {
    auto age = Clock::now() - Clock::time_point(Clock::duration(since));
    return static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(age).count());
}

int LivingProcessWatcher::getLastAliveAge() const {
    return secondsSince(m_lastAliveTime.load());
}

int LivingProcessWatcher::getLastChangeAge() const {
    return secondsSince(m_lastChangeTime.load());
}

std::string LivingProcessWatcher::getLastAliveMsg() const {
    boost::lock_guard<boost::mutex> lock(m_textMutex);
    return m_lastMsg;
}

std::string LivingProcessWatcher::getLastTimeStamp() const {
    boost::lock_guard<boost::mutex> lock(m_textMutex);
    return m_lastTimeStamp;
}

void LivingProcessWatcher::handleMessage(int, const std::string& topic,
                                         const std::vector<std::string>& content) {
    if (topic != Publisher::c_topicAlive || content.size() != 2) {
        KS_ERROR("Error: wrong topic (" << topic << ") or contnent size (" << content.size()
                                        << ")!");
        return;
    }
    auto now = Clock::now().time_since_epoch().count();
    m_lastAliveTime = now;
    std::string message;
    {
        boost::lock_guard<boost::mutex> lock(m_textMutex);
        if (content[0] != m_lastTimeStamp || content[1] != m_lastMsg) {
            m_lastChangeTime = now;
            m_lastTimeStamp = content[0];
            m_lastMsg = content[1];
        }
        message = m_lastMsg;
    }
    KS_TRACE("ALIVE_RECV - " << m_hostInfo.getName() << " " << m_hostInfo.getIp() << " "
                             << m_hostInfo.getPublisherPort() << " - " << content[0] << " - "
                             << content[1]);
    if (m_forwardAlive)
        LivingProcess::alive(message, "");
}

void LivingProcessWatcher::handleNoNewMessage(int) {
    if (m_maxAliveAge > 0) {
        int age = getLastAliveAge();
        if (age > m_maxAliveAge) {
            KS_WARN("Max alive message age exceeded (" << age << " > " << m_maxAliveAge << ")");
            m_maxAliveAgeExceeded();
        }
    }
    if (m_maxChangeAge > 0) {
        int age = getLastChangeAge();
        if (age > m_maxChangeAge) {
            KS_WARN("Max change message age exceeded (" << age << " > " << m_maxChangeAge << ")");
            m_maxChangeAgeExceeded();
        }
    }
}

} // namespace Kestrane
