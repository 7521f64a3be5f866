#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogMessage.h"

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>

#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

// The process's one-way notification channel: a ZeroMQ PUB socket on a port of the server's
// range. A message is the topic followed by "|" as its first frame and one frame per content
// element. Publishing never blocks on subscribers.
class Publisher {
public:
    static const std::string c_topicAlive;
    static const std::string c_topicLog;
    static const std::string c_topicLogMessage;
    static const std::string c_topicJobStatus;
    static const std::string c_topicLastTimestep;
    static const std::string c_topicOperationsData;
    static const std::string c_topicSimulationsData;
    static const std::string c_topicSimulationsLogMessage;
    static const std::string c_topicSimulationsLogSet;
    static const std::string c_prefixSimulationsLogAppend;

    // The process's publisher, made at the first call.
    static Publisher* getInstance();

    // The bound port, -1 when no port could be bound.
    int getPort() const { return m_port; }
    // Thread-safe; throws zmq::error_t on a send error other than EAGAIN.
    void publish(const std::string& topic, const std::vector<std::string>& content);
    // Frames: type text, group, time stamp, text.
    void publishLogMessage(const LogMessage& message);

    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

private:
    // firstPort < 0: the system picks the port.
    Publisher(int firstPort, int range);
    ~Publisher();

    struct Socket;
    std::unique_ptr<Socket> m_socket;
    boost::mutex m_mutex;
    int m_port = -1;

    static Publisher* s_instance;
    static boost::mutex s_instanceMutex;
};

} // namespace Kestrane
