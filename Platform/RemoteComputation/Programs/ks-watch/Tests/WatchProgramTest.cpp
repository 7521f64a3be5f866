#include "Platform/RemoteComputation/Service/ServiceInterfaces/Process.h"
#include "Platform/RemoteComputation/TestSupport/ServerProcess.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <thread>

using namespace Kestrane;
using Kestrane::Testing::ServerProcess;
using namespace std::chrono_literals;

namespace {
// Runs ks-watch to its end and returns its standard output.
std::string watch(const std::vector<std::string>& args, int& exitCode,
                  const std::function<void()>& during = {}) {
    Computing::Process process(KS_BINARY_DIR "/bin/ks-watch", args);
    process.captureStandardOutput();
    if (!process.start(Computing::Detached))
        return "cannot start";
    if (during)
        during();
    std::string out = Testing::readPipe(process.getStandardOutputFd(), 20000ms,
                                        [](const std::string&) { return false; });
    exitCode = process.wait();
    return out;
}
} // namespace

TEST(WatchProgramTest, PrintsHeartbeatsOfARunningServer) {
    ::setenv("KS_ALIVE_PUBLISH_INTERVAL", "100", 1);
    ServerProcess server({});
    ASSERT_TRUE(server.start());
    int publisher = server.publisherPort();
    ASSERT_GT(publisher, 0);
    int code = -1;
    std::string out = watch({"127.0.0.1:" + std::to_string(publisher), "--duration", "2"}, code);
    EXPECT_EQ(code, 0);
    EXPECT_NE(out.find("Watching 127.0.0.1:" + std::to_string(publisher)), std::string::npos);
    EXPECT_NE(out.find(" alive  RequestServer running  (since "), std::string::npos) << out;
    EXPECT_NE(out.find("Stopped watching"), std::string::npos);
    EXPECT_EQ(out.find("No heartbeat"), std::string::npos);
    server.process().kill(SIGTERM);
}

TEST(WatchProgramTest, SaysSoWhenTheHeartbeatStopsAndComesBack) {
    ::setenv("KS_ALIVE_PUBLISH_INTERVAL", "100", 1);
    ServerProcess server({});
    ASSERT_TRUE(server.start());
    int publisher = server.publisherPort();
    ASSERT_GT(publisher, 0);
    int code = -1;
    std::string target = "127.0.0.1:" + std::to_string(publisher);
    std::string out = watch({target, "--duration", "5", "--max-alive-age", "1"}, code, [&] {
        std::this_thread::sleep_for(500ms);
        server.process().kill(SIGSTOP);
        std::this_thread::sleep_for(2800ms);
        server.process().kill(SIGCONT);
    });
    EXPECT_EQ(code, 0);
    size_t lost = out.find("No heartbeat from " + target + " for 2 s (limit 1 s)");
    size_t back = out.find("Heartbeat from " + target + " is back");
    EXPECT_NE(lost, std::string::npos) << out;
    EXPECT_NE(back, std::string::npos) << out;
    EXPECT_LT(lost, back);
    server.process().kill(SIGTERM);
}

TEST(WatchProgramTest, BadCommandLineExitsWithUsage) {
    Computing::Process process(KS_BINARY_DIR "/bin/ks-watch", {"nonsense"});
    process.captureStandardError();
    ASSERT_TRUE(process.start(Computing::Detached));
    std::string err = Testing::readPipe(process.getStandardErrorFd(), 5000ms,
                                        [](const std::string&) { return false; });
    EXPECT_EQ(process.wait(), 2);
    EXPECT_NE(err.find("ks-watch: Expected HOST:PORT, not 'nonsense'"), std::string::npos);
    EXPECT_NE(err.find("Usage: ks-watch"), std::string::npos);
}
