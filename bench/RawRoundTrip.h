// The reference for a request round trip between two processes, on plain sockets: the client
// opens a new connection, PING/PONG, sends "RQ" and CLOSE_CONNECTION; the server connects back
// to the client's listener and sends "C REPLY_ID <id>", optionally a raw data block, "RP" and
// CLOSE_CONNECTION. The client's listener thread hands each reply to the waiting thread by
// request id. Packets have the same wire form as the library's.
//
// The request payload starts with "<id> <replyPort> <replySize> <values> " and is padded to the
// size of the package it stands for; the server answers with an "RP" payload of `replySize`
// bytes and, for `values` above 0, a block of that many doubles behind a "C DATA" packet.
//
// The floor variant is the same exchange with the threads that the library's design requires
// and nothing else: on the server the accept thread only accepts and hands the connection to a
// pool, the connection's reader hands the request to a further pool worker, which sends the
// reply; on the client the listener hands each connection to a pool worker, which hands the
// reply to the waiting thread. With `RoundTripWork` it also does the library's own encoding and
// decoding of both packages at the same places. What the library costs beyond the floor is its
// own; what the floor costs beyond the raw exchange comes with the design.
#pragma once

#include "BenchPeers.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/WorkerPool.h"

#include <sys/socket.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

namespace BenchPeers {

// The package work of a round trip, each at the place where the library does it. Empty members
// are skipped on the client.
struct RoundTripWork {
    std::function<std::string()> encodeRequest;                 // client, before it connects
    std::function<void(const std::string&)> decodeRequest;      // server, connection reader
    std::function<std::string(const std::string&)> encodeReply; // server, from the request id
    std::function<void(const std::string&)> decodeReply;        // client, connection reader
};

// The library's worker pool, the one its server and its reply listener hand work to, taking
// plain functions.
class HandOffPool {
public:
    explicit HandOffPool(int threads)
        : m_pool(static_cast<unsigned int>(threads), Kestrane::Thread::Normal) {}

    void add(std::function<void()> job) {
        m_pool.addTask(std::make_shared<FunctionTask>(std::move(job)));
    }

private:
    class FunctionTask : public Kestrane::Tasks::Task {
    public:
        explicit FunctionTask(std::function<void()> job)
            : Task("hand-off"), m_job(std::move(job)) {}
        void execute() override { m_job(); }

    private:
        std::function<void()> m_job;
    };

    Kestrane::Tasks::WorkerPool m_pool;
};

// ---- the server side, run in a child process ----

// Reads a connection to its CLOSE_CONNECTION, answering PING; `onRequest` gets each "RQ" payload
// as it comes.
inline void readRawConnection(int fd, const std::function<void(std::string)>& onRequest) {
    noDelay(fd);
    PacketReader reader(fd);
    std::string type, payload;
    while (reader.readPacket(type, payload)) {
        if (type == "C" && payload == "PING")
            writeAll(fd, "C 4 PONG", 8);
        else if (type == "RQ")
            onRequest(std::move(payload));
        else if (type == "C" && payload == "CLOSE_CONNECTION")
            break;
    }
    ::close(fd);
}

struct RawRequestHeader {
    std::string id;
    int replyPort = 0;
    size_t replySize = 0;
    uint64_t values = 0;
    size_t end = 0; // where what follows the header starts
};
inline RawRequestHeader parseRawRequest(const std::string& request) {
    RawRequestHeader header;
    std::istringstream in(request);
    in >> header.id >> header.replyPort >> header.replySize >> header.values;
    header.end = static_cast<size_t>(in.tellg()) + 1;
    return header;
}

inline void sendRawReply(const RawRequestHeader& request, const std::string& replyPackage) {
    int back = connectLoopback(request.replyPort);
    writePacket(back, "C", "REPLY_ID " + request.id);
    if (request.values > 0) {
        // Made per request, as a handler makes its result.
        const size_t bytes = request.values * sizeof(double);
        auto* array = static_cast<double*>(std::malloc(bytes));
        for (uint64_t i = 0; i < request.values; ++i)
            array[i] = static_cast<double>(i + 1) * 0.1;
        writePacket(back, "C", "DATA " + request.id + " " + std::to_string(bytes));
        writeAll(back, reinterpret_cast<const char*>(array), bytes);
        std::free(array);
    }
    writePacket(back, "RP", replyPackage);
    writePacket(back, "C", "CLOSE_CONNECTION");
    ::close(back);
}

// The raw server's whole conversation on one thread: read, then reply.
inline void serveRawConnection(int fd) {
    std::string request;
    readRawConnection(fd, [&](std::string payload) { request = std::move(payload); });
    if (request.empty())
        return;
    const RawRequestHeader header = parseRawRequest(request);
    sendRawReply(header, std::string(header.replySize, 'r'));
}

// The floor server's conversation: the reader queues the reply on the pool. A request whose
// header is followed by a package (an XML text, not padding) has it decoded there, and gets a
// coded reply package; any other gets padding.
inline void serveFloorConnection(int fd, HandOffPool& pool, const RoundTripWork& work) {
    readRawConnection(fd, [&](std::string payload) {
        const RawRequestHeader header = parseRawRequest(payload);
        const bool coded = header.end < payload.size() && payload[header.end] == '<';
        if (coded)
            work.decodeRequest(payload.substr(header.end));
        pool.add([header, coded, &work] {
            sendRawReply(header,
                         coded ? work.encodeReply(header.id) : std::string(header.replySize, 'r'));
        });
    });
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

// Main of the floor server process: one accept thread that only accepts, and a pool of
// `threads` workers for the readers and the replies. Runs until SIGTERM.
inline int runFloorServer(int threads, const RoundTripWork& work) {
    sigset_t signals = blockStopSignals();
    int port = 0;
    int listener = listenLoopback(port);
    std::printf("PORT %d\n", port);
    std::fflush(stdout);
    static HandOffPool pool(threads); // lives until the process ends
    std::thread([listener, &work] {
        for (;;) {
            int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0)
                pool.add([fd, &work] { serveFloorConnection(fd, pool, work); });
        }
    }).detach();
    waitForStopSignal(signals);
    std::_Exit(0); // the detached threads and the pool end with the process
}

// ---- the client side ----

class RawReplyListener {
public:
    struct Reply {
        std::string package;
        char* block = nullptr; // malloc'ed; the receiver frees it
        size_t blockSize = 0;
    };

    // With `handOffThreads` above 0, each connection is read on a pool worker, not on the
    // listener's thread; `decodeReply` runs there on each reply package.
    explicit RawReplyListener(int handOffThreads = 0,
                              std::function<void(const std::string&)> decodeReply = {})
        : m_decodeReply(std::move(decodeReply)) {
        if (handOffThreads > 0)
            m_pool = std::make_unique<HandOffPool>(handOffThreads);
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
        m_pool.reset();
        ::close(m_fd);
    }
    RawReplyListener(const RawReplyListener&) = delete;
    RawReplyListener& operator=(const RawReplyListener&) = delete;

    int port() const { return m_port; }

    Reply waitFor(const std::string& id) {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_condition.wait_for(lock, std::chrono::seconds(10),
                                  [&] { return m_replies.count(id) != 0; }))
            throw std::runtime_error("no reply within 10 s");
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
            if (m_pool)
                m_pool->add([this, fd] { receive(fd); });
            else
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
        if (m_decodeReply)
            m_decodeReply(reply.package);
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
    std::function<void(const std::string&)> m_decodeReply;
    std::unique_ptr<HandOffPool> m_pool; // made before the listener's thread, ended after it
};

// A request id of the library's form: three groups of 16 hexadecimal digits joined by '-'.
inline std::string nextRawId() {
    static std::atomic<unsigned long long> counter{0};
    char text[64];
    std::snprintf(text, sizeof(text), "%016llX-%016llX-%016llX",
                  static_cast<unsigned long long>(::getpid()), counter.fetch_add(1), 0x5eedULL);
    return text;
}

// One raw round trip; the reply's package must have `replySize` bytes. With `encodeRequest` the
// request's package is encoded and sent behind the header instead of padding.
inline RawReplyListener::Reply
rawRoundTrip(int serverPort, RawReplyListener& listener, size_t requestSize, size_t replySize,
             uint64_t values, const std::function<std::string()>& encodeRequest = {}) {
    const std::string id = nextRawId();
    std::string payload = id + " " + std::to_string(listener.port()) + " " +
                          std::to_string(replySize) + " " + std::to_string(values) + " ";
    if (encodeRequest)
        payload += encodeRequest();
    else if (payload.size() < requestSize)
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
    if (!encodeRequest && reply.package.size() != replySize)
        throw std::runtime_error("raw reply of the wrong size");
    return reply;
}

} // namespace BenchPeers
