#include "Platform/RemoteComputation/Service/ServiceInterfaces/DeletePathThread.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>

#include <deque>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

class Deleter {
public:
    static Deleter& instance() {
        static Deleter* deleter = new Deleter(); // lives until the process ends
        return *deleter;
    }

    void add(const FileName& path) {
        boost::lock_guard<boost::mutex> lock(m_mutex);
        m_queue.push_back(path);
        if (!m_running) {
            if (m_thread.joinable())
                m_thread.join();
            m_running = true;
            m_stop = false;
            m_thread = boost::thread([this] { run(); });
        }
        m_condition.notify_all();
    }

    void shutdown() {
        // The thread is taken over under the lock: a deletePath() racing with this call may
        // start a new thread, which must neither be joined here nor share the object.
        boost::thread finishing;
        {
            boost::lock_guard<boost::mutex> lock(m_mutex);
            m_stop = true;
            m_condition.notify_all();
            if (m_thread.get_id() != boost::this_thread::get_id())
                finishing = std::move(m_thread);
        }
        if (finishing.joinable())
            finishing.join();
    }

private:
    void run() {
        boost::unique_lock<boost::mutex> lock(m_mutex);
        for (;;) {
            m_condition.wait(lock, [this] { return m_stop || !m_queue.empty(); });
            if (m_queue.empty())
                break;
            FileName path = m_queue.front();
            m_queue.pop_front();
            lock.unlock();
            remove(path);
            lock.lock();
        }
        m_running = false;
    }

    static void remove(const FileName& path) {
        try {
            FileUtilities::remove(path);
            KS_TRACE("Deleted '" << path.toString() << "'");
        } catch (const KsException& e) {
            KS_WARN("Could not delete '" << path.toString() << "': " << e.what());
        }
    }

    boost::mutex m_mutex;
    boost::condition_variable m_condition;
    std::deque<FileName> m_queue;
    boost::thread m_thread;
    bool m_running = false;
    bool m_stop = false;
};
} // namespace

void DeletePathThread::deletePath(const FileName& path, bool keep) {
    if (path.empty())
        return;
    if (keep) {
        KS_TRACE("Keeping '" << path.toString() << "'");
        return;
    }
    Deleter::instance().add(path);
}

void DeletePathThread::shutdown() {
    Deleter::instance().shutdown();
}

} // namespace Kestrane
