#include "Platform/RemoteComputation/Service/RequestHandling/Subscriber.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SharedSubscriptions.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <boost/chrono.hpp>
#include <boost/thread/lock_guard.hpp>
#include <zmq.hpp>

#include <map>
#include <set>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
}

struct Subscriber::OwnSockets {
    std::map<int, zmq::socket_t> sockets;
    // With shared sockets: the endpoint of each publisher id, and whether they are registered.
    std::map<int, std::string> sharedAddresses;
    bool registered = false;
    boost::mutex mutex;
    int nextId = 0;
};

Subscriber::Subscriber(const HostInfo& publisher, const std::vector<std::string>& topics,
                       Sockets sockets)
    : Thread("Subscriber"), m_sockets(std::make_unique<OwnSockets>()),
      m_shared(sockets == Sockets::Shared), m_topics(topics) {
    addPublisher(publisher);
}

Subscriber::Subscriber(std::vector<HostInfo> publishers, const std::vector<std::string>& topics)
    : Thread("Subscriber"), m_sockets(std::make_unique<OwnSockets>()), m_shared(false),
      m_topics(topics) {
    for (const auto& publisher : publishers)
        addPublisher(publisher);
}

Subscriber::~Subscriber() {
    stop();
    finalize();
    {
        boost::lock_guard<boost::mutex> lock(m_sockets->mutex);
        m_sockets->sockets.clear();
    }
}

int Subscriber::addPublisher(const HostInfo& publisher) {
    boost::lock_guard<boost::mutex> lock(m_sockets->mutex);
    if (!publisher.hasNameOrIp() || !publisher.hasPublisherPort()) {
        KS_FATAL(
            "Trying to subscribe to publisher with not enough HostInfo: " << publisher.toString());
        return -1;
    }
    int id = m_sockets->nextId++;
    std::string host = !publisher.getIp().empty() ? publisher.getIp() : publisher.getName();
    std::string address = "tcp://" + host + ":" + std::to_string(publisher.getPublisherPort());
    if (m_shared) {
        m_sockets->sharedAddresses.emplace(id, address);
        if (m_sockets->registered)
            SharedSubscriptions::instance().add(address, m_topics, this, id);
    } else {
        auto& socket =
            m_sockets->sockets
                .emplace(id, zmq::socket_t(SharedSubscriptions::context(), zmq::socket_type::sub))
                .first->second;
        // A subscriber sends nothing that must survive its close.
        socket.set(zmq::sockopt::linger, 0);
        socket.connect(address);
        for (const auto& topic : m_topics)
            socket.set(zmq::sockopt::subscribe, topic + "|");
        if (m_topics.empty())
            socket.set(zmq::sockopt::subscribe, "");
    }
    if (m_topics.empty())
        KS_INFO("Subscribed to all topics on " << address << " (pulisherId: " << id << ")");
    for (const auto& topic : m_topics)
        KS_INFO("Subscribed to topic " << topic << " on " << address << " (pulisherId: " << id
                                       << ")");
    return id;
}

void Subscriber::removePublisher(int id) {
    bool unregister = false;
    {
        boost::lock_guard<boost::mutex> lock(m_sockets->mutex);
        m_sockets->sockets.erase(id);
        unregister = m_sockets->sharedAddresses.erase(id) && m_sockets->registered;
    }
    // Outside the lock: this waits for a call in progress, which may add publishers.
    if (unregister)
        SharedSubscriptions::instance().remove(this, id);
    KS_INFO("Publisher " << id << " removed.");
}

bool Subscriber::start(bool startNow) {
    if (!m_shared)
        return Thread::start(startNow);
    return startNow && joinShared();
}

void Subscriber::stop() {
    {
        boost::lock_guard<boost::mutex> lock(m_mutex);
        m_stop = true;
        m_condition.notify_all();
    }
    if (m_shared && leaveShared())
        KS_INFO("Subscriber stopped.");
}

void Subscriber::handleNoNewMessage(int) {}

void Subscriber::executeRun() {
    if (m_shared) {
        // Reached only through Thread::start: the thread just holds the registration.
        joinShared();
        boost::unique_lock<boost::mutex> lock(m_mutex);
        while (!m_stop)
            m_condition.wait(lock);
        return;
    }
    runOwnSockets();
    KS_INFO("Subscriber stopped.");
}

bool Subscriber::joinShared() {
    boost::lock_guard<boost::mutex> lock(m_sockets->mutex);
    if (m_sockets->registered)
        return false;
    for (const auto& entry : m_sockets->sharedAddresses)
        SharedSubscriptions::instance().add(entry.second, m_topics, this, entry.first);
    m_sockets->registered = true;
    return true;
}

bool Subscriber::leaveShared() {
    std::vector<int> ids;
    {
        boost::lock_guard<boost::mutex> lock(m_sockets->mutex);
        if (!m_sockets->registered)
            return false;
        m_sockets->registered = false;
        for (const auto& entry : m_sockets->sharedAddresses)
            ids.push_back(entry.first);
    }
    // Outside the lock, since this waits for a call in progress. Once it returns no handler
    // runs: the owner may destroy the subscriber.
    for (int id : ids)
        SharedSubscriptions::instance().remove(this, id);
    return true;
}

void Subscriber::runOwnSockets() {
    using Message = SharedSubscriptions::Message;
    for (;;) {
        std::map<int, Message> received;
        std::set<int> silent;
        {
            boost::lock_guard<boost::mutex> lock(m_sockets->mutex);
            for (auto& entry : m_sockets->sockets) {
                Message message;
                if (SharedSubscriptions::receive(entry.second, message))
                    received.emplace(entry.first, std::move(message));
                else
                    silent.insert(entry.first);
            }
        }
        // Handlers run without the socket lock, so that they may add or remove publishers.
        for (auto& entry : received)
            handleMessage(entry.first, entry.second.topic, entry.second.content);
        for (int id : silent)
            handleNoNewMessage(id);

        boost::unique_lock<boost::mutex> lock(m_mutex);
        if (m_stop)
            break;
        if (received.empty())
            m_condition.wait_until(lock, boost::chrono::steady_clock::now() +
                                             boost::chrono::nanoseconds(10000000));
        if (m_stop)
            break;
    }
}

} // namespace Kestrane
