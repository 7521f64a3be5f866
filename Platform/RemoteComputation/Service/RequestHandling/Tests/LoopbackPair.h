#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <memory>
#include <string>
#include <sys/socket.h>

namespace Kestrane {
namespace Testing {

// Two connected sockets over loopback: `client` connected to `server`.
struct LoopbackPair {
    Computing::ListenSocket listener{0, 1, 16};
    Computing::ClientSocket client;
    std::unique_ptr<Computing::ServerSocket> server;

    LoopbackPair() {
        client.connect("127.0.0.1", listener.getListenPort());
        server = std::make_unique<Computing::ServerSocket>(listener.accept());
    }

    // Raw bytes, as a peer that does not use the packet classes writes them.
    void writeRaw(Computing::Socket& socket, const std::string& bytes) {
        socket.sendDataBlock(bytes.data(), bytes.size());
    }
    // Everything the peer sends until it closes (or `limit` bytes).
    static std::string readAll(Computing::Socket& socket, size_t limit = 1 << 20) {
        std::string out;
        socket.receiveDataBlock(out, limit);
        return out;
    }
    void closeClientWrite() { ::shutdown(static_cast<int>(client.getSocket()), SHUT_WR); }
    void closeServerWrite() { ::shutdown(static_cast<int>(server->getSocket()), SHUT_WR); }
};

} // namespace Testing
} // namespace Kestrane
