#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileBase.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingUtility.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace Kestrane {
namespace Computing {

namespace {
constexpr unsigned int c_minBlockSize = 4096;
} // namespace

FileBase::FileBase(uint64_t socket, bool /*parallel: no effect, one stream per connection*/,
                   unsigned int blockSize)
    : m_fd(static_cast<int>(socket)),
      m_blockSize(blockSize < c_minBlockSize ? c_minBlockSize : blockSize) {}

void FileBase::cancel() {
    std::lock_guard<std::mutex> lock(m_runMutex);
    m_cancelled.store(true);
    if (m_running)
        shutdownSocket();
}

void FileBase::getProgress(bool& noTransfer, uint64_t& totalSize, uint64_t& doneSize) const {
    noTransfer = m_noTransfer.load();
    totalSize = m_totalSize.load();
    doneSize = m_doneSize.load();
}

std::string FileBase::localHostAndUser() {
    return Utility::getHostName() + "#" + Utility::getUserName();
}

bool FileBase::isPlainLeafName(const std::string& name) {
    if (name.empty() || name == "." || name == "..")
        return false;
    if (name.find_first_of(std::string("/\\\0", 3)) != std::string::npos)
        return false;
    return name.find("..") == std::string::npos;
}

bool FileBase::begin() {
    std::lock_guard<std::mutex> lock(m_runMutex);
    if (m_cancelled.load()) {
        // The peer may wait for us: let it fail at once as well.
        shutdownSocket();
        return false;
    }
    m_running = true;
    return true;
}

void FileBase::end() {
    std::lock_guard<std::mutex> lock(m_runMutex);
    m_running = false;
}

void FileBase::shutdownSocket() {
    ::shutdown(m_fd, SHUT_RDWR);
}

bool FileBase::writeAll(const void* data, size_t size) {
    const char* bytes = static_cast<const char*>(data);
    size_t done = 0;
    while (done < size) {
        ssize_t sent = ::send(m_fd, bytes + done, size - done, MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        done += static_cast<size_t>(sent);
    }
    return true;
}

bool FileBase::readAll(void* data, size_t size) {
    char* bytes = static_cast<char*>(data);
    size_t done = 0;
    while (done < size) {
        ssize_t got = ::recv(m_fd, bytes + done, size - done, 0);
        if (got > 0) {
            done += static_cast<size_t>(got);
            continue;
        }
        if (got < 0 && errno == EINTR)
            continue;
        if (got == 0)
            errno = 0;
        return false;
    }
    return true;
}

bool FileBase::writeU32(uint32_t value) {
    unsigned char bytes[4];
    for (int i = 0; i < 4; ++i)
        bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    return writeAll(bytes, sizeof(bytes));
}

bool FileBase::writeU64(uint64_t value) {
    unsigned char bytes[8];
    for (int i = 0; i < 8; ++i)
        bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    return writeAll(bytes, sizeof(bytes));
}

bool FileBase::writeText(const std::string& text) {
    return writeU32(static_cast<uint32_t>(text.size())) && writeAll(text.data(), text.size());
}

bool FileBase::readU32(uint32_t& value) {
    unsigned char bytes[4];
    if (!readAll(bytes, sizeof(bytes)))
        return false;
    value = 0;
    for (int i = 0; i < 4; ++i)
        value |= static_cast<uint32_t>(bytes[i]) << (8 * i);
    return true;
}

bool FileBase::readU64(uint64_t& value) {
    unsigned char bytes[8];
    if (!readAll(bytes, sizeof(bytes)))
        return false;
    value = 0;
    for (int i = 0; i < 8; ++i)
        value |= static_cast<uint64_t>(bytes[i]) << (8 * i);
    return true;
}

bool FileBase::readText(std::string& text, uint32_t maxLength) {
    uint32_t length = 0;
    if (!readU32(length) || length > maxLength)
        return false;
    text.assign(length, '\0');
    return length == 0 || readAll(&text[0], length);
}

std::string FileBase::ioFailure(const std::string& what) const {
    if (isCancelled())
        return "File transfer cancelled (" + what + ")";
    int error = errno;
    std::string reason = error != 0 ? std::strerror(error) : "connection closed";
    return "File transfer failed: " + what + ": " + reason;
}

void FileBase::setProgress(bool noTransfer, uint64_t totalSize, uint64_t doneSize) {
    m_doneSize.store(doneSize);
    m_noTransfer.store(noTransfer);
    m_totalSize.store(totalSize);
}

} // namespace Computing
} // namespace Kestrane
