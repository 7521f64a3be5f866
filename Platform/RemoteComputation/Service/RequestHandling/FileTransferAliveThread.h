#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/FileTransferThread.h"

namespace Kestrane {

// Keeps the process marked alive ("transferingFile") while a file transfer runs, for a
// transfer without a job log.
class FileTransferAliveThread : public FileTransferThread {
public:
    explicit FileTransferAliveThread(Computing::FileBase& fileTransfer);
    ~FileTransferAliveThread() override;

    void executeRun() override;

private:
    unsigned int m_updateInterval; // milliseconds
};

} // namespace Kestrane
