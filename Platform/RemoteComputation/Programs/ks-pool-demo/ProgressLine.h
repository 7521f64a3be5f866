#pragma once

#include <chrono>
#include <cstdio>
#include <string>

namespace Kestrane {

// One live line of progress: redrawn in place on a terminal, a plain line each time otherwise
// (so that logs and pipes stay readable).
class ProgressLine {
public:
    struct State {
        unsigned int done = 0;
        unsigned int total = 0;
        size_t running = 0;
        unsigned int failed = 0;
        size_t workers = 0;
    };
    explicit ProgressLine(std::FILE* out);
    void show(const State& state);
    // Ends the line on a terminal, so that what follows starts on a fresh one.
    void finish();
    static std::string format(const State& state, double tasksPerSecond);

private:
    std::FILE* out;
    bool terminal;
    std::chrono::steady_clock::time_point start;
};

} // namespace Kestrane
