#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Publisher.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"

#include <boost/chrono.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vector>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
}

LivingProcess* LivingProcess::s_instance = nullptr;
boost::mutex LivingProcess::s_mutex;
bool LivingProcess::s_shutdown = false;

LivingProcess::LivingProcess() : Thread("LivingProcess"), m_publisher(Publisher::getInstance()) {
    m_timeByKey[""] = TimeStamp();
    m_textByKey[""] = "LivingProcess_created";
}

LivingProcess::~LivingProcess() {
    {
        boost::lock_guard<boost::mutex> lock(m_mutex);
        m_shutdownRequested = true;
        m_condition.notify_all();
    }
    finalize();
}

LivingProcess* LivingProcess::getInstance() {
    boost::lock_guard<boost::mutex> lock(s_mutex);
    if (!s_instance && !s_shutdown) {
        s_instance = new LivingProcess(); // lives until the process ends
        s_instance->start(true);
        KS_TRACE("Created LivingProcess instance: " << s_instance);
    }
    return s_instance;
}

void LivingProcess::alive(const std::string& text, const std::string& key) {
    KS_TRACE("LivingProcess::alive() - " << key << text);
    LivingProcess* instance = getInstance();
    if (!instance)
        return;
    boost::lock_guard<boost::mutex> lock(instance->m_mutex);
    instance->m_timeByKey[key].setToCurrentTime();
    instance->m_textByKey[key] = text;
    instance->m_changed = true;
}

std::string LivingProcess::getLastAliveMsg(const std::string& key) {
    LivingProcess* instance;
    {
        boost::lock_guard<boost::mutex> lock(s_mutex);
        instance = s_instance;
    }
    if (!instance)
        return std::string();
    boost::lock_guard<boost::mutex> lock(instance->m_mutex);
    return instance->m_textByKey[key];
}

void LivingProcess::setPrefix(const std::string& prefix) {
    LivingProcess* instance = getInstance();
    if (!instance)
        return;
    boost::lock_guard<boost::mutex> lock(instance->m_mutex);
    instance->m_prefix = prefix;
}

void LivingProcess::shutdown() {
    KS_TRACE("LivingProcess::shutdown()");
    LivingProcess* instance;
    {
        boost::lock_guard<boost::mutex> lock(s_mutex);
        s_shutdown = true;
        instance = s_instance;
    }
    if (instance) {
        {
            boost::lock_guard<boost::mutex> lock(instance->m_mutex);
            instance->m_shutdownRequested = true;
            instance->m_condition.notify_all();
        }
        // The heartbeat thread ends at once; joined so that no thread outlives the shutdown.
        instance->finalize();
    }
}

void LivingProcess::executeRun() {
    KS_INFO("Started LivingProcess");
    boost::unique_lock<boost::mutex> lock(m_mutex);
    unsigned int interval =
        RequestServerConfiguration::getRegisteredInstance()->getAlivePublishInterval();
    while (!m_shutdownRequested) {
        publish();
        auto deadline = boost::chrono::steady_clock::now() + boost::chrono::milliseconds(interval);
        // Heartbeats keep their rhythm: only a shutdown ends the wait early.
        while (!m_shutdownRequested &&
               m_condition.wait_until(lock, deadline) != boost::cv_status::timeout) {
        }
        if (!m_changed)
            KS_TRACE("Timeout reached with no change: repeating alive message.");
    }
    KS_INFO("Stopped LivingProcess");
}

void LivingProcess::publish() {
    for (const auto& entry : m_timeByKey) {
        const std::string& key = entry.first;
        std::string stamp = entry.second.getTimeStampString();
        std::string message = m_prefix + key + m_textByKey[key];
        m_publisher->publish(Publisher::c_topicAlive, {stamp, message});
        m_changed = false;
        KS_TRACE("ALIVE - " << stamp << " - " << m_prefix << key << m_textByKey[key]);
    }
}

} // namespace Kestrane
