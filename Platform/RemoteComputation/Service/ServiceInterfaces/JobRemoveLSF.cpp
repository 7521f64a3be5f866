#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobRemoveLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobSchedulerScript.h"

namespace Kestrane {
namespace Computing {

bool JobRemoveLSF::execute(int job, const std::string& cluster, std::string& message) {
    JobSchedulerScript script(cluster);
    if (!script.runTellingWhy({"kill", std::to_string(job)}, message)) {
        setErrorMessage(script.getErrorMessage());
        return false;
    }
    setErrorMessage("");
    return true;
}

} // namespace Computing
} // namespace Kestrane
