#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingError.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

namespace Kestrane {
namespace Computing {

// Common part of FileSender and FileReceiver: one file transfer over the raw handle of a
// connected socket, right after the command that announced the file.
//
// The exchange on the socket (all integers little-endian, texts with a 32-bit length before):
//   receiver -> sender  "KSFR"                         greeting; the receiver speaks first, so the
//                                                      sender's read-ahead buffer holds nothing
//   sender   -> receiver "KSFH", status byte           'S' file follows, 'F' forced copy follows,
//                                                      'E' the sender cannot read its file
//            'S'/'F':    size (u64), leaf name, path, host#user, file id
//            'E':        message
//   receiver -> sender  answer byte                    'C' copy, 'N' no transfer necessary,
//                                                      'R' refused, followed by a message
//   sender   -> receiver size bytes of the file         only after 'C'
//   receiver -> sender  'K' stored, or 'X' + message   only after 'C'
// A failure inside the file data, or cancel(), shuts the connection down; the conversation
// cannot resume then. A receiver that cannot write the file (a full disk) answers 'X' with the
// cause after taking the rest of the data instead. After success, and after 'N', 'R' and 'E',
// the connection stays usable.
class FileBase : public ErrorMessage {
public:
    FileBase(uint64_t socket, bool parallel, unsigned int blockSize);
    ~FileBase() override = default;
    FileBase(const FileBase&) = delete;
    FileBase& operator=(const FileBase&) = delete;

    // Ends a transfer from another thread: the running or next execute returns false promptly,
    // and so does the peer's, since the connection is shut down.
    void cancel();
    // Safe during a transfer. totalSize stays 0 until the receiver has decided to take a copy;
    // noTransfer: the peer reads the sender's file itself.
    void getProgress(bool& noTransfer, uint64_t& totalSize, uint64_t& doneSize) const;
    bool isCancelled() const { return m_cancelled.load(); }

    // The block size in effect (at least 4096 bytes).
    unsigned int getBlockSize() const { return m_blockSize; }

    // This process's "host#user".
    static std::string localHostAndUser();
    // Whether the name can be used as one file in a directory: not empty, no '/', '\\' or NUL,
    // not "." or "..", and no ".." component.
    static bool isPlainLeafName(const std::string& name);

protected:
    // Marks the start and the end of execute; a cancel() in between shuts the socket down.
    bool begin();
    void end();
    void shutdownSocket();

    // Exact-length transfers on the raw handle; false on failure, closing or time-out.
    bool writeAll(const void* data, size_t size);
    bool readAll(void* data, size_t size);
    bool writeU32(uint32_t value);
    bool writeU64(uint64_t value);
    bool writeText(const std::string& text);
    bool readU32(uint32_t& value);
    bool readU64(uint64_t& value);
    // Texts above maxLength are refused.
    bool readText(std::string& text, uint32_t maxLength = 65536);
    // Failure text for an I/O failure, naming the cancel when there was one.
    std::string ioFailure(const std::string& what) const;

    void setProgress(bool noTransfer, uint64_t totalSize, uint64_t doneSize);
    void setDone(uint64_t doneSize) { m_doneSize.store(doneSize); }

    int m_fd;
    unsigned int m_blockSize;

private:
    std::atomic<bool> m_cancelled{false};
    std::atomic<bool> m_noTransfer{false};
    std::atomic<uint64_t> m_totalSize{0};
    std::atomic<uint64_t> m_doneSize{0};
    std::mutex m_runMutex;
    bool m_running = false;
};

} // namespace Computing
} // namespace Kestrane
