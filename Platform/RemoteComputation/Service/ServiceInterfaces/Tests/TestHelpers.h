#pragma once

#include <boost/filesystem.hpp>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <thread>

namespace Kestrane {
namespace TestSupport {

// A fresh directory below the system's temporary directory, removed with everything in it.
class TempDir {
public:
    TempDir() {
        std::string pattern =
            (boost::filesystem::temp_directory_path() / "ks-svctest-XXXXXX").string();
        if (!::mkdtemp(&pattern[0]))
            throw std::runtime_error("mkdtemp failed");
        m_path = pattern;
    }
    ~TempDir() {
        boost::system::error_code ec;
        boost::filesystem::remove_all(m_path, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }
    // Creates a subdirectory and returns its path.
    std::string directory(const std::string& name) const {
        boost::filesystem::create_directories(file(name));
        return file(name);
    }

private:
    std::string m_path;
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void writeFile(const std::string& path, const std::string& content, mode_t mode = 0644) {
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << content;
    }
    ::chmod(path.c_str(), mode);
}

// Whether anything, a dangling symbolic link included, stands at `path`.
inline bool fileExists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

// Polls `condition` every millisecond until it holds or `timeout` has passed.
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace TestSupport
} // namespace Kestrane
