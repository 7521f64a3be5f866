#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <mutex>
#include <string>
#include <vector>

namespace Kestrane {

// How a process logs: level, log file and its suffix. Read from the command line
// (-logLevel LEVEL, -logFile PATH, -logFileSuffix S) and the environment (KS_LOG_LEVEL); handed
// on to started processes by getCmdArgs().
class LoggingSettings {
public:
    static LoggingSettings* get();

    // Applies KS_LOG_LEVEL when it is set. Throws KsException on an unknown level.
    void applyEnvironment();
    // Takes the logging options and their values out of `args` and applies them. Throws
    // KsException naming the option when a value is missing or not valid.
    void parseCommandLine(std::vector<std::string>& args);

    void setLevel(LogLevel level);
    LogLevel getLevel() const;
    // Log file, with the suffix put in front of its extension ("run.log" + "_2" = "run_2.log").
    // Throws KsException when the file cannot be opened; then no file is set.
    void setLogFile(const std::string& path, const std::string& suffix);
    std::string getLogFile() const;
    std::string getLogFileSuffix() const;
    std::string getEffectiveLogFile() const;

    // Arguments that make a started process log the same way (without the suffix, which
    // starters give each process of their own).
    std::vector<std::string> getCmdArgs() const;

private:
    LoggingSettings() = default;
    std::string effectiveLogFile() const; // with m_mutex held
    mutable std::mutex m_mutex;
    std::string m_logFile;
    std::string m_logFileSuffix;
};

} // namespace Kestrane
