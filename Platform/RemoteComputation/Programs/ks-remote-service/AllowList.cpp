#include "AllowList.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrane {

namespace {

bool canonicalPath(const std::string& path, std::string& canonical, int& error) {
    char* resolved = ::realpath(path.c_str(), nullptr);
    if (!resolved) {
        error = errno;
        return false;
    }
    canonical = resolved;
    std::free(resolved);
    return true;
}

bool hasDotDotComponent(const std::string& path) {
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos)
            end = path.size();
        if (path.compare(start, end - start, "..") == 0)
            return true;
        start = end + 1;
    }
    return false;
}

bool isExecutableFile(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           ::access(path.c_str(), X_OK) == 0;
}

std::string directoryOf(const std::string& canonical) {
    size_t slash = canonical.rfind('/');
    return slash == 0 ? "/" : canonical.substr(0, slash);
}

} // namespace

bool AllowList::add(const std::string& entry, std::string& error) {
    if (entry.empty() || entry[0] != '/') {
        error = "--allow '" + entry + "' is not an absolute path";
        return false;
    }
    std::string canonical;
    int code = 0;
    if (!canonicalPath(entry, canonical, code)) {
        error = "--allow '" + entry + "': " + std::strerror(code);
        return false;
    }
    struct stat status {};
    if (::stat(canonical.c_str(), &status) != 0) {
        error = "--allow '" + entry + "': " + std::strerror(errno);
        return false;
    }
    if (S_ISDIR(status.st_mode)) {
        m_directories.push_back(canonical);
    } else if (isExecutableFile(canonical)) {
        m_programs.push_back(canonical);
    } else {
        error = "--allow '" + entry + "' is neither an executable regular file nor a directory";
        return false;
    }
    m_entries.push_back(entry);
    return true;
}

bool AllowList::check(const std::string& program, std::string& canonical,
                      std::string& reason) const {
    if (program.empty() || program[0] != '/') {
        reason = "program path '" + program + "' is not absolute; give its full path";
        return false;
    }
    // Refused even where it would resolve inside the list: nobody needs it, and a path
    // that says what it means is easier to audit in the log.
    if (hasDotDotComponent(program)) {
        reason =
            "program path '" + program + "' contains a '..' component; give the path without '..'";
        return false;
    }
    if (empty()) {
        reason = "the service allows no programs; start it with --allow for '" + program +
                 "' or its directory";
        return false;
    }
    int code = 0;
    if (!canonicalPath(program, canonical, code)) {
        reason = code == ENOENT || code == ENOTDIR
                     ? "program '" + program + "' does not exist"
                     : "program '" + program + "' cannot be resolved: " + std::strerror(code);
        return false;
    }
    bool allowed = std::find(m_programs.begin(), m_programs.end(), canonical) != m_programs.end() ||
                   std::find(m_directories.begin(), m_directories.end(), directoryOf(canonical)) !=
                       m_directories.end();
    if (!allowed) {
        reason = canonical == program
                     ? "program '" + program +
                           "' is not allowed; add it or its directory to the service's --allow "
                           "list"
                     : "program '" + program + "' resolves to '" + canonical +
                           "', which is not allowed; add that path or its directory to the "
                           "service's --allow list, or start a program that lies in it";
        return false;
    }
    if (!isExecutableFile(canonical)) {
        reason = "program '" + program +
                 "' is not an executable regular file; make it one (chmod +x) or start another";
        return false;
    }
    return true;
}

} // namespace Kestrane
