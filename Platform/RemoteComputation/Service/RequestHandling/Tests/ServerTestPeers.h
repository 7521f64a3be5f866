#pragma once

// Peers of a request server for tests: a raw client that writes packets by hand, a stand-in
// for a client's own request server that catches reply deliveries, and a request handler whose
// replies a test scripts.

#include "Platform/RemoteComputation/Service/RequestHandling/AbstractRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Tests/XLinkTestSupport.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileReceiver.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

namespace KestraneTest {

// The bytes of one text packet on the wire.
inline std::string wirePacket(const std::string& type, const std::string& data) {
    return type + " " + std::to_string(data.size()) + " " + data;
}

// A connection to a request server that writes bytes by hand. Every read ends after 5 s at
// the latest, so that a test never hangs on a server that keeps quiet.
struct RawClient {
    Kestrane::Computing::ClientSocket socket;

    explicit RawClient(int port) {
        socket.connect("127.0.0.1", port);
        socket.setTimeout(5000);
    }
    void raw(const std::string& bytes) { socket.sendDataBlock(bytes.data(), bytes.size()); }
    void command(const std::string& text) { raw(wirePacket("C", text)); }
    // Up to `count` bytes: fewer when the server closes first.
    std::string read(size_t count) {
        std::string out;
        socket.receiveDataBlock(out, count);
        return out;
    }
    // Everything until the server closes the connection.
    std::string readUntilClosed() { return read(1 << 20); }
};

// A port on which nobody listens.
inline int closedPort() {
    Kestrane::Computing::ListenSocket probe(0, 1, 1);
    return probe.getListenPort();
}

// What a client's request server saw of one connection.
struct Received {
    std::string type;
    std::string data;
    // The raw block that followed an "ARCH " or "HDFS " command.
    std::string block;
};

struct Conversation {
    std::vector<Received> packets;
    // One entry per "FILE " command that was answered by a file reception: "" for a file
    // received, the receiver's error message otherwise.
    std::vector<std::string> fileResults;
    // Whether the conversation ended with "CLOSE_CONNECTION".
    bool closed = false;

    std::vector<std::string> texts() const {
        std::vector<std::string> out;
        for (const auto& packet : packets)
            out.push_back(packet.type + " " + packet.data);
        return out;
    }
};

// Stands in for the request server of a client: a listening socket on loopback that accepts
// reply deliveries and reads them packet by packet.
class ReplyCatcher {
public:
    ReplyCatcher() {
        m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int yes = 1;
        ::setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = 0;
        if (::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(m_fd, 16) != 0)
            throw std::runtime_error("ReplyCatcher cannot listen");
        socklen_t length = sizeof(address);
        ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length);
        m_port = ntohs(address.sin_port);
    }
    ~ReplyCatcher() { ::close(m_fd); }
    ReplyCatcher(const ReplyCatcher&) = delete;
    ReplyCatcher& operator=(const ReplyCatcher&) = delete;

    int port() const { return m_port; }

    // The next connection, or null when none comes in time.
    std::unique_ptr<Kestrane::Computing::ServerSocket> accept(std::chrono::milliseconds limit) {
        pollfd waiting{m_fd, POLLIN, 0};
        if (::poll(&waiting, 1, static_cast<int>(limit.count())) != 1)
            return nullptr;
        int handle = ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (handle < 0)
            return nullptr;
        auto socket =
            std::make_unique<Kestrane::Computing::ServerSocket>(static_cast<uint64_t>(handle));
        socket->setTimeout(5000);
        return socket;
    }

    // Reads one delivery until "CLOSE_CONNECTION" or the end of the connection, answering a
    // ping as a server does. The identity
    // question is answered with `identity`; with `receiveFiles` a "FILE " command is followed
    // by a file reception into `fileDir`, otherwise the command is only recorded.
    static Conversation read(Kestrane::Computing::ServerSocket& socket, const std::string& identity,
                             bool receiveFiles = false, const std::string& fileDir = "") {
        Conversation conversation;
        for (;;) {
            std::shared_ptr<Kestrane::SocketPacket> packet;
            try {
                packet = Kestrane::SocketPacket::receive(socket, "catcher");
            } catch (const std::exception&) {
                break;
            }
            Received received{packet->getType(), *packet->getData(), ""};
            const bool command = received.type == "C";
            const std::string& data = received.data;
            if (command && data == "CLOSE_CONNECTION") {
                conversation.packets.push_back(received);
                conversation.closed = true;
                break;
            }
            if (command && data == "PING") {
                Kestrane::SocketPacket::send("C", "PONG", socket, "catcher");
            } else if (command && data == "GET_HOST_AND_USER_ID") {
                Kestrane::SocketPacket::send("C", "HOST_AND_USER_ID " + identity, socket,
                                             "catcher");
            } else if (command && (data.rfind("ARCH ", 0) == 0 || data.rfind("HDFS ", 0) == 0) &&
                       data.size() > 56) {
                const auto size = std::stoul(data.substr(56));
                socket.receiveDataBlock(received.block, size);
            } else if (command && data.rfind("FILE ", 0) == 0 && receiveFiles) {
                const size_t space = data.find(' ', 5);
                const std::string leaf = data.substr(space + 52);
                Kestrane::Computing::FileReceiver receiver(socket.getSocket(), false, 4096);
                bool copied = false;
                bool ok = receiver.execute(leaf, fileDir, copied);
                conversation.fileResults.push_back(ok ? "" : receiver.getErrorMessage());
            }
            conversation.packets.push_back(received);
        }
        return conversation;
    }

    // Accepts one connection and reads it; an empty conversation when none comes in time.
    Conversation catchOne(const std::string& identity, bool receiveFiles = false,
                          const std::string& fileDir = "",
                          std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        auto socket = accept(limit);
        if (!socket)
            return Conversation();
        return read(*socket, identity, receiveFiles, fileDir);
    }

private:
    int m_fd = -1;
    int m_port = 0;
};

// An identity that no process of this host has: files travel to such a peer.
inline std::string foreignIdentity() {
    return "far-away-host#somebody-else";
}

// A request whose id a test may choose freely, also outside the id format.
class ScriptedRequest : public Kestrane::Request {
public:
    ScriptedRequest(const xercesc::DOMElement* element, const std::string& id)
        : Kestrane::Request(element) {
        if (!id.empty())
            m_id = id;
    }
};

struct SeenElement {
    std::string id, href, fileTransfered;
};

// Decodes "LinkTestRequest" requests (the link test schema) and answers them with what the
// test scripts; records the data elements as decoding finds them.
class ScriptedHandler : public Kestrane::AbstractRequestHandler {
public:
    using Script = std::function<std::shared_ptr<std::string>(Kestrane::Request&)>;

    ScriptedHandler() : Kestrane::AbstractRequestHandler("ScriptedHandler") {}

    std::shared_ptr<Kestrane::Request> decodeRequest(Kestrane::XmlRequest& request) const override {
        if (request.getType() != "LinkTestRequest")
            return nullptr;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_seen.clear();
        for (auto element : Kestrane::XmlUtils::getElements("data", request.getRootElement()))
            m_seen.push_back({Kestrane::XmlUtils::getAttribute("id", element),
                              Kestrane::XmlUtils::getAttribute("href", element),
                              Kestrane::XmlUtils::getAttribute("fileTransfered", element)});
        return std::make_shared<ScriptedRequest>(request.getRootElement(), m_idOverride);
    }
    bool canHandle(Kestrane::Request* request) override {
        return dynamic_cast<ScriptedRequest*>(request) != nullptr;
    }
    std::shared_ptr<std::string> handle(Kestrane::Request* request) override {
        Script script;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            ++m_calls;
            m_lastClientDescription = request->getClientDescription();
            m_lastTmpPathCount = request->getTmpPaths().size();
            script = m_script;
        }
        return script ? script(*request) : nullptr;
    }

    void reset() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_seen.clear();
        m_script = nullptr;
        m_idOverride.clear();
        m_calls = 0;
        m_lastClientDescription.clear();
        m_lastTmpPathCount = 0;
    }
    void setScript(Script script) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_script = std::move(script);
    }
    void setIdOverride(const std::string& id) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_idOverride = id;
    }
    std::vector<SeenElement> seen() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_seen;
    }
    int calls() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }
    std::string lastClientDescription() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lastClientDescription;
    }
    size_t lastTmpPathCount() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lastTmpPathCount;
    }

    // The process's one scripted handler, added to the default request handler with the link
    // test schema at its first use and reset for each test. A handler added later would never be
    // asked: the first one that decodes a request takes it.
    static std::shared_ptr<ScriptedHandler> install() {
        static const std::shared_ptr<ScriptedHandler> handler = [] {
            auto made = std::make_shared<ScriptedHandler>();
            Kestrane::RequestHandler::getDefaultRequestHandler()->addRequestHandler(
                made, LinkTestSchema());
            return made;
        }();
        handler->reset();
        return handler;
    }

private:
    mutable std::mutex m_mutex;
    mutable std::vector<SeenElement> m_seen;
    Script m_script;
    std::string m_idOverride;
    int m_calls = 0;
    std::string m_lastClientDescription;
    size_t m_lastTmpPathCount = 0;
};

inline std::string dataElement(const std::string& id, const std::string& href,
                               const std::string& more = "") {
    return "<data id=\"" + id + "\" name=\"n\" href=\"" + href + "\"" + more + "/>";
}

// The text of a "LinkTestRequest" with these elements.
inline std::string linkRequest(const std::string& id, const std::string& elements = "") {
    return "<request xsi:type=\"LinkTestRequest\" id=\"" + id + "\">\n" + elements +
           "\n</request>\n";
}

// The text of a "LinkTestReply" with these elements, as a handler returns it.
inline std::string linkReply(const std::string& requestId, const std::string& elements = "") {
    return "<reply xsi:type=\"LinkTestReply\" requestId=\"" + requestId + "\">\n" + elements +
           "\n</reply>\n";
}

// A request package around the request. With `replyPort` above 0 a reply is expected and goes
// to that port (at the address that the request comes from); with 0 none is expected.
inline std::string requestPackage(const std::string& request, int replyPort) {
    Kestrane::RequestPackageEncoder encoder(request, "RC", "");
    encoder.setReplyExpected(replyPort > 0);
    std::string text = encoder.getEncodedRequestPackage();
    if (replyPort > 0)
        text = std::regex_replace(text, std::regex("replyPort=\"[0-9]+\""),
                                  "replyPort=\"" + std::to_string(replyPort) + "\"");
    return text;
}

// The package as a server decodes it from a connection of 127.0.0.1.
inline std::shared_ptr<Kestrane::RequestPackage> decodePackage(const std::string& text) {
    return Kestrane::RequestPackage::decode(text,
                                            *Kestrane::RequestHandler::getDefaultRequestHandler(),
                                            nullptr, "127.0.0.1", "127.0.0.1");
}

} // namespace KestraneTest
