#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingError.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace Kestrane {
namespace Computing {

// Marks a connection that was accepted from a listening socket made with the accepted
// connections' options: it took them from there, and nothing is set again.
struct InheritedOptions {};

// A connected TCP stream. Reads go through a small read-ahead buffer, so that a reader that
// takes one byte at a time does not pay a system call per byte; a writer can hold back small
// pieces (`more`) so that a header and its payload leave in one segment.
class Socket {
public:
    explicit Socket(uint64_t handle = c_invalid);
    // A connection whose time limit is known when it is adopted: set once, not twice.
    Socket(uint64_t handle, unsigned int timeoutMilliseconds);
    Socket(uint64_t handle, InheritedOptions);
    virtual ~Socket();
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    static constexpr uint64_t c_invalid = ~uint64_t(0);

    // Sends exactly `size` bytes; a failed write throws Computing::Error. With `more` the bytes
    // may wait until the next call without it.
    bool sendDataBlock(const char* data, uint64_t size, bool more = false);
    // Receives exactly `size` bytes; false when the connection fails, times out or is closed.
    bool receiveDataBlock(char* data, uint64_t size);
    // Receives up to `size` bytes appended to `out`, growing it as data arrives (no allocation
    // of the announced size up front); false when fewer came.
    bool receiveDataBlock(std::string& out, uint64_t size);
    // Sends a text without a length header.
    void sndMsg(const char* text);
    // The system handle, for code that drives the same connection itself. Bytes already taken
    // into the read-ahead buffer are not visible there: such code must run a conversation in
    // which it speaks first, or in which nothing can be buffered.
    uint64_t& getSocket() { return m_socket; }
    uint64_t bufferedByteCount() const { return m_readEnd - m_readPos; }

    // Time limit of a single read or write in milliseconds; 0 means none.
    void setTimeout(unsigned int milliseconds);
    // Whether the last receive that came short ran into the time limit (rather than a close or
    // a failure), so that a reader can tell a silent peer from a gone one.
    bool receiveTimedOut() const { return m_receiveTimedOut; }
    bool isOpen() const { return m_socket != c_invalid; }
    void close();

protected:
    void configureConnected();
    void configureConnected(unsigned int timeoutMilliseconds);
    void flushPending(const char* data, uint64_t size);
    bool fillBuffer();

    uint64_t m_socket;
    // Not zeroed, which cost 64 KiB of writes per connection: only what recv wrote is read.
    std::unique_ptr<char[]> m_readBuffer;
    size_t m_readPos = 0;
    size_t m_readEnd = 0;
    std::string m_pending;
    bool m_receiveTimedOut = false;
};

class ClientSocket : public Socket {
public:
    ClientSocket() = default;
    // Connects to host (name or address, IPv4 or IPv6) and port; throws Computing::Error.
    void connect(const std::string& host, int port);
    // After the last words of a conversation: the connection is closed once the peer has closed
    // its side, or after `limitMs`, by the process's `DeferredCloser`; returns at once. The side
    // that closes first keeps the connection's TIME_WAIT; that must be the accepting server with
    // its one port, not the connecting side, whose ephemeral ports would run out under many
    // short connections. What still arrives is dropped.
    void closeAfterPeer(unsigned int limitMs = c_peerCloseLimitMs);

    static constexpr unsigned int c_peerCloseLimitMs = 2000;
};

class ServerSocket : public Socket {
public:
    explicit ServerSocket(uint64_t handle);
    ServerSocket(uint64_t handle, unsigned int timeoutMilliseconds);
    ServerSocket(uint64_t handle, InheritedOptions);
    std::string getClientIPaddress() const;
    std::string getServerIPaddress() const;
};

// A listening socket bound to the first free port of `portRange` ports starting at `port`
// (port 0: the system picks one), on all addresses or on `bindAddress` (a name or an IPv4 or
// IPv6 address). With `acceptedTimeoutMilliseconds` every accepted connection comes with no
// send delay and that time limit, copied by the system from the listening socket, so that
// accepting sets nothing (`InheritedOptions`).
class ListenSocket {
public:
    ListenSocket(int port, int portRange, int backlog, const std::string& bindAddress = "",
                 std::optional<unsigned int> acceptedTimeoutMilliseconds = std::nullopt);
    ~ListenSocket();
    ListenSocket(const ListenSocket&) = delete;
    ListenSocket& operator=(const ListenSocket&) = delete;

    int getListenPort() const { return m_port; }
    // The system handle, for a caller that waits for connections itself.
    int getHandle() const { return m_fd; }
    // Stops listening: new connections are refused, also those not yet accepted.
    void close();
    // Blocks until a connection arrives and returns its handle.
    uint64_t accept();
    // The time limit that accepted connections come with; none when they come without options.
    std::optional<unsigned int> getAcceptedTimeout() const { return m_acceptedTimeout; }

private:
    int m_fd = -1;
    int m_port = 0;
    std::optional<unsigned int> m_acceptedTimeout;
};

// What an accept that failed with `error` calls for: try again at once (an interrupted call, a
// connection that went away while waiting), wait for descriptors or memory to come back, or give
// up.
enum class AcceptFailure { Retry, OutOfResources, Fatal };
AcceptFailure classifyAcceptError(int error);

// Numeric address text of a socket address; IPv4-mapped IPv6 addresses as plain IPv4.
std::string addressText(const void* sockaddrStorage);

} // namespace Computing
} // namespace Kestrane
