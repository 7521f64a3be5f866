#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace Kestrane {

// A point in time (UTC, microseconds).
class TimeStamp {
public:
    TimeStamp();
    void setToCurrentTime();
    // ISO form "YYYY-MM-DDTHH:MM:SS.ffffff" (UTC).
    std::string getTimeStampString() const;
    int64_t getMicroseconds() const { return m_microseconds; }
    bool operator==(const TimeStamp& other) const { return m_microseconds == other.m_microseconds; }

private:
    int64_t m_microseconds = 0;
};

class TimeUtilities {
public:
    // Thread-safe local time.
    static std::tm localtimeSecure(const int64_t& seconds);
};

} // namespace Kestrane
