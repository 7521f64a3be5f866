#include "Platform/RemoteComputation/Service/RequestHandling/ConnectionWatch.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingError.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

constexpr std::chrono::milliseconds c_firstBackOff(100);
constexpr std::chrono::milliseconds c_longestBackOff(1000);
// Warnings about refused connections or failed accepts: one a second at most, so that a flood
// does not flood the log as well.
constexpr std::chrono::seconds c_warningInterval(1);

void watch(int epoll, int handle) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLRDHUP;
    event.data.fd = handle;
    if (::epoll_ctl(epoll, EPOLL_CTL_ADD, handle, &event) != 0)
        throw Computing::Error("epoll_ctl", errno);
}

void unwatch(int epoll, int handle) {
    ::epoll_ctl(epoll, EPOLL_CTL_DEL, handle, nullptr);
}
} // namespace

ConnectionWatch::ConnectionWatch(const Computing::ListenSocket& listener,
                                 unsigned int idleTimeoutSeconds, unsigned int maxConnections)
    : m_listen(listener.getHandle()), m_acceptedTimeout(listener.getAcceptedTimeout()),
      m_idleTimeout(idleTimeoutSeconds), m_maxConnections(std::max(1u, maxConnections)),
      m_open(std::make_shared<std::atomic<size_t>>(0)) {
    ::fcntl(m_listen, F_SETFL, ::fcntl(m_listen, F_GETFL) | O_NONBLOCK);
    m_epoll = ::epoll_create1(EPOLL_CLOEXEC);
    m_wakeUp = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_epoll < 0 || m_wakeUp < 0) {
        const int error = errno;
        if (m_epoll >= 0)
            ::close(m_epoll);
        if (m_wakeUp >= 0)
            ::close(m_wakeUp);
        throw Computing::Error("epoll", error);
    }
    watch(m_epoll, m_listen);
    watch(m_epoll, m_wakeUp);
}

ConnectionWatch::~ConnectionWatch() {
    m_waiting.clear();
    ::close(m_wakeUp);
    ::close(m_epoll);
}

void ConnectionWatch::wake() {
    const uint64_t one = 1;
    // A full counter wakes the watch just the same.
    [[maybe_unused]] ssize_t written = ::write(m_wakeUp, &one, sizeof(one));
}

void ConnectionWatch::closeAll() {
    if (m_listening)
        unwatch(m_epoll, m_listen);
    m_listening = false;
    m_listenAgain = Clock::time_point::max();
    for (const auto& entry : m_waiting)
        unwatch(m_epoll, entry.first);
    m_waiting.clear();
    m_byAge.clear();
}

void ConnectionWatch::waitOnce(const ReadyHandler& ready, std::chrono::milliseconds limit) {
    auto now = Clock::now();
    if (!m_listening && now >= m_listenAgain) {
        watch(m_epoll, m_listen);
        m_listening = true;
    }
    epoll_event events[64];
    const int count = ::epoll_wait(m_epoll, events, 64, timeoutMs(now, limit));
    if (count < 0 && errno != EINTR)
        throw Computing::Error("epoll_wait", errno);
    for (int i = 0; i < count; ++i) {
        const int handle = events[i].data.fd;
        if (handle == m_wakeUp) {
            uint64_t value = 0;
            [[maybe_unused]] ssize_t read = ::read(m_wakeUp, &value, sizeof(value));
        } else if (handle == m_listen) {
            acceptAll(ready);
        } else {
            auto found = m_waiting.find(handle);
            if (found == m_waiting.end())
                continue;
            // Hang-ups and errors go the same way: the reader finds the end and says so.
            unwatch(m_epoll, handle);
            auto socket = std::move(found->second.socket);
            const std::string peer = std::move(found->second.peer);
            m_byAge.erase(found->second.order);
            m_waiting.erase(found);
            ready(std::move(socket), peer);
        }
    }
    closeIdle(Clock::now());
}

void ConnectionWatch::acceptAll(const ReadyHandler& ready) {
    for (;;) {
        sockaddr_storage address{};
        socklen_t length = sizeof(address);
        const int handle =
            ::accept4(m_listen, reinterpret_cast<sockaddr*>(&address), &length, SOCK_CLOEXEC);
        if (handle < 0) {
            const int error = errno;
            if (error == EAGAIN || error == EWOULDBLOCK)
                return;
            switch (Computing::classifyAcceptError(error)) {
            case Computing::AcceptFailure::Retry:
                continue;
            case Computing::AcceptFailure::OutOfResources:
                backOff(error);
                return;
            case Computing::AcceptFailure::Fatal:
                KS_ERROR("accept failed: " << std::strerror(error));
                return;
            }
        }
        m_backOff = std::chrono::milliseconds(0);
        const std::string peer = Computing::addressText(&address);
        if (m_open->load() >= m_maxConnections) {
            ::close(handle);
            warnRateLimited(m_lastLimitWarning, "Connection from " + peer +
                                                    " closed: " + std::to_string(m_maxConnections) +
                                                    " connections are open (maxConnections)");
            continue;
        }
        auto socket = adopt(handle);
        // A client speaks at once: when its first bytes (or its end) are here already, the
        // connection goes to its reader now, without a round through the watch.
        char first = 0;
        if (::recv(handle, &first, 1, MSG_PEEK | MSG_DONTWAIT) >= 0) {
            ready(std::move(socket), peer);
            continue;
        }
        try {
            watch(m_epoll, handle);
        } catch (const Computing::Error& e) {
            KS_ERROR("Connection from " << peer << " closed: " << e.what());
            continue;
        }
        m_byAge.push_back(handle);
        m_waiting[handle] =
            Waiting{std::move(socket), peer, Clock::now(), std::prev(m_byAge.end())};
    }
}

std::shared_ptr<Computing::ServerSocket> ConnectionWatch::adopt(int handle) {
    m_open->fetch_add(1);
    auto open = m_open;
    // A connection that falls silent inside a conversation is idle as well: no single read
    // waits longer than the limit, while one that moves data never times out.
    const unsigned int limitMs = silenceLimitSeconds() * 1000;
    const auto descriptor = static_cast<uint64_t>(handle);
    std::shared_ptr<Computing::ServerSocket> socket(
        m_acceptedTimeout == limitMs
            ? new Computing::ServerSocket(descriptor, Computing::InheritedOptions{})
            : new Computing::ServerSocket(descriptor, limitMs),
        [open](Computing::ServerSocket* ended) {
            delete ended;
            open->fetch_sub(1);
        });
    return socket;
}

unsigned int ConnectionWatch::silenceLimitSeconds() {
    const auto* config = RequestServerConfiguration::getRegisteredInstance();
    const unsigned int idle = config->getConnectionIdleTimeout();
    const unsigned int socketTimeout = config->getSocketTimeout();
    if (idle == 0 || (socketTimeout != 0 && socketTimeout < idle))
        return socketTimeout;
    return idle;
}

void ConnectionWatch::closeIdle(Clock::time_point now) {
    if (m_idleTimeout.count() == 0)
        return;
    while (!m_byAge.empty()) {
        auto found = m_waiting.find(m_byAge.front());
        if (now - found->second.since < m_idleTimeout)
            return;
        KS_WARN("Closing idle connection from " << found->second.peer << ": nothing received for "
                                                << m_idleTimeout.count() << " s");
        unwatch(m_epoll, found->first);
        m_byAge.pop_front();
        m_waiting.erase(found);
    }
}

int ConnectionWatch::timeoutMs(Clock::time_point now, std::chrono::milliseconds limit) const {
    auto wait = limit;
    if (m_idleTimeout.count() > 0 && !m_byAge.empty()) {
        const auto deadline = m_waiting.at(m_byAge.front()).since + m_idleTimeout;
        wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(deadline - now));
    }
    if (!m_listening)
        wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(m_listenAgain - now));
    return static_cast<int>(std::max<int64_t>(0, wait.count()));
}

void ConnectionWatch::backOff(int error) {
    m_backOff = std::min(c_longestBackOff, std::max(c_firstBackOff, m_backOff * 2));
    // Level-triggered: the listening socket stays readable while the connection waits in the
    // backlog, so it leaves the watch until the pause is over.
    unwatch(m_epoll, m_listen);
    m_listening = false;
    m_listenAgain = Clock::now() + m_backOff;
    warnRateLimited(m_lastAcceptWarning, std::string("accept failed (") + std::strerror(error) +
                                             "), accepting again in " +
                                             std::to_string(m_backOff.count()) + " ms");
}

void ConnectionWatch::warnRateLimited(Clock::time_point& last, const std::string& text) {
    const auto now = Clock::now();
    if (last != Clock::time_point() && now - last < c_warningInterval)
        return;
    last = now;
    KS_WARN(text);
}

} // namespace Kestrane
