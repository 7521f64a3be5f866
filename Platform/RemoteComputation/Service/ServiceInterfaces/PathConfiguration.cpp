#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingUtility.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"

#include <cstdlib>
#include <mutex>

namespace Kestrane {

namespace {
std::mutex s_pathMutex;
FileName s_override;
} // namespace

FileName PathConfiguration::getKsPathTmp() {
    FileName path;
    {
        std::lock_guard<std::mutex> lock(s_pathMutex);
        path = s_override;
    }
    if (path.empty()) {
        if (const char* configured = std::getenv("KS_PATH_TMP"); configured && *configured) {
            path = FileName(configured);
        } else {
            const char* tmp = std::getenv("TMPDIR");
            path = FileName(tmp && *tmp ? tmp : "/tmp") /
                   ("kestrane-" + Computing::Utility::getUserName());
        }
    }
    if (!FileUtilities::exists(path))
        FileUtilities::createDirectories(path);
    return path;
}

void PathConfiguration::setKsPathTmp(const FileName& path) {
    std::lock_guard<std::mutex> lock(s_pathMutex);
    s_override = path;
}

} // namespace Kestrane
