#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Thread.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/TimeStamp.h"

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <map>
#include <string>

namespace Kestrane {

class Publisher;

// The heartbeat of a process: a thread that repeats, every alivePublishInterval milliseconds,
// the last state text of each key on the topic "alive". alive() only records the text, so it is
// cheap enough for inner loops; the thread does all socket work.
class LivingProcess : public Thread {
public:
    // Records the state text for a key; starts the heartbeat at the first call.
    static void alive(const std::string& text, const std::string& key);
    static std::string getLastAliveMsg(const std::string& key);
    static void setPrefix(const std::string& prefix);
    // Ends the heartbeat for good.
    static void shutdown();

    void executeRun() override;
    void finalizeRun() override {}

private:
    LivingProcess();
    ~LivingProcess() override;
    static LivingProcess* getInstance();
    void publish();

    Publisher* m_publisher;
    std::map<std::string, TimeStamp> m_timeByKey;
    std::map<std::string, std::string> m_textByKey;
    std::string m_prefix;
    bool m_changed = false;
    bool m_shutdownRequested = false;
    boost::condition_variable_any m_condition;
    boost::mutex m_mutex;

    static LivingProcess* s_instance;
    static boost::mutex s_mutex;
    static bool s_shutdown;
};

} // namespace Kestrane
