#include "WatchPrinter.h"

#include "Platform/RemoteComputation/Service/RequestHandling/Publisher.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>

namespace Kestrane {

WatchPrinter::WatchPrinter(const HostInfo& publisher, const std::vector<std::string>& topics,
                           std::ostream& out)
    : Subscriber(publisher, topics), m_out(out) {}

WatchPrinter::~WatchPrinter() {
    stop();
    finalize();
}

std::string WatchPrinter::now() {
    auto time = std::chrono::system_clock::now();
    std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    int ms = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() %
        1000);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[64];
    std::snprintf(text, sizeof(text), "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min,
                  local.tm_sec, ms);
    return text;
}

std::string WatchPrinter::describe(const std::string& topic,
                                   const std::vector<std::string>& content) {
    std::string padded = topic;
    padded.resize(std::max<size_t>(7, topic.size() + 1), ' ');
    if (topic == Publisher::c_topicAlive && content.size() == 2)
        return padded + content[1] + "  (since " + content[0] + ")";
    if (topic == Publisher::c_topicLogMessage && content.size() == 4)
        return padded + content[0] + " [" + content[1] + "] " + content[3];
    std::string text = padded;
    for (size_t i = 0; i < content.size(); ++i)
        text += (i ? " | " : "") + content[i];
    return text;
}

void WatchPrinter::handleMessage(int, const std::string& topic,
                                 const std::vector<std::string>& content) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_out << now() << " " << describe(topic, content) << std::endl;
}

void WatchPrinter::note(const std::string& text) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_out << now() << " !!     " << text << std::endl;
}

AgeReporter::AgeReporter(const LivingProcessWatcher& watcher, unsigned int maxAliveAge,
                         unsigned int maxChangeAge, const std::string& target)
    : m_watcher(watcher), m_maxAliveAge(maxAliveAge), m_maxChangeAge(maxChangeAge),
      m_target(target) {}

std::vector<std::string> AgeReporter::check() {
    std::vector<std::string> lines;
    int aliveAge = m_watcher.getLastAliveAge();
    bool aliveExceeded = m_maxAliveAge > 0 && aliveAge > static_cast<int>(m_maxAliveAge);
    if (aliveExceeded && !m_aliveExceeded)
        lines.push_back("No heartbeat from " + m_target + " for " + std::to_string(aliveAge) +
                        " s (limit " + std::to_string(m_maxAliveAge) +
                        " s): the process is stopped, hanging or gone");
    if (!aliveExceeded && m_aliveExceeded)
        lines.push_back("Heartbeat from " + m_target + " is back");
    m_aliveExceeded = aliveExceeded;

    int changeAge = m_watcher.getLastChangeAge();
    bool changeExceeded = m_maxChangeAge > 0 && changeAge > static_cast<int>(m_maxChangeAge);
    if (changeExceeded && !m_changeExceeded)
        lines.push_back("Heartbeat of " + m_target + " unchanged for " + std::to_string(changeAge) +
                        " s (limit " + std::to_string(m_maxChangeAge) +
                        " s): the process may be hanging");
    if (!changeExceeded && m_changeExceeded)
        lines.push_back("Heartbeat of " + m_target + " changes again");
    m_changeExceeded = changeExceeded;
    return lines;
}

} // namespace Kestrane
