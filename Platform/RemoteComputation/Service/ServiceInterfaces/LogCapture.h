#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

// In-memory capture of log lines, for tests: while an object lives, every line of every level
// is recorded (the levels that reach standard error stay as configured).
class LogCapture {
public:
    struct Entry {
        LogLevel level;
        std::string message;
        std::string file;
        int line;
    };

    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Entry> entries() const;
    std::vector<std::string> messages() const;
    std::vector<std::string> messages(LogLevel level) const;
    // Whether a line with exactly this message was logged (at this level).
    bool contains(const std::string& message) const;
    bool contains(LogLevel level, const std::string& message) const;
    // Whether a line containing this text was logged.
    bool containsSubstring(const std::string& text) const;
    size_t count(const std::string& message) const;
    // Waits until a line with exactly this message has been logged.
    bool waitFor(const std::string& message, std::chrono::milliseconds timeout) const;
    bool waitForSubstring(const std::string& text, std::chrono::milliseconds timeout) const;
    void clear();

    struct Impl;

private:
    std::shared_ptr<Impl> m_impl;
};

} // namespace Kestrane
