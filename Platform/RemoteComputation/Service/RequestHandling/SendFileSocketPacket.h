#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/AbstractSocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractJobLog.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <boost/thread/mutex.hpp>

#include <memory>
#include <string>

namespace Kestrane {

namespace Computing {
class FileSender;
}

// A file attachment on its way out: the "FILE " command, then the file through a
// Computing::FileSender on the same connection.
class SendFileSocketPacket : public AbstractSocketPacket {
public:
    SendFileSocketPacket(const std::string& clientId, const std::string& fileId,
                         const FileName& fileName, bool cachePacket,
                         const std::string& remoteDirName, bool forceTransfer,
                         std::shared_ptr<AbstractJobLog> progress);
    ~SendFileSocketPacket() override;

    // False when the transfer failed or was cancelled; the command has gone out in any case.
    bool send(Computing::Socket& socket, const std::string& label) override;
    std::string toString() override;

    // From another thread: stops a send under way, or the next one before its file goes out.
    void cancelSend();

    const std::string& getErrorMessage() const { return m_errorMessage; }
    bool getFileCopied() const { return m_fileCopied; }
    bool getForceTransfer() const { return m_forceTransfer; }
    void setForceTransfer(bool forceTransfer) { m_forceTransfer = forceTransfer; }

private:
    std::string m_clientId;
    std::string m_fileId;
    FileName m_fileName;
    bool m_fileCopied = true;
    std::string m_remoteDirName;
    bool m_forceTransfer;
    std::shared_ptr<AbstractJobLog> m_progress;
    std::string m_errorMessage;
    boost::mutex m_mutex; // guards m_fileSender and m_cancelled
    Computing::FileSender* m_fileSender = nullptr;
    std::shared_ptr<Computing::FileSender> m_fileSenderKeeper;
    bool m_cancelled = false;
};

} // namespace Kestrane
