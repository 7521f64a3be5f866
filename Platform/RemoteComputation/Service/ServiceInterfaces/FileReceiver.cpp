#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileReceiver.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Kestrane {
namespace Computing {

namespace {
Logging s_logging(__FILE__);

// Upper bound of the receive buffer, whatever the block size.
constexpr size_t c_maxBuffer = 4u << 20;
// Upper bound of the pipe between socket and file.
constexpr size_t c_maxPipe = 1u << 20;

// A temporary file that is removed unless it was renamed into place.
class TempFile {
public:
    explicit TempFile(const std::string& directory) {
        // A short fixed pattern: a long leaf name must not push the temporary name over the
        // length limit of a name.
        m_path = directory + "/.ks-incoming-XXXXXX";
        m_fd = ::mkostemp(&m_path[0], O_CLOEXEC);
    }
    ~TempFile() {
        if (m_fd >= 0)
            ::close(m_fd);
        if (!m_kept && m_fd >= 0)
            ::unlink(m_path.c_str());
    }
    int fd() const { return m_fd; }
    bool keepAs(const std::string& target) {
        if (::rename(m_path.c_str(), target.c_str()) != 0)
            return false;
        m_kept = true;
        return true;
    }

private:
    std::string m_path;
    int m_fd = -1;
    bool m_kept = false;
};
} // namespace

FileReceiver::FileReceiver(uint64_t socket, bool parallel, unsigned int blockSize)
    : FileBase(socket, parallel, blockSize) {}

bool FileReceiver::execute(const std::string& fileName, const std::string& directory,
                           bool& copied) {
    copied = false;
    setErrorMessage("");
    if (!begin()) {
        setErrorMessage("File transfer cancelled before it started: " + fileName);
        return false;
    }
    bool ok = run(fileName, directory, copied);
    end();
    if (!ok && isCancelled() && m_errorMessage.find("cancelled") == std::string::npos)
        setErrorMessage("File transfer cancelled: " + m_errorMessage);
    KS_TRACE("FileReceiver " << fileName << ": " << (ok ? "done" : m_errorMessage));
    return ok;
}

bool FileReceiver::refuse(const std::string& reason) {
    setErrorMessage("File transfer refused: " + reason);
    if (!writeAll("R", 1) || !writeText(reason))
        shutdownSocket();
    return false;
}

bool FileReceiver::run(const std::string& fileName, const std::string& directory, bool& copied) {
    if (!writeAll("KSFR", 4)) {
        setErrorMessage(ioFailure("greeting the sender"));
        return false;
    }
    char head[5];
    if (!readAll(head, sizeof(head))) {
        setErrorMessage(ioFailure("waiting for the file header"));
        return false;
    }
    if (std::memcmp(head, "KSFH", 4) != 0) {
        setErrorMessage("File transfer failed: unexpected header from the sender");
        shutdownSocket();
        return false;
    }
    if (head[4] == 'E') {
        std::string reason;
        readText(reason);
        setErrorMessage("File transfer failed at the sender: " + reason);
        return false;
    }
    uint64_t size = 0;
    if ((head[4] != 'S' && head[4] != 'F') || !readU64(size) || !readText(m_senderLeafName) ||
        !readText(m_senderPath) || !readText(m_senderHostAndUser) || !readText(m_fileId)) {
        setErrorMessage(isCancelled() ? ioFailure("reading the file header")
                                      : "File transfer failed: malformed file header");
        shutdownSocket();
        return false;
    }
    const bool forced = head[4] == 'F';

    if (!isPlainLeafName(fileName))
        return refuse("'" + fileName + "' is not a plain file name");

    if (!forced && m_senderHostAndUser == localHostAndUser()) {
        struct stat info {};
        if (::stat(m_senderPath.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
            static_cast<uint64_t>(info.st_size) == size) {
            if (!writeAll("N", 1)) {
                setErrorMessage(ioFailure("answering the sender"));
                return false;
            }
            setProgress(true, size, size);
            copied = false;
            return true;
        }
    }

    struct stat dirInfo {};
    if (::stat(directory.c_str(), &dirInfo) != 0 || !S_ISDIR(dirInfo.st_mode))
        return refuse("'" + directory + "' is not a directory");
    TempFile temp(directory);
    if (temp.fd() < 0)
        return refuse("cannot create a file in '" + directory + "': " + std::strerror(errno));

    // The size is shown from here on: a file that needs no copy never shows a percentage.
    setProgress(false, size, 0);
    if (!writeAll("C", 1)) {
        setErrorMessage(ioFailure("answering the sender"));
        return false;
    }
    if (!receiveFileData(temp.fd(), size))
        return false;

    struct stat written {};
    std::string failure;
    if (::fstat(temp.fd(), &written) != 0 || static_cast<uint64_t>(written.st_size) != size)
        failure = "size check failed";
    else if (!temp.keepAs(directory + "/" + fileName))
        failure = std::string("cannot rename into place: ") + std::strerror(errno);
    if (!failure.empty()) {
        setErrorMessage("File transfer failed: " + failure);
        if (!writeAll("X", 1) || !writeText(failure))
            shutdownSocket();
        return false;
    }
    if (!writeAll("K", 1)) {
        // The file is complete here; the sender will learn of the failure by itself.
        setErrorMessage(ioFailure("confirming the file"));
        ::unlink((directory + "/" + fileName).c_str());
        return false;
    }
    copied = true;
    return true;
}

void FileReceiver::failWriting(uint64_t unread) {
    const std::string reason = std::string("writing the file: ") + std::strerror(errno);
    setErrorMessage("File transfer failed: " + reason);
    // The sender reads an answer only after the data: the rest is taken and thrown away, so that
    // the sender gets to the answer and learns the cause, not just a lost connection.
    bool inStep = writeAll("X", 1) && writeText(reason);
    std::vector<char> sink(static_cast<size_t>(std::min<uint64_t>(c_maxBuffer, m_blockSize)));
    while (inStep && unread > 0) {
        const size_t want = static_cast<size_t>(std::min<uint64_t>(sink.size(), unread));
        inStep = readAll(sink.data(), want);
        unread -= want;
    }
    if (!inStep)
        shutdownSocket();
}

int FileReceiver::spliceFileData(int fileFd, uint64_t size) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0)
        return -1;
    struct PipeCloser {
        int* fds;
        ~PipeCloser() {
            ::close(fds[0]);
            ::close(fds[1]);
        }
    } closer{pipeFds};
    const size_t chunk = std::min<size_t>(m_blockSize, c_maxPipe);
    ::fcntl(pipeFds[1], F_SETPIPE_SZ, static_cast<int>(chunk));
    uint64_t done = 0;
    while (done < size) {
        size_t want = static_cast<size_t>(std::min<uint64_t>(chunk, size - done));
        ssize_t got = ::splice(m_fd, nullptr, pipeFds[1], nullptr, want, SPLICE_F_MOVE);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && done == 0 && (errno == EINVAL || errno == ENOSYS))
            return -1;
        if (got <= 0) {
            if (got == 0)
                errno = 0;
            setErrorMessage(ioFailure("receiving the file data"));
            shutdownSocket();
            return 0;
        }
        size_t inPipe = static_cast<size_t>(got);
        while (inPipe > 0) {
            ssize_t moved = ::splice(pipeFds[0], nullptr, fileFd, nullptr, inPipe, SPLICE_F_MOVE);
            if (moved < 0 && errno == EINTR)
                continue;
            if (moved <= 0) {
                failWriting(size - done - static_cast<uint64_t>(got));
                return 0;
            }
            inPipe -= static_cast<size_t>(moved);
        }
        done += static_cast<uint64_t>(got);
        setDone(done);
    }
    return 1;
}

bool FileReceiver::receiveFileData(int fileFd, uint64_t size) {
    if (size == 0)
        return true;
    const int spliced = spliceFileData(fileFd, size);
    if (spliced >= 0)
        return spliced == 1;
    // No splice for this socket or file system: copy through a buffer.
    std::vector<char> buffer(static_cast<size_t>(std::min<uint64_t>(
        std::min<uint64_t>(m_blockSize, c_maxBuffer), std::max<uint64_t>(size, 1))));
    uint64_t done = 0;
    while (done < size) {
        size_t want = static_cast<size_t>(std::min<uint64_t>(buffer.size(), size - done));
        if (!readAll(buffer.data(), want)) {
            setErrorMessage(ioFailure("receiving the file data"));
            shutdownSocket();
            return false;
        }
        size_t written = 0;
        while (written < want) {
            ssize_t n = ::write(fileFd, buffer.data() + written, want - written);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                failWriting(size - done - want);
                return false;
            }
            written += static_cast<size_t>(n);
        }
        done += want;
        setDone(done);
    }
    return true;
}

} // namespace Computing
} // namespace Kestrane
