#include "DemoSupport.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits.h>
#include <poll.h>
#include <unistd.h>
#include <vector>

namespace Kestrane {

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

std::string programDirectory() {
    char path[PATH_MAX] = {0};
    ssize_t n = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
    std::string self = n > 0 ? std::string(path, n) : std::string("./ks-demo");
    return self.substr(0, self.rfind('/'));
}

// One line of the child's standard output, waiting at most `limitMs`.
std::string readLine(int fd, int limitMs) {
    std::string line;
    auto start = Clock::now();
    char c;
    while (msSince(start) < limitMs) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0)
            continue;
        if (::read(fd, &c, 1) != 1 || c == '\n')
            break;
        line += c;
    }
    return line;
}

std::string makeTempDirectory() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/ks-demo-XXXXXX";
    std::vector<char> text(pattern.begin(), pattern.end());
    text.push_back('\0');
    if (!::mkdtemp(text.data()))
        return "";
    return text.data();
}

// A file whose every 8 bytes differ, so that a comparison finds a misplaced block.
bool writeTestFile(const std::string& path, uint64_t size) {
    std::ofstream out(path, std::ios::binary);
    const size_t block = 4 * 1024 * 1024;
    std::vector<uint64_t> words(block / sizeof(uint64_t));
    uint64_t written = 0, counter = 0;
    while (written < size && out) {
        for (auto& word : words)
            word = counter++ * 0x9E3779B97F4A7C15ull;
        size_t n = static_cast<size_t>(std::min<uint64_t>(block, size - written));
        out.write(reinterpret_cast<const char*>(words.data()), static_cast<std::streamsize>(n));
        written += n;
    }
    return static_cast<bool>(out) && written == size;
}

bool sameContent(const std::string& a, const std::string& b) {
    std::ifstream first(a, std::ios::binary), second(b, std::ios::binary);
    if (!first || !second)
        return false;
    const size_t block = 4 * 1024 * 1024;
    std::vector<char> x(block), y(block);
    for (;;) {
        first.read(x.data(), block);
        second.read(y.data(), block);
        if (first.gcount() != second.gcount())
            return false;
        if (first.gcount() == 0)
            return true;
        if (std::memcmp(x.data(), y.data(), static_cast<size_t>(first.gcount())) != 0)
            return false;
    }
}

ErrorDrain::ErrorDrain(int fd) : m_thread([this, fd] { run(fd); }) {}

ErrorDrain::~ErrorDrain() {
    if (m_thread.joinable())
        m_thread.join();
}

std::string ErrorDrain::lineAfter(size_t offset, int limitMs) {
    auto start = Clock::now();
    while (msSince(start) < limitMs) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            size_t end = m_text.find('\n', offset);
            if (end != std::string::npos)
                return m_text.substr(offset, end - offset);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return "";
}

size_t ErrorDrain::size() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_text.size();
}

void ErrorDrain::run(int fd) {
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof(buffer))) > 0) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_text.append(buffer, n);
    }
}

} // namespace Kestrane
