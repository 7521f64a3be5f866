#pragma once

#include <chrono>
#include <functional>

namespace Kestrane {

// Runs a check in a forked child process, so that a check which crashes or never ends (say, a
// third-party library reading hostile data) takes only the child with it. The child works on a
// copy of this process's memory as it was at the fork; its verdict comes back as one byte on a
// pipe, and nothing it does reaches this process otherwise.
//
// Only the calling thread lives on in the child, and every lock there keeps the state it had at
// the fork. So the caller holds every lock of its own that the check takes, and the check
// starts no threads and takes no lock that another thread of this process might hold (the
// logging lock among them: the child's standard error goes to /dev/null).
class IsolatedCheck {
public:
    enum class Outcome {
        Passed,   // the check returned true
        Failed,   // the check returned false
        Crashed,  // the child ended without a verdict (a signal, an abort, an exit)
        TimedOut, // the child was still running at the limit and was killed
        NotRun    // no child could be made (fork or pipe failed); errno tells why
    };

    // Runs `check` in a child and waits at most `limit` for its verdict. Returns once the child
    // is gone: no zombie is left behind.
    static Outcome run(const std::function<bool()>& check, std::chrono::milliseconds limit);

    // "passed", "failed", "crashed", "timed out" or "not run", for log lines.
    static const char* describe(Outcome outcome);
};

} // namespace Kestrane
