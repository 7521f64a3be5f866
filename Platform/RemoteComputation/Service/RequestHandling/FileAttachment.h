#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/Attachment.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

namespace Kestrane {

// A file beside a message. The transfered flag starts as given (true from createAttachments)
// until the sender decides whether the file is really copied.
class FileAttachment : public Attachment {
public:
    FileAttachment(const std::string& id, const FileName& file, bool fileCopied,
                   bool forceTransfer);

    const FileName& getFileName() const { return m_file; }
    bool getFileTransfered() const { return m_fileTransfered; }
    void setFileTransfered(bool fileTransfered) { m_fileTransfered = fileTransfered; }
    bool getForceFileTransfer() const { return m_forceTransfer; }

private:
    FileName m_file;
    bool m_fileTransfered;
    bool m_forceTransfer;
};

} // namespace Kestrane
