#include "Platform/RemoteComputation/Service/RequestHandling/WorkerProcessPingThread.h"

#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <chrono>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
} // namespace

WorkerProcessPingThread::WorkerProcessPingThread(
    unsigned int intervalSeconds, std::function<std::vector<Target>()> targets,
    std::function<void(const std::string&, const std::string&)> ended)
    : Thread("WorkerProcessPingThread"), intervalSeconds(intervalSeconds > 0 ? intervalSeconds : 1),
      targets(std::move(targets)), ended(std::move(ended)) {}

WorkerProcessPingThread::~WorkerProcessPingThread() {
    stop();
    finalize();
}

void WorkerProcessPingThread::stop() {
    std::lock_guard<std::mutex> lock(mutex);
    stopRequested = true;
    condition.notify_all();
}

bool WorkerProcessPingThread::isListening(const HostInfo& host, std::string& reason) {
    try {
        // Only the connection matters: the kernel refuses it once the process is gone.
        Computing::ClientSocket socket;
        socket.connect(host.getIpOrName(), host.getRequestServerPort());
        // Said so that the server does not count the visit as a broken conversation.
        SocketPacket::send("C", "CLOSE_CONNECTION", socket, "ping");
        // Briefly: a stopped process takes the connection but never closes it.
        socket.closeAfterPeer(100);
        return true;
    } catch (const std::exception& e) {
        reason = e.what();
        return false;
    }
}

void WorkerProcessPingThread::executeRun() {
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(mutex);
            condition.wait_for(lock, std::chrono::seconds(intervalSeconds),
                               [this] { return stopRequested; });
            if (stopRequested)
                return;
        }
        for (const Target& target : targets()) {
            std::string reason;
            if (!target.host.hasRequestServerPort() || isListening(target.host, reason))
                continue;
            KS_WARN("Request server of worker process " << target.processName << " ("
                                                        << target.host.toString()
                                                        << ") unreachable: " << reason);
            ended(target.processName, reason);
        }
    }
}

} // namespace Kestrane
