#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileBase.h"

#include <string>

namespace Kestrane {
namespace Computing {

// Sending side of a file transfer (see FileBase for the exchange). The file data goes from the
// file to the socket by sendfile, in blocks of the block size.
class FileSender : public FileBase {
public:
    // `socket`: the raw handle of the connection; `parallel` has no effect.
    FileSender(uint64_t socket, bool parallel, unsigned int blockSize);

    // Sends the file at `path`. `copied` tells whether the data went over the connection; it is
    // false when the receiver reads the very same file itself (same host and user, same size).
    // False on failure or cancel, with getErrorMessage().
    bool execute(const std::string& path, const std::string& fileId, bool& copied);

    // Copy the file even where the receiver could read it itself.
    void setForceTransfer(bool forceTransfer) { m_forceTransfer = forceTransfer; }
    bool getForceTransfer() const { return m_forceTransfer; }

private:
    bool run(const std::string& path, const std::string& fileId, bool& copied);
    bool sendFileData(int fileFd, uint64_t size);

    bool m_forceTransfer = false;
};

} // namespace Computing
} // namespace Kestrane
