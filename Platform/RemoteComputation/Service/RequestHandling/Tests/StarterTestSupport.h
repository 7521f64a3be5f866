#pragma once

#include "HandlerTestSupport.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LoggingSettings.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <sys/types.h>

namespace Kestrane {
namespace Testing {

const std::string c_requestServer = KS_BINARY_DIR "/bin/ks-request-server";

// What the tests of the starters share: the servers they start work below a temporary directory
// of the test (this process's files in "client", the servers' in "server"), and stop by
// themselves should a test end without shutting them down.
class StarterTest : public ::testing::Test {
protected:
    void SetUp() override {
        PathConfiguration::setKsPathTmp(FileName(tmp.file("client")));
        ::setenv("KS_PATH_TMP", tmp.file("server").c_str(), 1);
        ::setenv("KS_AUTO_SHUTDOWN", "true", 1);
        ::setenv("KS_SHUTDOWN_TIMEOUT", "30", 1);
        ownServer();
    }

    // The joined command line of a start that calls back to `callbackHost`: `middle` stands
    // before the logging options, `tail` behind them.
    static std::string commandLineOf(const std::string& executable, const std::string& callbackHost,
                                     const std::string& callbackId, const std::string& middle = "",
                                     const std::string& tail = "") {
        std::string text = executable + " -c " + callbackHost + ":" +
                           std::to_string(ownServer()->getPort()) + ":" + callbackId + " " + middle;
        for (const auto& arg : LoggingSettings::get()->getCmdArgs())
            text += arg + " ";
        return text + tail;
    }

    // A program that never calls back: it notes its pid and sleeps.
    std::string silentProgram() {
        std::string path = tmp.file("silent.sh");
        TestSupport::writeFile(
            path, "#!/bin/sh\necho $$ > '" + tmp.file("silent.pid") + "'\nexec sleep 30\n", 0755);
        return path;
    }
    // The silent program, which its starter leaves running; -1 when it did not start.
    pid_t silentProgramPid() {
        std::string pid;
        if (!TestSupport::waitUntil(
                [&] { return !(pid = TestSupport::readFile(tmp.file("silent.pid"))).empty(); },
                std::chrono::milliseconds(3000)))
            return -1;
        return static_cast<pid_t>(std::stol(pid));
    }

    TestSupport::TempDir tmp;
    LogCapture capture;
};

} // namespace Testing
} // namespace Kestrane
