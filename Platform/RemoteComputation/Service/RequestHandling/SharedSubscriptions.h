#pragma once

#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/thread.hpp>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace zmq {
class context_t;
class socket_t;
} // namespace zmq

namespace Kestrane {

class Subscriber;

// One SUB socket per publisher endpoint for the whole process, shared by every subscriber that
// registers for that endpoint. A watcher that lives for one wait would otherwise pay a socket, a
// TCP connect and a handshake with the publisher for each wait, and would miss what the publisher
// sends before its subscription arrives there. One thread polls all shared sockets: each message
// goes to every subscriber registered for its endpoint, and a pass in which an endpoint had
// nothing (10 ms without any message) is a silent pass for its subscribers. A socket nobody uses
// any more stays open for a while (10 s), then closes; the thread ends with the last socket.
class SharedSubscriptions {
public:
    static SharedSubscriptions& instance();
    // The ZeroMQ context of every subscriber of the process: a context starts I/O threads of its
    // own. Never destroyed, so that no socket outlives it at exit.
    static zmq::context_t& context();

    // From now on `subscriber` gets the messages on `topics` of the publisher at `address`
    // ("tcp://host:port"), as `publisherId`, on the polling thread.
    void add(const std::string& address, const std::vector<std::string>& topics,
             Subscriber* subscriber, int publisherId);
    // No call reaches `subscriber` for `publisherId` after this returns; called from one of its
    // own calls, that call is the last.
    void remove(Subscriber* subscriber, int publisherId);

    // Endpoints with an open socket (for tests and status).
    size_t openSockets() const;
    // How long a socket nobody uses stays open.
    void setKeepOpen(std::chrono::milliseconds keepOpen);

    struct Message {
        std::string topic; // without its trailing "|"
        std::vector<std::string> content;
    };
    // Reads one whole message from `socket` if one is waiting, and traces it.
    static bool receive(zmq::socket_t& socket, Message& message);

private:
    struct Endpoint;
    using Key = std::pair<std::string, std::vector<std::string>>;
    using Clock = std::chrono::steady_clock;

    SharedSubscriptions() = default;
    void poll();
    // Closes the sockets nobody has used for m_keepOpen; false when none is left.
    bool closeUnused(Clock::time_point now);
    bool isSubscribed(const Endpoint& endpoint, const std::pair<Subscriber*, int>& entry) const;

    mutable boost::mutex m_mutex;
    std::map<Key, std::shared_ptr<Endpoint>> m_endpoints;
    bool m_polling = false;
    std::chrono::milliseconds m_keepOpen{10000};
    boost::thread m_thread;
    // Held while the subscribers are called, so that remove() can wait for a call in progress.
    boost::recursive_mutex m_callMutex;
};

} // namespace Kestrane
