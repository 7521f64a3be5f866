#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerSubscriber.h"

#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Publisher.h"
#include "Platform/RemoteComputation/Service/RequestHandling/WorkerProcess.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <utility>
#include <vector>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
} // namespace

DistributedWorkerSubscriber::DistributedWorkerSubscriber(unsigned int maxAliveAge,
                                                         unsigned int maxChangeAge)
    : Subscriber(std::vector<HostInfo>(), {Publisher::c_topicAlive}), m_maxAliveAge(maxAliveAge),
      m_maxChangeAge(maxChangeAge) {}

DistributedWorkerSubscriber::~DistributedWorkerSubscriber() {
    stop();
    finalize();
}

void DistributedWorkerSubscriber::addWorker(WorkerProcess& process, const HostInfo& host,
                                            const std::string& workerName) {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    WorkerState& worker = m_workers[workerName];
    worker.lastAliveTime = worker.lastChangeTime = Clock::now();
    auto found = m_processes.find(process.name);
    if (found == m_processes.end()) {
        found = m_processes.emplace(process.name, ProcessState()).first;
        found->second.publisherId = addPublisher(host);
    }
    found->second.workers.insert(workerName);
}

void DistributedWorkerSubscriber::removeWorker(WorkerProcess& process,
                                               const std::string& workerName) {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    m_workers.erase(workerName);
    auto found = m_processes.find(process.name);
    if (found == m_processes.end())
        return;
    found->second.workers.erase(workerName);
    if (found->second.workers.empty())
        forgetProcess(process.name);
}

void DistributedWorkerSubscriber::removeProcess(WorkerProcess& process) {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    forgetProcess(process.name);
}

void DistributedWorkerSubscriber::forgetProcess(const std::string& processName) {
    auto found = m_processes.find(processName);
    if (found == m_processes.end())
        return;
    for (const auto& worker : found->second.workers)
        m_workers.erase(worker);
    if (found->second.publisherId >= 0)
        removePublisher(found->second.publisherId);
    m_processes.erase(found);
}

void DistributedWorkerSubscriber::handleMessage(int, const std::string& topic,
                                                const std::vector<std::string>& content) {
    if (topic != Publisher::c_topicAlive || content.size() != 2) {
        KS_ERROR("Error: wrong topic (" << topic << ") or content size (" << content.size()
                                        << ")!");
        return;
    }
    const size_t mark = content[1].find('#');
    if (mark == std::string::npos) {
        KS_TRACE("ALIVE_RECV - ignoring alive message with no worker name prefix: " << content[1]);
        return;
    }
    const std::string workerName = content[1].substr(0, mark);
    KS_INFO("workerName='" << workerName << "'");
    std::string changedText;
    {
        boost::lock_guard<boost::mutex> lock(m_mutex);
        auto found = m_workers.find(workerName);
        // A worker that is not (or no longer) watched has nothing to refresh.
        if (found == m_workers.end())
            return;
        WorkerState& worker = found->second;
        const auto now = Clock::now();
        worker.lastAliveTime = now;
        if (content[0] != worker.lastTimeStamp || content[1] != worker.lastMsg) {
            worker.lastChangeTime = now;
            worker.lastTimeStamp = content[0];
            worker.lastMsg = content[1];
            changedText = content[1];
        }
    }
    // The pool's own heartbeat shows what its workers do.
    if (!changedText.empty())
        LivingProcess::alive(changedText, "");
    KS_TRACE("ALIVE_RECV - " << content[0] << " - " << content[1]);
}

void DistributedWorkerSubscriber::handleNoNewMessage(int) {
    std::vector<std::pair<std::string, std::string>> lost;
    {
        boost::lock_guard<boost::mutex> lock(m_mutex);
        const auto now = Clock::now();
        auto secondsSince = [&now](Clock::time_point then) {
            return static_cast<long>(
                std::chrono::duration_cast<std::chrono::seconds>(now - then).count());
        };
        for (auto it = m_workers.begin(); it != m_workers.end();) {
            const long aliveAge = secondsSince(it->second.lastAliveTime);
            const long changeAge = secondsSince(it->second.lastChangeTime);
            std::string reason;
            if (m_maxAliveAge > 0 && aliveAge > static_cast<long>(m_maxAliveAge)) {
                KS_WARN("Max alive message age exceeded for worker "
                        << it->first << " (" << aliveAge << " > " << m_maxAliveAge << ")");
                reason = "Worker is not running anymore (no alive messages for " +
                         std::to_string(aliveAge) + "s, limit is " + std::to_string(m_maxAliveAge) +
                         "s)";
            } else if (m_maxChangeAge > 0 && changeAge > static_cast<long>(m_maxChangeAge)) {
                KS_WARN("Max change message age exceeded for worker "
                        << it->first << " (" << changeAge << " > " << m_maxChangeAge << ")");
                reason = "Worker is not being updated anymore (no changes for " +
                         std::to_string(changeAge) + "s, limit is " +
                         std::to_string(m_maxChangeAge) + "s)";
            }
            if (reason.empty()) {
                ++it;
                continue;
            }
            lost.emplace_back(it->first, reason);
            // Reported once: the pool gives the worker up.
            it = m_workers.erase(it);
        }
    }
    for (const auto& worker : lost)
        m_workerLost(worker.first, worker.second);
}

} // namespace Kestrane
