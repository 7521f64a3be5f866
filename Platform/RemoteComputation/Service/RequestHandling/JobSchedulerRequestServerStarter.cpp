#include "Platform/RemoteComputation/Service/RequestHandling/JobSchedulerRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Progress.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobRemoveLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobSubmitLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
} // namespace

JobSchedulerRequestServerStarter::JobSchedulerRequestServerStarter(
    const std::string& executable, const GenericJobId& jobId, const std::string& logFileSuffix,
    const std::string& jobName, const std::string& script, int cores, int minimumCores,
    std::shared_ptr<Progress> progress)
    : RequestServerStarter(executable, jobId, logFileSuffix), script(script), cores(cores),
      minimumCores(minimumCores), progress(std::move(progress)), jobName(jobName) {}

JobSchedulerRequestServerStarter::JobSchedulerRequestServerStarter(const std::string&)
    : RequestServerStarter("", GenericJobId(), "") {}

std::string JobSchedulerRequestServerStarter::getReconnectStringPrefix() {
    return "JobScheduler";
}

std::string JobSchedulerRequestServerStarter::getReconnectString() const {
    return getReconnectStringPrefix() + ":" + executable + ":" + jobId.toString();
}

bool JobSchedulerRequestServerStarter::startRequestServer() {
    const std::string callbackId = CallbackRequestHandler::createCallbackId();
    std::vector<std::string> args;
    createCommandLine(args, callbackId);
    const std::string commandLine = joinCommandLine(args);
    KS_INFO("Submitting RequestServer instance '" << executable << "' using job scheduler script '"
                                                  << script << "'.\nCommand line: " << commandLine);
    Computing::LSFSubmitInfo info;
    info.jobName = jobName;
    info.cores = cores;
    info.minimumCores = minimumCores;
    info.script = script;
    info.tmpPath = PathConfiguration::getKsPathTmp().toString();
    Computing::JobSubmitLSF submit;
    std::string message;
    jobSchedulerJobId = submit.execute(args, info, message);
    if (jobSchedulerJobId == 0) {
        errorMessage = "Error starting request server using job scheduler script '" + script +
                       "'.\nCommand line: " + commandLine + "\n\n" + message + "\n\n" +
                       submit.getErrorMessage();
        return false;
    }
    const std::string id = std::to_string(jobSchedulerJobId);
    KS_INFO("Started RequestServer instance '" << executable << "' using job scheduler script '"
                                               << script << "'. Job scheduler job ID: " << id);
    if (progress)
        progress->handleLogMessage(
            LogMessage("18446744073709551615 Job submitted to job scheduler. ID = " + id + "\n",
                       LogMessage::Info, "jobLog"));
    auto address = CallbackRequestHandler::waitForJobSchedulerCallback(
        callbackId, script, jobSchedulerJobId, message, progress);
    if (address.second == 0) {
        errorMessage = "Error getting callback from request server using job scheduler script '" +
                       script + "' with job ID " + id + ".\nCommand line: " + commandLine + "\n\n" +
                       message;
        return false;
    }
    requestServerHost = address.first;
    requestServerPort = address.second;
    return true;
}

void JobSchedulerRequestServerStarter::killJobSchedulerjob() {
    if (jobSchedulerJobId == 0) {
        KS_ERROR("Can't kill job: job ID not set!");
        return;
    }
    KS_INFO("Killing job " << jobSchedulerJobId << "...");
    Computing::JobRemoveLSF remove;
    std::string message;
    if (remove.execute(jobSchedulerJobId, script, message))
        KS_TRACE("Job " << jobSchedulerJobId << " killed:\n" << message);
    else
        KS_ERROR("Error killing job " << jobSchedulerJobId << ":\n" << message);
}

} // namespace Kestrane
