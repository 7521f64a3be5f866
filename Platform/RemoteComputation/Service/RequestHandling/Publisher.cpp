#include "Platform/RemoteComputation/Service/RequestHandling/Publisher.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"

#include <zmq.hpp>

#include <cstdlib>
#include <cstring>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
}

const std::string Publisher::c_topicAlive = "alive";
const std::string Publisher::c_topicLog = "log";
const std::string Publisher::c_topicLogMessage = "logMsg";
const std::string Publisher::c_topicJobStatus = "jobStatus";
const std::string Publisher::c_topicLastTimestep = "lastTimestep";
const std::string Publisher::c_topicOperationsData = "operations";
const std::string Publisher::c_topicSimulationsData = "simData";
const std::string Publisher::c_topicSimulationsLogMessage = "simLogMsg";
const std::string Publisher::c_topicSimulationsLogSet = "simLog";
const std::string Publisher::c_prefixSimulationsLogAppend = "simLog_";

Publisher* Publisher::s_instance = nullptr;
boost::mutex Publisher::s_instanceMutex;

struct Publisher::Socket {
    zmq::context_t context;
    zmq::socket_t socket{context, zmq::socket_type::pub};
};

Publisher* Publisher::getInstance() {
    boost::lock_guard<boost::mutex> lock(s_instanceMutex);
    if (!s_instance) {
        auto config = RequestServerConfiguration::getRegisteredInstance();
        int listenPort = config->getListenPort();
        if (listenPort == 0) {
            s_instance = new Publisher(-1, -1);
            KS_TRACE("Created Publisher instance: " << s_instance);
        } else {
            int range = config->getPortRange();
            s_instance = new Publisher(listenPort, range);
            KS_TRACE("Created Publisher instance (port range="
                     << listenPort << "-" << listenPort + range - 1 << "): " << s_instance);
        }
    }
    return s_instance;
}

Publisher::Publisher(int firstPort, int range) : m_socket(std::make_unique<Socket>()) {
    bool bound = false;
    if (firstPort < 0) {
        m_socket->socket.bind("tcp://*:*");
        bound = true;
    } else {
        int last = firstPort + range - 1;
        KS_TRACE("Creating Publisher instance for port range " << firstPort << "-" << last
                                                               << "...");
        int offset = range > 0 ? std::rand() % range : 0;
        for (int i = 0; i < range && !bound; ++i) {
            int port = firstPort + (i + offset) % range;
            KS_TRACE("Trying to create publisher on port " << port);
            try {
                m_socket->socket.bind("tcp://*:" + std::to_string(port));
                bound = true;
            } catch (const zmq::error_t& e) {
                KS_TRACE("Creating publisher on port " << port << " failed: " << e.what());
            }
        }
        if (!bound)
            KS_FATAL("ERROR: can't find free port in " << firstPort << "-" << last
                                                       << ". Publisher not started!");
    }
    if (bound) {
        std::string endpoint = m_socket->socket.get(zmq::sockopt::last_endpoint);
        m_port = std::atoi(endpoint.substr(endpoint.rfind(':') + 1).c_str());
        KS_INFO("Publisher started on " << endpoint);
    }
}

Publisher::~Publisher() = default;

void Publisher::publish(const std::string& topic, const std::vector<std::string>& content) {
    // The topic frame is built without a heap allocation: publishing is on hot paths.
    zmq::message_t head(topic.size() + 1);
    std::memcpy(head.data(), topic.data(), topic.size());
    static_cast<char*>(head.data())[topic.size()] = '|';
    {
        boost::lock_guard<boost::mutex> lock(m_mutex);
        auto more = content.empty() ? zmq::send_flags::none : zmq::send_flags::sndmore;
        bool sent = m_socket->socket.send(head, more).has_value();
        for (size_t i = 0; sent && i < content.size(); ++i) {
            auto flags = i + 1 < content.size() ? zmq::send_flags::sndmore : zmq::send_flags::none;
            sent = m_socket->socket.send(zmq::buffer(content[i]), flags).has_value();
        }
    }
    if (Logging::isEnabled(LogLevel::Trace)) {
        std::string text;
        for (const auto& element : content)
            text += " " + element;
        KS_TRACE("PUBLISH - " << topic << text);
    }
}

void Publisher::publishLogMessage(const LogMessage& message) {
    publish(c_topicLogMessage, {LogMessage::typeToString(message.type()), message.getGroup(),
                                std::to_string(message.timeStamp()), message.text()});
    KS_TRACE("LOGMSG - " << LogMessage::typeToString(message.type()) << " - " << message.getGroup()
                         << " - " << message.timeStamp() << " - " << message.text());
}

} // namespace Kestrane
