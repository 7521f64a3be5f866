#include "Platform/RemoteComputation/Service/RequestHandling/SendFileSocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileCommand.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileTransferAliveThread.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileTransferProgressThread.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileSender.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

namespace Kestrane {

namespace {
Kestrane::Logging s_logging(__FILE__);
}

SendFileSocketPacket::SendFileSocketPacket(const std::string& clientId, const std::string& fileId,
                                           const FileName& fileName, bool cachePacket,
                                           const std::string& remoteDirName, bool forceTransfer,
                                           std::shared_ptr<AbstractJobLog> progress)
    : AbstractSocketPacket(cachePacket), m_clientId(clientId), m_fileId(fileId),
      m_fileName(fileName), m_remoteDirName(remoteDirName), m_forceTransfer(forceTransfer),
      m_progress(std::move(progress)) {}

SendFileSocketPacket::~SendFileSocketPacket() = default;

std::string SendFileSocketPacket::toString() {
    return "FILE id=" + m_fileId + ", path=" + m_fileName.toString();
}

bool SendFileSocketPacket::send(Computing::Socket& socket, const std::string& label) {
    const std::string directory = m_remoteDirName.empty() ? m_clientId : m_remoteDirName;
    SocketPacket::send("C", FileCommand::build(directory, m_fileId, m_fileName.getLeafName()),
                       socket, label);

    std::shared_ptr<Computing::FileSender> sender;
    {
        boost::unique_lock<boost::mutex> lock(m_mutex);
        if (m_cancelled) {
            KS_INFO("Send cancelled: skipping send!");
            return false;
        }
        RequestServerConfiguration* config = RequestServerConfiguration::getRegisteredInstance();
        sender = std::make_shared<Computing::FileSender>(
            socket.getSocket(), config->getParallelFileTransfer(), config->getFileCopyBlockSize());
        sender->setForceTransfer(m_forceTransfer);
        m_fileSenderKeeper = sender;
        m_fileSender = sender.get();
    }

    std::unique_ptr<FileTransferThread> companion;
    if (m_progress)
        companion = std::make_unique<FileTransferProgressThread>(*m_progress,
                                                                 m_fileName.getLeafName(), *sender);
    else
        companion = std::make_unique<FileTransferAliveThread>(*sender);
    companion->start(true);

    bool copied = false;
    const std::string path = m_fileName.toString();
    const bool ok = sender->execute(path, m_fileId, copied);

    companion->cancel();
    companion->finalize();
    companion.reset();

    bool cancelled = false;
    {
        boost::unique_lock<boost::mutex> lock(m_mutex);
        m_errorMessage = sender->getErrorMessage();
        m_fileSender = nullptr;
        m_fileSenderKeeper.reset();
        cancelled = m_cancelled;
    }

    if (ok) {
        KS_TRACE("File sent: id=" << m_fileId << ", filePath=" << path << ".");
        m_fileCopied = copied;
        return true;
    }
    if (cancelled)
        KS_INFO("Sending file was cancelled: id=" << m_fileId << ", filePath=" << path << ".\n"
                                                  << m_errorMessage);
    else
        KS_ERROR("Error sending file: id=" << m_fileId << ", filePath=" << path << ".\n"
                                           << m_errorMessage);
    return false;
}

void SendFileSocketPacket::cancelSend() {
    boost::unique_lock<boost::mutex> lock(m_mutex);
    KS_INFO("Cancelling send...");
    m_cancelled = true;
    if (m_fileSender)
        m_fileSender->cancel();
}

} // namespace Kestrane
