#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileBase.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Thread.h"

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

namespace Kestrane {

// Companion of one file transfer: runs beside a FileSender or FileReceiver until the owner
// calls cancel(). Derived classes supply the body.
class FileTransferThread : public Thread {
public:
    explicit FileTransferThread(Computing::FileBase& fileTransfer);

    // Ends the companion: wakes its wait and makes its loop stop.
    void cancel();

protected:
    // Waits on the condition until the deadline or a cancel; the mutex is held by `lock`.
    // Returns whether the thread was cancelled.
    bool waitMilliseconds(boost::unique_lock<boost::mutex>& lock, uint64_t milliseconds);

    bool m_cancelled = false;
    boost::condition_variable_any m_condition;
    boost::mutex m_mutex; // guards m_cancelled
    Computing::FileBase& m_fileTransfer;
};

} // namespace Kestrane
