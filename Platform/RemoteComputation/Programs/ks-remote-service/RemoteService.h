#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/WorkerPool.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace Kestrane {

namespace Computing {
class ListenSocket;
class Socket;
} // namespace Computing

class ServiceCommands;

// The network side of ks-remote-service: accepts connections and holds, on a bounded pool, the
// conversation of RemoteServiceProtocol on each: nonce, command, authentication, answer. Anybody
// may connect, so every failure of a peer ends only its own connection, with an ERROR that says
// why (as far as the peer still listens) and a warning naming the peer.
class RemoteService {
public:
    // Conversations at once: a few silent peers can't block the others.
    static constexpr unsigned int c_poolSize = 16;
    // Connections that may wait for the pool; more are turned away at once.
    static constexpr uint64_t c_maxWaiting = 256;

    // The key file is read for every command, so that it can be fixed or replaced while the
    // service runs.
    RemoteService(ServiceCommands& commands, std::string keyFile, unsigned int timeoutSeconds);
    ~RemoteService();
    RemoteService(const RemoteService&) = delete;
    RemoteService& operator=(const RemoteService&) = delete;

    // Binds the listening socket; throws Computing::Error when it can't.
    void listen(const std::string& bindAddress, unsigned int port);
    int port() const;
    // Accepts connections until stop(), then waits for the conversations under way.
    void run();
    // Ends run(); safe from any thread, also before run() has begun.
    void stop();

    // One conversation on an accepted connection; never throws.
    void converse(uint64_t handle);

private:
    void refuse(Computing::Socket& socket, const std::string& peer, const std::string& reason,
                const std::string& logReason = std::string());
    void lingeringClose(Computing::Socket& socket);

    ServiceCommands& m_commands;
    std::string m_keyFile;
    unsigned int m_timeoutSeconds;
    std::string m_bindAddress;
    std::unique_ptr<Computing::ListenSocket> m_listen;
    std::atomic<bool> m_stopping{false};
    Tasks::WorkerPool m_pool;
};

} // namespace Kestrane
