#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerPoolSettings.h"
#include "Platform/RemoteComputation/Service/RequestHandling/WorkerProcess.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/GenericJobId.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Signals.h"

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

class AbstractJobLog;
class DistributedWorkerCallbackRequest;
class DistributedWorkerResultRequest;
class DistributedWorkerSubscriber;
class DistributedWorkerTask;
class GetDistributedWorkerInputRequest;
class HostInfo;
class ReplyEncoder;
class WorkerProcessPingThread;
class RequestEncoder;

// Spreads a program's tasks over worker processes on hosts (started through their starter
// services) or under a job scheduler. The pool is a passive store in the master process:
// workers fetch tasks and send results, and a task stays bound to the worker that fetched it
// until its result comes or that worker is given up. A lost worker is noticed three ways: the
// reply to its run request, the silence of its heartbeat, the job scheduler's word. Its task is
// then handed to taskFailed; the pool never retries a task itself.
//
// Use: derive, construct, setJobLog, startWorkers, addTask for each task, waitForAllTasks,
// stopWorkers, destroy. A derived class whose destructor may run with workers still up calls
// stopWorkers() and then endProtocolCalls() there: the base's destructor can no longer reach the
// derived part, and the calls under way may still be inside it.
class DistributedWorkerPool {
public:
    class CheckJobSchedulerWorkersThread;

    virtual ~DistributedWorkerPool();
    DistributedWorkerPool(const DistributedWorkerPool&) = delete;
    DistributedWorkerPool& operator=(const DistributedWorkerPool&) = delete;

    // Takes the result, calls taskEnded with it and returns the encoded reply (an "AckReply").
    virtual std::shared_ptr<std::string>
    resultReceived(DistributedWorkerResultRequest& request) = 0;
    // Type of the program's request that starts a worker, derived from
    // RunDistributedWorkerRequest.
    virtual const std::string& getRunRequestType() = 0;
    // Adds the program's elements to the run request.
    virtual void addRunRequestContent(RequestEncoder& encoder) = 0;
    // Type of the reply that carries a task's input.
    virtual const std::string& getInputReplyType() = 0;
    // Adds the task's input to the reply. May throw: the task then fails and the worker waits.
    virtual void addTaskInput(ReplyEncoder& encoder, std::shared_ptr<DistributedWorkerTask> task,
                              const std::string& workerName) = 0;
    // Seconds without heartbeat after which a worker counts as dead; also the period of the job
    // scheduler checks.
    virtual unsigned int getWorkerMaxAliveAge() = 0;
    // Seconds without a change of heartbeat after which a worker counts as hung.
    virtual unsigned int getWorkerMaxChangeAge() = 0;
    // Cores to ask of the job scheduler for one worker.
    virtual unsigned int getJobSchedulerWorkerCores() = 0;
    // The task will get no result; `workerName` is empty when no worker was involved. Called on
    // the pool's threads (subscriber, check thread, reply handling) or on the caller's.
    virtual void taskFailed(std::shared_ptr<DistributedWorkerTask> task,
                            const std::string& workerName, const std::string& reason) = 0;

    // Passes a result to resultReceived; waitForAllTasks waits until that has returned.
    std::shared_ptr<std::string> handleResult(DistributedWorkerResultRequest& request);

    static DistributedWorkerPool* getExistingPool(const std::string& id);
    // Runs `call` on the pool of that id, which is not destroyed before the call returns; false
    // without such a pool. The way in for the requests of the worker protocol.
    static bool callExistingPool(const std::string& id,
                                 const std::function<void(DistributedWorkerPool&)>& call);
    const std::string& getId() const { return id; }
    unsigned int getMaxParallelTasks() const { return settings.getMaxParallelTasks(); }
    void setJobLog(std::shared_ptr<AbstractJobLog> jobLog);

    void addTask(std::shared_ptr<DistributedWorkerTask> task);
    // The encoded reply for a worker: a task's input ("OK"), "WAIT" or "STOP". Waits up to
    // inputWaitMs for a task when none is waiting.
    std::shared_ptr<std::string> getInput(GetDistributedWorkerInputRequest* request);
    // Returns when no task is waiting or running, or when no worker process is left.
    void waitForAllTasks();

    // True when at least one worker was started or submitted.
    bool startWorkers();
    void stopWorkers();
    // A job scheduler worker announces itself; the reply's status says whether it may run.
    std::shared_ptr<std::string> callbackReceived(DistributedWorkerCallbackRequest* request);
    // Connected to the reply signal of this process's ReplyHandler: a reply to a run request
    // means that the worker has ended.
    static void replyReceived(const std::string& requestId);

    size_t getWaitingTaskCount();
    size_t getRunningTaskCount();
    // Worker processes (or jobs) still known to the pool.
    size_t getWorkerProcessCount();
    // Workers whose run request is open.
    size_t getWorkerCount();
    // Workers ordered since the start, ended ones included.
    size_t getStartedWorkerCount() const { return startedWorkers.load(); }

protected:
    DistributedWorkerPool(const DistributedWorkerPoolSettings& settings,
                          const std::string& workerExecutable, const GenericJobId& jobId,
                          const std::string& workerName, unsigned int coresPerWorker,
                          bool releaseCoresAfterEachTask, bool separateProcesses,
                          unsigned int inputWaitMs);

    // Takes the pool out of reach of the worker protocol and waits until the calls under way in
    // it have returned. For the destructor of a derived class, before its own part goes; never
    // from inside such a call.
    void endProtocolCalls();

    // The running task of the result, taken out of the running ones; null when it was not
    // running (its worker was given up, or the id is unknown).
    std::shared_ptr<DistributedWorkerTask> taskEnded(DistributedWorkerResultRequest* request);
    void slotWorkerNotResponding(const std::string& workerName, const std::string& reason);
    void jobSchedulerWorkerJobTerminated(const std::string& workerName, const std::string& reason);

private:
    // Terminated: its run request was answered; Vanished: its process is gone, so there is
    // nobody to ask to shut down; Lost: it stopped giving signs of life.
    enum class WorkerEnd { Terminated, Vanished, Lost };
    // Ends the count of one hand-over to the program, however it returns.
    struct HandOverEnd {
        DistributedWorkerPool* pool;
        ~HandOverEnd();
    };
    void workerReplyReceived(const std::string& requestId);
    // The worker's run request has been answered, or can't be any more.
    void workerEnded(const std::string& workerName, WorkerEnd end);
    void appendToLog(const std::string& text);
    const std::string& wordFor(size_t count) const;
    bool startHostWorkers();
    bool startJobSchedulerWorkers();
    std::vector<WorkerProcess> createHostWorkerProcesses();
    // Sends the run request for one worker of the process. The caller holds workerMutex.
    void sendRunRequest(WorkerProcess& process, const std::string& workerName);
    // Enters the worker in the subscriber, made at the first worker. The caller holds
    // workerMutex.
    void watchWorker(WorkerProcess& process, const HostInfo& host, const std::string& workerName);
    // Fails the task of a lost worker, if it had one.
    void failTaskOfWorker(const std::string& workerName, const std::string& reason,
                          const char* whatHappened);
    std::shared_ptr<std::string> inputStatusReply(const GetDistributedWorkerInputRequest& request,
                                                  const std::string& status);
    std::shared_ptr<std::string> inputFailed(GetDistributedWorkerInputRequest* request,
                                             std::shared_ptr<DistributedWorkerTask> task,
                                             const std::string& text);
    // Takes the task out of the running ones; with `forFailure` it counts as a failure under
    // way, which reportFailure ends.
    std::shared_ptr<DistributedWorkerTask> takeRunningTask(const std::string& taskId,
                                                           bool forFailure);
    // Calls taskFailed without any lock held, so that the program may add the task again.
    void reportFailure(std::shared_ptr<DistributedWorkerTask> task, const std::string& worker,
                       const std::string& reason);
    // Forgets an ended or lost worker, its process when it was the last there, and fails the
    // waiting tasks when no process is left.
    void forgetWorker(const std::string& workerName, WorkerEnd end);
    void failWaitingTasks(const std::string& reason);
    // Watches the worker processes' request servers: one that refuses connections has ended,
    // and its run requests will get no reply. The caller holds workerMutex.
    void startPingThread();
    void workerProcessEnded(const std::string& processName, const std::string& reason);

    std::string id;
    DistributedWorkerPoolSettings settings;
    bool separateProcesses;
    std::string workerExecutable;
    GenericJobId jobId;
    std::string workerName;
    std::string workerNameLower;
    std::string workersName;
    unsigned int coresPerWorker;
    bool releaseCoresAfterEachTask;
    unsigned int inputWaitMs;
    std::shared_ptr<AbstractJobLog> jobLog;
    Signals::Connection replyConnection;
    Signals::Connection subscriberConnection;

    std::vector<WorkerProcess> workerProcesses;
    std::unique_ptr<DistributedWorkerSubscriber> subscriber;
    std::unique_ptr<CheckJobSchedulerWorkersThread> checkThread;
    std::unique_ptr<WorkerProcessPingThread> pingThread;
    std::atomic<size_t> workerProcessCount{0};
    std::atomic<size_t> startedWorkers{0};
    std::atomic<bool> allWorkersTerminated{false};
    std::atomic<bool> stopping{false};
    // Results and failures on their way to the program (resultReceived, taskFailed): tasks
    // that the program may still count or add again.
    size_t handOversInProgress = 0;

    std::deque<std::shared_ptr<DistributedWorkerTask>> waitingTasks;
    std::map<std::string, std::shared_ptr<DistributedWorkerTask>> runningTasks;
    std::map<std::string, std::string> taskIdByWorker;

    boost::mutex workerMutex;
    boost::mutex taskMutex;
    boost::condition_variable_any newTaskCondition;
    boost::condition_variable_any taskStateCondition;

    static std::map<std::string, DistributedWorkerPool*> s_existingPools;
    static boost::mutex s_existingPoolsMutex;
    // Calls of the worker protocol under way, under s_existingPoolsMutex: the destructor waits
    // for them.
    size_t callsInProgress = 0;
    static boost::condition_variable_any s_callEnded;
    static std::map<std::string, DistributedWorkerPool*> s_runningWorkerRequestIds;
    static boost::mutex s_runningWorkerRequestIdsMutex;
};

} // namespace Kestrane
