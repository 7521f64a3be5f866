#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcessWatcher.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Subscriber.h"

#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace Kestrane {

// Prints every message of a publisher as one readable line: local time, topic, content.
class WatchPrinter : public Subscriber {
public:
    WatchPrinter(const HostInfo& publisher, const std::vector<std::string>& topics,
                 std::ostream& out);
    ~WatchPrinter() override;

    void handleMessage(int publisherId, const std::string& topic,
                       const std::vector<std::string>& content) override;
    // A line of the watcher itself, between the message lines.
    void note(const std::string& text);

    // The text of one message line (without the time).
    static std::string describe(const std::string& topic, const std::vector<std::string>& content);
    static std::string now();

private:
    std::ostream& m_out;
    std::mutex m_mutex;
};

// Turns the ages of a LivingProcessWatcher into lines when a limit is passed and when the
// heartbeat comes back.
class AgeReporter {
public:
    AgeReporter(const LivingProcessWatcher& watcher, unsigned int maxAliveAge,
                unsigned int maxChangeAge, const std::string& target);
    // Looks at the ages; returns the lines to print (empty when nothing changed).
    std::vector<std::string> check();

private:
    const LivingProcessWatcher& m_watcher;
    unsigned int m_maxAliveAge;
    unsigned int m_maxChangeAge;
    std::string m_target;
    bool m_aliveExceeded = false;
    bool m_changeExceeded = false;
};

} // namespace Kestrane
