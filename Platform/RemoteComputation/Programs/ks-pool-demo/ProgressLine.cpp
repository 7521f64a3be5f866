#include "ProgressLine.h"

#include <unistd.h>

namespace Kestrane {

ProgressLine::ProgressLine(std::FILE* out)
    : out(out), terminal(::isatty(::fileno(out)) != 0), start(std::chrono::steady_clock::now()) {}

std::string ProgressLine::format(const State& state, double tasksPerSecond) {
    char text[200];
    std::snprintf(text, sizeof(text),
                  "tasks %u/%u done, %zu running, %u failed, %zu workers alive, %.1f tasks/s",
                  state.done, state.total, state.running, state.failed, state.workers,
                  tasksPerSecond);
    return text;
}

void ProgressLine::show(const State& state) {
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const std::string line = format(state, seconds > 0 ? state.done / seconds : 0.0);
    if (terminal)
        std::fprintf(out, "\r\033[K%s", line.c_str());
    else
        std::fprintf(out, "%s\n", line.c_str());
    std::fflush(out);
}

void ProgressLine::finish() {
    if (terminal) {
        std::fprintf(out, "\n");
        std::fflush(out);
    }
}

} // namespace Kestrane
