#include "Platform/RemoteComputation/Service/ServiceInterfaces/LoggingSettings.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"

#include <cstdlib>

namespace Kestrane {

LoggingSettings* LoggingSettings::get() {
    static LoggingSettings* settings = new LoggingSettings();
    return settings;
}

void LoggingSettings::applyEnvironment() {
    const char* level = std::getenv("KS_LOG_LEVEL");
    if (!level || !*level)
        return;
    LogLevel parsed;
    if (!Logging::parseLevel(level, parsed))
        throw KsException(std::string("Invalid value '") + level +
                          "' of KS_LOG_LEVEL: expected TRACE, DEBUG, INFO, WARN, ERROR, FATAL or OFF");
    setLevel(parsed);
}

void LoggingSettings::parseCommandLine(std::vector<std::string>& args) {
    std::vector<std::string> rest;
    std::string file = getLogFile();
    std::string suffix = getLogFileSuffix();
    bool fileChanged = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg != "-logLevel" && arg != "-logFile" && arg != "-logFileSuffix") {
            rest.push_back(arg);
            continue;
        }
        if (i + 1 >= args.size())
            throw KsException("Missing value for option " + arg);
        const std::string& value = args[++i];
        if (arg == "-logLevel") {
            LogLevel parsed;
            if (!Logging::parseLevel(value, parsed))
                throw KsException("Invalid value '" + value +
                                  "' for option -logLevel: expected TRACE, DEBUG, INFO, WARN, "
                                  "ERROR, FATAL or OFF");
            setLevel(parsed);
        } else if (arg == "-logFile") {
            file = value;
            fileChanged = true;
        } else {
            suffix = value;
            fileChanged = true;
        }
    }
    if (fileChanged) {
        try {
            setLogFile(file, suffix);
        } catch (const KsException& e) {
            throw KsException("Invalid value '" + file +
                              "' for option -logFile: " + e.getMessage());
        }
    }
    args.swap(rest);
}

void LoggingSettings::setLevel(LogLevel level) {
    Logging::setLevel(level);
}

LogLevel LoggingSettings::getLevel() const {
    return Logging::getLevel();
}

void LoggingSettings::setLogFile(const std::string& path, const std::string& suffix) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_logFile = path;
    m_logFileSuffix = suffix;
    try {
        Logging::setLogFile(effectiveLogFile());
    } catch (...) {
        // The old file is closed by then: the settings say that no file is written.
        m_logFile.clear();
        m_logFileSuffix.clear();
        throw;
    }
}

std::string LoggingSettings::getLogFile() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_logFile;
}

std::string LoggingSettings::getLogFileSuffix() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_logFileSuffix;
}

std::string LoggingSettings::getEffectiveLogFile() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return effectiveLogFile();
}

std::string LoggingSettings::effectiveLogFile() const {
    if (m_logFile.empty() || m_logFileSuffix.empty())
        return m_logFile;
    size_t slash = m_logFile.rfind('/');
    size_t dot = m_logFile.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash) ||
        dot == (slash == std::string::npos ? 0 : slash + 1))
        return m_logFile + m_logFileSuffix;
    return m_logFile.substr(0, dot) + m_logFileSuffix + m_logFile.substr(dot);
}

std::vector<std::string> LoggingSettings::getCmdArgs() const {
    std::vector<std::string> args{"-logLevel", Logging::levelName(getLevel())};
    std::string file = getLogFile();
    if (!file.empty()) {
        args.push_back("-logFile");
        args.push_back(file);
    }
    return args;
}

} // namespace Kestrane
