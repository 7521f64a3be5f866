#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Process.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceKey.h"
#include "Platform/RemoteComputation/TestSupport/ServerProcess.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#ifndef KS_BINARY_DIR
#error "KS_BINARY_DIR names the build tree"
#endif

namespace Kestrane {
namespace Testing {

// ks-remote-service started as a real process in a temporary directory of its own, with a key
// (mode 0600) and a log directory there. Its standard error goes to a file, so that a service
// that logs a lot never blocks on a full pipe. With a host name it runs in a UTS namespace of
// its own under that name (needs root), listening on 127.0.0.2 unless told otherwise: a second
// host on this machine, for the service and everything it starts.
class RemoteServiceProcess {
public:
    struct Options {
        std::vector<std::string> allow;
        // Appended to the command line, e.g. {"--timeout", "1", "-logLevel", "DEBUG"}.
        std::vector<std::string> arguments;
        std::string hostName;
        // Empty: 127.0.0.2 with a host name, otherwise the service's default (127.0.0.1).
        std::string bindAddress;
        bool createKey = true;
    };

    static constexpr const char* c_program = KS_BINARY_DIR "/bin/ks-remote-service";

    explicit RemoteServiceProcess(Options options)
        : m_options(std::move(options)), m_directory(makeDirectory()),
          m_process(executable(), commandLine()) {
        std::string message;
        if (m_options.createKey && !RemoteServiceKey::create(keyFile(), message)) {
            std::error_code ignored;
            std::filesystem::remove_all(m_directory, ignored);
            throw std::runtime_error(message);
        }
        m_process.captureStandardOutput();
        m_process.setOutputFile(m_directory + "/service-stderr.log");
    }
    ~RemoteServiceProcess() {
        if (m_process.isRunning()) {
            m_process.kill(SIGKILL);
            m_process.wait();
        }
        std::error_code ignored;
        std::filesystem::remove_all(m_directory, ignored);
    }
    RemoteServiceProcess(const RemoteServiceProcess&) = delete;
    RemoteServiceProcess& operator=(const RemoteServiceProcess&) = delete;

    // Starts the service and waits for its PORT line; false when it does not come in `limit`.
    bool start(std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
        return m_process.start(Computing::Detached) && port(limit) > 0;
    }
    // The port of the "PORT <n>" first line, or -1.
    int port(std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
        if (m_port < 0 && m_stdout.find('\n') == std::string::npos)
            m_stdout += readPipe(m_process.getStandardOutputFd(), limit, [](const std::string& t) {
                return t.find('\n') != std::string::npos;
            });
        if (m_port < 0 && m_stdout.rfind("PORT ", 0) == 0 &&
            m_stdout.find('\n') != std::string::npos)
            m_port = std::atoi(m_stdout.c_str() + 5);
        return m_port;
    }
    // Where clients connect.
    std::string host() const {
        if (!m_options.bindAddress.empty())
            return m_options.bindAddress;
        return m_options.hostName.empty() ? "127.0.0.1" : "127.0.0.2";
    }
    const std::string& directory() const { return m_directory; }
    std::string keyFile() const { return m_directory + "/service.key"; }
    std::string logDirectory() const { return m_directory + "/logs"; }
    // Everything the service wrote to standard error so far.
    std::string standardError() const {
        std::ifstream in(m_directory + "/service-stderr.log", std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }
    // Waits until standard error holds `text`.
    bool waitForStandardError(const std::string& text,
                              std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (standardError().find(text) == std::string::npos) {
            if (std::chrono::steady_clock::now() >= deadline)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return true;
    }
    // Exit code, or -2 when it is still running after `limit`.
    int waitForExit(std::chrono::milliseconds limit) {
        int code = -2;
        if (!m_process.waitFor(static_cast<unsigned int>(limit.count()), code))
            return -2;
        return code;
    }
    pid_t pid() const { return m_process.getPid(); }
    Computing::Process& process() { return m_process; }

private:
    static std::string makeDirectory() {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/ks-remote-service-XXXXXX";
        if (!::mkdtemp(&pattern[0]))
            throw std::runtime_error("mkdtemp failed");
        return pattern;
    }
    std::string executable() const {
        return m_options.hostName.empty() ? c_program : "/usr/bin/unshare";
    }
    std::vector<std::string> commandLine() const {
        std::vector<std::string> args;
        if (!m_options.hostName.empty())
            args = {"--uts",
                    "--",
                    "/bin/sh",
                    "-c",
                    "hostname \"$0\" && exec \"$@\"",
                    m_options.hostName,
                    c_program};
        std::string bind = m_options.bindAddress;
        if (bind.empty() && !m_options.hostName.empty())
            bind = "127.0.0.2";
        if (!bind.empty())
            args.insert(args.end(), {"--bind", bind});
        args.insert(args.end(),
                    {"--port", "0", "--key-file", keyFile(), "--log-dir", logDirectory()});
        for (const auto& entry : m_options.allow)
            args.insert(args.end(), {"--allow", entry});
        args.insert(args.end(), m_options.arguments.begin(), m_options.arguments.end());
        return args;
    }

    Options m_options;
    std::string m_directory;
    Computing::Process m_process;
    std::string m_stdout;
    int m_port = -1;
};

} // namespace Testing
} // namespace Kestrane
