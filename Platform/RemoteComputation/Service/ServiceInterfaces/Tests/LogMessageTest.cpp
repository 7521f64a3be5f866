#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogMessage.h"

#include <gtest/gtest.h>

#include <chrono>

using namespace Kestrane;

namespace {
int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}
} // namespace

TEST(LogMessageTest, ErrorTypeHasValueTwo) {
    EXPECT_EQ(static_cast<int>(LogMessage::Error), 2);
    EXPECT_EQ(static_cast<LogMessage::Type>(2), LogMessage::Error);
}

TEST(LogMessageTest, TypeTextsBothWays) {
    const LogMessage::Type types[] = {LogMessage::Info, LogMessage::Warning, LogMessage::Error,
                                      LogMessage::Debug};
    const char* texts[] = {"INFO", "WARNING", "ERROR", "DEBUG"};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(LogMessage::typeToString(types[i]), texts[i]);
        EXPECT_EQ(LogMessage::stringToType(texts[i]), types[i]);
    }
    EXPECT_EQ(LogMessage::stringToType("nonsense"), LogMessage::Info);
    EXPECT_EQ(LogMessage::stringToType(""), LogMessage::Info);
}

TEST(LogMessageTest, ConstructorsAndAccessors) {
    int64_t before = nowMs();
    LogMessage message("disk full", LogMessage::Error, "storage");
    int64_t after = nowMs();
    EXPECT_EQ(message.text(), "disk full");
    EXPECT_EQ(message.type(), LogMessage::Error);
    EXPECT_EQ(message.getGroup(), "storage");
    EXPECT_GE(message.timeStamp(), before);
    EXPECT_LE(message.timeStamp(), after);

    LogMessage empty;
    EXPECT_EQ(empty.text(), "");
    EXPECT_EQ(empty.type(), LogMessage::Info);
    EXPECT_EQ(empty.getGroup(), "");
    EXPECT_GE(empty.timeStamp(), before);

    empty.setText("t");
    empty.setType(LogMessage::Warning);
    empty.setGroup("g");
    empty.setTimeStamp(123);
    EXPECT_EQ(empty.text(), "t");
    EXPECT_EQ(empty.type(), LogMessage::Warning);
    EXPECT_EQ(empty.getGroup(), "g");
    EXPECT_EQ(empty.timeStamp(), 123);

    LogMessage copy = message;
    EXPECT_EQ(copy.text(), message.text());
    EXPECT_EQ(copy.timeStamp(), message.timeStamp());
}
