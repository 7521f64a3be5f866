#include "Platform/RemoteComputation/Service/ServiceInterfaces/TimeStamp.h"

#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <thread>

using namespace Kestrane;

TEST(TimeStampTest, NewStampIsNow) {
    auto before = std::chrono::duration_cast<std::chrono::microseconds>(
                      std::chrono::system_clock::now().time_since_epoch())
                      .count();
    TimeStamp stamp;
    auto after = std::chrono::duration_cast<std::chrono::microseconds>(
                     std::chrono::system_clock::now().time_since_epoch())
                     .count();
    EXPECT_GE(stamp.getMicroseconds(), before);
    EXPECT_LE(stamp.getMicroseconds(), after);
}

TEST(TimeStampTest, TextForm) {
    TimeStamp stamp;
    std::string text = stamp.getTimeStampString();
    EXPECT_TRUE(std::regex_match(text, std::regex(R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{6})")))
        << text;
    std::time_t seconds = static_cast<std::time_t>(stamp.getMicroseconds() / 1000000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char expected[32];
    std::strftime(expected, sizeof(expected), "%Y-%m-%dT%H:%M:%S", &utc);
    EXPECT_EQ(text.substr(0, 19), expected);
    char micro[8];
    std::snprintf(micro, sizeof(micro), "%06lld",
                  static_cast<long long>(stamp.getMicroseconds() % 1000000));
    EXPECT_EQ(text.substr(20), micro);
}

TEST(TimeStampTest, SetToCurrentTimeMovesForward) {
    TimeStamp stamp;
    TimeStamp copy = stamp;
    EXPECT_TRUE(copy == stamp);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    stamp.setToCurrentTime();
    EXPECT_GT(stamp.getMicroseconds(), copy.getMicroseconds());
    EXPECT_FALSE(copy == stamp);
    EXPECT_LT(copy.getTimeStampString(), stamp.getTimeStampString());
}

TEST(TimeStampTest, LocaltimeSecureMatchesLocaltime) {
    int64_t seconds = 1700000000;
    std::tm result = TimeUtilities::localtimeSecure(seconds);
    std::time_t t = static_cast<std::time_t>(seconds);
    std::tm expected{};
    localtime_r(&t, &expected);
    EXPECT_EQ(result.tm_year, expected.tm_year);
    EXPECT_EQ(result.tm_mon, expected.tm_mon);
    EXPECT_EQ(result.tm_mday, expected.tm_mday);
    EXPECT_EQ(result.tm_hour, expected.tm_hour);
    EXPECT_EQ(result.tm_min, expected.tm_min);
    EXPECT_EQ(result.tm_sec, expected.tm_sec);
    EXPECT_EQ(result.tm_sec, 20);
}
