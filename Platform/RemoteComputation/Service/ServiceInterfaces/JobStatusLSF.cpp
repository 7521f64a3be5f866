#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobStatusLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobSchedulerScript.h"

namespace Kestrane {
namespace Computing {

bool JobStatusLSF::execute(int job, const std::string& cluster, LSFJobStatus& status,
                           std::string& message) {
    JobSchedulerScript script(cluster);
    if (!script.runTellingWhy({"status", std::to_string(job)}, message)) {
        setErrorMessage(script.getErrorMessage());
        return false;
    }
    std::string word;
    if (!JobSchedulerScript::findValue(message, "STATUS", word) || !fromString(word, status)) {
        setErrorMessage("Job scheduler script '" + cluster +
                        " status' printed no line 'STATUS <PENDING|RUNNING|DONE|EXIT|UNKNOWN>'");
        JobSchedulerScript::appendLine(message, getErrorMessage());
        return false;
    }
    setErrorMessage("");
    return true;
}

} // namespace Computing
} // namespace Kestrane
