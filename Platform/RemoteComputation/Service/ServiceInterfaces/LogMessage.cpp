#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogMessage.h"

#include <chrono>

namespace Kestrane {

namespace {
int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}
} // namespace

LogMessage::LogMessage() : m_timeStamp(nowMs()) {}

LogMessage::LogMessage(const std::string& text, Type type, const std::string& group)
    : m_text(text), m_type(type), m_group(group), m_timeStamp(nowMs()) {}

std::string LogMessage::typeToString(Type type) {
    switch (type) {
    case Warning:
        return "WARNING";
    case Error:
        return "ERROR";
    case Debug:
        return "DEBUG";
    default:
        return "INFO";
    }
}

LogMessage::Type LogMessage::stringToType(const std::string& text) {
    if (text == "WARNING")
        return Warning;
    if (text == "ERROR")
        return Error;
    if (text == "DEBUG")
        return Debug;
    return Info;
}

} // namespace Kestrane
