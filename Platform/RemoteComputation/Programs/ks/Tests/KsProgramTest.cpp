// The ks program against a real ks-request-server, both as child processes.
#include "KsRun.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Process.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"
#include "Platform/RemoteComputation/TestSupport/ServerProcess.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <netinet/in.h>
#include <regex>
#include <sys/socket.h>
#include <unistd.h>

using namespace Kestrane;
using Kestrane::Testing::ks;
using Kestrane::Testing::KsRun;
using Kestrane::Testing::ServerProcess;
using Kestrane::Testing::show;
using namespace std::chrono_literals;

namespace {

// A server with a quick heartbeat, so that waiting for the first one costs little.
class KsProgramTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("KS_ALIVE_PUBLISH_INTERVAL", "100", 1);
        // The server's files (the copy of a file sent to it) go with the test's directory.
        ::setenv("KS_PATH_TMP", tmp.path().c_str(), 1);
        ASSERT_TRUE(server.start());
        port = server.port();
        ASSERT_GT(port, 0);
        publisher = server.publisherPort();
        ASSERT_GT(publisher, 0);
        target = "127.0.0.1:" + std::to_string(port);
    }
    void TearDown() override {
        if (server.process().isRunning())
            server.process().kill(SIGTERM);
    }

    TestSupport::TempDir tmp;
    ServerProcess server{{"-logLevel", "WARN"}};
    int port = 0;
    int publisher = 0;
    std::string target;
};

// A port on which nothing listens (just released by this process).
int closedPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof(address);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

size_t count(const std::string& text, const std::string& word) {
    size_t n = 0;
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1))
        ++n;
    return n;
}

} // namespace

TEST_F(KsProgramTest, PingStatusNopAndShutdown) {
    KsRun ping = ks({"ping", target});
    EXPECT_EQ(ping.code, 0) << show(ping);
    EXPECT_EQ(ping.out.rfind("PONG from " + target + " in ", 0), 0u) << show(ping);

    KsRun status = ks({"status", target});
    EXPECT_EQ(status.code, 0) << show(status);
    EXPECT_NE(status.out.find("Status of " + target), std::string::npos) << show(status);
    EXPECT_NE(status.out.find("  status            : OK\n"), std::string::npos) << show(status);
    EXPECT_NE(status.out.find("  version           : "), std::string::npos);
    EXPECT_NE(status.out.find("  executable        : "), std::string::npos);
    EXPECT_NE(status.out.find("ks-request-server"), std::string::npos) << show(status);
    EXPECT_NE(status.out.find("  job id            : none\n"), std::string::npos);
    EXPECT_NE(status.out.find("  free tmp space    : "), std::string::npos);
    EXPECT_NE(status.out.find("  request host      : "), std::string::npos);
    EXPECT_NE(status.out.find("request server port " + std::to_string(port) + ", publisher port " +
                              std::to_string(publisher) + "\n"),
              std::string::npos)
        << show(status);
    EXPECT_TRUE(std::regex_search(status.out,
                                  std::regex("  time stamp        : 20[0-9]{2}-[0-9]{2}-[0-9]{2} "
                                             "[0-9]{2}:[0-9]{2}:[0-9]{2} \\([0-9]+\\)")))
        << show(status);

    KsRun nop = ks({"test", target, "NOP"});
    EXPECT_EQ(nop.code, 0) << show(nop);
    EXPECT_TRUE(std::regex_search(
        nop.out,
        std::regex("Request [0-9A-F]{16}-[0-9A-F]{16}-[0-9A-F]{16} sent: TestRequest NOP\n")))
        << show(nop);
    EXPECT_NE(nop.out.find("TestReply 'OK' after "), std::string::npos) << show(nop);
    EXPECT_EQ(nop.err, "");

    KsRun shutdown = ks({"shutdown", target});
    EXPECT_EQ(shutdown.code, 0) << show(shutdown);
    EXPECT_NE(shutdown.out.find("Shutdown acknowledged: AckReply 'OK'"), std::string::npos);
    EXPECT_NE(shutdown.out.find("Request server " + target + " stopped after "), std::string::npos)
        << show(shutdown);
    EXPECT_EQ(server.waitForExit(10000ms), 0);
    // Nothing answers any more.
    EXPECT_EQ(ks({"ping", target}).code, 2);
}

TEST(KsProgramJobTest, StatusShowsTheJobOfTheServer) {
    const std::string uid = "0123456789ABCDEF-0123456789ABCDEF-0123456789ABCDEF";
    ServerProcess server({"-logLevel", "WARN", "-jobId", uid + ".nightly"});
    ASSERT_TRUE(server.start());
    ASSERT_GT(server.port(), 0);
    KsRun status = ks({"status", "127.0.0.1:" + std::to_string(server.port())});
    EXPECT_EQ(status.code, 0) << show(status);
    EXPECT_NE(status.out.find("  job id            : " + uid + " (nightly)\n"), std::string::npos)
        << show(status);
    server.process().kill(SIGTERM);
    EXPECT_EQ(server.waitForExit(10000ms), 0);
}

TEST_F(KsProgramTest, WaitProgressPrintsHeartbeatsWhileItRuns) {
    KsRun run = ks({"test", target, "WAIT_PROGRESS", "1000"});
    EXPECT_EQ(run.code, 0) << show(run);
    size_t sent = run.out.find(" sent: TestRequest WAIT_PROGRESS 1000\n");
    size_t reply = run.out.find("TestReply 'OK' after ");
    ASSERT_NE(sent, std::string::npos) << show(run);
    ASSERT_NE(reply, std::string::npos) << show(run);
    // Heartbeats of the server (every 100 ms here), as ks-watch shows them, with the time.
    std::regex heartbeat("\n  [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} alive  RequestServer running  "
                         "\\(since [^)]+\\)(?=\n)");
    size_t during = 0;
    for (auto it = std::sregex_iterator(run.out.begin(), run.out.end(), heartbeat);
         it != std::sregex_iterator(); ++it)
        if (static_cast<size_t>(it->position()) > sent &&
            static_cast<size_t>(it->position()) < reply)
            ++during;
    EXPECT_GE(during, 5u) << show(run);

    KsRun quiet = ks({"test", target, "WAIT_PROGRESS", "300", "--quiet"});
    EXPECT_EQ(quiet.code, 0) << show(quiet);
    EXPECT_EQ(quiet.out.find(" alive "), std::string::npos) << show(quiet);
    EXPECT_NE(quiet.out.find("TestReply 'OK' after "), std::string::npos);
}

TEST_F(KsProgramTest, WaitProgressPrintsTheLogMessagesOfTheRequest) {
    KsRun run = ks({"test", target, "WAIT_PROGRESS", "1000"});
    EXPECT_EQ(run.code, 0) << show(run);
    size_t sent = run.out.find(" sent: TestRequest WAIT_PROGRESS 1000\n");
    size_t starting = run.out.find(" logMsg INFO [TestRequestHandler] starting...\n");
    size_t done = run.out.find(" logMsg INFO [TestRequestHandler] done.\n");
    size_t reply = run.out.find("TestReply 'OK' after ");
    ASSERT_NE(sent, std::string::npos) << show(run);
    ASSERT_NE(starting, std::string::npos) << show(run);
    ASSERT_NE(done, std::string::npos) << show(run);
    ASSERT_NE(reply, std::string::npos) << show(run);
    EXPECT_LT(starting, done);
    EXPECT_LT(done, reply);
    EXPECT_EQ(count(run.out, " logMsg INFO [TestRequestHandler] waiting...\n"), 10u) << show(run);
    EXPECT_TRUE(std::regex_search(run.out, std::regex("\n  [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "
                                                      "logMsg INFO \\[TestRequestHandler\\] "
                                                      "waiting...\n")))
        << show(run);
}

TEST_F(KsProgramTest, FailingCommandsExitWithOne) {
    // A size that is no number makes the handler throw: the server answers with an
    // ExceptionReply.
    KsRun exception = ks({"test", target, "PUT_FILE", "abc", "--quiet"});
    EXPECT_EQ(exception.code, 1) << show(exception);
    EXPECT_NE(exception.err.find("ks: ExceptionReply: "), std::string::npos) << show(exception);

    KsRun missing = ks({"test", target, "GET_FILE", "--quiet"});
    EXPECT_EQ(missing.code, 1) << show(missing);
    EXPECT_NE(missing.err.find("ks: The test command GET_FILE replied 'ERROR: file not found'"),
              std::string::npos)
        << show(missing);

    KsRun unknown = ks({"test", target, "nop", "--quiet"});
    EXPECT_EQ(unknown.code, 1) << show(unknown);
    EXPECT_NE(unknown.err.find("replied 'UNKNOWN_COMMAND'"), std::string::npos) << show(unknown);
}

TEST_F(KsProgramTest, CrashIsAnUnreachableServer) {
    // The server ends without a reply; the silent heartbeat is the verdict.
    ::setenv("KS_MAX_ALIVE_AGE", "1", 1);
    ::setenv("KS_R_PING_INTERVAL_SEC", "1", 1);
    KsRun run = ks({"test", target, "CRASH", "--quiet"});
    ::unsetenv("KS_MAX_ALIVE_AGE");
    ::unsetenv("KS_R_PING_INTERVAL_SEC");
    EXPECT_EQ(server.waitForExit(5000ms), 99);
    EXPECT_EQ(run.code, 2) << show(run);
    EXPECT_NE(run.err.find("ks: Request server unreachable: Remote process not alive anymore? "
                           "age = "),
              std::string::npos)
        << show(run);
    EXPECT_LT(run.seconds, 15.0);
}

TEST(KsProgramClosedPortTest, UnreachableExitsWithTwo) {
    std::string target = "127.0.0.1:" + std::to_string(closedPort());
    KsRun ping = ks({"ping", target});
    EXPECT_EQ(ping.code, 2) << show(ping);
    EXPECT_EQ(ping.err, "ks: No PONG from " + target +
                            ": nothing listens there, or it is no request server\n");
    for (auto args : std::vector<std::vector<std::string>>{
             {"status", target}, {"test", target, "NOP"}, {"shutdown", target}}) {
        KsRun run = ks(args);
        EXPECT_EQ(run.code, 2) << show(run);
        EXPECT_NE(run.err.find("ks: Request server unreachable: "), std::string::npos) << show(run);
        EXPECT_LT(run.seconds, 10.0);
    }
}

TEST_F(KsProgramTest, AbortFromAnotherProcess) {
    std::string id;
    KsRun abortRun;
    KsRun waiting =
        ks({"test", target, "WAIT_PROGRESS", "20000", "--quiet"},
           [&](Computing::Process& process, std::string& out) {
               out = Testing::readPipe(
                   process.getStandardOutputFd(), 20000ms,
                   [](const std::string& t) { return t.find(" sent: ") != std::string::npos; });
               std::smatch match;
               if (std::regex_search(out, match, std::regex("Request ([0-9A-F-]{50}) sent: "))) {
                   id = match[1].str();
                   abortRun = ks({"abort", target, id});
               }
           });
    ASSERT_FALSE(id.empty()) << show(waiting);
    EXPECT_EQ(abortRun.code, 0) << show(abortRun);
    EXPECT_NE(abortRun.out.find("Abort of request " + id + " signalled: AckReply 'OK'"),
              std::string::npos)
        << show(abortRun);
    EXPECT_EQ(waiting.code, 1) << show(waiting);
    EXPECT_NE(waiting.out.find("TestReply 'ABORTED' after "), std::string::npos) << show(waiting);
    EXPECT_NE(waiting.err.find("ks: The test command WAIT_PROGRESS replied 'ABORTED'"),
              std::string::npos)
        << show(waiting);
    EXPECT_LT(waiting.seconds, 15.0);
}

TEST_F(KsProgramTest, CtrlCAbortsTheRunningRequest) {
    KsRun run = ks({"test", target, "WAIT_PROGRESS", "20000", "--quiet"},
                   [](Computing::Process& process, std::string& out) {
                       out = Testing::readPipe(process.getStandardOutputFd(), 20000ms,
                                               [](const std::string& t) {
                                                   return t.find(" sent: ") != std::string::npos;
                                               });
                       process.kill(SIGINT);
                   });
    EXPECT_EQ(run.code, 1) << show(run);
    EXPECT_NE(run.err.find("ks: asking the server to abort the request"), std::string::npos)
        << show(run);
    EXPECT_NE(run.out.find("TestReply 'ABORTED' after "), std::string::npos) << show(run);
    EXPECT_LT(run.seconds, 15.0);
}

TEST_F(KsProgramTest, FileBothWaysWithForcedTransferAndProgress) {
    ::setenv("KS_FILE_TRANSFER_PROGRESS_FIRST_UPDATE_DELAY", "0", 1);
    std::string path = ::testing::TempDir() + "ks-put-" + std::to_string(::getpid()) + ".bin";
    // Large enough that the transfer outlasts the start of its progress companion, which says
    // nothing when the transfer is over before it runs.
    const size_t size = 48 * 1024 * 1024 + 17;
    {
        std::ofstream file(path, std::ios::binary);
        std::string block(size, 'x');
        for (size_t i = 0; i < size; i += 4096)
            block[i] = static_cast<char>('a' + (i / 4096) % 26);
        file.write(block.data(), static_cast<std::streamsize>(block.size()));
    }
    KsRun put =
        ks({"test", target, "PUT_FILE", std::to_string(size), "--file", path, "--force-transfer"});
    ::unsetenv("KS_FILE_TRANSFER_PROGRESS_FIRST_UPDATE_DELAY");
    EXPECT_EQ(put.code, 0) << show(put);
    std::string leaf = path.substr(path.rfind('/') + 1);
    EXPECT_NE(put.out.find(" file   Starting transfer of file " + leaf + "..."), std::string::npos)
        << show(put);
    EXPECT_NE(put.out.find(" file   Finished transfer of file " + leaf + "."), std::string::npos)
        << show(put);
    EXPECT_NE(put.out.find("TestReply 'OK' after "), std::string::npos);

    KsRun get = ks({"test", target, "GET_FILE"});
    EXPECT_EQ(get.code, 0) << show(get);
    EXPECT_NE(get.out.find("TestReply 'OK, " + std::to_string(size) + "' after "),
              std::string::npos)
        << show(get);
    // Same host and user: the server's copy is read where it lies.
    EXPECT_TRUE(std::regex_search(get.out, std::regex("\nfile /.*" + leaf +
                                                      " \\(48\\.0 MB\\), not transferred: read in "
                                                      "place \\(same host and user\\)\n")))
        << show(get);
    std::remove(path.c_str());
}

TEST_F(KsProgramTest, GetDataShowsTheValues) {
    KsRun run = ks({"test", target, "GET_DATA", "1000", "--quiet"});
    EXPECT_EQ(run.code, 0) << show(run);
    EXPECT_NE(run.out.find("attachment of 1000 x '8-byte double'"), std::string::npos) << show(run);
    EXPECT_NE(run.out.find("1000 values, first 0.1, last 100, sum 50050\n"), std::string::npos)
        << show(run);
}

TEST(KsProgramCommandLineTest, MissingFileIsALocalError) {
    KsRun run = ks({"test", "127.0.0.1:1", "PUT_FILE", "5", "--file", "/nonexistent/ks-file"});
    EXPECT_EQ(run.code, 3) << show(run);
    EXPECT_EQ(run.err, "ks: File not found: /nonexistent/ks-file\n");
}

TEST(KsProgramCommandLineTest, BadCommandLineExitsWithUsage) {
    KsRun run = ks({"test", "127.0.0.1:99999", "NOP"});
    EXPECT_EQ(run.code, 2) << show(run);
    EXPECT_EQ(run.err.rfind("ks: Invalid value '99999' for the port of '127.0.0.1:99999': "
                            "expected a whole number from 1 to 65535\nUsage: ks ping",
                            0),
              0u)
        << show(run);
    EXPECT_EQ(run.out, "");
    KsRun none = ks({});
    EXPECT_EQ(none.code, 2);
    EXPECT_EQ(none.err.rfind("ks: Missing command\nUsage: ks ping", 0), 0u) << show(none);
}

TEST(KsProgramCommandLineTest, HelpGoesToStandardOutput) {
    KsRun run = ks({"--help"});
    EXPECT_EQ(run.code, 0);
    EXPECT_EQ(run.out.rfind("Usage: ks ping", 0), 0u) << show(run);
    EXPECT_EQ(run.err, "");
}
