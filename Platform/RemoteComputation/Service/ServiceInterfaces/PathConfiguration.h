#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <string>

namespace Kestrane {

// Where the process keeps temporary files: $KS_PATH_TMP when set, otherwise
// $TMPDIR (or /tmp) followed by "kestrane-<user>". The directory is created on first use.
class PathConfiguration {
public:
    static FileName getKsPathTmp();
    // Replaces the directory for this process (tests, hosts with their own layout).
    static void setKsPathTmp(const FileName& path);
};

// Facts about the build.
class BuildInformation {
public:
    static std::string getGitRevision();
    static std::string getVersion();
};

} // namespace Kestrane
