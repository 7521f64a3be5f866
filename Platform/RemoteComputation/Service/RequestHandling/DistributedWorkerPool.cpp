#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerPool.h"

#include "Platform/RemoteComputation/Service/RequestHandling/CheckJobSchedulerWorkersThread.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerCallbackRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerResultRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerSubscriber.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerTask.h"
#include "Platform/RemoteComputation/Service/RequestHandling/GetDistributedWorkerInputRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RemoteServiceRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/RequestHandling/WorkerProcessPingThread.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractJobLog.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/CoresStatus.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobRemoveLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobSubmitLSF.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LSFSubmitInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LoggingSettings.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <boost/algorithm/string/join.hpp>
#include <boost/thread/shared_mutex.hpp>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <stdexcept>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
const char* c_indent = "  ";
const char* c_elementIndent = "   ";

// Held shared while a reply is passed to a pool, exclusively by a pool's destructor: a pool
// found in the table stays alive until its handling of the reply is over.
boost::shared_mutex s_replyDeliveryMutex;

std::string lowerFirst(std::string text) {
    if (!text.empty())
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

} // namespace

std::map<std::string, DistributedWorkerPool*> DistributedWorkerPool::s_existingPools;
boost::mutex DistributedWorkerPool::s_existingPoolsMutex;
boost::condition_variable_any DistributedWorkerPool::s_callEnded;
std::map<std::string, DistributedWorkerPool*> DistributedWorkerPool::s_runningWorkerRequestIds;
boost::mutex DistributedWorkerPool::s_runningWorkerRequestIdsMutex;

DistributedWorkerPool::DistributedWorkerPool(
    const DistributedWorkerPoolSettings& settings, const std::string& workerExecutable,
    const GenericJobId& jobId, const std::string& workerName, unsigned int coresPerWorker,
    bool releaseCoresAfterEachTask, bool separateProcesses, unsigned int inputWaitMs)
    : id(UniqueID::generateId()), settings(settings), separateProcesses(separateProcesses),
      workerExecutable(workerExecutable), jobId(jobId), workerName(workerName),
      workerNameLower(lowerFirst(workerName)), workersName(workerNameLower + "s"),
      coresPerWorker(coresPerWorker), releaseCoresAfterEachTask(releaseCoresAfterEachTask),
      inputWaitMs(inputWaitMs) {
    {
        boost::lock_guard<boost::mutex> lock(s_existingPoolsMutex);
        s_existingPools[id] = this;
    }
    KS_INFO("Created DistributedWorkerPool " << id << " for job " << jobId.getName());
}

DistributedWorkerPool::~DistributedWorkerPool() {
    endProtocolCalls();
    {
        boost::lock_guard<boost::mutex> lock(s_runningWorkerRequestIdsMutex);
        for (auto it = s_runningWorkerRequestIds.begin(); it != s_runningWorkerRequestIds.end();)
            it = it->second == this ? s_runningWorkerRequestIds.erase(it) : std::next(it);
    }
    // Waits for a reply that is being handed to this pool.
    { boost::unique_lock<boost::shared_mutex> wait(s_replyDeliveryMutex); }
    replyConnection.disconnect();
    // The watches first: the derived part of the pool is gone, so nothing may call into it.
    if (checkThread) {
        checkThread->stop();
        checkThread->finalize();
    }
    if (pingThread) {
        pingThread->stop();
        pingThread->finalize();
    }
    subscriberConnection.disconnect();
    if (subscriber) {
        subscriber->stop();
        subscriber->finalize();
    }
    if (!stopping)
        stopWorkers();
    KS_INFO("Deleted DistributedWorkerPool " << id);
}

void DistributedWorkerPool::endProtocolCalls() {
    boost::unique_lock<boost::mutex> lock(s_existingPoolsMutex);
    s_existingPools.erase(id);
    s_callEnded.wait(lock, [this] { return callsInProgress == 0; });
}

DistributedWorkerPool* DistributedWorkerPool::getExistingPool(const std::string& id) {
    boost::lock_guard<boost::mutex> lock(s_existingPoolsMutex);
    auto found = s_existingPools.find(id);
    return found != s_existingPools.end() ? found->second : nullptr;
}

bool DistributedWorkerPool::callExistingPool(
    const std::string& id, const std::function<void(DistributedWorkerPool&)>& call) {
    DistributedWorkerPool* pool = nullptr;
    {
        boost::lock_guard<boost::mutex> lock(s_existingPoolsMutex);
        auto found = s_existingPools.find(id);
        if (found == s_existingPools.end())
            return false;
        pool = found->second;
        ++pool->callsInProgress;
    }
    struct Leave {
        DistributedWorkerPool* pool;
        ~Leave() {
            boost::lock_guard<boost::mutex> lock(s_existingPoolsMutex);
            --pool->callsInProgress;
            s_callEnded.notify_all();
        }
    } leave{pool};
    call(*pool);
    return true;
}

void DistributedWorkerPool::setJobLog(std::shared_ptr<AbstractJobLog> log) {
    jobLog = std::move(log);
}

void DistributedWorkerPool::appendToLog(const std::string& text) {
    if (jobLog)
        jobLog->logMessage(text, -1, true);
}

const std::string& DistributedWorkerPool::wordFor(size_t count) const {
    return count == 1 ? workerNameLower : workersName;
}

size_t DistributedWorkerPool::getWaitingTaskCount() {
    boost::lock_guard<boost::mutex> lock(taskMutex);
    return waitingTasks.size();
}

size_t DistributedWorkerPool::getRunningTaskCount() {
    boost::lock_guard<boost::mutex> lock(taskMutex);
    return runningTasks.size();
}

size_t DistributedWorkerPool::getWorkerProcessCount() {
    return workerProcessCount.load();
}

size_t DistributedWorkerPool::getWorkerCount() {
    boost::lock_guard<boost::mutex> lock(workerMutex);
    size_t count = 0;
    for (const auto& process : workerProcesses)
        count += process.requestIds.size();
    return count;
}

// ---- tasks

DistributedWorkerPool::HandOverEnd::~HandOverEnd() {
    boost::lock_guard<boost::mutex> lock(pool->taskMutex);
    --pool->handOversInProgress;
    pool->taskStateCondition.notify_all();
}

void DistributedWorkerPool::addTask(std::shared_ptr<DistributedWorkerTask> task) {
    {
        boost::lock_guard<boost::mutex> lock(taskMutex);
        if (!allWorkersTerminated) {
            waitingTasks.push_back(task);
            newTaskCondition.notify_one();
            KS_TRACE("Adding task to poll " << id << ". Waiting tasks: " << waitingTasks.size());
            return;
        }
        ++handOversInProgress;
    }
    KS_ERROR("Adding tasks to pool where all workers terminated!");
    reportFailure(task, "", "All " + workersName + " terminated");
}

std::shared_ptr<std::string>
DistributedWorkerPool::getInput(GetDistributedWorkerInputRequest* request) {
    const std::string& requester = request->getName();
    std::shared_ptr<DistributedWorkerTask> task;
    {
        boost::unique_lock<boost::mutex> lock(taskMutex);
        auto stopReply = [&] {
            KS_INFO("No more waiting tasks in pool " << id);
            return inputStatusReply(*request, "STOP");
        };
        if (stopping)
            return stopReply();
        if (waitingTasks.empty() && inputWaitMs > 0) {
            KS_TRACE("Waiting for new task (" << inputWaitMs << "ms)...");
            const auto deadline =
                boost::chrono::steady_clock::now() + boost::chrono::milliseconds(inputWaitMs);
            newTaskCondition.wait_until(lock, deadline,
                                        [this] { return stopping || !waitingTasks.empty(); });
        }
        if (stopping)
            return stopReply();
        if (waitingTasks.empty()) {
            KS_INFO("No tasks available");
            return inputStatusReply(*request, "WAIT");
        }
        const unsigned int limit = settings.getMaxParallelTasks();
        if (limit != 0 && runningTasks.size() >= limit) {
            KS_INFO("Maximal number of parallel running tasks reached (" << runningTasks.size()
                                                                         << "/" << limit << ")");
            return inputStatusReply(*request, "WAIT");
        }
        task = waitingTasks.front();
        waitingTasks.pop_front();
        runningTasks[task->getId()] = task;
        taskIdByWorker[requester] = task->getId();
        taskStateCondition.notify_all();
        KS_INFO("Starting task " << task->getId() << " in pool " << id);
    }
    if (task->isDummy()) {
        KS_INFO("Dummy task in pool " << id);
        return inputStatusReply(*request, "STOP");
    }
    ReplyEncoder reply(getInputReplyType(), *request);
    reply.addElement("status", "OK");
    reply.addElement("taskId", task->getId());
    try {
        addTaskInput(reply, task, requester);
    } catch (const std::exception& e) {
        return inputFailed(request, task, e.what());
    } catch (...) {
        return inputFailed(request, task, "Unknown exception");
    }
    return std::make_shared<std::string>(reply.getEncodedReply(c_indent, c_elementIndent));
}

std::shared_ptr<std::string>
DistributedWorkerPool::inputStatusReply(const GetDistributedWorkerInputRequest& request,
                                        const std::string& status) {
    return DistributedWorkerRequestHandler::statusReply(getInputReplyType(), request, status);
}

std::shared_ptr<std::string>
DistributedWorkerPool::inputFailed(GetDistributedWorkerInputRequest* request,
                                   std::shared_ptr<DistributedWorkerTask> task,
                                   const std::string& text) {
    KS_ERROR("Exception while getting worker input for task " << task->getId() << ":\n" << text);
    if (jobLog) {
        jobLog->logMessage("\nException while getting input for task " +
                               std::to_string(task->getTask4UId()) + " for " + workerNameLower +
                               ":\n" + text + "\n",
                           -1, true);
    }
    // Out of the running ones at once: the task will have no result, and nothing else would
    // take it out before the worker's next result.
    if (takeRunningTask(task->getId(), true))
        reportFailure(task, request->getName(), "Exception while getting input:\n" + text);
    // The worker stays in service.
    return inputStatusReply(*request, "WAIT");
}

std::shared_ptr<DistributedWorkerTask>
DistributedWorkerPool::takeRunningTask(const std::string& taskId, bool forFailure) {
    boost::lock_guard<boost::mutex> lock(taskMutex);
    auto found = runningTasks.find(taskId);
    if (found == runningTasks.end())
        return nullptr;
    std::shared_ptr<DistributedWorkerTask> task = found->second;
    runningTasks.erase(found);
    for (auto it = taskIdByWorker.begin(); it != taskIdByWorker.end();)
        it = it->second == taskId ? taskIdByWorker.erase(it) : std::next(it);
    if (forFailure)
        ++handOversInProgress;
    taskStateCondition.notify_all();
    return task;
}

std::shared_ptr<DistributedWorkerTask>
DistributedWorkerPool::taskEnded(DistributedWorkerResultRequest* request) {
    const std::string& taskId = request->getTaskId();
    std::shared_ptr<DistributedWorkerTask> task = takeRunningTask(taskId, false);
    if (!task) {
        KS_ERROR("Task " << taskId << " was not running!");
        return nullptr;
    }
    KS_INFO("Task " << taskId << " in pool " << id << " ended");
    return task;
}

std::shared_ptr<std::string>
DistributedWorkerPool::handleResult(DistributedWorkerResultRequest& request) {
    {
        boost::lock_guard<boost::mutex> lock(taskMutex);
        ++handOversInProgress;
    }
    HandOverEnd end{this};
    return resultReceived(request);
}

void DistributedWorkerPool::reportFailure(std::shared_ptr<DistributedWorkerTask> task,
                                          const std::string& worker, const std::string& reason) {
    HandOverEnd end{this};
    taskFailed(std::move(task), worker, reason);
}

void DistributedWorkerPool::waitForAllTasks() {
    boost::unique_lock<boost::mutex> lock(taskMutex);
    while (!waitingTasks.empty() || !runningTasks.empty() || handOversInProgress > 0) {
        if (workerProcessCount.load() == 0 && handOversInProgress == 0)
            break;
        // The count of worker processes changes under the other mutex: look again now and then.
        taskStateCondition.wait_for(lock, boost::chrono::milliseconds(200));
    }
}

void DistributedWorkerPool::failTaskOfWorker(const std::string& worker, const std::string& reason,
                                             const char* whatHappened) {
    std::shared_ptr<DistributedWorkerTask> task;
    {
        boost::lock_guard<boost::mutex> lock(taskMutex);
        auto found = taskIdByWorker.find(worker);
        if (found == taskIdByWorker.end()) {
            KS_INFO("No tasks running on worker " << worker);
            return;
        }
        const std::string taskId = found->second;
        KS_WARN("Task " << taskId << " in pool " << id << whatHappened);
        taskIdByWorker.erase(found);
        auto running = runningTasks.find(taskId);
        if (running == runningTasks.end())
            return;
        task = running->second;
        runningTasks.erase(running);
        ++handOversInProgress;
        taskStateCondition.notify_all();
    }
    reportFailure(task, worker, reason);
}

void DistributedWorkerPool::failWaitingTasks(const std::string& reason) {
    std::deque<std::shared_ptr<DistributedWorkerTask>> failed;
    {
        boost::lock_guard<boost::mutex> lock(taskMutex);
        failed.swap(waitingTasks);
        handOversInProgress += failed.size();
        taskStateCondition.notify_all();
    }
    for (auto& task : failed)
        reportFailure(task, "", reason);
}

// ---- workers

bool DistributedWorkerPool::startWorkers() {
    boost::lock_guard<boost::mutex> lock(workerMutex);
    // Before any run request leaves: a worker may end at once.
    if (RequestServer* server = RequestServer::getInstance(-1, 0)) {
        replyConnection = server->getReplyHandler().getReplyReceivedSignal().connect(
            Signals::Slot<void(const std::string&)>(&DistributedWorkerPool::replyReceived));
    }
    return settings.useJobScheduler() ? startJobSchedulerWorkers() : startHostWorkers();
}

std::vector<WorkerProcess> DistributedWorkerPool::createHostWorkerProcesses() {
    std::vector<std::pair<const DistributedWorkerPoolSettings::WorkerHost*, unsigned int>> counts;
    for (const auto& entry : settings.getWorkerHosts()) {
        const auto& host = entry.second;
        unsigned int count = host.maxWorkersOnHost;
        if (count == 0) {
            Computing::CoresStatus status(host.hostNameOrIp,
                                          static_cast<int>(host.remoteServicePort));
            unsigned int cores = 0;
            std::string message;
            if (!status.get(cores, count, message) || count == 0) {
                appendToLog("Warning: no workers can be started on " + host.hostNameOrIp + " (" +
                            message + ").\n");
                KS_WARN("Error getting numer of cores from '"
                        << host.hostNameOrIp << ":" << host.remoteServicePort << "' (" << message
                        << ").");
                continue;
            }
        }
        const unsigned int limit = settings.getMaxParallelTasks();
        if (limit != 0 && limit < count)
            count = limit;
        KS_TRACE(count << " can be started on " << host.hostNameOrIp);
        appendToLog("Starting " + std::to_string(count) + " " + wordFor(count) + " on " +
                    host.hostNameOrIp + "...\n");
        counts.emplace_back(&host, count);
    }

    std::vector<WorkerProcess> processes;
    std::vector<const DistributedWorkerPoolSettings::WorkerHost*> hostOfProcess;
    if (separateProcesses) {
        // In rounds, one worker from each host that still has some: spreads the processes
        // evenly over the hosts.
        unsigned int number = 0;
        for (bool more = true; more;) {
            more = false;
            for (auto& entry : counts) {
                if (entry.second == 0)
                    continue;
                KS_TRACE("Creating request client for worker " << entry.second << " on "
                                                               << entry.first->hostNameOrIp);
                --entry.second;
                more = true;
                WorkerProcess process;
                process.name = entry.first->hostNameOrIp + "_" + std::to_string(number++);
                process.workersToStart = 1;
                processes.push_back(process);
                hostOfProcess.push_back(entry.first);
            }
        }
    } else {
        for (const auto& entry : counts) {
            if (entry.second == 0)
                continue;
            KS_TRACE("Creating request client for " << entry.second << " workers on "
                                                    << entry.first->hostNameOrIp);
            WorkerProcess process;
            process.name = entry.first->hostNameOrIp;
            process.workersToStart = static_cast<int>(entry.second);
            processes.push_back(process);
            hostOfProcess.push_back(entry.first);
        }
    }
    for (size_t i = 0; i < processes.size(); ++i) {
        const auto& host = *hostOfProcess[i];
        auto starter =
            RemoteServiceRequestServerStarter::createRemoteServiceOrLocalRequestServerStarter(
                workerExecutable, host.hostNameOrIp, host.remoteServicePort, jobId,
                workerName + "_" + std::to_string(i));
        processes[i].client =
            std::make_shared<TcpRequestClient>(workerName + "_" + processes[i].name, starter);
    }
    return processes;
}

bool DistributedWorkerPool::startHostWorkers() {
    workerProcesses = createHostWorkerProcesses();
    workerProcessCount = workerProcesses.size();
    unsigned int started = 0;
    for (bool more = true; more;) {
        more = false;
        for (auto& process : workerProcesses) {
            if (process.workersToStart <= 0)
                continue;
            more = true;
            try {
                if (process.client->getPublisherPort() <= 0) {
                    auto status = process.client->sendGetStatusRequest();
                    if (auto unreachable =
                            std::dynamic_pointer_cast<RequestServerUnreachableReply>(status))
                        throw std::runtime_error(unreachable->getErrorMessage());
                }
                std::string worker = workerNameLower + "_" + process.name;
                if (!separateProcesses)
                    worker += "_" + std::to_string(process.workersToStart - 1);
                sendRunRequest(process, worker);
                watchWorker(process, process.client->getHost(), worker);
                ++started;
            } catch (const std::exception& e) {
                appendToLog("Error starting " + workerNameLower + " on " + process.name + "!\n" +
                            e.what() + "\n\n");
                KS_WARN("Error starting worker: '" << process.client->getDescription() << "' ("
                                                   << process.client.get() << ").\n"
                                                   << e.what());
            } catch (...) {
                appendToLog("Error starting " + workerNameLower + " on " + process.name + "!");
                KS_WARN("Error starting worker: '" << process.client->getDescription() << "' ("
                                                   << process.client.get() << ").");
            }
            process.workersToStart -= 1;
        }
    }
    // A process none of whose workers could be ordered is not ours to wait for.
    for (auto it = workerProcesses.begin(); it != workerProcesses.end();) {
        if (!it->requestIds.empty()) {
            ++it;
            continue;
        }
        it->client->shutdownRequestServer();
        it = workerProcesses.erase(it);
    }
    workerProcessCount = workerProcesses.size();
    startPingThread();
    if (started > 0) {
        appendToLog("Started " + std::to_string(started) + " " + wordFor(started) + ".\n");
        return true;
    }
    appendToLog("Error: no " + workersName + " could be started\n\n");
    return false;
}

void DistributedWorkerPool::sendRunRequest(WorkerProcess& process, const std::string& worker) {
    RequestEncoder request(getRunRequestType());
    request.addElement("poolId", id, c_elementIndent);
    request.addElement("name", worker, c_elementIndent);
    request.addText(jobId.toXml(c_elementIndent, c_elementIndent), "", false);
    request.addElement("cores", coresPerWorker, c_elementIndent);
    request.addElement("releaseCores", releaseCoresAfterEachTask, c_elementIndent);
    addRunRequestContent(request);
    // Known before the request leaves: a worker may end before sendRequest returns.
    process.requestIds[worker] = request.getId();
    {
        boost::lock_guard<boost::mutex> lock(s_runningWorkerRequestIdsMutex);
        s_runningWorkerRequestIds[request.getId()] = this;
    }
    try {
        process.client->sendRequest(request, nullptr, "", nullptr);
        ++startedWorkers;
    } catch (...) {
        process.requestIds.erase(worker);
        boost::lock_guard<boost::mutex> lock(s_runningWorkerRequestIdsMutex);
        s_runningWorkerRequestIds.erase(request.getId());
        throw;
    }
}

void DistributedWorkerPool::watchWorker(WorkerProcess& process, const HostInfo& host,
                                        const std::string& worker) {
    if (!subscriber) {
        subscriber = std::make_unique<DistributedWorkerSubscriber>(getWorkerMaxAliveAge(),
                                                                   getWorkerMaxChangeAge());
        subscriberConnection = subscriber->workerLost().connect(
            Signals::Slot<void(const std::string&, const std::string&)>(
                [this](const std::string& name, const std::string& reason) {
                    slotWorkerNotResponding(name, reason);
                }));
        subscriber->start();
    }
    subscriber->addWorker(process, host, worker);
}

bool DistributedWorkerPool::startJobSchedulerWorkers() {
    const unsigned int jobs = settings.getMaxParallelTasks();
    const std::string& script = settings.getJobSchedulerScript();
    KS_TRACE("Starting " << jobs << " workers using job scheduler");
    RequestServer* server = RequestServer::getInstance(-1, 0);
    for (unsigned int i = 0; i < jobs; ++i) {
        WorkerProcess process;
        process.name = "JobSchedulerWorker_" + std::to_string(i);
        process.workersToStart = 1;
        std::vector<std::string> command{workerExecutable, "-jobName"};
        jobId.toCmd(command);
        command.push_back("-logFileSuffix");
        command.push_back(workerName + "_" + std::to_string(i));
        command.push_back("-jobSchedulerDistributedWorker");
        command.push_back(id);
        command.push_back(server ? server->getHostName() : std::string());
        command.push_back(std::to_string(server ? server->getPort() : 0));
        command.push_back(std::to_string(i));
        for (const auto& arg : LoggingSettings::get()->getCmdArgs())
            command.push_back(arg);
        const std::string commandLine = boost::algorithm::join(command, " ");

        Computing::LSFSubmitInfo info;
        info.cores = static_cast<int>(getJobSchedulerWorkerCores());
        info.minimumCores = 1;
        info.script = script;
        info.jobName = jobId.getName().empty() ? workerName : jobId.getName();
        info.tmpPath = PathConfiguration::getKsPathTmp().toString();
        KS_INFO("Submitting worker \"" << commandLine << "\" using job scheduler " << script
                                       << "...");
        Computing::JobSubmitLSF submit;
        std::string message;
        const int job = submit.execute(command, info, message);
        if (job > 0) {
            process.lsfJobId = job;
            workerProcesses.push_back(process);
            appendToLog(workerName + " " + std::to_string(i) + " submitted to job scheduler:\n" +
                        message + "\n");
            KS_INFO("Worker submitted to job scheduler (commandLine="
                    << commandLine << ", lsfJobId=" << job << "):\n"
                    << message);
        } else {
            appendToLog("Error submitting " + workerName + " to job scheduler:\n" +
                        submit.getErrorMessage() + message + "\n\n");
            KS_ERROR("Error submitting worker to job scheduler.\n(JobSubmitLSF, script="
                     << script << ", commandLine='" << commandLine << "):\n"
                     << submit.getErrorMessage() << message);
        }
    }
    workerProcessCount = workerProcesses.size();
    if (workerProcesses.empty()) {
        appendToLog("Error: no " + workersName + " could be submitted\n\n");
        return false;
    }
    appendToLog("Submitted " + std::to_string(workerProcesses.size()) + " " +
                wordFor(workerProcesses.size()) + ".\n\n");
    checkThread = std::make_unique<CheckJobSchedulerWorkersThread>(this, getWorkerMaxAliveAge());
    checkThread->start();
    startPingThread();
    return true;
}

std::shared_ptr<std::string>
DistributedWorkerPool::callbackReceived(DistributedWorkerCallbackRequest* request) {
    const unsigned int workerId = request->getWorkerId();
    const std::string name = "JobSchedulerWorker_" + std::to_string(workerId);
    {
        boost::lock_guard<boost::mutex> lock(workerMutex);
        if (stopping) {
            KS_INFO("Pool is stopping: stop worker " << workerId);
            return DistributedWorkerRequestHandler::statusReply("AckReply", *request, "STOP");
        }
        auto found =
            std::find_if(workerProcesses.begin(), workerProcesses.end(),
                         [&name](const WorkerProcess& process) { return process.name == name; });
        if (found == workerProcesses.end()) {
            KS_ERROR("No worker found for id " << workerId);
            return DistributedWorkerRequestHandler::statusReply("AckReply", *request,
                                                                "WORKER_NOT_FOUND");
        }
        if (found->workersToStart <= 0) {
            KS_ERROR("No unstarted workers for id " << workerId);
            return DistributedWorkerRequestHandler::statusReply("AckReply", *request,
                                                                "WORKER_ALREADY_STARTED");
        }
        const HostInfo& host = request->getHost();
        KS_INFO("Callback for worker " << name << " received. " << host.toString());
        found->workersToStart -= 1;
        found->client = std::make_shared<TcpRequestClient>(name, host);
        try {
            sendRunRequest(*found, name);
            watchWorker(*found, host, name);
            appendToLog(workerName + " " + name + " started on " + host.getIpOrName() + "\n");
            return DistributedWorkerRequestHandler::statusReply("AckReply", *request, "OK");
        } catch (const std::exception& e) {
            KS_WARN("Error starting worker: '" << found->client->getDescription() << "' ("
                                               << found->client.get() << ").\n"
                                               << e.what());
        }
    }
    // A worker without its run request would never get a task: it is given up like a lost one
    // (outside the lock, which giving up takes again).
    forgetWorker(name, WorkerEnd::Lost);
    return DistributedWorkerRequestHandler::statusReply("AckReply", *request, "OK");
}

void DistributedWorkerPool::replyReceived(const std::string& requestId) {
    boost::shared_lock<boost::shared_mutex> delivering(s_replyDeliveryMutex);
    DistributedWorkerPool* pool = nullptr;
    {
        boost::lock_guard<boost::mutex> lock(s_runningWorkerRequestIdsMutex);
        auto found = s_runningWorkerRequestIds.find(requestId);
        if (found == s_runningWorkerRequestIds.end())
            return;
        pool = found->second;
    }
    pool->workerReplyReceived(requestId);
}

void DistributedWorkerPool::workerReplyReceived(const std::string& requestId) {
    if (stopping)
        return;
    std::string worker;
    {
        boost::lock_guard<boost::mutex> lock(workerMutex);
        for (const auto& process : workerProcesses)
            for (const auto& entry : process.requestIds)
                if (entry.second == requestId)
                    worker = entry.first;
    }
    if (worker.empty())
        return;
    // Taken, so that it does not linger in the reply handler.
    if (RequestServer* server = RequestServer::getInstance(-1, 0))
        server->getReplyHandler().getReply(requestId);
    workerEnded(worker, WorkerEnd::Terminated);
}

void DistributedWorkerPool::workerEnded(const std::string& worker, WorkerEnd end) {
    failTaskOfWorker(worker, "No reply before worker terminated.",
                     " was running on worker that has terminated");
    forgetWorker(worker, end);
}

void DistributedWorkerPool::startPingThread() {
    if (pingThread || workerProcesses.empty())
        return;
    auto config = RequestServerConfiguration::getRegisteredInstance();
    pingThread = std::make_unique<WorkerProcessPingThread>(
        std::min(config->getLocalRPingIntervalSec(), config->getRPingIntervalSec()),
        [this] {
            std::vector<WorkerProcessPingThread::Target> targets;
            boost::lock_guard<boost::mutex> lock(workerMutex);
            for (const auto& process : workerProcesses)
                if (process.client && !process.requestIds.empty())
                    targets.push_back({process.name, process.client->getHost()});
            return targets;
        },
        [this](const std::string& processName, const std::string& reason) {
            workerProcessEnded(processName, reason);
        });
    pingThread->start();
}

void DistributedWorkerPool::workerProcessEnded(const std::string& processName,
                                               const std::string& reason) {
    if (stopping)
        return;
    std::vector<std::string> workers;
    {
        boost::lock_guard<boost::mutex> lock(workerMutex);
        for (const auto& process : workerProcesses)
            if (process.name == processName)
                for (const auto& entry : process.requestIds)
                    workers.push_back(entry.first);
    }
    KS_INFO("Worker process " << processName << " has ended (" << reason << "): " << workers.size()
                              << " run requests will get no reply.");
    for (const auto& worker : workers)
        workerEnded(worker, WorkerEnd::Vanished);
}

void DistributedWorkerPool::slotWorkerNotResponding(const std::string& worker,
                                                    const std::string& reason) {
    KS_WARN("Worker " << worker << " not respoding: " << reason);
    failTaskOfWorker(worker, reason, " was running on worker that is not responding");
    forgetWorker(worker, WorkerEnd::Lost);
}

void DistributedWorkerPool::jobSchedulerWorkerJobTerminated(const std::string& worker,
                                                            const std::string& reason) {
    KS_WARN("Job scheduler worker " << worker << " job is not running anymore: " << reason);
    failTaskOfWorker(worker, reason, " was running on worker that is not responding");
    forgetWorker(worker, WorkerEnd::Lost);
}

void DistributedWorkerPool::forgetWorker(const std::string& worker, WorkerEnd end) {
    const bool lost = end == WorkerEnd::Lost;
    std::shared_ptr<TcpRequestClient> endedProcess;
    bool noneLeft = false;
    {
        boost::lock_guard<boost::mutex> lock(workerMutex);
        auto process =
            std::find_if(workerProcesses.begin(), workerProcesses.end(),
                         [&worker](const WorkerProcess& candidate) {
                             // A job that never called back or whose run
                             // request failed has no requests of its own.
                             return candidate.requestIds.count(worker) > 0 ||
                                    (candidate.requestIds.empty() && candidate.name == worker);
                         });
        if (process == workerProcesses.end())
            return;
        if (process->requestIds.count(worker)) {
            if (lost)
                KS_INFO("Remove worker requests...");
            {
                boost::lock_guard<boost::mutex> idsLock(s_runningWorkerRequestIdsMutex);
                s_runningWorkerRequestIds.erase(process->requestIds[worker]);
            }
            process->requestIds.erase(worker);
            if (!lost)
                KS_INFO("Worker " << worker << " terminated.");
            if (subscriber)
                subscriber->removeWorker(*process, worker);
        }
        // A job that never called back has no requests: it is gone as a whole.
        if (!process->client || (process->requestIds.empty() && process->workersToStart <= 0)) {
            KS_INFO("No more workers on process "
                    << process->name << ". "
                    << (lost ? "Trying to stop process." : "Stopping process."));
            endedProcess = process->client;
            if (subscriber)
                subscriber->removeProcess(*process);
            workerProcesses.erase(process);
            workerProcessCount = workerProcesses.size();
        }
        noneLeft = workerProcesses.empty();
    }
    {
        boost::lock_guard<boost::mutex> lock(taskMutex);
        taskStateCondition.notify_all();
    }
    // Outside the lock: a process that hangs must not hold up the pool.
    if (endedProcess && end != WorkerEnd::Vanished)
        endedProcess->shutdownRequestServer();
    if (!noneLeft) {
        if (lost)
            KS_INFO("NOT all worker have failed");
        return;
    }
    allWorkersTerminated = true;
    if (lost) {
        KS_WARN("No more worker processes!");
        KS_INFO("All worker have stopped or failed");
    } else {
        const size_t waiting = getWaitingTaskCount();
        if (waiting > 0)
            KS_WARN(waiting << " waiting tasks left after all worker processes have stopped!");
    }
    failWaitingTasks("All " + workersName + " failed");
}

void DistributedWorkerPool::stopWorkers() {
    boost::lock_guard<boost::mutex> lock(workerMutex);
    KS_TRACE("Stopping " << workerProcesses.size() << " worker processes...");
    {
        boost::lock_guard<boost::mutex> taskLock(taskMutex);
        stopping = true;
        newTaskCondition.notify_all();
    }
    const std::string& script = settings.getJobSchedulerScript();
    for (auto& process : workerProcesses) {
        const auto requestIds = process.requestIds;
        if (!process.client) {
            KS_TRACE("Worker  " << process.name << " not yet started.");
            if (process.lsfJobId >= 1) {
                Computing::JobRemoveLSF remove;
                std::string message;
                if (remove.execute(process.lsfJobId, script, message)) {
                    KS_INFO("Worker removed from job scheduler (lsfJobId=" << process.lsfJobId
                                                                           << "):\n"
                                                                           << message);
                    process.lsfJobId = -1;
                } else {
                    KS_ERROR("Error removeing worker from job scheduler.\n(JobRemoveLSF, script="
                             << script << ", lsfJobId=" << process.lsfJobId << "):\n"
                             << remove.getErrorMessage()
                             << (message.empty() ? std::string() : "\n" + message));
                }
            }
            continue;
        }
        try {
            KS_TRACE("Stopping " << requestIds.size() << " workers running on " << process.name
                                 << "...");
            for (const auto& entry : requestIds)
                process.client->abortRequest(entry.second);
            process.client->shutdownRequestServer();
            KS_TRACE("Worker process stopped: '" << process.name << "'");
        } catch (const std::exception& e) {
            KS_ERROR("Error stopping worker: '" << process.name << "'\n" << e.what());
        } catch (...) {
            KS_ERROR("Error stopping worker: '" << process.name << "'");
        }
    }
    const size_t count = workerProcesses.size();
    workerProcesses.clear();
    workerProcessCount = 0;
    appendToLog("\n\nStopped all " + std::to_string(count) + " " + wordFor(count) + "...\n");
}

} // namespace Kestrane
