#include "../RemoteServiceOptions.h"

#include <gtest/gtest.h>

using namespace Kestrane;

namespace {
std::string rejection(const std::vector<std::string>& args) {
    try {
        RemoteServiceOptions::parse(args);
    } catch (const std::invalid_argument& e) {
        return e.what();
    }
    return "accepted";
}
} // namespace

TEST(RemoteServiceOptionsTest, DefaultsListenOnLoopbackOnly) {
    auto options = RemoteServiceOptions::parse({});
    EXPECT_EQ(options.bindAddress, "127.0.0.1");
    EXPECT_EQ(options.port, 0u);
    EXPECT_TRUE(options.allow.empty());
    EXPECT_EQ(options.keyFile, "");
    EXPECT_EQ(options.logDirectory, "");
    EXPECT_EQ(options.maxProcesses, 64u);
    EXPECT_EQ(options.timeoutSeconds, 5u);
    EXPECT_FALSE(options.help);
    EXPECT_FALSE(options.createKey);
}

TEST(RemoteServiceOptionsTest, EveryOption) {
    auto options = RemoteServiceOptions::parse(
        {"--bind", "0.0.0.0", "--port", "4711", "--allow", "/opt/a", "--allow", "/opt/b/prog",
         "--key-file", "/k", "--log-dir", "/logs", "--max-processes", "100000", "--timeout", "1"});
    EXPECT_EQ(options.bindAddress, "0.0.0.0");
    EXPECT_EQ(options.port, 4711u);
    EXPECT_EQ(options.allow, (std::vector<std::string>{"/opt/a", "/opt/b/prog"}));
    EXPECT_EQ(options.keyFile, "/k");
    EXPECT_EQ(options.logDirectory, "/logs");
    EXPECT_EQ(options.maxProcesses, 100000u);
    EXPECT_EQ(options.timeoutSeconds, 1u);
    EXPECT_TRUE(RemoteServiceOptions::parse({"--help"}).help);
    EXPECT_TRUE(RemoteServiceOptions::parse({"-h"}).help);
}

TEST(RemoteServiceOptionsTest, CreateKeyTakesAnOptionalFile) {
    auto alone = RemoteServiceOptions::parse({"--create-key"});
    EXPECT_TRUE(alone.createKey);
    EXPECT_EQ(alone.createKeyPath, "");
    auto withFile = RemoteServiceOptions::parse({"--create-key", "/tmp/k"});
    EXPECT_EQ(withFile.createKeyPath, "/tmp/k");
    auto beforeOption = RemoteServiceOptions::parse({"--create-key", "--key-file", "/k"});
    EXPECT_TRUE(beforeOption.createKey);
    EXPECT_EQ(beforeOption.createKeyPath, "");
    EXPECT_EQ(beforeOption.keyFile, "/k");
}

TEST(RemoteServiceOptionsTest, MalformedCommandLinesAreRejectedWithClearText) {
    EXPECT_EQ(rejection({"--port"}), "Missing value for option --port");
    EXPECT_EQ(rejection({"--port", "65536"}),
              "Invalid value '65536' for option --port: expected a whole number from 0 to 65535");
    EXPECT_EQ(rejection({"--max-processes", "0"}), "Invalid value '0' for option "
                                                   "--max-processes: expected a whole number "
                                                   "from 1 to 100000");
    EXPECT_EQ(rejection({"--max-processes", "100001"}),
              "Invalid value '100001' for option --max-processes: expected a whole number from 1 "
              "to 100000");
    EXPECT_EQ(rejection({"--timeout", "0"}),
              "Invalid value '0' for option --timeout: expected a whole number from 1 to 3600");
    EXPECT_EQ(rejection({"--timeout", "1.5"}),
              "Invalid value '1.5' for option --timeout: expected a whole number from 1 to 3600");
    EXPECT_EQ(rejection({"--allow", ""}), "Empty value for option --allow");
    EXPECT_EQ(rejection({"--bind", ""}), "Empty value for option --bind");
    EXPECT_EQ(rejection({"--allow"}), "Missing value for option --allow");
    EXPECT_EQ(rejection({"start"}), "Unknown option 'start'");
}

TEST(RemoteServiceOptionsTest, UsageNamesEveryOption) {
    std::string usage = RemoteServiceOptions::usage();
    for (const char* option :
         {"--bind", "--port", "--allow", "--key-file", "--log-dir", "--max-processes", "--timeout",
          "--create-key", "-logLevel", "-logFile", "PORT <n>"})
        EXPECT_NE(usage.find(option), std::string::npos) << option;
}
