#include "Platform/RemoteComputation/Service/ServiceInterfaces/Thread.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <chrono>
#include <thread>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
}

Thread::Thread(const std::string& name) : m_name(name) {}

Thread::~Thread() {
    // A derived class has already ended its loop; this only reclaims the thread.
    if (m_thread.joinable()) {
        if (m_thread.get_id() == boost::this_thread::get_id())
            m_thread.detach();
        else
            m_thread.join();
    }
}

void Thread::sendFinishSignal(bool finished) {
    boost::lock_guard<boost::mutex> lock(m_stateMutex);
    m_finished = finished;
    m_finishedCondition.notify_all();
}

bool Thread::start(bool startNow) {
    if (!startNow)
        return false;
    boost::lock_guard<boost::mutex> lock(m_stateMutex);
    if (m_started)
        return false;
    m_started = true;
    m_finished = false;
    m_thread = boost::thread([this] { run(); });
    return true;
}

void Thread::run() {
    try {
        prepareRun();
        executeRun();
        finalizeRun();
    } catch (const KsException& e) {
        KS_ERROR("Thread '" << m_name << "' ended by " << e.getName() << ": " << e.log());
    } catch (const std::exception& e) {
        KS_ERROR("Thread '" << m_name << "' ended by std::exception: " << e.what());
    } catch (...) {
        KS_ERROR("Thread '" << m_name << "' ended by an unknown exception");
    }
    sendFinishSignal(true);
}

void Thread::finalize() {
    boost::thread ended;
    {
        boost::unique_lock<boost::mutex> lock(m_stateMutex);
        if (!m_started)
            return;
        if (m_thread.get_id() == boost::this_thread::get_id())
            return; // a thread cannot wait for itself
        m_finishedCondition.wait(lock, [this] { return m_finished; });
        // Taken out under the lock: several owners may finalize at once, and only one may join.
        ended = std::move(m_thread);
    }
    if (ended.joinable())
        ended.join();
}

bool Thread::isRunning() const {
    boost::lock_guard<boost::mutex> lock(m_stateMutex);
    return m_started && !m_finished;
}

void Thread::sleep(unsigned int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

} // namespace Kestrane
