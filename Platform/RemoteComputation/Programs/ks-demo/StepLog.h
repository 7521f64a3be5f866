#pragma once

#include <cstdio>
#include <string>

namespace Kestrane {

// The demo's numbered lines: one per step with its outcome and timing, counting failures.
class StepLog {
public:
    // The outcome line of a step.
    void step(bool ok, const std::string& what, double ms) {
        ++m_steps;
        if (!ok)
            ++m_failures;
        std::printf("%2d. %s%s  [%.1f ms]\n", m_steps, ok ? "" : "FAILED: ", what.c_str(), ms);
    }
    // The heading of a step whose live progress lines follow.
    void announce(const std::string& what) {
        std::printf("%2d. %s ...\n", m_steps + 1, what.c_str());
    }
    void detail(const std::string& line) { std::printf("      %s\n", line.c_str()); }
    // A line about a step that is not taken, and why; it is neither counted nor a failure.
    void notTaken(const std::string& what) { std::printf("  - %s\n", what.c_str()); }

    int steps() const { return m_steps; }
    int failures() const { return m_failures; }

private:
    int m_steps = 0;
    int m_failures = 0;
};

} // namespace Kestrane
