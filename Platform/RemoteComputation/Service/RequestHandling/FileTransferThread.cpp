#include "Platform/RemoteComputation/Service/RequestHandling/FileTransferThread.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <boost/chrono.hpp>

namespace Kestrane {

namespace {
Kestrane::Logging s_logging(__FILE__);
}

FileTransferThread::FileTransferThread(Computing::FileBase& fileTransfer)
    : Thread(""), m_fileTransfer(fileTransfer) {}

void FileTransferThread::cancel() {
    boost::unique_lock<boost::mutex> lock(m_mutex);
    KS_DEBUG("Cancelling");
    m_cancelled = true;
    m_condition.notify_all();
}

bool FileTransferThread::waitMilliseconds(boost::unique_lock<boost::mutex>& lock,
                                          uint64_t milliseconds) {
    const auto deadline =
        boost::chrono::steady_clock::now() + boost::chrono::milliseconds(milliseconds);
    while (!m_cancelled) {
        if (m_condition.wait_until(lock, deadline) == boost::cv_status::timeout)
            break;
    }
    return m_cancelled;
}

} // namespace Kestrane
