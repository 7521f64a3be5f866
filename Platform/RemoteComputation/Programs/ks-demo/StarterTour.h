#pragma once

#include "StepLog.h"

#include <memory>
#include <string>

namespace Kestrane {

class TcpRequestClient;

// The demo's tour of the server starters: a server brought up as a process on this host,
// through the starter service of a second host (127.0.0.2 with a host name of its own, so that
// files really travel), and as a Slurm job when KS_DEMO_SLURM=1. Each server is used and shut
// down, each step with its line and timing.
class StarterTour {
public:
    // `binDirectory` holds ks-request-server and ks-remote-service; the tour's files go below
    // `tmp`.
    StarterTour(StepLog& log, const std::string& binDirectory, const std::string& tmp);
    void run();

    static const char* const c_secondHostName; // "ks-demo-host2"

private:
    void local();
    void secondHost();
    void slurm();
    // A status request through a new client of `starter`: it starts the server. The client on
    // success, null (with the failure in `why`) otherwise.
    std::unique_ptr<TcpRequestClient> startWith(std::shared_ptr<class RequestServerStarter> starter,
                                                std::string& why);
    // NOP through the client, then a shutdown, until the server no longer answers.
    bool useAndStop(TcpRequestClient& client, std::string& why);
    // The adapter of the installed tree, else the one of the source tree.
    std::string slurmAdapter() const;

    StepLog& m_log;
    std::string m_bin;
    std::string m_tmp;
};

} // namespace Kestrane
