#include "Platform/RemoteComputation/Service/RequestHandling/FileAttachment.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

namespace {
Kestrane::Logging s_logging(__FILE__);
}

namespace Kestrane {

FileAttachment::FileAttachment(const std::string& id, const FileName& file, bool fileCopied,
                               bool forceTransfer)
    : Attachment(id), m_file(file), m_fileTransfered(fileCopied), m_forceTransfer(forceTransfer) {
    KS_TRACE("Created FileAttachment: id=" << id << ", fileName=" << file.toString()
                                           << ", fileCopied=" << fileCopied
                                           << ", forceTransfer=" << forceTransfer);
}

} // namespace Kestrane
