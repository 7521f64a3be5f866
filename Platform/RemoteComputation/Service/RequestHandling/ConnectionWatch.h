#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace Kestrane {

// Holds a server's new connections until they have something to read, on the accept thread, so
// that a peer that connects and keeps quiet holds no thread of any pool. A connection that stays
// silent for the idle timeout is closed; connections beyond the limit are closed at once; an
// accept that fails for lack of descriptors backs off instead of spinning.
//
// Usage: the accept thread calls `waitOnce` in a loop; another thread may call `wake`.
class ConnectionWatch {
public:
    using Clock = std::chrono::steady_clock;
    // A connection with data to read, and the text of its peer's address.
    using ReadyHandler =
        std::function<void(std::shared_ptr<Computing::ServerSocket>, const std::string&)>;

    // `listener` is made non-blocking here and must outlive the watch; made with the silence
    // limit as its accepted connections' time limit, it spares each accept setting options.
    // Idle timeout in seconds, 0 for none; `maxConnections` counts the connections held here and
    // those handed out that are still open.
    ConnectionWatch(const Computing::ListenSocket& listener, unsigned int idleTimeoutSeconds,
                    unsigned int maxConnections);
    ~ConnectionWatch();
    ConnectionWatch(const ConnectionWatch&) = delete;
    ConnectionWatch& operator=(const ConnectionWatch&) = delete;

    // Waits for one round of events (at most `limit`): accepts what is waiting, closes what has
    // been idle too long, and passes each connection that became readable to `ready`. The
    // socket given out counts as open until it is destroyed.
    void waitOnce(const ReadyHandler& ready, std::chrono::milliseconds limit);
    // Ends a wait at once; from any thread.
    void wake();
    // Closes the connections that wait for data and stops watching the listening socket: the
    // server takes nothing new.
    void closeAll();

    // Seconds of silence after which a server's connection is given up: the idle timeout, or
    // the socket timeout when that is shorter; 0 for none.
    static unsigned int silenceLimitSeconds();

    size_t getOpenCount() const { return m_open->load(); }
    size_t getWaitingCount() const { return m_waiting.size(); }

private:
    struct Waiting {
        std::shared_ptr<Computing::ServerSocket> socket;
        std::string peer;
        Clock::time_point since;
        std::list<int>::iterator order;
    };

    void acceptAll(const ReadyHandler& ready);
    // Wraps a new handle so that its end counts down the open connections.
    std::shared_ptr<Computing::ServerSocket> adopt(int handle);
    void closeIdle(Clock::time_point now);
    int timeoutMs(Clock::time_point now, std::chrono::milliseconds limit) const;
    void backOff(int error);
    void warnRateLimited(Clock::time_point& last, const std::string& text);

    int m_listen;
    std::optional<unsigned int> m_acceptedTimeout;
    int m_epoll = -1;
    int m_wakeUp = -1;
    std::chrono::seconds m_idleTimeout;
    size_t m_maxConnections;
    // Shared with the sockets handed out, which may outlive the watch.
    std::shared_ptr<std::atomic<size_t>> m_open;
    std::map<int, Waiting> m_waiting;
    // Waiting connections, oldest first: all have the same timeout, so this is deadline order.
    std::list<int> m_byAge;
    bool m_listening = true;
    Clock::time_point m_listenAgain;
    std::chrono::milliseconds m_backOff{0};
    Clock::time_point m_lastLimitWarning;
    Clock::time_point m_lastAcceptWarning;
};

} // namespace Kestrane
