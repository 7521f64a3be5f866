#include "Platform/RemoteComputation/Service/ServiceInterfaces/LargeBlockCache.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/MemoryAdvice.h"

#include <malloc.h>

#include <cstdlib>
#include <mutex>
#include <vector>

namespace Kestrane {

namespace {

using Clock = std::chrono::steady_clock;

struct Kept {
    void* block;
    std::size_t size; // usable bytes
    Clock::time_point since;
};

// The kept blocks. There is no thread to free those kept too long: each use of the cache does,
// since a thread that frees while another forks leaves the child's allocator locked under some
// allocators (the sanitizers'), and the library forks to check received files. Never destroyed:
// blocks may be released from static destructors.
class Cache {
public:
    void* take(std::size_t size) {
        std::vector<void*> expired;
        void* block = nullptr;
        std::size_t keptSize = 0;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            expire(expired);
            auto best = m_kept.end();
            for (auto it = m_kept.begin(); it != m_kept.end(); ++it)
                if (it->size >= size && it->size / 2 <= size &&
                    (best == m_kept.end() || it->size < best->size))
                    best = it;
            if (best != m_kept.end()) {
                block = best->block;
                keptSize = best->size;
                m_keptBytes -= best->size;
                m_kept.erase(best);
            }
        }
        freeAll(expired);
        if (!block)
            return nullptr;
        keepAcrossFork(block, keptSize);
        // Pages that the kernel took back while the block was kept come back here in one call.
        populateForWrite(block, size);
        return block;
    }

    void release(void* block) {
        const std::size_t size = malloc_usable_size(block);
        const bool kept =
            size >= LargeBlockCache::c_smallestKept && size <= LargeBlockCache::c_maxKeptBytes;
        if (kept) {
            // Before the block is in the cache: from then on another thread may take it and
            // write to it, and advice given after that would apply to its new contents.
            allowReclaim(block, size);
            leaveOutOfFork(block, size);
        }
        std::vector<void*> expired;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            expire(expired);
            if (kept) {
                // A full cache gives up its oldest blocks: a block that no transfer of the
                // moment fits would otherwise hold the room until it expires.
                while (m_kept.size() >= LargeBlockCache::c_maxKeptBlocks ||
                       m_keptBytes + size > LargeBlockCache::c_maxKeptBytes) {
                    expired.push_back(m_kept.front().block);
                    m_keptBytes -= m_kept.front().size;
                    m_kept.erase(m_kept.begin());
                }
                m_kept.push_back({block, size, Clock::now()});
                m_keptBytes += size;
            }
        }
        freeAll(expired);
        if (!kept)
            std::free(block);
    }

    void clear() {
        std::vector<void*> left;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            for (const Kept& kept : m_kept)
                left.push_back(kept.block);
            m_kept.clear();
            m_keptBytes = 0;
        }
        freeAll(left);
    }

    std::size_t count() {
        std::vector<void*> expired;
        std::size_t count = 0;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            expire(expired);
            count = m_kept.size();
        }
        freeAll(expired);
        return count;
    }

private:
    // Under m_mutex: moves the blocks kept too long to `expired`, to be freed outside the lock.
    void expire(std::vector<void*>& expired) {
        const auto now = Clock::now();
        for (auto it = m_kept.begin(); it != m_kept.end();) {
            if (now - it->since >= LargeBlockCache::c_keepTime) {
                expired.push_back(it->block);
                m_keptBytes -= it->size;
                it = m_kept.erase(it);
            } else {
                ++it;
            }
        }
    }

    // Blocks that were kept: back in every child first, as the allocator may hand out their
    // memory again.
    static void freeAll(const std::vector<void*>& blocks) {
        for (void* block : blocks) {
            keepAcrossFork(block, malloc_usable_size(block));
            std::free(block);
        }
    }

    std::mutex m_mutex;
    std::vector<Kept> m_kept; // oldest first
    std::size_t m_keptBytes = 0;
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
