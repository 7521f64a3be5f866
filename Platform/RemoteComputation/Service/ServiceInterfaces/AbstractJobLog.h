#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace Kestrane {

// Sink for the progress lines of one job. Owners hold derived objects by shared_ptr, hence the
// protected destructor: nobody deletes a job log through this base.
class AbstractJobLog {
public:
    // Name of the kind of log, for log lines.
    virtual std::string getName() = 0;
    // One progress line. The library passes the text, -1 and true; the meaning of the number and
    // the flag is the derived class's. Returns 0 on success.
    virtual int logMessage(const std::string& text, int64_t value, bool flag) = 0;
    // Opaque data of the job that the log belongs to; null when there is none.
    virtual std::shared_ptr<void> getJobContext() = 0;
    // Pushes out what the log has buffered. Returns 0 on success.
    virtual int flush() = 0;

protected:
    AbstractJobLog() = default;
    AbstractJobLog(const AbstractJobLog&) = default;
    AbstractJobLog& operator=(const AbstractJobLog&) = default;
    virtual ~AbstractJobLog();
};

} // namespace Kestrane
