#pragma once

// Runs the real ks program in tests.
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Process.h"
#include "Platform/RemoteComputation/TestSupport/ServerProcess.h"

#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

namespace Kestrane {
namespace Testing {

using namespace std::chrono_literals;

struct KsRun {
    int code = -1;
    std::string out;
    std::string err;
    double seconds = 0;
};

// Runs ks to its end; `during` runs while it runs, with the process.
inline KsRun ks(const std::vector<std::string>& args,
                const std::function<void(Computing::Process&, std::string&)>& during = {}) {
    KsRun run;
    auto start = std::chrono::steady_clock::now();
    Computing::Process process(KS_BINARY_DIR "/bin/ks", args);
    process.captureStandardOutput();
    process.captureStandardError();
    if (!process.start(Computing::Detached)) {
        run.err = "cannot start ks";
        return run;
    }
    if (during)
        during(process, run.out);
    run.out += Testing::readPipe(process.getStandardOutputFd(), 60000ms,
                                 [](const std::string&) { return false; });
    run.err = Testing::readPipe(process.getStandardErrorFd(), 5000ms,
                                [](const std::string&) { return false; });
    int code = -1;
    if (!process.waitFor(10000, code)) {
        process.kill(SIGKILL);
        code = process.wait();
    }
    run.code = code;
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return run;
}

inline std::string show(const KsRun& run) {
    return "exit " + std::to_string(run.code) + "\n--- stdout\n" + run.out + "--- stderr\n" +
           run.err;
}

} // namespace Testing
} // namespace Kestrane
