#include "Platform/RemoteComputation/Service/RequestHandling/Subscriber.h"
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

namespace {
// One context for all subscribers of the process: a context starts I/O threads of its own, too
// dear for a watcher that lives only while one reply is awaited. Never destroyed, so that no
// subscriber outlives it at exit.
zmq::context_t& sharedContext() {
    static zmq::context_t* context = new zmq::context_t();
    return *context;
}
} // namespace

struct Subscriber::Sockets {
    zmq::context_t& context = sharedContext();
    std::map<int, zmq::socket_t> sockets;
    boost::mutex mutex;
    int nextId = 0;
};

Subscriber::Subscriber(const HostInfo& publisher, const std::vector<std::string>& topics)
    : Subscriber(std::vector<HostInfo>{publisher}, topics) {}

Subscriber::Subscriber(std::vector<HostInfo> publishers, const std::vector<std::string>& topics)
    : Thread("Subscriber"), m_sockets(std::make_unique<Sockets>()), m_topics(topics) {
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
    auto& socket =
        m_sockets->sockets.emplace(id, zmq::socket_t(m_sockets->context, zmq::socket_type::sub))
            .first->second;
    std::string host = !publisher.getIp().empty() ? publisher.getIp() : publisher.getName();
    std::string address = "tcp://" + host + ":" + std::to_string(publisher.getPublisherPort());
    // A subscriber sends nothing that must survive its close.
    socket.set(zmq::sockopt::linger, 0);
    socket.connect(address);
    if (m_topics.empty()) {
        socket.set(zmq::sockopt::subscribe, "");
        KS_INFO("Subscribed to all topics on " << address << " (pulisherId: " << id << ")");
    } else {
        for (const auto& topic : m_topics) {
            socket.set(zmq::sockopt::subscribe, topic + "|");
            KS_INFO("Subscribed to topic " << topic << " on " << address << " (pulisherId: " << id
                                           << ")");
        }
    }
    return id;
}

void Subscriber::removePublisher(int id) {
    boost::lock_guard<boost::mutex> lock(m_sockets->mutex);
    m_sockets->sockets.erase(id);
    KS_INFO("Publisher " << id << " removed.");
}

void Subscriber::stop() {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    m_stop = true;
    m_condition.notify_all();
}

void Subscriber::handleNoNewMessage(int) {}

void Subscriber::executeRun() {
    struct Message {
        std::string topic;
        std::vector<std::string> content;
    };
    for (;;) {
        std::map<int, Message> received;
        std::set<int> silent;
        {
            boost::lock_guard<boost::mutex> lock(m_sockets->mutex);
            for (auto& entry : m_sockets->sockets) {
                std::vector<std::string> frames;
                zmq::message_t frame;
                if (!entry.second.recv(frame, zmq::recv_flags::dontwait)) {
                    silent.insert(entry.first);
                    continue;
                }
                frames.push_back(frame.to_string());
                while (frame.more()) {
                    (void)entry.second.recv(frame, zmq::recv_flags::none);
                    frames.push_back(frame.to_string());
                }
                if (frames.empty()) {
                    KS_ERROR("SUBRECV - ERROR: empty messages!");
                    continue;
                }
                Message message;
                message.topic = frames[0];
                if (!message.topic.empty())
                    message.topic.pop_back();
                message.content.assign(frames.begin() + 1, frames.end());
                if (Logging::isEnabled(LogLevel::Trace)) {
                    std::string text;
                    for (const auto& f : frames)
                        text += " " + f;
                    KS_TRACE("SUBRECV - " << message.topic << " - " << text);
                }
                received.emplace(entry.first, std::move(message));
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
    KS_INFO("Subscriber stopped.");
}

} // namespace Kestrane
