#include "Platform/RemoteComputation/Service/ServiceInterfaces/LargeBlockCache.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/MemoryAdvice.h"

#include <malloc.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

namespace Kestrane {

namespace {

using Clock = std::chrono::steady_clock;

struct Kept {
    void* block;
    std::size_t size; // usable bytes
    Clock::time_point since;
};

// The kept blocks, and a thread that frees those kept too long; the thread runs only while
// something is kept. Never destroyed: blocks may be released from static destructors, and the
// thread may be waiting when the process ends.
class Cache {
public:
    void* take(std::size_t size) {
        std::unique_lock<std::mutex> lock(m_mutex);
        auto best = m_kept.end();
        for (auto it = m_kept.begin(); it != m_kept.end(); ++it)
            if (it->size >= size && it->size / 2 <= size &&
                (best == m_kept.end() || it->size < best->size))
                best = it;
        if (best == m_kept.end())
            return nullptr;
        void* block = best->block;
        m_keptBytes -= best->size;
        m_kept.erase(best);
        lock.unlock();
        // Pages of a block that went through a fork are write-protected until written again.
        populateForWrite(block, size);
        return block;
    }

    void release(void* block) {
        const std::size_t size = malloc_usable_size(block);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (size >= LargeBlockCache::c_smallestKept &&
                m_kept.size() < LargeBlockCache::c_maxKeptBlocks &&
                m_keptBytes + size <= LargeBlockCache::c_maxKeptBytes) {
                m_kept.push_back({block, size, Clock::now()});
                m_keptBytes += size;
                startTrimmer();
                return;
            }
        }
        std::free(block);
    }

    void clear() {
        std::vector<Kept> left;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            left.swap(m_kept);
            m_keptBytes = 0;
        }
        m_changed.notify_all();
        freeAll(left);
    }

    std::size_t count() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_kept.size();
    }

private:
    static void freeAll(const std::vector<Kept>& blocks) {
        for (const Kept& kept : blocks)
            std::free(kept.block);
    }

    // Under m_mutex. Detached: the cache outlives it, and nothing waits for it to end.
    void startTrimmer() {
        if (m_trimming)
            return;
        m_trimming = true;
        std::thread([this] { trim(); }).detach();
    }

    void trim() {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_kept.empty()) {
            const auto oldest =
                std::min_element(m_kept.begin(), m_kept.end(),
                                 [](const Kept& a, const Kept& b) { return a.since < b.since; });
            const auto due = oldest->since + LargeBlockCache::c_keepTime;
            if (Clock::now() < due) {
                m_changed.wait_until(lock, due);
                continue;
            }
            void* block = oldest->block;
            m_keptBytes -= oldest->size;
            m_kept.erase(oldest);
            lock.unlock();
            std::free(block);
            lock.lock();
        }
        m_trimming = false;
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Kept> m_kept;
    std::size_t m_keptBytes = 0;
    bool m_trimming = false;
};

Cache& cache() {
    static Cache* instance = new Cache;
    return *instance;
}

} // namespace

void* LargeBlockCache::take(std::size_t size) {
    if (size < c_smallestKept)
        return nullptr;
    return cache().take(size);
}

void* LargeBlockCache::allocate(std::size_t size) {
    if (void* kept = take(size))
        return kept;
    return std::malloc(size);
}

void LargeBlockCache::release(void* block) {
    if (block)
        cache().release(block);
}

void LargeBlockCache::clear() {
    cache().clear();
}

std::size_t LargeBlockCache::keptCount() {
    return cache().count();
}

} // namespace Kestrane
