#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Thread.h"

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

// Watches the publishers of other processes: one SUB socket per publisher, all polled without
// blocking by one thread, which waits 10 ms when nothing came. Derived classes handle the
// messages.
class Subscriber : public Thread {
public:
    ~Subscriber() override;

    void executeRun() final;
    void finalizeRun() override {}

    // Ends the loop; the owner then calls finalize().
    void stop();

    // Called on the subscriber's thread; the topic comes without its trailing "|".
    virtual void handleMessage(int publisherId, const std::string& topic,
                               const std::vector<std::string>& content) = 0;
    // Called on the subscriber's thread for each publisher that had nothing in a pass.
    virtual void handleNoNewMessage(int publisherId);

protected:
    // An empty topic list means all topics.
    Subscriber(const HostInfo& publisher, const std::vector<std::string>& topics);
    Subscriber(std::vector<HostInfo> publishers, const std::vector<std::string>& topics);

    // The new publisher's id, or -1 when the host info lacks an address or a publisher port.
    int addPublisher(const HostInfo& publisher);
    void removePublisher(int id);

private:
    struct Sockets;
    std::unique_ptr<Sockets> m_sockets;
    std::vector<std::string> m_topics;
    bool m_stop = false;
    boost::condition_variable_any m_condition;
    boost::mutex m_mutex;
};

} // namespace Kestrane
