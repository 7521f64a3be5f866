#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/Subscriber.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractJobLog.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace Kestrane {

// Writes progress lines (local time, topic, text) to a stream, one line at a time from any
// thread. Condensed, a line that repeats the previous one of its topic is held back and shown
// at most once a second with its count, so that a request which reports ten times a second
// stays readable.
class ProgressLines {
public:
    using Clock = std::chrono::steady_clock;

    ProgressLines(std::ostream& out, const std::string& indent, bool condensed);
    ~ProgressLines();

    // One line of `topic` (padded like ks-watch), e.g. "logMsg  INFO [group] text".
    void line(const std::string& topic, const std::string& text);
    // Shows what is held back.
    void flush();
    // For tests: the clock that decides when a held-back repeat is shown.
    void setClock(std::function<Clock::time_point()> clock) { m_clock = std::move(clock); }

private:
    struct Held {
        std::string text;
        Clock::time_point shown;
        unsigned int count = 0; // repeats since the line was last shown
    };
    void write(const std::string& topic, const std::string& text, unsigned int count);
    void flushLocked();

    std::ostream& m_out;
    std::string m_indent;
    bool m_condensed;
    std::map<std::string, Held> m_held;
    std::mutex m_mutex;
    std::function<Clock::time_point()> m_clock;
};

// Follows the publisher of a request server and turns its heartbeats and published log messages
// into progress lines.
class ProgressFollower : public Subscriber {
public:
    ProgressFollower(const HostInfo& publisher, ProgressLines& lines);
    ~ProgressFollower() override;

    void handleMessage(int publisherId, const std::string& topic,
                       const std::vector<std::string>& content) override;
    // Waits until the first message came (the subscription is then in place), at most `limit`.
    bool waitForFirstMessage(std::chrono::milliseconds limit);
    // A log message published just before the reply left the server may come in just after it:
    // waits until no log message came for `quiet`, at most `limit`.
    void settle(std::chrono::milliseconds quiet, std::chrono::milliseconds limit);
    unsigned int getLogMessages() const;
    unsigned int getHeartbeats() const;

private:
    ProgressLines& m_lines;
    mutable std::mutex m_mutex;
    std::condition_variable m_condition;
    unsigned int m_logMessages = 0;
    unsigned int m_heartbeats = 0;
    std::chrono::steady_clock::time_point m_lastLogMessage{};
};

// The job log of a file transfer: its lines ("Starting transfer of file ...", " 42% (84/200MB)",
// "Finished transfer of file ...") become progress lines of the topic "file".
class TransferProgressLog : public AbstractJobLog {
public:
    explicit TransferProgressLog(ProgressLines& lines) : m_lines(lines) {}
    ~TransferProgressLog() override;

    std::string getName() override { return "TransferProgressLog"; }
    int logMessage(const std::string& text, int64_t value, bool flag) override;
    std::shared_ptr<void> getJobContext() override { return nullptr; }
    int flush() override { return 0; }
    unsigned int getLines() const { return m_count.load(); }

private:
    ProgressLines& m_lines;
    std::atomic<unsigned int> m_count{0}; // written by the transfer's companion thread
};

} // namespace Kestrane
