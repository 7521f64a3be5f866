#include "Platform/RemoteComputation/Service/ServiceInterfaces/IsolatedCheck.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

// Set only in sanitizer builds. Fuzzers register a death callback that writes the current input
// out as a finding, and a report path makes reports files that fail a test run; a child that
// dies on bad input, as it is there to do, must do neither.
extern "C" void __sanitizer_set_death_callback(void (*callback)(void)) __attribute__((weak));
extern "C" void __sanitizer_set_report_fd(void* fd) __attribute__((weak));

namespace Kestrane {

namespace {

constexpr char c_passed = 'P';
constexpr char c_failed = 'F';

// The child's death is the expected answer to bad input: no core file, no crash handler of the
// host program (which might report or write files), no report on the shared standard error.
void quietenChild() {
    struct rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    for (int signalNumber : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL, SIGTRAP})
        signal(signalNumber, SIG_DFL);
    int devNull = open("/dev/null", O_WRONLY);
    if (devNull >= 0) {
        dup2(devNull, STDOUT_FILENO);
        dup2(devNull, STDERR_FILENO);
        close(devNull);
    }
    if (__sanitizer_set_report_fd)
        __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<intptr_t>(STDERR_FILENO)));
    if (__sanitizer_set_death_callback)
        __sanitizer_set_death_callback(nullptr);
}

// Waits for the verdict byte until `limit`; true when the pipe had something to say (a byte or
// its end), false at the limit.
bool waitReadable(int fd, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (true) {
        // Rounded up: a truncated remainder would end the wait up to a millisecond early.
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline -
                                                                 std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        struct pollfd entry = {fd, POLLIN, 0};
        int ready = poll(&entry, 1, static_cast<int>(std::min<long long>(left.count(), 60000)));
        if (ready > 0)
            return true;
        if (ready < 0 && errno != EINTR)
            return true; // reading then tells what happened
    }
}

void reap(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
}

} // namespace

IsolatedCheck::Outcome IsolatedCheck::run(const std::function<bool()>& check,
                                          std::chrono::milliseconds limit) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return Outcome::NotRun;
    pid_t child = fork();
    if (child < 0) {
        int cause = errno;
        close(ends[0]);
        close(ends[1]);
        errno = cause;
        return Outcome::NotRun;
    }
    if (child == 0) {
        close(ends[0]);
        quietenChild();
        char verdict = check() ? c_passed : c_failed;
        ssize_t written = write(ends[1], &verdict, 1);
        _exit(written == 1 ? 0 : 1);
    }
    close(ends[1]);
    Outcome outcome = Outcome::Crashed;
    if (!waitReadable(ends[0], limit)) {
        kill(child, SIGKILL);
        outcome = Outcome::TimedOut;
    } else {
        char verdict = 0;
        ssize_t got;
        while ((got = read(ends[0], &verdict, 1)) < 0 && errno == EINTR) {
        }
        if (got == 1 && verdict == c_passed)
            outcome = Outcome::Passed;
        else if (got == 1 && verdict == c_failed)
            outcome = Outcome::Failed;
    }
    close(ends[0]);
    reap(child);
    return outcome;
}

const char* IsolatedCheck::describe(Outcome outcome) {
    switch (outcome) {
    case Outcome::Passed:
        return "passed";
    case Outcome::Failed:
        return "failed";
    case Outcome::Crashed:
        return "crashed";
    case Outcome::TimedOut:
        return "timed out";
    case Outcome::NotRun:
        break;
    }
    return "not run";
}

} // namespace Kestrane
