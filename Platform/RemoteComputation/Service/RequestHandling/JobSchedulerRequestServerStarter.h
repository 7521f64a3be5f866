#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerStarter.h"

#include <memory>

namespace Kestrane {

class Progress;

// Submits the server as a job through a job scheduler adapter (`script`) and waits for as long
// as the job may still call back: the job's state decides, not a clock. The job stays in the
// scheduler until the server ends or killJobSchedulerjob() removes it.
class JobSchedulerRequestServerStarter : public RequestServerStarter {
public:
    JobSchedulerRequestServerStarter(const std::string& executable, const GenericJobId& jobId,
                                     const std::string& logFileSuffix, const std::string& jobName,
                                     const std::string& script, int cores, int minimumCores,
                                     std::shared_ptr<Progress> progress);
    // The text is not looked at: a job can't be restarted from its string.
    explicit JobSchedulerRequestServerStarter(const std::string& reconnectString);

    bool startRequestServer() override;
    std::string getReconnectString() const override;
    // Removes the submitted job from the job scheduler; logs what happened.
    void killJobSchedulerjob();

    // "JobScheduler"
    static std::string getReconnectStringPrefix();
    int getJobSchedulerJobId() const { return jobSchedulerJobId; }
    const std::string& getScript() const { return script; }

private:
    std::string script;
    int cores = 0;
    int minimumCores = 0;
    std::shared_ptr<Progress> progress;
    int jobSchedulerJobId = 0;
    std::string jobName;
};

} // namespace Kestrane
