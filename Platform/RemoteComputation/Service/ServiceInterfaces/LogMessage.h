#pragma once

#include <cstdint>
#include <string>

namespace Kestrane {

// One message as a value: text, type, group and time stamp (milliseconds since the epoch).
class LogMessage {
public:
    enum Type { Info = 0, Warning = 1, Error = 2, Debug = 3 };

    LogMessage();
    LogMessage(const std::string& text, Type type, const std::string& group);

    void setText(const std::string& text) { m_text = text; }
    const std::string& text() const { return m_text; }
    void setType(Type type) { m_type = type; }
    Type type() const { return m_type; }
    void setGroup(const std::string& group) { m_group = group; }
    const std::string& getGroup() const { return m_group; }
    void setTimeStamp(int64_t timeStamp) { m_timeStamp = timeStamp; }
    int64_t timeStamp() const { return m_timeStamp; }

    // "INFO", "WARNING", "ERROR", "DEBUG".
    static std::string typeToString(Type type);
    // The inverse; an unknown text gives Info.
    static Type stringToType(const std::string& text);

private:
    std::string m_text;
    Type m_type = Info;
    std::string m_group;
    int64_t m_timeStamp = 0;
};

} // namespace Kestrane
