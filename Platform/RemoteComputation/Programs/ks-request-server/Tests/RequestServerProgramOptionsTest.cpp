#include "../RequestServerProgramOptions.h"

#include <gtest/gtest.h>

using namespace Kestrane;

TEST(RequestServerProgramOptionsTest, DefaultsLetTheConfigurationDecide) {
    auto options = RequestServerProgramOptions::parse({});
    EXPECT_EQ(options.port, 0u);
    EXPECT_FALSE(options.portRange.has_value());
    EXPECT_FALSE(options.help);
}

TEST(RequestServerProgramOptionsTest, PortAndRange) {
    auto options = RequestServerProgramOptions::parse({"--port", "4000", "--port-range", "12"});
    EXPECT_EQ(options.port, 4000u);
    ASSERT_TRUE(options.portRange.has_value());
    EXPECT_EQ(*options.portRange, 12u);
    EXPECT_TRUE(RequestServerProgramOptions::parse({"--help"}).help);
}

TEST(RequestServerProgramOptionsTest, MalformedCommandLinesAreRejectedWithClearText) {
    auto message = [](std::vector<std::string> args) {
        try {
            RequestServerProgramOptions::parse(args);
        } catch (const std::invalid_argument& e) {
            return std::string(e.what());
        }
        return std::string("accepted");
    };
    EXPECT_EQ(message({"--port"}), "Missing value for option --port");
    EXPECT_EQ(message({"--port", "abc"}),
              "Invalid value 'abc' for option --port: expected a whole number from 0 to 65535");
    EXPECT_EQ(message({"--port", "70000"}),
              "Invalid value '70000' for option --port: expected a whole number from 0 to 65535");
    EXPECT_EQ(message({"--port", "-1"}),
              "Invalid value '-1' for option --port: expected a whole number from 0 to 65535");
    EXPECT_EQ(message({"--port-range", "0"}), "Invalid value '0' for option --port-range: "
                                              "expected a whole number from 1 to 65535");
    EXPECT_EQ(message({"--port", "99999999999999999999"}),
              "Invalid value '99999999999999999999' for option --port: expected a whole number "
              "from 0 to 65535");
    EXPECT_EQ(message({"--bogus"}), "Unknown option '--bogus'");
    EXPECT_EQ(message({"4000"}), "Unknown option '4000'");
    EXPECT_EQ(message({""}), "Unknown option ''");
}

TEST(RequestServerProgramOptionsTest, CallbackAndJobId) {
    const std::string job = "0123456789ABCDEF-0123456789ABCDEF-0123456789ABCDEF.nightly";
    auto options =
        RequestServerProgramOptions::parse({"-c", "waiter:4000:3", "-jobId", job, "--port", "5"});
    EXPECT_EQ(options.callback, "waiter:4000:3");
    EXPECT_EQ(options.jobId, job);
    EXPECT_EQ(options.port, 5u);
    EXPECT_EQ(RequestServerProgramOptions::parse({"--callback", "a:1:2"}).callback, "a:1:2");
    EXPECT_EQ(RequestServerProgramOptions::parse({}).callback, "");
    EXPECT_EQ(RequestServerProgramOptions::parse({}).jobId, "");
}

TEST(RequestServerProgramOptionsTest, CallbackAndJobIdNeedValidValues) {
    auto message = [](std::vector<std::string> args) {
        try {
            RequestServerProgramOptions::parse(args);
        } catch (const std::invalid_argument& e) {
            return std::string(e.what());
        }
        return std::string("accepted");
    };
    EXPECT_EQ(message({"-c"}), "Missing value for option -c");
    EXPECT_EQ(message({"-jobId"}), "Missing value for option -jobId");
    EXPECT_EQ(message({"-jobId", "not-an-id"}).rfind("Invalid job id 'not-an-id': ", 0), 0u)
        << message({"-jobId", "not-an-id"});
}
