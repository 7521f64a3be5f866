#include "Platform/RemoteComputation/Service/ServiceInterfaces/WorkerPool.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

namespace Kestrane {
namespace Tasks {

namespace {
Logging s_logging(__FILE__);
}

Worker::Worker(WorkerPool& pool) : Thread("Worker"), m_pool(pool) {}

Worker::~Worker() {
    finalize();
}

void Worker::executeRun() {
    while (auto task = m_pool.takeTask()) {
        WorkerPool::runTask(*task);
        task.reset(); // the task dies before the pool counts it as done
        m_pool.taskDone();
    }
}

WorkerPool::WorkerPool(unsigned int size, Thread::Priority priority)
    : m_size(size == 0 ? 1 : size), m_priority(priority) {}

WorkerPool::~WorkerPool() {
    // The workers are taken out under the lock: a running task may still add tasks, which the
    // remaining workers run before they end.
    std::vector<std::unique_ptr<Worker>> workers;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_shutdown = true;
        workers.swap(m_workers);
    }
    m_taskAvailable.notify_all();
    workers.clear(); // each worker joins its thread
}

std::unique_ptr<Worker> WorkerPool::createWorker() {
    return std::make_unique<Worker>(*this);
}

void WorkerPool::addTask(std::shared_ptr<Task> task) {
    if (!task)
        return;
    bool needWorker = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_queue.push_back(std::move(task));
        // A new worker only when no idle one can take the task.
        needWorker = !m_shutdown && m_idle < m_queue.size() && m_workers.size() < m_size;
        if (needWorker) {
            m_workers.push_back(createWorker());
            m_workers.back()->start(true);
        }
    }
    m_taskAvailable.notify_one();
}

std::shared_ptr<Task> WorkerPool::takeTask() {
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_idle;
    m_taskAvailable.wait(lock, [this] { return m_shutdown || !m_queue.empty(); });
    --m_idle;
    if (m_queue.empty())
        return nullptr;
    auto task = std::move(m_queue.front());
    m_queue.pop_front();
    ++m_busy;
    return task;
}

void WorkerPool::taskDone() {
    std::lock_guard<std::mutex> lock(m_mutex);
    --m_busy;
    if (m_busy == 0 && m_queue.empty())
        m_allDone.notify_all();
}

void WorkerPool::runTask(Task& task) {
    try {
        task.prepareRun();
        task.execute();
        task.finalize();
        task.finalizeRun();
    } catch (const KsException& e) {
        KS_ERROR("Task '" << task.getName() << "' ended by " << e.getName() << ": " << e.log());
    } catch (const std::exception& e) {
        KS_ERROR("Task '" << task.getName() << "' ended by std::exception: " << e.what());
    } catch (...) {
        KS_ERROR("Task '" << task.getName() << "' ended by an unknown exception");
    }
}

void WorkerPool::waitForAllTasks() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_allDone.wait(lock, [this] { return m_busy == 0 && m_queue.empty(); });
}

uint64_t WorkerPool::getBusyWorkersCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_busy;
}

uint64_t WorkerPool::getQueuedTasksCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_queue.size();
}

} // namespace Tasks
} // namespace Kestrane
