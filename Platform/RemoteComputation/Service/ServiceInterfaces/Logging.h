#pragma once

#include <sstream>
#include <string>

namespace Kestrane {

enum class LogLevel { Trace = 0, Debug = 1, Info = 2, Warn = 3, Error = 4, Fatal = 5, Off = 6 };

// One static instance per source file. Lines go to standard error, to a log file when one is
// configured, and to in-memory captures (LogCapture) in tests. A line carries the time in
// milliseconds, the level, pid, thread id, source file:line and the message.
class Logging {
public:
    explicit Logging(const std::string& sourceFile);

    void logTRACE(const std::string& message, const char* file, const char* function,
                  int line) const;
    void logDEBUG(const std::string& message, const char* file, const char* function,
                  int line) const;
    void logINFO(const std::string& message, const char* file, const char* function,
                 int line) const;
    void logWARN(const std::string& message, const char* file, const char* function,
                 int line) const;
    void logERROR(const std::string& message, const char* file, const char* function,
                  int line) const;
    // Logs at the highest level; it does not end the process.
    void logFATAL(const std::string& message, const char* file, const char* function,
                  int line) const;
    void log(LogLevel level, const std::string& message, const char* file, const char* function,
             int line) const;

    const std::string& getSourceFile() const { return m_sourceFile; }

    // Cheap test done before a message is composed.
    static bool isEnabled(LogLevel level);
    // Level of the lines that reach standard error and the log file.
    static void setLevel(LogLevel level);
    static LogLevel getLevel();
    // Adds a log file (appending); an empty path closes the current one. Throws KsException
    // when the file cannot be opened (the previous file is closed all the same).
    static void setLogFile(const std::string& path);
    static void flush();

    static std::string levelName(LogLevel level);
    // Accepts TRACE, DEBUG, INFO, WARN, ERROR, FATAL (any case); false for anything else.
    static bool parseLevel(const std::string& text, LogLevel& level);

private:
    std::string m_sourceFile;
};

} // namespace Kestrane

// Composes a message with a string stream and logs it with file, function signature and line,
// only when the level is enabled. Expects a file-static `Logging s_logging`.
#define KS_LOG_AT(LEVEL, expr)                                                                     \
    do {                                                                                           \
        if (::Kestrane::Logging::isEnabled(::Kestrane::LogLevel::LEVEL)) {                         \
            std::ostringstream ks_log_stream_;                                                     \
            ks_log_stream_ << expr;                                                                \
            s_logging.log(::Kestrane::LogLevel::LEVEL, ks_log_stream_.str(), __FILE__,             \
                          __PRETTY_FUNCTION__, __LINE__);                                          \
        }                                                                                          \
    } while (0)
#define KS_TRACE(expr) KS_LOG_AT(Trace, expr)
#define KS_DEBUG(expr) KS_LOG_AT(Debug, expr)
#define KS_INFO(expr) KS_LOG_AT(Info, expr)
#define KS_WARN(expr) KS_LOG_AT(Warn, expr)
#define KS_ERROR(expr) KS_LOG_AT(Error, expr)
#define KS_FATAL(expr) KS_LOG_AT(Fatal, expr)
