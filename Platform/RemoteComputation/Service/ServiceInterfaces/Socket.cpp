#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/DeferredCloser.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <thread>
#include <unistd.h>

namespace Kestrane {
namespace Computing {

namespace {
Logging s_logging(__FILE__);

constexpr size_t c_readBufferSize = 64 * 1024;
constexpr size_t c_pendingLimit = 16 * 1024;

int fdOf(uint64_t handle) {
    return static_cast<int>(handle);
}

void setTimeLimits(int fd, unsigned int milliseconds) {
    timeval tv{};
    tv.tv_sec = milliseconds / 1000;
    tv.tv_usec = (milliseconds % 1000) * 1000;
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
}

// What every connection of ours has: no send delay (a packet is written whole, and the peer
// waits for it) and a time limit on each read and write.
void setConnectionOptions(int fd, unsigned int timeoutMilliseconds) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    setTimeLimits(fd, timeoutMilliseconds);
}
} // namespace

Socket::Socket(uint64_t handle) : m_socket(handle) {
    if (isOpen())
        configureConnected();
}

Socket::Socket(uint64_t handle, unsigned int timeoutMilliseconds) : m_socket(handle) {
    if (isOpen())
        configureConnected(timeoutMilliseconds);
}

Socket::Socket(uint64_t handle, InheritedOptions) : m_socket(handle) {}

Socket::~Socket() {
    close();
}

void Socket::close() {
    if (isOpen()) {
        ::close(fdOf(m_socket));
        m_socket = c_invalid;
    }
}

void Socket::configureConnected() {
    unsigned int seconds = RequestServerConfiguration::getRegisteredInstance()->getSocketTimeout();
    configureConnected(seconds * 1000);
}

void Socket::configureConnected(unsigned int timeoutMilliseconds) {
    setConnectionOptions(fdOf(m_socket), timeoutMilliseconds);
}

void Socket::setTimeout(unsigned int milliseconds) {
    if (isOpen())
        setTimeLimits(fdOf(m_socket), milliseconds);
}

bool Socket::sendDataBlock(const char* data, uint64_t size, bool more) {
    if (more && m_pending.size() + size <= c_pendingLimit) {
        m_pending.append(data, size);
        return true;
    }
    flushPending(data, size);
    return true;
}

void Socket::flushPending(const char* data, uint64_t size) {
    if (!isOpen())
        throw Error("send", EBADF);
    iovec parts[2];
    size_t pendingDone = 0;
    uint64_t dataDone = 0;
    while (pendingDone < m_pending.size() || dataDone < size) {
        int count = 0;
        if (pendingDone < m_pending.size())
            parts[count++] = {m_pending.data() + pendingDone, m_pending.size() - pendingDone};
        if (dataDone < size)
            parts[count++] = {const_cast<char*>(data) + dataDone, size - dataDone};
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = count;
        ssize_t sent = ::sendmsg(fdOf(m_socket), &message, MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR)
                continue;
            int error = errno;
            m_pending.clear();
            throw Error("send", error);
        }
        size_t fromPending = std::min<size_t>(sent, m_pending.size() - pendingDone);
        pendingDone += fromPending;
        dataDone += sent - fromPending;
    }
    m_pending.clear();
}

bool Socket::fillBuffer() {
    if (!isOpen())
        return false;
    if (!m_readBuffer)
        m_readBuffer.reset(new char[c_readBufferSize]);
    for (;;) {
        ssize_t got = ::recv(fdOf(m_socket), m_readBuffer.get(), c_readBufferSize, 0);
        if (got > 0) {
            m_readPos = 0;
            m_readEnd = static_cast<size_t>(got);
            m_receiveTimedOut = false;
            return true;
        }
        if (got < 0 && errno == EINTR)
            continue;
        m_receiveTimedOut = got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
        return false; // closed, failed or timed out
    }
}

bool Socket::receiveDataBlock(char* data, uint64_t size) {
    uint64_t done = 0;
    while (done < size) {
        if (m_readPos < m_readEnd) {
            size_t take = std::min<uint64_t>(size - done, m_readEnd - m_readPos);
            std::memcpy(data + done, m_readBuffer.get() + m_readPos, take);
            m_readPos += take;
            done += take;
            continue;
        }
        if (size - done >= c_readBufferSize) {
            // Large blocks go straight into the caller's memory.
            ssize_t got = ::recv(fdOf(m_socket), data + done, size - done, 0);
            if (got > 0) {
                done += got;
                continue;
            }
            if (got < 0 && errno == EINTR)
                continue;
            return false;
        }
        if (!fillBuffer())
            return false;
    }
    return true;
}

bool Socket::receiveDataBlock(std::string& out, uint64_t size) {
    constexpr uint64_t c_step = 1 << 20;
    uint64_t done = 0;
    while (done < size) {
        uint64_t chunk = std::min<uint64_t>(size - done, std::max<uint64_t>(c_step, done));
        size_t offset = out.size();
        out.resize(offset + chunk);
        uint64_t got = 0;
        bool ok = true;
        while (got < chunk) {
            if (m_readPos < m_readEnd) {
                size_t take = std::min<uint64_t>(chunk - got, m_readEnd - m_readPos);
                std::memcpy(&out[offset + got], m_readBuffer.get() + m_readPos, take);
                m_readPos += take;
                got += take;
            } else if (chunk - got >= c_readBufferSize) {
                ssize_t n = ::recv(fdOf(m_socket), &out[offset + got], chunk - got, 0);
                if (n > 0)
                    got += n;
                else if (!(n < 0 && errno == EINTR)) {
                    ok = false;
                    break;
                }
            } else if (!fillBuffer()) {
                ok = false;
                break;
            }
        }
        done += got;
        if (!ok) {
            out.resize(offset + got);
            return false;
        }
    }
    return true;
}

void Socket::sndMsg(const char* text) {
    sendDataBlock(text, std::strlen(text));
}

std::string addressText(const void* storage) {
    auto address = static_cast<const sockaddr_storage*>(storage);
    char text[INET6_ADDRSTRLEN] = {0};
    if (address->ss_family == AF_INET) {
        auto v4 = reinterpret_cast<const sockaddr_in*>(address);
        inet_ntop(AF_INET, &v4->sin_addr, text, sizeof(text));
    } else if (address->ss_family == AF_INET6) {
        auto v6 = reinterpret_cast<const sockaddr_in6*>(address);
        if (IN6_IS_ADDR_V4MAPPED(&v6->sin6_addr))
            inet_ntop(AF_INET, &v6->sin6_addr.s6_addr[12], text, sizeof(text));
        else
            inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof(text));
    }
    return text;
}

namespace {
// A numeric address needs no name service.
bool numericAddress(const std::string& host, int port, sockaddr_storage& address,
                    socklen_t& length) {
    address = sockaddr_storage{};
    auto v4 = reinterpret_cast<sockaddr_in*>(&address);
    if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<uint16_t>(port));
        length = sizeof(sockaddr_in);
        return true;
    }
    auto v6 = reinterpret_cast<sockaddr_in6*>(&address);
    if (inet_pton(AF_INET6, host.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(port));
        length = sizeof(sockaddr_in6);
        return true;
    }
    return false;
}

int connectTo(const sockaddr* address, socklen_t length, int& error) {
    int fd = ::socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = errno;
        return -1;
    }
    int result;
    do {
        result = ::connect(fd, address, length);
    } while (result < 0 && errno == EINTR);
    if (result == 0)
        return fd;
    error = errno;
    ::close(fd);
    return -1;
}
} // namespace

void ClientSocket::connect(const std::string& host, int port) {
    close();
    m_readPos = m_readEnd = 0;
    m_pending.clear();
    std::string service = std::to_string(port);
    // Without this check a larger number would reach another port through its low 16 bits.
    if (port < 1 || port > 65535)
        throw Error("connect to " + host + ":" + service, "port out of range");
    sockaddr_storage numeric;
    socklen_t numericLength = 0;
    if (numericAddress(host, port, numeric, numericLength)) {
        int error = 0;
        int fd = connectTo(reinterpret_cast<sockaddr*>(&numeric), numericLength, error);
        if (fd < 0)
            throw Error("connect to " + host + ":" + service, error);
        m_socket = static_cast<uint64_t>(fd);
        configureConnected();
        return;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* results = nullptr;
    int rc = getaddrinfo(host.c_str(), service.c_str(), &hints, &results);
    if (rc != 0)
        throw Error("getaddrinfo '" + host + "'", gai_strerror(rc));
    int lastError = ECONNREFUSED;
    for (addrinfo* ai = results; ai; ai = ai->ai_next) {
        int fd = connectTo(ai->ai_addr, ai->ai_addrlen, lastError);
        if (fd >= 0) {
            freeaddrinfo(results);
            m_socket = static_cast<uint64_t>(fd);
            configureConnected();
            return;
        }
    }
    freeaddrinfo(results);
    throw Error("connect to " + host + ":" + service, lastError);
}

void ClientSocket::closeAfterPeer(unsigned int limitMs) {
    if (!isOpen())
        return;
    DeferredCloser::instance().hand(fdOf(m_socket), std::chrono::milliseconds(limitMs));
    m_socket = c_invalid;
}

ServerSocket::ServerSocket(uint64_t handle) : Socket(handle) {}

ServerSocket::ServerSocket(uint64_t handle, unsigned int timeoutMilliseconds)
    : Socket(handle, timeoutMilliseconds) {}

ServerSocket::ServerSocket(uint64_t handle, InheritedOptions)
    : Socket(handle, InheritedOptions{}) {}

std::string ServerSocket::getClientIPaddress() const {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (::getpeername(fdOf(m_socket), reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return std::string();
    return addressText(&address);
}

std::string ServerSocket::getServerIPaddress() const {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (::getsockname(fdOf(m_socket), reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return std::string();
    return addressText(&address);
}

namespace {
// A listening socket on all addresses: IPv6 with IPv4 mapped in when the host has IPv6,
// plain IPv4 otherwise.
int openListening(int& family) {
    int fd = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
        int zero = 0;
        if (setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &zero, sizeof(zero)) == 0) {
            family = AF_INET6;
            return fd;
        }
        ::close(fd);
    }
    fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        throw Error("socket", errno);
    family = AF_INET;
    return fd;
}

// The first address of `host` for a listening socket; throws Computing::Error when there is none.
sockaddr_storage resolveBindAddress(const std::string& host) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    int rc = ::getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (rc != 0 || !found)
        throw Error("bind address " + host, rc == 0 ? "no address" : ::gai_strerror(rc));
    sockaddr_storage address{};
    std::memcpy(&address, found->ai_addr, found->ai_addrlen);
    ::freeaddrinfo(found);
    return address;
}

bool bindTo(int fd, const sockaddr_storage& given, int port) {
    sockaddr_storage address = given;
    socklen_t length;
    if (address.ss_family == AF_INET6) {
        reinterpret_cast<sockaddr_in6*>(&address)->sin6_port = htons(static_cast<uint16_t>(port));
        length = sizeof(sockaddr_in6);
    } else {
        reinterpret_cast<sockaddr_in*>(&address)->sin_port = htons(static_cast<uint16_t>(port));
        length = sizeof(sockaddr_in);
    }
    return ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0;
}

// The wildcard address of `family`.
sockaddr_storage anyAddress(int family) {
    sockaddr_storage address{};
    if (family == AF_INET6) {
        auto v6 = reinterpret_cast<sockaddr_in6*>(&address);
        v6->sin6_family = AF_INET6;
        v6->sin6_addr = in6addr_any;
    } else {
        auto v4 = reinterpret_cast<sockaddr_in*>(&address);
        v4->sin_family = AF_INET;
        v4->sin_addr.s_addr = htonl(INADDR_ANY);
    }
    return address;
}
} // namespace

ListenSocket::ListenSocket(int port, int portRange, int backlog, const std::string& bindAddress,
                           std::optional<unsigned int> acceptedTimeoutMilliseconds)
    : m_acceptedTimeout(acceptedTimeoutMilliseconds) {
    if (port < 0 || port > 65535)
        throw Error("bind", "port " + std::to_string(port) + " out of range");
    sockaddr_storage address;
    if (bindAddress.empty()) {
        int family = AF_INET;
        m_fd = openListening(family);
        address = anyAddress(family);
    } else {
        address = resolveBindAddress(bindAddress);
        m_fd = ::socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (m_fd < 0)
            throw Error("socket", errno);
    }
    int one = 1;
    setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    int count = (port == 0 || portRange < 1) ? 1 : portRange;
    int lastError = EADDRINUSE;
    bool bound = false;
    for (int i = 0; i < count && port + i <= 65535; ++i) {
        if (bindTo(m_fd, address, port + i)) {
            bound = true;
            break;
        }
        lastError = errno;
    }
    if (!bound) {
        ::close(m_fd);
        m_fd = -1;
        std::string range = count == 1
                                ? std::to_string(port)
                                : std::to_string(port) + "-" + std::to_string(port + count - 1);
        throw Error("bind to port " + range, lastError);
    }
    // Before listening, so that no connection can be queued without them.
    if (m_acceptedTimeout)
        setConnectionOptions(m_fd, *m_acceptedTimeout);
    if (::listen(m_fd, backlog) != 0) {
        int error = errno;
        ::close(m_fd);
        m_fd = -1;
        throw Error("listen", error);
    }
    socklen_t length = sizeof(address);
    ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length);
    m_port = address.ss_family == AF_INET6
                 ? ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port)
                 : ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
}

ListenSocket::~ListenSocket() {
    close();
}

void ListenSocket::close() {
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

AcceptFailure classifyAcceptError(int error) {
    switch (error) {
    case EINTR:
    case ECONNABORTED:
    case EPROTO:
        return AcceptFailure::Retry;
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
        return AcceptFailure::OutOfResources;
    default:
        return AcceptFailure::Fatal;
    }
}

uint64_t ListenSocket::accept() {
    for (;;) {
        int fd = ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0)
            return static_cast<uint64_t>(fd);
        int error = errno;
        switch (classifyAcceptError(error)) {
        case AcceptFailure::Retry:
            continue;
        case AcceptFailure::OutOfResources:
            // Out of descriptors or memory: the pending connection waits while others close.
            KS_ERROR("accept failed (" << std::strerror(error) << "), retrying in 100 ms");
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            continue;
        case AcceptFailure::Fatal:
            throw Error("accept", error);
        }
    }
}

} // namespace Computing
} // namespace Kestrane
