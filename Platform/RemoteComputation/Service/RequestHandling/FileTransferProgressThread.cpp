#include "Platform/RemoteComputation/Service/RequestHandling/FileTransferProgressThread.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

namespace Kestrane {

namespace {
Kestrane::Logging s_logging(__FILE__);
}

const char* const FileTransferProgressThread::c_units[5] = {"B", "KB", "MB", "GB", "TB"};

FileTransferProgressThread::FileTransferProgressThread(AbstractJobLog& jobLog,
                                                       const std::string& fileName,
                                                       Computing::FileBase& fileTransfer)
    : FileTransferThread(fileTransfer),
      m_updateInterval(RequestServerConfiguration::getRegisteredInstance()
                           ->getFileTransferProgressUpdateInterval()),
      m_jobLog(jobLog), m_fileName(fileName),
      m_firstMessageDelay(RequestServerConfiguration::getRegisteredInstance()
                              ->getFileTransferProgressFirstUpdateDelay()) {
    KS_TRACE("Created FileTransferProgressThread for file '"
             << m_fileName << "' (firstMessageDelay=" << m_firstMessageDelay
             << ", updateInterval=" << m_updateInterval << ")");
}

FileTransferProgressThread::~FileTransferProgressThread() {
    cancel();
    finalize();
}

std::string FileTransferProgressThread::progressLine(uint64_t doneSize, uint64_t totalSize) {
    int percent = 0;
    if (totalSize != 0)
        percent = static_cast<int>(static_cast<double>(doneSize) / static_cast<double>(totalSize) *
                                   100.0);
    double done = static_cast<double>(doneSize);
    double total = static_cast<double>(totalSize);
    int unit = 0;
    while (total > 1024.0 && unit < 4) {
        done *= 0.0009765625;
        total *= 0.0009765625;
        ++unit;
    }
    std::ostringstream line;
    line << std::setw(3) << percent << "% (" << static_cast<int>(done) << "/"
         << static_cast<int>(total) << c_units[unit] << ")\n";
    return line.str();
}

void FileTransferProgressThread::write(const std::string& text) {
    m_jobLog.logMessage(text, -1, true);
}

void FileTransferProgressThread::executeRun() {
    boost::unique_lock<boost::mutex> lock(m_mutex);
    KS_DEBUG("Started FileTransferProgressThread for file " << m_fileName);
    if (m_firstMessageDelay != 0)
        waitMilliseconds(lock, uint64_t(m_firstMessageDelay) * 1000);
    if (m_cancelled) {
        KS_DEBUG("Ended FileTransferProgressThread for file '" << m_fileName
                                                               << "' before first update.");
        return;
    }
    write("Starting transfer of file " + m_fileName + "...\n");
    m_startMessageSent = true;
    if (m_firstMessageDelay < m_updateInterval)
        waitMilliseconds(lock, uint64_t(m_updateInterval - m_firstMessageDelay) * 1000);
    // A zero interval must not spin on a transfer that has not begun.
    const uint64_t laterPassWait = std::max<uint64_t>(uint64_t(m_updateInterval) * 1000, 10);
    bool firstPass = true;
    while (!m_cancelled) {
        // A cancel ends the wait early, and the pass still runs: its line shows where the
        // transfer stood at the end.
        if (!firstPass)
            waitMilliseconds(lock, laterPassWait);
        firstPass = false;
        bool noTransfer = false;
        uint64_t totalSize = 0;
        uint64_t doneSize = 0;
        m_fileTransfer.getProgress(noTransfer, totalSize, doneSize);
        if (totalSize == 0)
            continue;
        if (noTransfer) {
            write("No transfer necessary (file shared or local).\n");
            break;
        }
        LivingProcess::alive("transferingFile", "");
        write(progressLine(doneSize, totalSize));
        if (doneSize == totalSize)
            break;
    }
    if (m_startMessageSent)
        write("Finished transfer of file " + m_fileName + ".\n");
    KS_DEBUG("Ended FileTransferProgressThread for file " << m_fileName);
}

} // namespace Kestrane
