#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/FileTransferThread.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractJobLog.h"

#include <string>

namespace Kestrane {

// Writes the progress of a file transfer to a job log and keeps the process marked alive.
// Nothing is written for a transfer that ends before the first delay.
class FileTransferProgressThread : public FileTransferThread {
public:
    // Units of the progress line, by powers of 1024.
    static const char* const c_units[5];

    FileTransferProgressThread(AbstractJobLog& jobLog, const std::string& fileName,
                               Computing::FileBase& fileTransfer);
    ~FileTransferProgressThread() override;

    void executeRun() override;

    // The progress line, e.g. " 42% (512/1219MB)\n": the percentage cut to an integer in a field
    // of three, both sizes cut to integers in the unit that the total needs (at most "TB").
    static std::string progressLine(uint64_t doneSize, uint64_t totalSize);

private:
    void write(const std::string& text);

    unsigned int m_updateInterval; // seconds
    AbstractJobLog& m_jobLog;
    std::string m_fileName;
    unsigned int m_firstMessageDelay; // seconds
    bool m_startMessageSent = false;
};

} // namespace Kestrane
