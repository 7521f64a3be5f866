#include "../WatchOptions.h"
#include "../WatchPrinter.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace Kestrane;

TEST(WatchOptionsTest, TargetAndDefaults) {
    auto options = WatchOptions::parse({"node1:4100"}, 30, 3600);
    EXPECT_EQ(options.host, "node1");
    EXPECT_EQ(options.port, 4100);
    EXPECT_EQ(options.topics, (std::vector<std::string>{"alive", "logMsg"}));
    EXPECT_EQ(options.maxAliveAge, 30u);
    EXPECT_EQ(options.maxChangeAge, 3600u);
    EXPECT_EQ(options.duration, 0u);
}

TEST(WatchOptionsTest, AllOptions) {
    auto options =
        WatchOptions::parse({"--topics", "alive,jobStatus", "127.0.0.1:9", "--max-alive-age", "2",
                             "--max-change-age", "0", "--duration", "5"},
                            30, 3600);
    EXPECT_EQ(options.host, "127.0.0.1");
    EXPECT_EQ(options.port, 9);
    EXPECT_EQ(options.topics, (std::vector<std::string>{"alive", "jobStatus"}));
    EXPECT_EQ(options.maxAliveAge, 2u);
    EXPECT_EQ(options.maxChangeAge, 0u);
    EXPECT_EQ(options.duration, 5u);
}

TEST(WatchOptionsTest, MalformedCommandLines) {
    auto message = [](std::vector<std::string> args) {
        try {
            WatchOptions::parse(args, 30, 3600);
        } catch (const std::invalid_argument& e) {
            return std::string(e.what());
        }
        return std::string("accepted");
    };
    EXPECT_EQ(message({}), "Missing HOST:PORT of the publisher to watch");
    EXPECT_EQ(message({"node1"}), "Expected HOST:PORT, not 'node1'");
    EXPECT_EQ(message({":4000"}), "Expected HOST:PORT, not ':4000'");
    EXPECT_EQ(message({"h:0"}),
              "Invalid value '0' for the port of 'h:0': expected a whole number from 1 to 65535");
    EXPECT_EQ(message({"h:x1"}),
              "Invalid value 'x1' for the port of 'h:x1': expected a whole number from 1 to 65535");
    EXPECT_EQ(message({"h:"}),
              "Invalid value '' for the port of 'h:': expected a whole number from 1 to 65535");
    EXPECT_EQ(message({"h:1", "h:2"}), "Unexpected argument 'h:2'");
    EXPECT_EQ(message({"h:1", "--topics", ",,"}), "Option --topics needs at least one topic");
    EXPECT_EQ(message({"h:1", "--duration"}), "Missing value for option --duration");
    EXPECT_EQ(message({"h:1", "--max-alive-age", "-3"}),
              "Invalid value '-3' for option --max-alive-age: expected a whole number from 0 to "
              "1000000");
    EXPECT_EQ(message({"h:1", "--verbose"}), "Unknown option '--verbose'");
}

TEST(WatchPrinterTest, ReadableLines) {
    EXPECT_EQ(WatchPrinter::describe("alive", {"2026-11-22T10:00:00.000001", "busy"}),
              "alive  busy  (since 2026-11-22T10:00:00.000001)");
    EXPECT_EQ(WatchPrinter::describe("logMsg", {"ERROR", "jobLog", "17", "disk full"}),
              "logMsg ERROR [jobLog] disk full");
    EXPECT_EQ(WatchPrinter::describe("jobStatus", {"a", "b"}), "jobStatus a | b");
    EXPECT_EQ(WatchPrinter::describe("alive", {"only one"}), "alive  only one");
}
