#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileSender.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrane {
namespace Computing {

namespace {
Logging s_logging(__FILE__);

std::string leafOf(const std::string& path) {
    std::string::size_type pos = path.find_last_of('/');
    return pos == std::string::npos ? path : path.substr(pos + 1);
}

// sendfile has no MSG_NOSIGNAL: a peer that went away must not end the process by SIGPIPE.
class BlockSigpipe {
public:
    BlockSigpipe() {
        sigemptyset(&m_set);
        sigaddset(&m_set, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        m_wasPending = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &m_set, &m_old);
    }
    ~BlockSigpipe() {
        if (!m_wasPending) {
            sigset_t pending;
            sigpending(&pending);
            if (sigismember(&pending, SIGPIPE) == 1) {
                timespec zero{0, 0};
                sigtimedwait(&m_set, nullptr, &zero);
            }
        }
        pthread_sigmask(SIG_SETMASK, &m_old, nullptr);
    }

private:
    sigset_t m_set;
    sigset_t m_old;
    bool m_wasPending = false;
};

class FdCloser {
public:
    explicit FdCloser(int fd) : m_fd(fd) {}
    ~FdCloser() {
        if (m_fd >= 0)
            ::close(m_fd);
    }

private:
    int m_fd;
};
} // namespace

FileSender::FileSender(uint64_t socket, bool parallel, unsigned int blockSize)
    : FileBase(socket, parallel, blockSize) {}

bool FileSender::execute(const std::string& path, const std::string& fileId, bool& copied) {
    copied = false;
    setErrorMessage("");
    if (!begin()) {
        setErrorMessage("File transfer cancelled before it started: " + path);
        return false;
    }
    bool ok = run(path, fileId, copied);
    end();
    if (!ok && isCancelled() && m_errorMessage.find("cancelled") == std::string::npos)
        setErrorMessage("File transfer cancelled: " + m_errorMessage);
    KS_TRACE("FileSender " << path << ": " << (ok ? "done" : m_errorMessage));
    return ok;
}

bool FileSender::run(const std::string& path, const std::string& fileId, bool& copied) {
    char greeting[4];
    if (!readAll(greeting, sizeof(greeting))) {
        setErrorMessage(ioFailure("waiting for the receiver"));
        return false;
    }
    if (std::memcmp(greeting, "KSFR", 4) != 0) {
        setErrorMessage("File transfer failed: unexpected greeting from the receiver");
        shutdownSocket();
        return false;
    }

    int fileFd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info {};
    std::string openError;
    if (fileFd < 0)
        openError = "cannot open '" + path + "': " + std::strerror(errno);
    else if (::fstat(fileFd, &info) != 0 || !S_ISREG(info.st_mode))
        openError = "'" + path + "' is not a regular file";
    FdCloser closer(fileFd);
    if (!openError.empty()) {
        setErrorMessage("File transfer failed: " + openError);
        // Tell the receiver, so that the connection stays in step.
        if (!writeAll("KSFHE", 5) || !writeText(openError))
            shutdownSocket();
        return false;
    }

    const uint64_t size = static_cast<uint64_t>(info.st_size);
    const char status[5] = {'K', 'S', 'F', 'H', m_forceTransfer ? 'F' : 'S'};
    if (!writeAll(status, sizeof(status)) || !writeU64(size) || !writeText(leafOf(path)) ||
        !writeText(path) || !writeText(localHostAndUser()) || !writeText(fileId)) {
        setErrorMessage(ioFailure("sending the file header"));
        return false;
    }

    char answer = 0;
    if (!readAll(&answer, 1)) {
        setErrorMessage(ioFailure("waiting for the receiver's answer"));
        return false;
    }
    if (answer == 'N') {
        setProgress(true, size, size);
        copied = false;
        return true;
    }
    if (answer == 'R') {
        std::string reason;
        readText(reason);
        setErrorMessage("File transfer refused by the receiver: " + reason);
        return false;
    }
    if (answer != 'C') {
        setErrorMessage("File transfer failed: unexpected answer from the receiver");
        shutdownSocket();
        return false;
    }
    // The size is shown from here on: a file that needs no copy never shows a percentage.
    setProgress(false, size, 0);

    if (!sendFileData(fileFd, size))
        return false;

    char result = 0;
    if (!readAll(&result, 1)) {
        setErrorMessage(ioFailure("waiting for the receiver's confirmation"));
        return false;
    }
    if (result != 'K') {
        std::string reason;
        readText(reason);
        setErrorMessage("File transfer failed at the receiver: " + reason);
        return false;
    }
    copied = true;
    return true;
}

bool FileSender::sendFileData(int fileFd, uint64_t size) {
    BlockSigpipe guard;
    off_t offset = 0;
    uint64_t done = 0;
    while (done < size) {
        size_t block = static_cast<size_t>(std::min<uint64_t>(m_blockSize, size - done));
        while (block > 0) {
            ssize_t sent = ::sendfile(m_fd, fileFd, &offset, block);
            if (sent < 0 && errno == EINTR)
                continue;
            if (sent <= 0) {
                if (sent == 0) {
                    setErrorMessage("File transfer failed: the file became shorter while sending");
                    shutdownSocket();
                } else {
                    setErrorMessage(ioFailure("sending the file data"));
                }
                return false;
            }
            block -= static_cast<size_t>(sent);
            done += static_cast<uint64_t>(sent);
        }
        setDone(done);
        if (isCancelled()) {
            setErrorMessage("File transfer cancelled");
            return false;
        }
    }
    return true;
}

} // namespace Computing
} // namespace Kestrane
