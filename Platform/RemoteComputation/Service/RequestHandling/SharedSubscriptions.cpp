#include "Platform/RemoteComputation/Service/RequestHandling/SharedSubscriptions.h"

#include "Platform/RemoteComputation/Service/RequestHandling/Subscriber.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <boost/thread/lock_guard.hpp>
#include <zmq.hpp>

#include <algorithm>
#include <utility>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

constexpr long c_silentPassMs = 10;
} // namespace

struct SharedSubscriptions::Endpoint {
    Endpoint() : socket(context(), zmq::socket_type::sub) {}

    zmq::socket_t socket;
    std::vector<std::pair<Subscriber*, int>> subscribers;
    Clock::time_point lastUsed = Clock::now();
};

SharedSubscriptions& SharedSubscriptions::instance() {
    // Never destroyed: subscribers may leave during exit.
    static SharedSubscriptions* instance = new SharedSubscriptions();
    return *instance;
}

zmq::context_t& SharedSubscriptions::context() {
    static zmq::context_t* context = new zmq::context_t();
    return *context;
}

bool SharedSubscriptions::receive(zmq::socket_t& socket, Message& message) {
    zmq::message_t frame;
    if (!socket.recv(frame, zmq::recv_flags::dontwait))
        return false;
    const std::string topicFrame = frame.to_string();
    message.topic = topicFrame;
    if (!message.topic.empty())
        message.topic.pop_back();
    message.content.clear();
    while (frame.more()) {
        (void)socket.recv(frame, zmq::recv_flags::none);
        message.content.push_back(frame.to_string());
    }
    if (Logging::isEnabled(LogLevel::Trace)) {
        std::string text = " " + topicFrame;
        for (const auto& f : message.content)
            text += " " + f;
        KS_TRACE("SUBRECV - " << message.topic << " - " << text);
    }
    return true;
}

void SharedSubscriptions::add(const std::string& address, const std::vector<std::string>& topics,
                              Subscriber* subscriber, int publisherId) {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    auto& endpoint = m_endpoints[Key(address, topics)];
    if (!endpoint) {
        endpoint = std::make_shared<Endpoint>();
        // A subscriber sends nothing that must survive its close.
        endpoint->socket.set(zmq::sockopt::linger, 0);
        endpoint->socket.connect(address);
        if (topics.empty())
            endpoint->socket.set(zmq::sockopt::subscribe, "");
        for (const auto& topic : topics)
            endpoint->socket.set(zmq::sockopt::subscribe, topic + "|");
        KS_DEBUG("Shared subscription opened on " << address);
    }
    endpoint->subscribers.emplace_back(subscriber, publisherId);
    if (!m_polling) {
        // The previous thread has left its loop (it cleared the flag last).
        if (m_thread.joinable())
            m_thread.join();
        m_polling = true;
        m_thread = boost::thread([this] { poll(); });
    }
}

void SharedSubscriptions::remove(Subscriber* subscriber, int publisherId) {
    {
        boost::lock_guard<boost::mutex> lock(m_mutex);
        for (auto& entry : m_endpoints) {
            auto& subscribers = entry.second->subscribers;
            auto gone = std::remove(subscribers.begin(), subscribers.end(),
                                    std::make_pair(subscriber, publisherId));
            if (gone != subscribers.end()) {
                subscribers.erase(gone, subscribers.end());
                entry.second->lastUsed = Clock::now();
            }
        }
    }
    // Waits for a pass that may be calling the subscriber right now; on the polling thread
    // itself the lock is already ours.
    boost::lock_guard<boost::recursive_mutex> calls(m_callMutex);
}

size_t SharedSubscriptions::openSockets() const {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    return m_endpoints.size();
}

void SharedSubscriptions::setKeepOpen(std::chrono::milliseconds keepOpen) {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    m_keepOpen = keepOpen;
}

bool SharedSubscriptions::closeUnused(Clock::time_point now) {
    for (auto it = m_endpoints.begin(); it != m_endpoints.end();) {
        if (it->second->subscribers.empty() && now - it->second->lastUsed >= m_keepOpen) {
            KS_DEBUG("Shared subscription closed on " << it->first.first);
            it = m_endpoints.erase(it);
        } else {
            ++it;
        }
    }
    return !m_endpoints.empty();
}

bool SharedSubscriptions::isSubscribed(const Endpoint& endpoint,
                                       const std::pair<Subscriber*, int>& entry) const {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    const auto& subscribers = endpoint.subscribers;
    return std::find(subscribers.begin(), subscribers.end(), entry) != subscribers.end();
}

void SharedSubscriptions::poll() {
    std::vector<std::shared_ptr<Endpoint>> endpoints;
    std::vector<zmq::pollitem_t> items;
    for (;;) {
        {
            boost::lock_guard<boost::mutex> lock(m_mutex);
            if (!closeUnused(Clock::now())) {
                m_polling = false;
                return;
            }
            // Sockets are only ever used and closed on this thread; the map's lock guards the
            // lists of subscribers.
            endpoints.clear();
            items.clear();
            for (auto& entry : m_endpoints) {
                endpoints.push_back(entry.second);
                items.push_back({entry.second->socket.handle(), 0, ZMQ_POLLIN, 0});
            }
        }
        zmq::poll(items.data(), items.size(), std::chrono::milliseconds(c_silentPassMs));

        boost::lock_guard<boost::recursive_mutex> calls(m_callMutex);
        for (size_t i = 0; i < endpoints.size(); ++i) {
            std::vector<Message> messages;
            if (items[i].revents & ZMQ_POLLIN) {
                Message message;
                while (receive(endpoints[i]->socket, message))
                    messages.push_back(std::move(message));
            }
            std::vector<std::pair<Subscriber*, int>> subscribers;
            {
                boost::lock_guard<boost::mutex> lock(m_mutex);
                subscribers = endpoints[i]->subscribers;
            }
            for (auto& subscriber : subscribers) {
                for (auto& message : messages) {
                    if (isSubscribed(*endpoints[i], subscriber))
                        subscriber.first->handleMessage(subscriber.second, message.topic,
                                                        message.content);
                }
                if (messages.empty() && isSubscribed(*endpoints[i], subscriber))
                    subscriber.first->handleNoNewMessage(subscriber.second);
            }
        }
    }
}

} // namespace Kestrane
