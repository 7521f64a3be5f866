#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Kestrane {
namespace Testing {

using TemporaryDirectory = TestSupport::TempDir;
using TestSupport::fileExists;
using TestSupport::readFile;
using TestSupport::waitUntil;
using TestSupport::writeFile;

// Process state letter from /proc/<pid>/stat ('Z' for a zombie), 0 when the process is gone.
inline char processState(pid_t pid) {
    std::string text = readFile("/proc/" + std::to_string(pid) + "/stat");
    size_t close = text.rfind(')');
    if (close == std::string::npos || close + 2 >= text.size())
        return 0;
    return text[close + 2];
}

// A program for the service to start: "probe RECORD WAIT [ARGS...]" records its whole argv
// (NUL-separated) in RECORD.argv and its pid, session, stdin, host name and blocked signals in
// RECORD.info (each file appears complete or not at all), writes a line to standard output and
// one to standard error, then waits up to WAIT seconds for a file RECORD.release (or for its
// directory to go) and exits with 3.
class ProbeProgram {
public:
    static constexpr int c_exitCode = 3;

    // Writes the program as `path`, executable.
    static void write(const std::string& path) {
        writeFile(path,
                  "#!/bin/sh\n"
                  "record=\"$1\"\n"
                  "wait_s=\"$2\"\n"
                  "printf '%s\\0' \"$0\" \"$@\" > \"$record.argv.tmp\" && "
                  "mv \"$record.argv.tmp\" \"$record.argv\"\n"
                  "read -r stat < /proc/$$/stat\n"
                  "set -- ${stat##*\") \"}\n"
                  "{\n"
                  "  echo \"pid=$$\"\n"
                  "  echo \"sid=$4\"\n"
                  "  echo \"stdin=$(readlink /proc/$$/fd/0)\"\n"
                  "  echo \"host=$(hostname)\"\n"
                  "  echo \"sigblk=$(sed -n 's/^SigBlk:[[:space:]]*//p' /proc/$$/status)\"\n"
                  "} > \"$record.info.tmp\" && mv \"$record.info.tmp\" \"$record.info\"\n"
                  "echo \"probe stdout $$\"\n"
                  "echo \"probe stderr $$\" >&2\n"
                  "i=0\n"
                  "while [ -d \"${record%/*}\" ] && [ ! -e \"$record.release\" ] &&\n"
                  "      [ $i -lt $((wait_s * 20)) ]; do\n"
                  "  sleep 0.05\n"
                  "  i=$((i + 1))\n"
                  "done\n"
                  "exit 3\n",
                  0755);
    }

    // The recorded argv, empty when the program did not run (yet).
    static std::vector<std::string> arguments(const std::string& record) {
        std::string text = readFile(record + ".argv");
        std::vector<std::string> result;
        size_t start = 0, end;
        while ((end = text.find('\0', start)) != std::string::npos) {
            result.push_back(text.substr(start, end - start));
            start = end + 1;
        }
        return result;
    }
    // The "key=value" lines of RECORD.info.
    static std::map<std::string, std::string> info(const std::string& record) {
        std::map<std::string, std::string> result;
        std::istringstream in(readFile(record + ".info"));
        std::string line;
        while (std::getline(in, line)) {
            size_t equals = line.find('=');
            if (equals != std::string::npos)
                result[line.substr(0, equals)] = line.substr(equals + 1);
        }
        return result;
    }
    static bool started(const std::string& record) { return fileExists(record + ".argv"); }
    static bool waitForStart(const std::string& record,
                             std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
        return waitUntil([&] { return fileExists(record + ".info"); }, limit);
    }
    static void release(const std::string& record) { writeFile(record + ".release", ""); }
};

} // namespace Testing
} // namespace Kestrane
