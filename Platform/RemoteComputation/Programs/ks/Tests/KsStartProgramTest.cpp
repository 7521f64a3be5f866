// ks start against real servers, started here and as jobs of the fake LSF.
#include "KsRun.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobStatusLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"
#include "Platform/RemoteComputation/TestSupport/FakeLsf.h"
#include "Platform/RemoteComputation/TestSupport/RemoteServiceProcess.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <string>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;

namespace {

const std::string c_server = KS_BINARY_DIR "/bin/ks-request-server";

// Where the STARTED line says the server is.
struct Started {
    std::string host;
    int port = 0;
    std::string reconnect;
    std::string target() const { return host + ":" + std::to_string(port); }
};

bool startedLine(const std::string& out, Started& started) {
    std::smatch match;
    if (!std::regex_search(out, match, std::regex("(^|\\n)STARTED ([^ :]+):([0-9]+) ([^\\n]*)\\n")))
        return false;
    started.host = match[2];
    started.port = std::stoi(match[3]);
    started.reconnect = match[4];
    return true;
}

// Started servers keep their files in the test's directory, and stop by themselves should a
// test end early.
class KsStartProgramTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("KS_PATH_TMP", tmp.path().c_str(), 1);
        ::setenv("KS_AUTO_SHUTDOWN", "true", 1);
        ::setenv("KS_SHUTDOWN_TIMEOUT", "30", 1);
        ::setenv("KS_JS_UPDATE_INTERVAL", "1", 1);
    }
    TestSupport::TempDir tmp;
};

} // namespace

TEST_F(KsStartProgramTest, LocalServerStartsAnswersAndStops) {
    KsRun start = ks({"start", "local"});
    ASSERT_EQ(start.code, 0) << show(start);
    Started started;
    ASSERT_TRUE(startedLine(start.out, started)) << show(start);
    EXPECT_EQ(started.host, "localhost");
    EXPECT_EQ(started.reconnect, started.target() + ":ks:Local:" + c_server + ":");
    EXPECT_NE(start.out.find("  server output goes to " + tmp.path() + "/started-servers/"),
              std::string::npos)
        << show(start);
    EXPECT_LT(start.seconds, 5.0);

    KsRun ping = ks({"ping", started.target()});
    EXPECT_EQ(ping.code, 0) << show(ping);
    KsRun nop = ks({"test", started.target(), "NOP", "--quiet"});
    EXPECT_EQ(nop.code, 0) << show(nop);
    EXPECT_NE(nop.out.find("TestReply 'OK'"), std::string::npos) << show(nop);
    KsRun stop = ks({"shutdown", started.target()});
    EXPECT_EQ(stop.code, 0) << show(stop);
    EXPECT_EQ(ks({"ping", started.target()}).code, 2);
}

TEST_F(KsStartProgramTest, QuietStartPrintsOnlyTheStartedLine) {
    KsRun start = ks({"start", "local", "--quiet"});
    ASSERT_EQ(start.code, 0) << show(start);
    Started started;
    ASSERT_TRUE(startedLine(start.out, started)) << show(start);
    EXPECT_EQ(start.out, "STARTED " + started.target() + " " + started.reconnect + "\n");
    EXPECT_EQ(ks({"shutdown", started.target()}).code, 0);
}

TEST_F(KsStartProgramTest, ServerThatRefusesItsArgumentsFailsTheStartAtOnce) {
    KsRun start = ks({"start", "local", "--", "--no-such-option"});
    EXPECT_EQ(start.code, 1) << show(start);
    EXPECT_LT(start.seconds, 5.0);
    EXPECT_NE(start.err.find("ks: Error getting callback from local request server."),
              std::string::npos)
        << show(start);
    EXPECT_NE(start.err.find("ks-request-server: Unknown option '--no-such-option'"),
              std::string::npos)
        << show(start);
    EXPECT_EQ(start.out.find("STARTED"), std::string::npos);
}

TEST_F(KsStartProgramTest, MissingExecutableFailsWithTheReason) {
    KsRun start = ks({"start", "local", "--executable", tmp.file("nothing-here")});
    EXPECT_EQ(start.code, 1) << show(start);
    EXPECT_NE(start.err.find("ks: Error starting local request server.\nCommand line: " +
                             tmp.file("nothing-here") + " -c localhost:"),
              std::string::npos)
        << show(start);
    EXPECT_NE(start.err.find("No such file or directory"), std::string::npos) << show(start);
}

TEST_F(KsStartProgramTest, ServerStartedAsAnLsfJobEndsItsJobWhenShutDown) {
    FakeLsf lsf;
    KsRun start =
        ks({"start", "scheduler", FakeLsf::adapter(), "--cores", "2", "--job-name", "ks"});
    ASSERT_EQ(start.code, 0) << show(start);
    Started started;
    ASSERT_TRUE(startedLine(start.out, started)) << show(start);
    EXPECT_NE(start.out.find("job    Job submitted to job scheduler. ID = 1"), std::string::npos)
        << show(start);
    EXPECT_EQ(started.reconnect.substr(started.reconnect.find(":ks:")),
              ":ks:JobScheduler:" + c_server + ":");
    EXPECT_EQ(ks({"ping", started.target()}).code, 0);
    KsRun stop = ks({"shutdown", started.target()});
    EXPECT_EQ(stop.code, 0) << show(stop);
    Computing::LSFJobStatus status = Computing::LSFJobStatus::Running;
    std::string message;
    EXPECT_TRUE(TestSupport::waitUntil(
        [&] {
            return Computing::JobStatusLSF().execute(1, FakeLsf::adapter(), status, message) &&
                   status == Computing::LSFJobStatus::Done;
        },
        5000ms))
        << message;
}

TEST_F(KsStartProgramTest, JobThatCannotStartItsProgramFailsTheStart) {
    FakeLsf lsf;
    KsRun start =
        ks({"start", "scheduler", FakeLsf::adapter(), "--executable", tmp.file("nothing-here")});
    EXPECT_EQ(start.code, 1) << show(start);
    EXPECT_LT(start.seconds, 10.0);
    EXPECT_NE(start.err.find("Error staring job with job scheduler: job not running anymore!"),
              std::string::npos)
        << show(start);
}

TEST_F(KsStartProgramTest, ServerStartedThroughTheStarterService) {
    RemoteServiceProcess::Options options;
    options.allow = {c_server};
    RemoteServiceProcess service(options);
    ASSERT_TRUE(service.start()) << service.standardError();
    const std::string address = "127.0.0.1:" + std::to_string(service.port());
    ::setenv("KS_REMOTE_SERVICE_KEY_FILE", service.keyFile().c_str(), 1);
    KsRun start = ks({"start", "remote", address});
    ASSERT_EQ(start.code, 0) << show(start) << service.standardError();
    Started started;
    ASSERT_TRUE(startedLine(start.out, started)) << show(start);
    EXPECT_EQ(started.host, "127.0.0.1");
    EXPECT_EQ(started.reconnect, started.target() + ":ks:RemoteService:" + c_server +
                                     ":127.0.0.1:" + std::to_string(service.port()) + ":");
    EXPECT_TRUE(service.waitForStandardError("Started process "));
    KsRun nop = ks({"test", started.target(), "NOP", "--quiet"});
    EXPECT_EQ(nop.code, 0) << show(nop);
    EXPECT_EQ(ks({"shutdown", started.target()}).code, 0);

    // With a key of its own, ks is refused and says why.
    std::string message;
    ASSERT_TRUE(RemoteServiceKey::create(tmp.file("other.key"), message)) << message;
    ::setenv("KS_REMOTE_SERVICE_KEY_FILE", tmp.file("other.key").c_str(), 1);
    KsRun refused = ks({"start", "remote", address});
    ::unsetenv("KS_REMOTE_SERVICE_KEY_FILE");
    EXPECT_EQ(refused.code, 1) << show(refused);
    EXPECT_NE(refused.err.find("refused the command: authentication failed"), std::string::npos)
        << show(refused);
}
