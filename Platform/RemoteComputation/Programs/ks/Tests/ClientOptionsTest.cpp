#include "../ClientOptions.h"
#include "../KsClient.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace Kestrane;
using Command = ClientOptions::Command;

namespace {
const std::string c_id = "0123456789ABCDEF-0123456789ABCDEF-0123456789ABCDEF";

// The message of the rejection, or "accepted".
std::string rejection(const std::vector<std::string>& args) {
    try {
        ClientOptions::parse(args);
    } catch (const std::invalid_argument& e) {
        return e.what();
    }
    return "accepted";
}
} // namespace

TEST(ClientOptionsTest, PingStatusShutdownTakeOnlyTheTarget) {
    auto ping = ClientOptions::parse({"ping", "node1:4100"});
    EXPECT_EQ(ping.command, Command::Ping);
    EXPECT_EQ(ping.host, "node1");
    EXPECT_EQ(ping.port, 4100);
    EXPECT_EQ(ping.timeout, 0u);
    EXPECT_FALSE(ping.quiet);
    EXPECT_FALSE(ping.help);
    EXPECT_EQ(ClientOptions::parse({"status", "127.0.0.1:9"}).command, Command::Status);
    auto shutdown = ClientOptions::parse({"shutdown", "127.0.0.1:65535"});
    EXPECT_EQ(shutdown.command, Command::Shutdown);
    EXPECT_EQ(shutdown.port, 65535);
}

TEST(ClientOptionsTest, TestWithDataFileAndOptionsAnywhere) {
    auto options = ClientOptions::parse({"--quiet", "test", "h:1", "PUT_FILE", "--file", "a.bin",
                                         "1234", "--force-transfer", "--timeout", "30"});
    EXPECT_EQ(options.command, Command::Test);
    EXPECT_EQ(options.host, "h");
    EXPECT_EQ(options.port, 1);
    EXPECT_EQ(options.testCommand, "PUT_FILE");
    EXPECT_TRUE(options.hasData);
    EXPECT_EQ(options.data, "1234");
    EXPECT_EQ(options.file, "a.bin");
    EXPECT_TRUE(options.forceTransfer);
    EXPECT_EQ(options.timeout, 30u);
    EXPECT_TRUE(options.quiet);
}

TEST(ClientOptionsTest, TestWithoutDataAndDataAfterDoubleDash) {
    auto nop = ClientOptions::parse({"test", "h:1", "NOP"});
    EXPECT_EQ(nop.testCommand, "NOP");
    EXPECT_FALSE(nop.hasData);
    EXPECT_EQ(nop.data, "");
    EXPECT_EQ(nop.file, "");
    EXPECT_FALSE(nop.forceTransfer);
    // A negative number is data, not an option, behind "--".
    auto wait = ClientOptions::parse({"test", "h:1", "--", "WAIT", "-5"});
    EXPECT_EQ(wait.testCommand, "WAIT");
    EXPECT_EQ(wait.data, "-5");
}

TEST(ClientOptionsTest, AbortTakesAWellFormedRequestId) {
    auto options = ClientOptions::parse({"abort", "h:2", c_id});
    EXPECT_EQ(options.command, Command::Abort);
    EXPECT_EQ(options.requestId, c_id);
    EXPECT_EQ(rejection({"abort", "h:2", "0123456789abcdef-0123456789ABCDEF-0123456789ABCDEF"}),
              "Invalid REQUEST_ID '0123456789abcdef-0123456789ABCDEF-0123456789ABCDEF': expected "
              "three groups of 16 upper-case hexadecimal digits joined by '-'");
    EXPECT_NE(rejection({"abort", "h:2", c_id.substr(1)}).find("Invalid REQUEST_ID"),
              std::string::npos);
}

TEST(ClientOptionsTest, IPv6TargetInBrackets) {
    auto options = ClientOptions::parse({"ping", "[::1]:4000"});
    EXPECT_EQ(options.host, "::1");
    EXPECT_EQ(options.port, 4000);
}

TEST(ClientOptionsTest, HelpNeedsNothingElse) {
    EXPECT_TRUE(ClientOptions::parse({"--help"}).help);
    EXPECT_TRUE(ClientOptions::parse({"-h"}).help);
    EXPECT_TRUE(ClientOptions::parse({"test", "-h"}).help);
}

TEST(ClientOptionsTest, MalformedCommandLines) {
    EXPECT_EQ(rejection({}), "Missing command");
    EXPECT_EQ(
        rejection({"frobnicate", "h:1"}),
        "Unknown command 'frobnicate' (expected ping, status, test, abort, shutdown or start)");
    EXPECT_EQ(rejection({"ping"}), "Missing HOST:PORT of the request server for 'ping'");
    EXPECT_EQ(rejection({"ping", "nonsense"}), "Expected HOST:PORT, not 'nonsense'");
    EXPECT_EQ(rejection({"ping", ":4000"}), "Expected HOST:PORT, not ':4000'");
    EXPECT_EQ(rejection({"ping", "host:"}), "Expected HOST:PORT, not 'host:'");
    EXPECT_EQ(rejection({"ping", "host:0"}),
              "Invalid value '0' for the port of 'host:0': expected a whole number from 1 to "
              "65535");
    EXPECT_EQ(rejection({"ping", "host:70000"}),
              "Invalid value '70000' for the port of 'host:70000': expected a whole number from 1 "
              "to 65535");
    EXPECT_EQ(rejection({"ping", "host:12ab"}),
              "Invalid value '12ab' for the port of 'host:12ab': expected a whole number from 1 "
              "to 65535");
    EXPECT_EQ(rejection({"ping", "h:1", "extra"}),
              "Unexpected argument 'extra' for 'ping' (it takes nothing behind HOST:PORT)");
    EXPECT_EQ(rejection({"test", "h:1"}), "'test' needs COMMAND [DATA] behind HOST:PORT");
    EXPECT_EQ(rejection({"test", "h:1", "WAIT", "5", "6"}),
              "Unexpected argument '6' for 'test' (it takes COMMAND [DATA] behind HOST:PORT)");
    EXPECT_EQ(rejection({"test", "h:1", ""}), "The test COMMAND must not be empty");
    EXPECT_EQ(rejection({"abort", "h:1"}), "'abort' needs REQUEST_ID behind HOST:PORT");
    EXPECT_EQ(rejection({"status", "h:1", "--bogus"}), "Unknown option '--bogus'");
    EXPECT_EQ(rejection({"test", "h:1", "NOP", "--file"}), "Missing value for option --file");
    EXPECT_EQ(rejection({"test", "h:1", "NOP", "--file", ""}), "Option --file needs a path");
    EXPECT_EQ(rejection({"status", "h:1", "--timeout"}), "Missing value for option --timeout");
    EXPECT_EQ(rejection({"status", "h:1", "--timeout", "-1"}),
              "Invalid value '-1' for option --timeout: expected a whole number from 0 to "
              "1000000");
    EXPECT_EQ(rejection({"status", "h:1", "--file", "x"}),
              "Options --file and --force-transfer belong to 'test'");
    EXPECT_EQ(rejection({"shutdown", "h:1", "--force-transfer"}),
              "Options --file and --force-transfer belong to 'test'");
    EXPECT_EQ(rejection({"test", "h:1", "PUT_FILE", "5", "--force-transfer"}),
              "Option --force-transfer needs --file");
}

TEST(ClientOptionsTest, UsageNamesEveryCommandAndTheExitCodes) {
    std::string usage = ClientOptions::usage();
    for (const char* word : {"ks ping", "ks status", "ks test", "ks abort", "ks shutdown", "--file",
                             "--force-transfer", "--timeout", "--quiet", "--help"})
        EXPECT_NE(usage.find(word), std::string::npos) << word;
    EXPECT_NE(usage.find("0 success, 1 the request failed"), std::string::npos);
    EXPECT_NE(usage.find("2 server unreachable or bad command line"), std::string::npos);
}

TEST(ClientOptionsTest, TestReplyDataThatMeansFailure) {
    EXPECT_TRUE(testReplySucceeded("NOP", "OK"));
    EXPECT_TRUE(testReplySucceeded("GET_FILE", "OK, 209715200"));
    EXPECT_TRUE(testReplySucceeded("GET_DATA", ""));
    EXPECT_TRUE(testReplySucceeded("PUT_DATA", "55.5"));
    EXPECT_FALSE(testReplySucceeded("nop", "UNKNOWN_COMMAND"));
    EXPECT_FALSE(testReplySucceeded("GET_FILE", "ERROR: file not found"));
    EXPECT_FALSE(testReplySucceeded("PUT_FILE", "ERROR: wrong file size"));
    EXPECT_FALSE(testReplySucceeded("QUEUED_NOP", "NOK"));
    EXPECT_FALSE(testReplySucceeded("WAIT_PROGRESS", "ABORTED"));
}

TEST(ClientOptionsTest, StartLocalRemoteAndScheduler) {
    auto local = ClientOptions::parse({"start", "local"});
    EXPECT_EQ(local.command, Command::Start);
    EXPECT_EQ(local.startKind, ClientOptions::StartKind::Local);
    EXPECT_EQ(local.executable, "");
    EXPECT_TRUE(local.serverArgs.empty());
    EXPECT_EQ(local.cores, 1);
    EXPECT_EQ(local.minimumCores, 1);
    EXPECT_EQ(local.jobName, "ks-request-server");

    auto remote = ClientOptions::parse(
        {"start", "remote", "127.0.0.2:7000", "--executable", "/opt/ks/bin/ks-request-server"});
    EXPECT_EQ(remote.startKind, ClientOptions::StartKind::Remote);
    EXPECT_EQ(remote.host, "127.0.0.2");
    EXPECT_EQ(remote.port, 7000);
    EXPECT_EQ(remote.executable, "/opt/ks/bin/ks-request-server");

    auto job = ClientOptions::parse({"start", "scheduler", "/x/slurm", "--cores", "4",
                                     "--min-cores", "2", "--job-name", "big one", "--",
                                     "--port-range", "5", "-logLevel", "DEBUG"});
    EXPECT_EQ(job.startKind, ClientOptions::StartKind::Scheduler);
    EXPECT_EQ(job.script, "/x/slurm");
    EXPECT_EQ(job.cores, 4);
    EXPECT_EQ(job.minimumCores, 2);
    EXPECT_EQ(job.jobName, "big one");
    EXPECT_EQ(job.serverArgs,
              (std::vector<std::string>{"--port-range", "5", "-logLevel", "DEBUG"}));
}

TEST(ClientOptionsTest, StartMistakesAreNamed) {
    EXPECT_EQ(rejection({"start"}), "'start' needs local, remote HOST:PORT or scheduler SCRIPT");
    EXPECT_EQ(rejection({"start", "elsewhere"}),
              "Unknown way to start 'elsewhere' (expected local, remote or scheduler)");
    EXPECT_EQ(rejection({"start", "remote"}),
              "'start remote' needs HOST:PORT of the starter service (ks-remote-service)");
    EXPECT_EQ(rejection({"start", "remote", "host"}), "Expected HOST:PORT, not 'host'");
    EXPECT_NE(rejection({"start", "scheduler"}).find("'start scheduler' needs SCRIPT"),
              std::string::npos);
    EXPECT_EQ(rejection({"start", "local", "extra"}),
              "Unexpected argument 'extra' for 'start local' (arguments for the server go behind "
              "--)");
    EXPECT_EQ(rejection({"start", "local", "--cores", "2", "--min-cores", "3"}),
              "Option --min-cores 3 is more than --cores 2");
    EXPECT_NE(rejection({"start", "local", "--cores", "0"}).find("--cores"), std::string::npos);
    EXPECT_EQ(rejection({"start", "local", "--executable", ""}),
              "Option --executable needs a path");
    EXPECT_EQ(rejection({"start", "local", "--file", "x"}),
              "Options --file and --force-transfer belong to 'test'");
    EXPECT_EQ(rejection({"ping", "h:1", "--cores", "2"}), "Option --cores belongs to 'start'");
    EXPECT_EQ(rejection({"test", "h:1", "NOP", "--executable", "/x"}),
              "Option --executable belongs to 'start'");
}
