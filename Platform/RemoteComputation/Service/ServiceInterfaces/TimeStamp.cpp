#include "Platform/RemoteComputation/Service/ServiceInterfaces/TimeStamp.h"

#include <chrono>
#include <cstdio>

namespace Kestrane {

TimeStamp::TimeStamp() {
    setToCurrentTime();
}

void TimeStamp::setToCurrentTime() {
    m_microseconds = std::chrono::duration_cast<std::chrono::microseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
}

std::string TimeStamp::getTimeStampString() const {
    std::time_t seconds = static_cast<std::time_t>(m_microseconds / 1000000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[96];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%06lld", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  static_cast<long long>(m_microseconds % 1000000));
    return text;
}

std::tm TimeUtilities::localtimeSecure(const int64_t& seconds) {
    std::time_t t = static_cast<std::time_t>(seconds);
    std::tm local{};
    localtime_r(&t, &local);
    return local;
}

} // namespace Kestrane
