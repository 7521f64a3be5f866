#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"

#ifndef KS_GIT_REVISION
#define KS_GIT_REVISION "unknown"
#endif

namespace Kestrane {

std::string BuildInformation::getGitRevision() {
    return KS_GIT_REVISION;
}
std::string BuildInformation::getVersion() {
    return "5.0.0";
}

} // namespace Kestrane
