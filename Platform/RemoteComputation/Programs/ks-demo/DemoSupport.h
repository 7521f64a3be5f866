#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace Kestrane {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start);
// The directory of the running program.
std::string programDirectory();
// One line of a child's standard output, waiting at most `limitMs`.
std::string readLine(int fd, int limitMs);
// A new directory ks-demo-XXXXXX under $TMPDIR (or /tmp); empty when it can't be made.
std::string makeTempDirectory();
// A file whose every 8 bytes differ, so that a comparison finds a misplaced block.
bool writeTestFile(const std::string& path, uint64_t size);
bool sameContent(const std::string& a, const std::string& b);

// Collects a child's log lines (standard error) so that its pipe never fills up.
class ErrorDrain {
public:
    explicit ErrorDrain(int fd);
    ~ErrorDrain();
    ErrorDrain(const ErrorDrain&) = delete;
    ErrorDrain& operator=(const ErrorDrain&) = delete;
    // The first line that came in after `offset` characters, waiting at most `limitMs`.
    std::string lineAfter(size_t offset, int limitMs);
    size_t size();

private:
    void run(int fd);
    std::mutex m_mutex;
    std::string m_text;
    std::thread m_thread;
};

} // namespace Kestrane
