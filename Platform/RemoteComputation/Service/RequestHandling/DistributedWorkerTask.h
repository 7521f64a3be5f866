#pragma once

#include <string>

namespace Kestrane {

// One unit of work of a DistributedWorkerPool. The program derives its task with the data the
// work needs; the id binds the task to the worker that fetched it and to its result.
class DistributedWorkerTask {
public:
    virtual ~DistributedWorkerTask();

    // A dummy task stops the one worker that fetches it, instead of giving it work.
    virtual bool isDummy() const = 0;

    const std::string& getId() const { return id; }
    // The program's own number for the task.
    int getTask4UId() const { return task4UId; }

protected:
    explicit DistributedWorkerTask(int task4UId);
    DistributedWorkerTask(const DistributedWorkerTask&) = default;
    DistributedWorkerTask& operator=(const DistributedWorkerTask&) = default;

private:
    std::string id;
    int task4UId;
};

} // namespace Kestrane
