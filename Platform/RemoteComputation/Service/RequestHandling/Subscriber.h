#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Thread.h"

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

// Watches the publishers of other processes. With sockets of its own: one SUB socket per
// publisher, all polled without blocking by the subscriber's thread, which waits 10 ms when nothing
// came. With shared sockets: the process's one subscription per endpoint (SharedSubscriptions)
// calls the handlers from its thread, and the subscriber needs no thread at all: start()
// registers it and stop() takes it out again. That suits short-lived subscribers such as the
// watcher of one wait. Derived classes handle the messages.
class Subscriber : public Thread {
public:
    ~Subscriber() override;

    void executeRun() final;
    void finalizeRun() override {}

    // Starts the thread with sockets of its own; with shared sockets registers, without a
    // thread. False when already started.
    bool start(bool startNow = true);
    // Ends the loop; the owner then calls finalize(). With shared sockets no handler runs once
    // it has returned (unless called from inside a handler, whose call then is the last).
    void stop();

    // Called on the subscriber's thread; the topic comes without its trailing "|".
    virtual void handleMessage(int publisherId, const std::string& topic,
                               const std::vector<std::string>& content) = 0;
    // Called on the subscriber's thread for each publisher that had nothing in a pass.
    virtual void handleNoNewMessage(int publisherId);

protected:
    enum class Sockets { Own, Shared };

    // An empty topic list means all topics.
    Subscriber(const HostInfo& publisher, const std::vector<std::string>& topics,
               Sockets sockets = Sockets::Own);
    Subscriber(std::vector<HostInfo> publishers, const std::vector<std::string>& topics);

    // The new publisher's id, or -1 when the host info lacks an address or a publisher port.
    int addPublisher(const HostInfo& publisher);
    void removePublisher(int id);

private:
    void runOwnSockets();
    // Register with and leave the shared subscriptions; each true when it changed something.
    bool joinShared();
    bool leaveShared();

    struct OwnSockets;
    std::unique_ptr<OwnSockets> m_sockets;
    const bool m_shared;
    std::vector<std::string> m_topics;
    bool m_stop = false;
    boost::condition_variable_any m_condition;
    boost::mutex m_mutex;
};

} // namespace Kestrane
