#pragma once

#include <string>

namespace Kestrane {
namespace Tasks {

// A unit of work for a WorkerPool. Derived classes supply execute(); the pool calls
// prepareRun(), execute(), finalize() and finalizeRun() in that order on one worker.
class Task {
public:
    virtual ~Task();
    virtual void prepareRun() {}
    virtual void execute() = 0;
    virtual void finalize() {}
    virtual void finalizeRun() {}
    virtual void waitForTaskFinalized() {}

    const std::string& getName() const { return m_name; }

protected:
    explicit Task(const std::string& name) : m_name(name) {}

private:
    std::string m_name;
};

} // namespace Tasks
} // namespace Kestrane
