// The reference for a request round trip between two processes, on plain sockets: the client
// opens a new connection, PING/PONG, sends "RQ" and CLOSE_CONNECTION; the server connects back
// to the client's listener and sends "C REPLY_ID <id>", optionally a raw data block, "RP" and
// CLOSE_CONNECTION. The client's listener thread hands each reply to the waiting thread by
// request id. Packets have the same wire form as the library's.
//
// The request payload starts with "<id> <replyPort> <replySize> <values> " and is padded to the
// size of the package it stands for; the server answers with an "RP" payload of `replySize`
// bytes and, for `values` above 0, a block of that many doubles behind a "C DATA" packet.
#pragma once

#include "BenchPeers.h"

#include <sys/socket.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

namespace BenchPeers {

// ---- the server side, run in a child process ----

inline void serveRawConnection(int fd) {
    noDelay(fd);
    PacketReader reader(fd);
    std::string type, payload, request;
    while (reader.readPacket(type, payload)) {
        if (type == "C" && payload == "PING")
            writeAll(fd, "C 4 PONG", 8);
        else if (type == "RQ")
            request = std::move(payload);
        else if (type == "C" && payload == "CLOSE_CONNECTION")
            break;
    }
    ::close(fd);
    if (request.empty())
        return;
    std::istringstream in(request);
    std::string id;
    int replyPort = 0;
    size_t replySize = 0;
    uint64_t values = 0;
    in >> id >> replyPort >> replySize >> values;
    int back = connectLoopback(replyPort);
    writePacket(back, "C", "REPLY_ID " + id);
    if (values > 0) {
        // Made per request, as a handler makes its result.
        const size_t bytes = values * sizeof(double);
        auto* array = static_cast<double*>(std::malloc(bytes));
        for (uint64_t i = 0; i < values; ++i)
            array[i] = static_cast<double>(i + 1) * 0.1;
        writePacket(back, "C", "DATA " + id + " " + std::to_string(bytes));
        writeAll(back, reinterpret_cast<const char*>(array), bytes);
        std::free(array);
    }
    writePacket(back, "RP", std::string(replySize, 'r'));
    writePacket(back, "C", "CLOSE_CONNECTION");
    ::close(back);
}

// Main of the raw server process: `threads` threads accept on one listener and each serves its
// connection to the end. Runs until SIGTERM.
inline int runRawServer(int threads) {
    sigset_t signals = blockStopSignals();
    int port = 0;
    int listener = listenLoopback(port);
    std::printf("PORT %d\n", port);
    std::fflush(stdout);
    for (int i = 0; i < threads; ++i)
        std::thread([listener] {
            for (;;) {
                int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
                if (fd < 0)
                    continue;
                try {
                    serveRawConnection(fd);
                } catch (const std::exception& e) {
                    std::fprintf(stderr, "raw server: %s\n", e.what());
                }
            }
        }).detach();
    waitForStopSignal(signals);
    return 0;
}

// ---- the client side ----

class RawReplyListener {
public:
    struct Reply {
        std::string package;
        char* block = nullptr; // malloc'ed; the receiver frees it
        size_t blockSize = 0;
    };

    RawReplyListener() {
        m_fd = listenLoopback(m_port);
        m_thread = std::thread([this] { run(); });
    }
    ~RawReplyListener() {
        m_stop = true;
        try {
            ::close(connectLoopback(m_port)); // wakes accept()
        } catch (const std::exception&) {
        }
        m_thread.join();
        ::close(m_fd);
    }
    RawReplyListener(const RawReplyListener&) = delete;
    RawReplyListener& operator=(const RawReplyListener&) = delete;

    int port() const { return m_port; }

    Reply waitFor(const std::string& id) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_condition.wait(lock, [&] { return m_replies.count(id) != 0; });
        Reply reply = std::move(m_replies[id]);
        m_replies.erase(id);
        return reply;
    }

private:
    void run() {
        for (;;) {
            int fd = ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (m_stop) {
                if (fd >= 0)
                    ::close(fd);
                return;
            }
            if (fd < 0)
                continue;
            receive(fd);
        }
    }
    void receive(int fd) {
        PacketReader reader(fd);
        std::string type, payload, id;
        Reply reply;
        while (reader.readPacket(type, payload)) {
            if (type == "C" && payload.rfind("REPLY_ID ", 0) == 0) {
                id = payload.substr(9);
            } else if (type == "C" && payload.rfind("DATA ", 0) == 0) {
                reply.blockSize = std::stoul(payload.substr(payload.rfind(' ') + 1));
                reply.block = static_cast<char*>(std::malloc(reply.blockSize));
                if (!reader.readBlock(reply.block, reply.blockSize))
                    break;
            } else if (type == "RP") {
                reply.package = std::move(payload);
            } else if (type == "C" && payload == "CLOSE_CONNECTION") {
                break;
            }
        }
        ::close(fd);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_replies[id] = std::move(reply);
        m_condition.notify_all();
    }

    int m_fd = -1;
    int m_port = 0;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
    std::mutex m_mutex;
    std::condition_variable m_condition;
    std::map<std::string, Reply> m_replies;
};

// A request id of the library's width: three groups of 16 characters joined by '-'.
inline std::string nextRawId() {
    static std::atomic<unsigned long long> counter{0};
    char text[64];
    std::snprintf(text, sizeof(text), "%016llx-%016llx-%016llx",
                  static_cast<unsigned long long>(::getpid()), counter.fetch_add(1), 0x5eedULL);
    return text;
}

// One raw round trip; the reply's package must have `replySize` bytes.
inline RawReplyListener::Reply rawRoundTrip(int serverPort, RawReplyListener& listener,
                                            size_t requestSize, size_t replySize, uint64_t values) {
    const std::string id = nextRawId();
    std::string payload = id + " " + std::to_string(listener.port()) + " " +
                          std::to_string(replySize) + " " + std::to_string(values) + " ";
    if (payload.size() < requestSize)
        payload.resize(requestSize, 'q');
    int fd = connectLoopback(serverPort);
    writeAll(fd, "C 4 PING", 8);
    PacketReader reader(fd);
    std::string type, answer;
    if (!reader.readPacket(type, answer) || type != "C" || answer != "PONG") {
        ::close(fd);
        throw std::runtime_error("raw ping failed");
    }
    writePacket(fd, "RQ", payload);
    writePacket(fd, "C", "CLOSE_CONNECTION");
    ::close(fd);
    RawReplyListener::Reply reply = listener.waitFor(id);
    if (reply.package.size() != replySize)
        throw std::runtime_error("raw reply of the wrong size");
    return reply;
}

} // namespace BenchPeers
