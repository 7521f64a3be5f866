#pragma once

// A stand-in for a request server, for the tests of the client side: it accepts connections on
// loopback, records every packet that arrives, and answers only what the client needs to get
// on (PONG, HOST_AND_USER_ID, the file exchange). It can also deliver a reply to this process's
// own RequestServer, as a real server would.

#include "Platform/RemoteComputation/Service/RequestHandling/BinarySocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileCommand.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HostAndUserId.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileReceiver.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <boost/lexical_cast.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <regex>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Kestrane {
namespace Testing {

struct ClientRecordedPacket {
    int connection;
    std::string type; // "C", "RQ", ...; "BINARY" for the raw block behind HDFS/ARCH
    std::string data;
    std::string word() const { return type == "C" ? data.substr(0, data.find(' ')) : type; }
};

// The id of the request inside an encoded request package.
inline std::string clientRequestIdOf(const std::string& package) {
    std::smatch match;
    static const std::regex pattern("<request [^>]*\\bid=\"([^\"]*)\"");
    return std::regex_search(package, match, pattern) ? std::string(match[1]) : std::string();
}

// Delivers a reply to this process's RequestServer the way a server does it.
inline void clientDeliverReply(const std::string& requestId, const std::string& replyXml,
                               int serial) {
    Computing::ClientSocket socket;
    socket.connect("127.0.0.1", RequestServer::getInstance(-1, 0)->getPort());
    SocketPacket::send("C", "REPLY_ID " + requestId, socket, "test");
    SocketPacket::send("RP", ReplyPackageEncoder(replyXml, serial).getEncodedReplyPackage(), socket,
                       "test");
    SocketPacket::send("C", "CLOSE_CONNECTION", socket, "test");
}

class ClientFakeServer {
public:
    enum class FileMode {
        Receive, // a real FileReceiver into fileDirectory
        Stall    // takes the file's first bytes, then reads no more until stop()
    };

    // What it answers; set before start().
    std::string pingAnswer = "PONG";
    bool closeAfterPing = false;
    std::string hostAndUserAnswer = HostAndUserId().toString();
    FileMode fileMode = FileMode::Receive;
    std::string fileDirectory;
    // Called on the server's thread with the payload of each "RQ" packet.
    std::function<void(const std::string&)> onRequest;

    ClientFakeServer() = default;
    ~ClientFakeServer() { stop(); }
    ClientFakeServer(const ClientFakeServer&) = delete;
    ClientFakeServer& operator=(const ClientFakeServer&) = delete;

    void start() {
        m_thread = std::thread([this] { acceptLoop(); });
    }

    int port() const { return m_listener.getListenPort(); }
    HostInfo host() const {
        HostInfo info("127.0.0.1", "localhost");
        info.setRequestServerPort(port());
        return info;
    }

    // Ends the conversation under way (also one that the client left open) and the thread.
    void stop() {
        if (!m_thread.joinable())
            return;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stopping = true;
            if (m_activeFd >= 0)
                ::shutdown(m_activeFd, SHUT_RDWR);
        }
        m_changed.notify_all();
        try {
            Computing::ClientSocket wake;
            wake.connect("127.0.0.1", port());
        } catch (...) {
        }
        m_thread.join();
    }

    std::vector<ClientRecordedPacket> packets() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_packets;
    }
    // The packets as words: the command word of a "C" packet ("PING", "FILE", ...), else the
    // type ("RQ", "BINARY").
    std::vector<std::string> words() const {
        std::vector<std::string> result;
        for (const auto& packet : packets())
            result.push_back(packet.word());
        return result;
    }
    int connectionCount() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_connections;
    }
    int finishedConnections() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_finished;
    }
    bool waitForFinishedConnections(int count, std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, limit, [&] { return m_finished >= count; });
    }
    // True once a stalled file transfer is under way.
    bool waitForStalledFile(std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, limit, [&] { return m_stalled; });
    }
    // What the receivers said, one entry per file: "copied", "not copied" or "failed: ...".
    std::vector<std::string> fileResults() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_fileResults;
    }

private:
    void record(int connection, const std::string& type, const std::string& data) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_packets.push_back({connection, type, data});
    }

    void acceptLoop() {
        for (;;) {
            uint64_t handle = m_listener.accept();
            int connection;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                if (m_stopping) {
                    ::close(static_cast<int>(handle));
                    return;
                }
                m_activeFd = static_cast<int>(handle);
                connection = m_connections++;
            }
            {
                Computing::ServerSocket socket(handle);
                try {
                    converse(socket, connection);
                } catch (...) {
                    // A client that vanished ends its conversation, as with a real server.
                }
                std::lock_guard<std::mutex> lock(m_mutex);
                m_activeFd = -1;
            }
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                ++m_finished;
            }
            m_changed.notify_all();
        }
    }

    void converse(Computing::ServerSocket& socket, int connection) {
        for (;;) {
            auto packet = SocketPacket::receive(socket, "fake");
            const std::string data = *packet->getData();
            record(connection, packet->getType(), data);
            if (packet->getType() == "RQ") {
                if (onRequest)
                    onRequest(data);
                continue;
            }
            if (packet->getType() != "C")
                continue;
            if (data == "PING") {
                if (closeAfterPing)
                    return;
                SocketPacket::send("C", pingAnswer, socket, "fake");
            } else if (data == "GET_HOST_AND_USER_ID") {
                SocketPacket::send("C", "HOST_AND_USER_ID " + hostAndUserAnswer, socket, "fake");
            } else if (data == "CLOSE_CONNECTION") {
                return;
            } else if (data.compare(0, 5, "FILE ") == 0) {
                FileCommand command;
                if (!FileCommand::parse(data, command))
                    return;
                if (fileMode == FileMode::Stall) {
                    stallFile(socket);
                    return;
                }
                Computing::FileReceiver receiver(socket.getSocket(), false, 65536);
                bool copied = false;
                bool ok = receiver.execute(command.fileName, fileDirectory, copied);
                std::lock_guard<std::mutex> lock(m_mutex);
                m_fileResults.push_back(!ok      ? "failed: " + receiver.getErrorMessage()
                                        : copied ? "copied"
                                                 : "not copied");
            } else if (data.compare(0, 5, "HDFS ") == 0 || data.compare(0, 5, "ARCH ") == 0) {
                auto size = boost::lexical_cast<uint32_t>(data.substr(56));
                auto block = BinarySocketPacket::receive(size, socket, "fake");
                record(connection, "BINARY", std::string(block->getData(), size));
                std::free(block->getData());
            }
        }
    }

    // The receiving side of the file exchange, up to the first bytes of the file; then it
    // reads nothing more, so that the sender sits in the middle of the transfer.
    void stallFile(Computing::ServerSocket& socket) {
        const int fd = static_cast<int>(socket.getSocket());
        auto readExact = [fd](size_t size) {
            std::string out(size, '\0');
            size_t done = 0;
            while (done < size) {
                ssize_t n = ::recv(fd, &out[done], size - done, 0);
                if (n <= 0)
                    throw std::runtime_error("peer gone");
                done += static_cast<size_t>(n);
            }
            return out;
        };
        auto readU32 = [&] {
            std::string bytes = readExact(4);
            uint32_t value = 0;
            for (int i = 3; i >= 0; --i)
                value = (value << 8) | static_cast<unsigned char>(bytes[i]);
            return value;
        };
        ::send(fd, "KSFR", 4, MSG_NOSIGNAL);
        readExact(5 + 8); // "KSFH", status, size
        for (int text = 0; text < 4; ++text)
            readExact(readU32());
        ::send(fd, "C", 1, MSG_NOSIGNAL);
        readExact(65536);
        std::unique_lock<std::mutex> lock(m_mutex);
        m_stalled = true;
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return m_stopping; });
    }

    Computing::ListenSocket m_listener{0, 1, 16};
    std::thread m_thread;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_stopping = false;
    bool m_stalled = false;
    int m_activeFd = -1;
    int m_connections = 0;
    int m_finished = 0;
    std::vector<ClientRecordedPacket> m_packets;
    std::vector<std::string> m_fileResults;
};

} // namespace Testing
} // namespace Kestrane
