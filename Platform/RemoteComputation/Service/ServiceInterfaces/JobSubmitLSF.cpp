#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobSubmitLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobSchedulerScript.h"

namespace Kestrane {
namespace Computing {

int JobSubmitLSF::execute(const std::vector<std::string>& command, const LSFSubmitInfo& info,
                          std::string& message) {
    message.clear();
    if (command.empty()) {
        setErrorMessage("Nothing to submit: the command line is empty");
        return 0;
    }
    std::string jobName = info.jobName;
    if (jobName.empty())
        jobName = command[0].substr(command[0].rfind('/') + 1);
    std::vector<std::string> arguments{
        "submit",
        "--job-name",
        jobName,
        "--cores",
        std::to_string(info.cores > 0 ? info.cores : 1),
        "--min-cores",
        std::to_string(info.minimumCores > 0 ? info.minimumCores : 0),
        "--tmp",
        info.tmpPath,
        "--"};
    arguments.insert(arguments.end(), command.begin(), command.end());
    JobSchedulerScript script(info.script);
    if (!script.run(arguments, message)) {
        setErrorMessage(script.getErrorMessage());
        return 0;
    }
    int job = 0;
    if (!JobSchedulerScript::findNumber(message, "JOB", job)) {
        setErrorMessage("Job scheduler script '" + info.script +
                        " submit' printed no line 'JOB <number>'");
        return 0;
    }
    setErrorMessage("");
    return job;
}

} // namespace Computing
} // namespace Kestrane
