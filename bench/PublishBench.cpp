// Publishing two-frame alive messages to one subscriber over loopback, through the library's
// Publisher and through a raw cppzmq PUB socket in the same process; and the cost of one
// LivingProcess::alive call.
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Publisher.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <benchmark/benchmark.h>
#include <zmq.hpp>
#include <zmq_addon.hpp>

#include <atomic>
#include <memory>
#include <thread>

using namespace Kestrane;

namespace {

// Counts the messages that arrive at a SUB socket, on a thread of its own.
class Receiver {
public:
    explicit Receiver(const std::string& endpoint) {
        m_socket.connect(endpoint);
        m_socket.set(zmq::sockopt::subscribe, "alive|");
        m_socket.set(zmq::sockopt::rcvtimeo, 100);
        m_thread = std::thread([this] {
            std::vector<zmq::message_t> frames;
            while (m_run) {
                frames.clear();
                if (zmq::recv_multipart(m_socket, std::back_inserter(frames)))
                    ++m_count;
            }
        });
    }
    ~Receiver() {
        m_run = false;
        m_thread.join();
    }
    long count() const { return m_count.load(); }
    // Waits until `target` messages have arrived, or nothing more came for 200 ms (a PUB socket
    // may drop); returns the count.
    long waitFor(long target) const {
        long seen = m_count.load();
        auto quiet = std::chrono::steady_clock::now();
        while (seen < target) {
            std::this_thread::yield();
            long now = m_count.load();
            if (now != seen) {
                seen = now;
                quiet = std::chrono::steady_clock::now();
            } else if (std::chrono::steady_clock::now() - quiet > std::chrono::milliseconds(200)) {
                break;
            }
        }
        return seen;
    }

private:
    zmq::context_t m_context;
    zmq::socket_t m_socket{m_context, zmq::socket_type::sub};
    std::atomic<long> m_count{0};
    std::atomic<bool> m_run{true};
    std::thread m_thread;
};

template <typename Publish>
void run(benchmark::State& state, const std::string& endpoint, Publish publish) {
    Receiver receiver(endpoint);
    while (receiver.count() == 0) { // a new subscriber misses the first messages
        publish();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    long before = receiver.count();
    for (auto _ : state)
        publish();
    long delivered = receiver.waitFor(before + static_cast<long>(state.iterations())) - before;
    state.SetItemsProcessed(state.iterations());
    // A PUB socket drops what a subscriber cannot take in time; the share that arrived is shown.
    state.counters["delivered"] =
        static_cast<double>(delivered) / static_cast<double>(state.iterations());
}

const std::string c_stamp = "2026-11-22T02:00:00.000000";
const std::string c_text = "Process is busy @ ~97% total CPU-activity (average) on estimated 2 "
                           "busy core(s)...";

void BM_PublishAlive_RawZmq(benchmark::State& state) {
    zmq::context_t context;
    zmq::socket_t pub(context, zmq::socket_type::pub);
    pub.bind("tcp://127.0.0.1:*");
    std::string endpoint = pub.get(zmq::sockopt::last_endpoint);
    run(state, endpoint, [&] {
        pub.send(zmq::buffer(std::string("alive|")), zmq::send_flags::sndmore);
        pub.send(zmq::buffer(c_stamp), zmq::send_flags::sndmore);
        pub.send(zmq::buffer(c_text), zmq::send_flags::none);
    });
}

void BM_PublishAlive_Library(benchmark::State& state) {
    Logging::setLevel(LogLevel::Warn);
    Publisher* publisher = Publisher::getInstance();
    std::string endpoint = "tcp://127.0.0.1:" + std::to_string(publisher->getPort());
    const std::vector<std::string> content{c_stamp, c_text};
    run(state, endpoint, [&] { publisher->publish(Publisher::c_topicAlive, content); });
}

void BM_LivingProcessAlive(benchmark::State& state) {
    Logging::setLevel(LogLevel::Warn);
    LivingProcess::alive("warm-up", "");
    for (auto _ : state)
        LivingProcess::alive(c_text, "");
}

} // namespace

BENCHMARK(BM_PublishAlive_RawZmq)->UseRealTime();
BENCHMARK(BM_PublishAlive_Library)->UseRealTime();
BENCHMARK(BM_LivingProcessAlive);

BENCHMARK_MAIN();
