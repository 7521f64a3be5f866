#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobSchedulerScript.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Process.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"

#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <poll.h>
#include <unistd.h>

namespace Kestrane {
namespace Computing {

namespace {
using Clock = std::chrono::steady_clock;
constexpr int c_sliceMs = 50;
} // namespace

JobSchedulerScript::JobSchedulerScript(const std::string& script) : m_script(script) {}

bool JobSchedulerScript::run(const std::vector<std::string>& arguments, std::string& output) {
    output.clear();
    setErrorMessage("");
    const std::string what =
        "'" + m_script + (arguments.empty() ? std::string() : " " + arguments[0]) + "'";
    if (m_script.empty()) {
        setErrorMessage("No job scheduler script given");
        return false;
    }
    Process process(m_script, arguments);
    process.captureStandardOutputAndError();
    // Detached: a session of its own, so that a time-out stops the scheduler commands it runs.
    if (!process.start(Detached)) {
        setErrorMessage("Cannot run job scheduler script " + what + ": " +
                        process.getErrorMessage());
        return false;
    }
    const unsigned int limit =
        RequestServerConfiguration::getRegisteredInstance()->getJobSchedulerCommandTimeout();
    const auto deadline = Clock::now() + std::chrono::seconds(limit);
    auto timedOut = [&] { return limit > 0 && Clock::now() >= deadline; };

    const int fd = process.getStandardOutputFd();
    int exitCode = -1;
    bool exited = false;
    for (;;) {
        pollfd readable{fd, POLLIN, 0};
        int ready = ::poll(&readable, 1, c_sliceMs);
        if (ready > 0) {
            char buffer[4096];
            ssize_t got = ::read(fd, buffer, sizeof(buffer));
            if (got > 0) {
                output.append(buffer, static_cast<size_t>(got));
                continue;
            }
            if (got < 0 && errno == EINTR)
                continue;
            break; // end of output
        }
        if (ready < 0 && errno != EINTR)
            break;
        // Nothing to read now: a program that has ended is done, even if something it left
        // running in the background still holds the pipe.
        if (process.waitFor(0, exitCode)) {
            exited = true;
            break;
        }
        if (timedOut())
            break;
    }
    while (!exited && !timedOut())
        exited = process.waitFor(c_sliceMs, exitCode);
    if (!exited) {
        process.killGroup(SIGKILL);
        process.wait();
        setErrorMessage("Job scheduler script " + what + " did not finish within " +
                        std::to_string(limit) + " s and was stopped");
        return false;
    }
    if (exitCode != 0) {
        setErrorMessage("Job scheduler script " + what + " failed with exit code " +
                        std::to_string(exitCode));
        return false;
    }
    return true;
}

bool JobSchedulerScript::findValue(const std::string& output, const std::string& word,
                                   std::string& value) {
    const std::string prefix = word + " ";
    size_t start = 0;
    while (start <= output.size()) {
        size_t end = output.find('\n', start);
        if (end == std::string::npos)
            end = output.size();
        std::string line = output.substr(start, end - start);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.compare(0, prefix.size(), prefix) == 0) {
            value = line.substr(prefix.size());
            return true;
        }
        start = end + 1;
    }
    return false;
}

bool JobSchedulerScript::runTellingWhy(const std::vector<std::string>& arguments,
                                       std::string& output) {
    if (run(arguments, output))
        return true;
    appendLine(output, getErrorMessage());
    return false;
}

void JobSchedulerScript::appendLine(std::string& message, const std::string& error) {
    if (!message.empty() && message.back() != '\n')
        message += "\n";
    message += error;
}

bool JobSchedulerScript::findNumber(const std::string& output, const std::string& word,
                                    int& value) {
    std::string text;
    if (!findValue(output, word, text) || text.empty() || text.size() > 10 || text[0] == '0')
        return false;
    long long number = 0;
    for (char c : text) {
        if (!std::isdigit(static_cast<unsigned char>(c)))
            return false;
        number = number * 10 + (c - '0');
    }
    if (number > INT_MAX)
        return false;
    value = static_cast<int>(number);
    return true;
}

} // namespace Computing
} // namespace Kestrane
