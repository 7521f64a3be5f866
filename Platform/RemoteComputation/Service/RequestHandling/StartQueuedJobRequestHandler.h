#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/AbstractRequestHandler.h"

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <map>
#include <set>
#include <string>

namespace Kestrane {

// Lets a job that was started as a process wait until its queue manager starts or cancels it.
// The manager's request is kept open until the job has ended, so that its reply means that the
// job is over. All state is static: the job's main thread reaches it without a handler object.
class StartQueuedJobRequestHandler : public AbstractRequestHandler {
public:
    StartQueuedJobRequestHandler();
    ~StartQueuedJobRequestHandler() override;

    std::shared_ptr<Request> decodeRequest(XmlRequest& request) const override;
    bool canHandle(Request* request) override;
    // Answers a cancel at once, a start only when the job has ended or its wait was aborted.
    std::shared_ptr<std::string> handle(Request* request) override;

    // The job's side: true when a start or a cancel came (a cancel leaves a message for
    // getErrorMessage), false on time-out or abort.
    static bool waitForStartJobRequest(const std::string& jobId, unsigned int timeoutSec);
    // The message that came with a cancel, removed on reading; empty when there is none.
    static std::string getErrorMessage(const std::string& jobId);
    // Ends the job's wait with false.
    static void abortWaitingJob(const std::string& jobId);
    // Releases the manager's request of a started job.
    static void jobEnded(const std::string& jobId);

private:
    // Job ids are meant to be used once per process: nothing removes them from these sets,
    // except that an ended job moves from started to ended.
    static std::set<std::string> s_startedJobIds;
    static std::set<std::string> s_cancelledJobIds;
    static std::set<std::string> s_abortedJobIds;
    static std::set<std::string> s_endedJobIds;
    static std::map<std::string, std::string> s_errorMessages;
    static boost::mutex s_startedJobIdsMutex;
    static boost::condition_variable_any s_startJobCondition;
    static boost::condition_variable_any s_jobEndedCondition;
};

} // namespace Kestrane
