#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/Publisher.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Subscriber.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Kestrane {
namespace Testing {

struct ReceivedMessage {
    int publisherId;
    std::string topic;
    std::vector<std::string> content;
    std::chrono::steady_clock::time_point time;
};

// A subscriber that keeps what it receives.
class RecordingSubscriber : public Subscriber {
public:
    using Subscriber::Sockets;
    RecordingSubscriber(const HostInfo& host, const std::vector<std::string>& topics,
                        Sockets sockets = Sockets::Own)
        : Subscriber(host, topics, sockets) {}
    RecordingSubscriber(std::vector<HostInfo> hosts, const std::vector<std::string>& topics)
        : Subscriber(std::move(hosts), topics) {}
    ~RecordingSubscriber() override {
        stop();
        finalize();
    }
    using Subscriber::addPublisher;
    using Subscriber::removePublisher;

    void handleMessage(int id, const std::string& topic,
                       const std::vector<std::string>& content) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_messages.push_back({id, topic, content, std::chrono::steady_clock::now()});
        m_changed.notify_all();
    }
    void handleNoNewMessage(int id) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_silentPasses[id];
    }
    std::vector<ReceivedMessage> messages() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages;
    }
    int silentPasses(int id) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_silentPasses[id];
    }
    bool waitFor(const std::function<bool(const ReceivedMessage&)>& match,
                 std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, limit, [&] {
            for (const auto& m : m_messages)
                if (match(m))
                    return true;
            return false;
        });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<ReceivedMessage> m_messages;
    std::map<int, int> m_silentPasses;
};

// Host info of this process's own publisher.
inline HostInfo ownPublisher() {
    HostInfo host;
    host.setIp("127.0.0.1");
    host.setPublisherPort(Publisher::getInstance()->getPort());
    return host;
}

// Publishes until `done` holds: a new subscriber misses the first messages.
inline bool publishUntil(const std::function<void()>& publish, const std::function<bool()>& done,
                         std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        publish();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (done())
            return true;
    }
    return false;
}

} // namespace Testing
} // namespace Kestrane
