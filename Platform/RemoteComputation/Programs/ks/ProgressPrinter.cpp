#include "ProgressPrinter.h"

#include "Platform/RemoteComputation/Programs/ks-watch/WatchPrinter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Publisher.h"

#include <algorithm>

namespace Kestrane {

namespace {
std::vector<std::string> topicsFollowed() {
    return {Publisher::c_topicAlive, Publisher::c_topicLogMessage};
}
} // namespace

ProgressLines::ProgressLines(std::ostream& out, const std::string& indent, bool condensed)
    : m_out(out), m_indent(indent), m_condensed(condensed), m_clock([] { return Clock::now(); }) {}

ProgressLines::~ProgressLines() {
    flush();
}

void ProgressLines::write(const std::string& topic, const std::string& text, unsigned int count) {
    std::string padded = topic;
    padded.resize(std::max<size_t>(7, topic.size() + 1), ' ');
    m_out << m_indent << WatchPrinter::now() << " " << padded << text;
    if (count > 1)
        m_out << "  (x" << count << ")";
    m_out << std::endl;
}

void ProgressLines::line(const std::string& topic, const std::string& text) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_condensed) {
        write(topic, text, 1);
        return;
    }
    auto now = m_clock();
    auto found = m_held.find(topic);
    if (found != m_held.end() && found->second.text == text) {
        Held& held = found->second;
        ++held.count;
        if (now - held.shown >= std::chrono::seconds(1)) {
            write(topic, text, held.count);
            held.count = 0;
            held.shown = now;
        }
        return;
    }
    if (found != m_held.end() && found->second.count > 0)
        write(topic, found->second.text, found->second.count);
    write(topic, text, 1);
    m_held[topic] = Held{text, now, 0};
}

void ProgressLines::flushLocked() {
    for (auto& entry : m_held) {
        if (entry.second.count > 0)
            write(entry.first, entry.second.text, entry.second.count);
        entry.second.count = 0;
    }
}

void ProgressLines::flush() {
    std::lock_guard<std::mutex> lock(m_mutex);
    flushLocked();
    m_held.clear();
}

ProgressFollower::ProgressFollower(const HostInfo& publisher, ProgressLines& lines)
    : Subscriber(publisher, topicsFollowed()), m_lines(lines) {}

ProgressFollower::~ProgressFollower() {
    stop();
    finalize();
}

void ProgressFollower::handleMessage(int, const std::string& topic,
                                     const std::vector<std::string>& content) {
    // The text behind the padded topic, as ks-watch shows it.
    std::string described = WatchPrinter::describe(topic, content);
    std::string padded = topic;
    padded.resize(std::max<size_t>(7, topic.size() + 1), ' ');
    std::string text = described.compare(0, padded.size(), padded) == 0
                           ? described.substr(padded.size())
                           : described;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (topic == Publisher::c_topicAlive)
            ++m_heartbeats;
        else {
            ++m_logMessages;
            m_lastLogMessage = std::chrono::steady_clock::now();
        }
    }
    m_condition.notify_all();
    m_lines.line(topic, text);
}

bool ProgressFollower::waitForFirstMessage(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_condition.wait_for(lock, limit, [this] { return m_heartbeats + m_logMessages > 0; });
}

void ProgressFollower::settle(std::chrono::milliseconds quiet, std::chrono::milliseconds limit) {
    auto start = std::chrono::steady_clock::now();
    auto deadline = start + limit;
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        auto until = std::min(std::max(m_lastLogMessage, start) + quiet, deadline);
        if (std::chrono::steady_clock::now() >= until)
            return;
        m_condition.wait_until(lock, until);
    }
}

unsigned int ProgressFollower::getLogMessages() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_logMessages;
}

unsigned int ProgressFollower::getHeartbeats() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_heartbeats;
}

TransferProgressLog::~TransferProgressLog() = default;

int TransferProgressLog::logMessage(const std::string& text, int64_t, bool) {
    std::string line = text;
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    ++m_count;
    m_lines.line("file", line);
    return 0;
}

} // namespace Kestrane
