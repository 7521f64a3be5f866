#include "Platform/RemoteComputation/Service/RequestHandling/FileTransferAliveThread.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"

#include <algorithm>

namespace Kestrane {

namespace {
Kestrane::Logging s_logging(__FILE__);
}

FileTransferAliveThread::FileTransferAliveThread(Computing::FileBase& fileTransfer)
    : FileTransferThread(fileTransfer),
      m_updateInterval(
          RequestServerConfiguration::getRegisteredInstance()->getAlivePublishInterval()) {
    KS_TRACE("Created FileTransferAliveThread (updateInterval=" << m_updateInterval << ")");
}

FileTransferAliveThread::~FileTransferAliveThread() {
    cancel();
    finalize();
}

void FileTransferAliveThread::executeRun() {
    boost::unique_lock<boost::mutex> lock(m_mutex);
    KS_DEBUG("Started FileTransferAliveThread");
    LivingProcess::alive("transferingFile", "");
    while (!m_cancelled) {
        KS_TRACE("before wait");
        waitMilliseconds(lock, std::max(m_updateInterval, 10u));
        KS_TRACE("after wait");
        bool noTransfer = false;
        uint64_t totalSize = 0;
        uint64_t doneSize = 0;
        m_fileTransfer.getProgress(noTransfer, totalSize, doneSize);
        KS_TRACE("noTransfer=" << noTransfer << ", totalSize=" << totalSize
                               << ", doneSize=" << doneSize);
        if (totalSize == 0)
            continue;
        if (noTransfer)
            break;
        LivingProcess::alive("transferingFile", "");
        if (doneSize == totalSize)
            break;
    }
    KS_DEBUG("Ended FileTransferAliveThread");
}

} // namespace Kestrane
