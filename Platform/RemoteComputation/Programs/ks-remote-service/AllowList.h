#pragma once

#include <string>
#include <vector>

namespace Kestrane {

// Which programs the service may start: named executables and directories whose programs (not
// those of subdirectories) may run. Everything is compared by canonical path, so neither a
// symbolic link nor a ".." leads out of the list, and check() hands back the canonical path to
// start, so that a link swapped after the check can't redirect the start.
class AllowList {
public:
    // Adds an absolute path of an executable regular file or of a directory; false with
    // `error` for anything else.
    bool add(const std::string& entry, std::string& error);
    bool empty() const { return m_programs.empty() && m_directories.empty(); }
    // The entries as given, for the log.
    const std::vector<std::string>& entries() const { return m_entries; }

    // Whether `program` (argv[0] of a start) may run. True with its canonical path in
    // `canonical`; false with `reason`, a text for the client that says what to fix.
    bool check(const std::string& program, std::string& canonical, std::string& reason) const;

private:
    std::vector<std::string> m_entries;
    std::vector<std::string> m_programs;    // canonical
    std::vector<std::string> m_directories; // canonical
};

} // namespace Kestrane
