#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Task.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Thread.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace Kestrane {
namespace Tasks {

class WorkerPool;

// One thread of a pool: takes tasks from the queue until the pool shuts down.
class Worker : public Thread {
public:
    explicit Worker(WorkerPool& pool);
    ~Worker() override;
    void executeRun() override;

private:
    WorkerPool& m_pool;
};

// A pool of at most `size` worker threads; workers are made as tasks arrive. Tasks wait in
// arrival order when all workers are busy.
class WorkerPool {
public:
    WorkerPool(unsigned int size, Thread::Priority priority);
    virtual ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Queues a task and returns at once; the pool keeps the task alive until it has run.
    void addTask(std::shared_ptr<Task> task);
    // Blocks until every queued task has finished.
    void waitForAllTasks();
    // Workers running a task at this moment.
    uint64_t getBusyWorkersCount() const;
    uint64_t getQueuedTasksCount() const;
    unsigned int getSize() const { return m_size; }

protected:
    virtual std::unique_ptr<Worker> createWorker();

private:
    friend class Worker;
    // Next task for a worker; null when the pool shuts down.
    std::shared_ptr<Task> takeTask();
    void taskDone();
    static void runTask(Task& task);

    unsigned int m_size;
    Thread::Priority m_priority;
    // Standard primitives: Boost's interruptible condition variable takes an internal mutex on
    // every wait and notify, which costs each hand-off of a task several more system calls.
    mutable std::mutex m_mutex;
    std::condition_variable m_taskAvailable;
    std::condition_variable m_allDone;
    std::deque<std::shared_ptr<Task>> m_queue;
    std::vector<std::unique_ptr<Worker>> m_workers;
    uint64_t m_busy = 0;
    uint64_t m_idle = 0;
    bool m_shutdown = false;
};

} // namespace Tasks
} // namespace Kestrane
