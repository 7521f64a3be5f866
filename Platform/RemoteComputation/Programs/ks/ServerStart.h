#pragma once

#include "ClientOptions.h"
#include "KsClient.h"

#include <atomic>
#include <memory>
#include <ostream>
#include <string>

namespace Kestrane {

class RequestServerStarter;

// ks start: brings a ks-request-server up through the starter that the options name (a process
// here, the starter service of another host, or a job scheduler), makes sure that it answers a
// request, and tells where it is. The server outlives ks.
class ServerStart {
public:
    ServerStart(const ClientOptions& options, std::ostream& progress);
    ~ServerStart();
    ServerStart(const ServerStart&) = delete;
    ServerStart& operator=(const ServerStart&) = delete;

    // On success one line "STARTED <host>:<port> <reconnect string>".
    ClientOutcome run();
    // From another thread, e.g. on Ctrl-C: removes the job submitted for the start, so that
    // its wait ends. False when no job has been submitted.
    bool cancel();

    // The ks-request-server in the directory of the running program.
    static std::string defaultExecutable();

private:
    class JobProgress;
    std::shared_ptr<RequestServerStarter> makeStarter();
    // The server's own arguments: those of the command line, behind a log level of its own
    // when ks's library lines are off (the server's output is its only record).
    std::vector<std::string> serverArguments() const;

    const ClientOptions& m_options;
    std::ostream& m_progress;
    std::shared_ptr<JobProgress> m_jobProgress;
    std::shared_ptr<RequestServerStarter> m_starter;
};

} // namespace Kestrane
