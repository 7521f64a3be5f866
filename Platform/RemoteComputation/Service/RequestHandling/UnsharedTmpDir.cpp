#include "Platform/RemoteComputation/Service/RequestHandling/UnsharedTmpDir.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HostAndUserId.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/GenericJobId.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
} // namespace

UnsharedTmpDir::UnsharedTmpDir(const std::string& name) {
    findOrCreate(name);
}

UnsharedTmpDir::UnsharedTmpDir(const GenericJobId& id) {
    findOrCreate(id.getName());
}

void UnsharedTmpDir::findOrCreate(const std::string& name) {
    const HostAndUserId local;
    // No upper bound: every taken name is owned by someone, so a free one comes eventually.
    // Not atomic across processes; a process that loses a race for a new name still uses it,
    // and its failed save only logs.
    for (unsigned long i = 0;; ++i) {
        const FileName candidate =
            i == 0 ? PathConfiguration::getKsPathTmp() / name
                   : PathConfiguration::getKsPathTmp() / (name + "_" + std::to_string(i));
        if (!FileUtilities::exists(candidate)) {
            FileUtilities::createDirectories(candidate);
            KS_INFO("Created new UnsharedTmpDir for name " << name << ": " << candidate.toString());
            local.save(candidate);
            path = candidate;
            return;
        }
        const std::shared_ptr<HostAndUserId> owner = HostAndUserId::load(candidate);
        if (!owner) {
            KS_ERROR("HostAndUserId can not be loaded from existing UnsharedTmpDir for name "
                     << name << ": " << candidate.toString());
            continue;
        }
        if (*owner == local) {
            KS_INFO("Using existing UnsharedTmpDir for name " << name << ": "
                                                              << candidate.toString());
            path = candidate;
            return;
        }
        KS_WARN("HostAndUserId loaded from '" << candidate.toString()
                                              << "' does not match local HostAndUserId.");
    }
}

} // namespace Kestrane
