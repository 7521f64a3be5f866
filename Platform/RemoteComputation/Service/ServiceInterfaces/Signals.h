#pragma once

#include <boost/signals2.hpp>

#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

// A thin layer over Boost.Signals2: typed signals, connections that disconnect when they die,
// and slots that end when the object they are bound to dies.
namespace Signals {

enum ConnectPosition { AtBack = 0, AtFront = 1 };

// Objects of a class derived from Trackable are tracked by the slots bound to them.
class Trackable {
public:
    Trackable() : m_token(std::make_shared<char>(0)) {}
    Trackable(const Trackable&) : m_token(std::make_shared<char>(0)) {}
    Trackable& operator=(const Trackable&) { return *this; }
    virtual ~Trackable() = default;
    std::weak_ptr<void> trackingToken() const { return m_token; }

private:
    std::shared_ptr<char> m_token;
};

class Connection {
public:
    Connection() = default;
    explicit Connection(boost::signals2::connection connection)
        : m_connection(std::move(connection)) {}
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    Connection(Connection&& other) noexcept : m_connection(std::move(other.m_connection)) {
        other.m_connection = boost::signals2::connection();
    }
    Connection& operator=(Connection&& other) noexcept {
        if (this != &other) {
            disconnect();
            m_connection = std::move(other.m_connection);
            other.m_connection = boost::signals2::connection();
        }
        return *this;
    }
    ~Connection() { disconnect(); }

    bool connected() const { return m_connection.connected(); }
    void disconnect() { m_connection.disconnect(); }
    // Forgets the connection and leaves the slot connected.
    void releaseWithoutDisconnect() { m_connection = boost::signals2::connection(); }

private:
    boost::signals2::connection m_connection;
};

namespace Detail {
template <typename Sig> struct Signature { using type = Sig; };
template <typename R, typename... A> struct Signature<R (*)(A...)> { using type = R(A...); };
} // namespace Detail

template <typename Sig> class Slot;

template <typename R, typename... A> class Slot<R(A...)> {
public:
    using SlotType = boost::signals2::slot<void(A...)>;

    template <typename F, typename = std::enable_if_t<std::is_invocable_v<F, A...> &&
                                                      !std::is_same_v<std::decay_t<F>, Slot>>>
    Slot(F function) : m_slot([function](A... args) mutable { function(args...); }) {}

    // Ends when the tracked object is gone.
    Slot& track(const std::weak_ptr<void>& tracked) {
        m_slot.track_foreign(tracked);
        return *this;
    }
    const SlotType& get() const { return m_slot; }

private:
    SlotType m_slot;
};
template <typename R, typename... A> class Slot<R (*)(A...)> : public Slot<R(A...)> {
public:
    using Slot<R(A...)>::Slot;
    Slot(const Slot<R(A...)>& other) : Slot<R(A...)>(other) {}
};

template <typename Sig> class Signal {
public:
    using Signature = typename Detail::Signature<Sig>::type;

    Signal() = default;
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    Connection connect(const Slot<Signature>& slot, ConnectPosition position = AtBack) {
        return Connection(m_signal.connect(slot.get(), position == AtFront
                                                           ? boost::signals2::at_front
                                                           : boost::signals2::at_back));
    }
    template <typename... Args> void operator()(Args&&... args) {
        m_signal(std::forward<Args>(args)...);
    }
    void disconnectAllSlots() { m_signal.disconnect_all_slots(); }
    size_t numSlots() const { return m_signal.num_slots(); }
    bool empty() const { return m_signal.empty(); }

private:
    template <typename T> struct Void;
    template <typename R, typename... A> struct Void<R(A...)> { using type = void(A...); };
    boost::signals2::signal<typename Void<Signature>::type> m_signal;
};

// A slot bound to a member function of an object; tracked when the class is Trackable.
template <typename T, typename R, typename... A>
Slot<R(A...)> slot(T* object, R (T::*method)(A...)) {
    Slot<R(A...)> result([object, method](A... args) { (object->*method)(args...); });
    if constexpr (std::is_base_of_v<Trackable, T>)
        result.track(object->trackingToken());
    return result;
}

// A slot bound to a member function of an object held by shared_ptr, which the slot tracks.
template <typename T, typename R, typename... A>
Slot<R(A...)> slot(const std::shared_ptr<T>& object, R (T::*method)(A...)) {
    T* raw = object.get();
    Slot<R(A...)> result([raw, method](A... args) { (raw->*method)(args...); });
    result.track(std::weak_ptr<void>(object));
    return result;
}

namespace Private {
using Trackable = ::Signals::Trackable;
using SignalHandler = ::Signals::Signal<void(const std::string&)>;
} // namespace Private

} // namespace Signals
