#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileBase.h"

#include <string>

namespace Kestrane {
namespace Computing {

// Receiving side of a file transfer (see FileBase for the exchange). The data goes to a
// temporary file in the target directory, which is renamed to its name only when the whole file
// with its size has arrived; a failed or cancelled transfer leaves no file behind. A file that
// cannot be written (a full disk) is answered with 'X' and the cause, and the rest of the data is
// taken and dropped, so that the sender learns why.
class FileReceiver : public FileBase {
public:
    // `socket`: the raw handle of the connection; `parallel` has no effect.
    FileReceiver(uint64_t socket, bool parallel, unsigned int blockSize);

    // Receives the file into `directory` under `fileName`, which must be a plain leaf name (no
    // path separator, no "..", no NUL; anything else is refused). `copied` is false when the
    // sender's file is readable here as it is (same host and user, same size): nothing is
    // written then, and getSenderPath() names the file. False on failure, refusal or cancel,
    // with getErrorMessage().
    bool execute(const std::string& fileName, const std::string& directory, bool& copied);

    // What the sender announced: its path, its leaf name, its "host#user", the file id.
    const std::string& getSenderPath() const { return m_senderPath; }
    const std::string& getSenderLeafName() const { return m_senderLeafName; }
    const std::string& getSenderHostAndUser() const { return m_senderHostAndUser; }
    const std::string& getFileId() const { return m_fileId; }

private:
    bool run(const std::string& fileName, const std::string& directory, bool& copied);
    bool refuse(const std::string& reason);
    bool receiveFileData(int fileFd, uint64_t size);
    // A write into the file failed (errno tells why), with `unread` bytes of the data still to
    // come: tells the sender why.
    void failWriting(uint64_t unread);
    // Moves the data from the socket into the file through a pipe, without a copy in user
    // space. 1: done, 0: failed, -1: not possible here (nothing was taken from the socket).
    int spliceFileData(int fileFd, uint64_t size);

    std::string m_senderPath;
    std::string m_senderLeafName;
    std::string m_senderHostAndUser;
    std::string m_fileId;
};

} // namespace Computing
} // namespace Kestrane
