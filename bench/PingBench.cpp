// PING/PONG on one open connection and connect-PING-PONG-CLOSE on new connections, through the
// library's request server and packets, against a minimal raw-socket implementation of the same
// exchange in the same process.
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace Kestrane;

namespace {

bool readExactly(int fd, char* data, size_t size) {
    size_t done = 0;
    while (done < size) {
        ssize_t n = ::recv(fd, data + done, size - done, 0);
        if (n <= 0)
            return false;
        done += n;
    }
    return true;
}

void writeAll(int fd, const char* data, size_t size) {
    if (::send(fd, data, size, MSG_NOSIGNAL) != static_cast<ssize_t>(size))
        throw std::runtime_error("send");
}

void noDelay(int fd) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
}

// The reference server: one thread, one connection at a time, answering "C 4 PING" with
// "C 4 PONG" until "C 16 CLOSE_CONNECTION".
class RawServer {
public:
    RawServer() {
        m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
        int one = 1;
        setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(m_fd, 128) != 0)
            throw std::runtime_error("raw server");
        socklen_t length = sizeof(address);
        ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length);
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] { run(); });
        m_thread.detach(); // lives as long as the benchmark process
    }
    int port() const { return m_port; }

private:
    void run() {
        for (;;) {
            int fd = ::accept(m_fd, nullptr, nullptr);
            if (fd < 0)
                continue;
            noDelay(fd);
            char packet[8];
            while (readExactly(fd, packet, 8)) {
                if (std::memcmp(packet, "C 4 PING", 8) == 0) {
                    writeAll(fd, "C 4 PONG", 8);
                } else {
                    char rest[13];
                    readExactly(fd, rest, 13); // "C 16 CLOSE_CONNECTION"
                    break;
                }
            }
            ::close(fd);
        }
    }
    int m_fd;
    int m_port;
    std::thread m_thread;
};

RawServer& rawServer() {
    static RawServer server;
    return server;
}

RequestServer& libraryServer() {
    static RequestServer* server = [] {
        Logging::setLevel(LogLevel::Warn);
        return RequestServer::getInstance(-1, 0);
    }();
    return *server;
}

int rawConnect(int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
        throw std::runtime_error("connect");
    noDelay(fd);
    return fd;
}

void BM_PingPongOpenConnection_Raw(benchmark::State& state) {
    int fd = rawConnect(rawServer().port());
    char answer[8];
    for (auto _ : state) {
        writeAll(fd, "C 4 PING", 8);
        readExactly(fd, answer, 8);
    }
    writeAll(fd, "C 16 CLOSE_CONNECTION", 21);
    ::close(fd);
}

void BM_PingPongOpenConnection_Library(benchmark::State& state) {
    Computing::ClientSocket socket;
    socket.connect("127.0.0.1", libraryServer().getPort());
    for (auto _ : state) {
        SocketPacket::send("C", "PING", socket, "bench");
        auto answer = SocketPacket::receive(socket, "bench");
        benchmark::DoNotOptimize(answer);
    }
    SocketPacket::send("C", "CLOSE_CONNECTION", socket, "bench");
}

void BM_ConnectPingClose_Raw(benchmark::State& state) {
    char answer[8];
    for (auto _ : state) {
        int fd = rawConnect(rawServer().port());
        writeAll(fd, "C 4 PING", 8);
        readExactly(fd, answer, 8);
        writeAll(fd, "C 16 CLOSE_CONNECTION", 21);
        ::close(fd);
    }
}

void BM_ConnectPingClose_Library(benchmark::State& state) {
    uint16_t port = libraryServer().getPort();
    for (auto _ : state) {
        if (!RequestServer::ping("127.0.0.1", port))
            state.SkipWithError("ping failed");
    }
}

} // namespace

BENCHMARK(BM_PingPongOpenConnection_Raw)->UseRealTime();
BENCHMARK(BM_PingPongOpenConnection_Library)->UseRealTime();
BENCHMARK(BM_ConnectPingClose_Raw)->UseRealTime();
BENCHMARK(BM_ConnectPingClose_Library)->UseRealTime();

BENCHMARK_MAIN();
