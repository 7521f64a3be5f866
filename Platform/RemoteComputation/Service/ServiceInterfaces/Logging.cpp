#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"

#include <spdlog/details/log_msg.h>
#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

namespace Kestrane {

namespace {

spdlog::level::level_enum toSpd(LogLevel level) {
    switch (level) {
    case LogLevel::Trace:
        return spdlog::level::trace;
    case LogLevel::Debug:
        return spdlog::level::debug;
    case LogLevel::Info:
        return spdlog::level::info;
    case LogLevel::Warn:
        return spdlog::level::warn;
    case LogLevel::Error:
        return spdlog::level::err;
    case LogLevel::Fatal:
        return spdlog::level::critical;
    default:
        return spdlog::level::off;
    }
}

LogLevel fromSpd(spdlog::level::level_enum level) {
    switch (level) {
    case spdlog::level::trace:
        return LogLevel::Trace;
    case spdlog::level::debug:
        return LogLevel::Debug;
    case spdlog::level::info:
        return LogLevel::Info;
    case spdlog::level::warn:
        return LogLevel::Warn;
    case spdlog::level::err:
        return LogLevel::Error;
    case spdlog::level::critical:
        return LogLevel::Fatal;
    default:
        return LogLevel::Off;
    }
}

// Our level words (FATAL, WARN) in place of spdlog's.
class LevelFlag : public spdlog::custom_flag_formatter {
public:
    void format(const spdlog::details::log_msg& msg, const std::tm&,
                spdlog::memory_buf_t& dest) override {
        std::string name = Logging::levelName(fromSpd(msg.level));
        name.resize(5, ' ');
        dest.append(name.data(), name.data() + name.size());
    }
    std::unique_ptr<custom_flag_formatter> clone() const override {
        return std::make_unique<LevelFlag>();
    }
};

std::unique_ptr<spdlog::formatter> makeFormatter() {
    auto formatter = std::make_unique<spdlog::pattern_formatter>();
    formatter->add_flag<LevelFlag>('*').set_pattern("%Y-%m-%d %H:%M:%S.%e %* [%P:%t] %s:%# %v");
    return formatter;
}

} // namespace

struct LogCapture::Impl : public spdlog::sinks::base_sink<std::mutex> {
    mutable std::mutex entriesMutex;
    mutable std::condition_variable changed;
    std::vector<LogCapture::Entry> recorded;

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        Entry entry{fromSpd(msg.level), std::string(msg.payload.data(), msg.payload.size()),
                    msg.source.filename ? msg.source.filename : "", msg.source.line};
        {
            std::lock_guard<std::mutex> lock(entriesMutex);
            recorded.push_back(std::move(entry));
        }
        changed.notify_all();
    }
    void flush_() override {}
};

namespace {

// The logger's one sink: forwards to the output and capture sinks, so that sinks can be added
// and removed while other threads log.
class DispatchSink : public spdlog::sinks::sink {
public:
    void log(const spdlog::details::log_msg& msg) override {
        std::shared_lock<std::shared_mutex> lock(m_mutex);
        for (auto& sink : m_sinks)
            if (sink->should_log(msg.level))
                sink->log(msg);
    }
    void flush() override {
        std::shared_lock<std::shared_mutex> lock(m_mutex);
        for (auto& sink : m_sinks)
            sink->flush();
    }
    void set_pattern(const std::string&) override {}
    void set_formatter(std::unique_ptr<spdlog::formatter>) override {}

    void add(const std::shared_ptr<spdlog::sinks::sink>& sink) {
        std::unique_lock<std::shared_mutex> lock(m_mutex);
        m_sinks.push_back(sink);
    }
    void remove(const std::shared_ptr<spdlog::sinks::sink>& sink) {
        std::unique_lock<std::shared_mutex> lock(m_mutex);
        m_sinks.erase(std::remove(m_sinks.begin(), m_sinks.end(), sink), m_sinks.end());
    }

private:
    std::shared_mutex m_mutex;
    std::vector<std::shared_ptr<spdlog::sinks::sink>> m_sinks;
};

class Backend {
public:
    static Backend& instance() {
        static Backend* backend = new Backend(); // never destroyed: logging works until exit
        return *backend;
    }

    bool enabled(LogLevel level) const {
        return static_cast<int>(level) >= m_effectiveLevel.load(std::memory_order_relaxed);
    }

    void log(LogLevel level, const std::string& message, const char* file, const char* function,
             int line) {
        m_logger->log(spdlog::source_loc{file, line, function}, toSpd(level), message);
        // Warnings and worse reach a log file at once: they are what someone looks for while
        // the process still runs.
        if (level >= LogLevel::Warn)
            m_logger->flush();
    }

    void setLevel(LogLevel level) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_level = level;
        m_stderrSink->set_level(toSpd(level));
        if (m_fileSink)
            m_fileSink->set_level(toSpd(level));
        updateEffectiveLevel();
    }
    LogLevel level() const { return m_level; }

    void setLogFile(const std::string& path) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_fileSink) {
            m_dispatch->remove(m_fileSink);
            m_fileSink.reset();
        }
        if (path.empty())
            return;
        try {
            m_fileSink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, false);
        } catch (const spdlog::spdlog_ex& e) {
            throw KsException("Cannot open log file '" + path + "': " + e.what());
        }
        m_fileSink->set_formatter(makeFormatter());
        m_fileSink->set_level(toSpd(m_level));
        m_dispatch->add(m_fileSink);
    }

    void addCapture(const std::shared_ptr<spdlog::sinks::sink>& sink) {
        std::lock_guard<std::mutex> lock(m_mutex);
        sink->set_level(spdlog::level::trace);
        m_dispatch->add(sink);
        ++m_captures;
        updateEffectiveLevel();
    }
    void removeCapture(const std::shared_ptr<spdlog::sinks::sink>& sink) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_dispatch->remove(sink);
        --m_captures;
        updateEffectiveLevel();
    }
    void flush() { m_logger->flush(); }

private:
    Backend() {
        m_stderrSink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
        m_stderrSink->set_formatter(makeFormatter());
        m_dispatch = std::make_shared<DispatchSink>();
        m_dispatch->add(m_stderrSink);
        m_logger = std::make_shared<spdlog::logger>("kestrane", m_dispatch);
        m_logger->set_level(spdlog::level::trace);
        setLevel(LogLevel::Info);
    }

    void updateEffectiveLevel() {
        int level = m_captures > 0 ? 0 : static_cast<int>(m_level);
        m_effectiveLevel.store(level, std::memory_order_relaxed);
    }

    mutable std::mutex m_mutex;
    std::shared_ptr<spdlog::logger> m_logger;
    std::shared_ptr<DispatchSink> m_dispatch;
    std::shared_ptr<spdlog::sinks::sink> m_stderrSink;
    std::shared_ptr<spdlog::sinks::sink> m_fileSink;
    LogLevel m_level = LogLevel::Info;
    int m_captures = 0;
    std::atomic<int> m_effectiveLevel{static_cast<int>(LogLevel::Info)};
};

} // namespace

Logging::Logging(const std::string& sourceFile) : m_sourceFile(sourceFile) {}

void Logging::log(LogLevel level, const std::string& message, const char* file,
                  const char* function, int line) const {
    if (isEnabled(level))
        Backend::instance().log(level, message, file, function, line);
}

void Logging::logTRACE(const std::string& m, const char* f, const char* fn, int l) const {
    log(LogLevel::Trace, m, f, fn, l);
}
void Logging::logDEBUG(const std::string& m, const char* f, const char* fn, int l) const {
    log(LogLevel::Debug, m, f, fn, l);
}
void Logging::logINFO(const std::string& m, const char* f, const char* fn, int l) const {
    log(LogLevel::Info, m, f, fn, l);
}
void Logging::logWARN(const std::string& m, const char* f, const char* fn, int l) const {
    log(LogLevel::Warn, m, f, fn, l);
}
void Logging::logERROR(const std::string& m, const char* f, const char* fn, int l) const {
    log(LogLevel::Error, m, f, fn, l);
}
void Logging::logFATAL(const std::string& m, const char* f, const char* fn, int l) const {
    log(LogLevel::Fatal, m, f, fn, l);
}

bool Logging::isEnabled(LogLevel level) {
    return Backend::instance().enabled(level);
}
void Logging::setLevel(LogLevel level) {
    Backend::instance().setLevel(level);
}
LogLevel Logging::getLevel() {
    return Backend::instance().level();
}
void Logging::setLogFile(const std::string& path) {
    Backend::instance().setLogFile(path);
}
void Logging::flush() {
    Backend::instance().flush();
}

std::string Logging::levelName(LogLevel level) {
    switch (level) {
    case LogLevel::Trace:
        return "TRACE";
    case LogLevel::Debug:
        return "DEBUG";
    case LogLevel::Info:
        return "INFO";
    case LogLevel::Warn:
        return "WARN";
    case LogLevel::Error:
        return "ERROR";
    case LogLevel::Fatal:
        return "FATAL";
    default:
        return "OFF";
    }
}

bool Logging::parseLevel(const std::string& text, LogLevel& level) {
    std::string upper = text;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    // OFF too: a silent process hands its level on to the processes it starts.
    for (LogLevel candidate : {LogLevel::Trace, LogLevel::Debug, LogLevel::Info, LogLevel::Warn,
                               LogLevel::Error, LogLevel::Fatal, LogLevel::Off}) {
        if (levelName(candidate) == upper) {
            level = candidate;
            return true;
        }
    }
    return false;
}

// ---- LogCapture ----

LogCapture::LogCapture() : m_impl(std::make_shared<Impl>()) {
    Backend::instance().addCapture(m_impl);
}

LogCapture::~LogCapture() {
    Backend::instance().removeCapture(m_impl);
}

std::vector<LogCapture::Entry> LogCapture::entries() const {
    std::lock_guard<std::mutex> lock(m_impl->entriesMutex);
    return m_impl->recorded;
}

std::vector<std::string> LogCapture::messages() const {
    std::vector<std::string> result;
    for (const auto& e : entries())
        result.push_back(e.message);
    return result;
}

std::vector<std::string> LogCapture::messages(LogLevel level) const {
    std::vector<std::string> result;
    for (const auto& e : entries())
        if (e.level == level)
            result.push_back(e.message);
    return result;
}

bool LogCapture::contains(const std::string& message) const {
    return count(message) > 0;
}

bool LogCapture::contains(LogLevel level, const std::string& message) const {
    for (const auto& e : entries())
        if (e.level == level && e.message == message)
            return true;
    return false;
}

bool LogCapture::containsSubstring(const std::string& text) const {
    for (const auto& e : entries())
        if (e.message.find(text) != std::string::npos)
            return true;
    return false;
}

size_t LogCapture::count(const std::string& message) const {
    size_t n = 0;
    for (const auto& e : entries())
        if (e.message == message)
            ++n;
    return n;
}

bool LogCapture::waitFor(const std::string& message, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(m_impl->entriesMutex);
    return m_impl->changed.wait_for(lock, timeout, [&] {
        for (const auto& e : m_impl->recorded)
            if (e.message == message)
                return true;
        return false;
    });
}

bool LogCapture::waitForSubstring(const std::string& text,
                                  std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(m_impl->entriesMutex);
    return m_impl->changed.wait_for(lock, timeout, [&] {
        for (const auto& e : m_impl->recorded)
            if (e.message.find(text) != std::string::npos)
                return true;
        return false;
    });
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(m_impl->entriesMutex);
    m_impl->recorded.clear();
}

} // namespace Kestrane
