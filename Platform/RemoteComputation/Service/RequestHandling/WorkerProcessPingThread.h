#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Thread.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace Kestrane {

// Stands in for the reply that a dead worker process can no longer send: it knocks at the
// request server of each worker process now and then, and a process whose port refuses the
// connection is reported as ended, at once rather than after the heartbeat's limit. A process
// that accepts but does not answer (stopped, hung) is left to the heartbeat watch.
class WorkerProcessPingThread : public Thread {
public:
    struct Target {
        std::string processName;
        HostInfo host;
    };
    // `targets` gives the processes to knock at; `ended` is told of a process whose server
    // refused the connection, with the reason. Both are called on this thread.
    WorkerProcessPingThread(unsigned int intervalSeconds,
                            std::function<std::vector<Target>()> targets,
                            std::function<void(const std::string&, const std::string&)> ended);
    ~WorkerProcessPingThread() override;

    void executeRun() override;
    // Ends the wait at once; the owner then calls finalize().
    void stop();

    // False with the reason when nothing listens at the host's request server port any more.
    static bool isListening(const HostInfo& host, std::string& reason);

private:
    unsigned int intervalSeconds;
    std::function<std::vector<Target>()> targets;
    std::function<void(const std::string&, const std::string&)> ended;
    bool stopRequested = false;
    std::condition_variable condition;
    std::mutex mutex;
};

} // namespace Kestrane
