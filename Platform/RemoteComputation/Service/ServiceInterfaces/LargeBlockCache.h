#pragma once

#include <chrono>
#include <cstddef>

namespace Kestrane {

// Bulk data passes through large blocks that live for one transfer: the memory file image a
// server sends, the block a client receives, the array read out of it. Fresh memory for each
// costs more than the copy that fills it: the kernel zeroes every new page and maps it on first
// touch. A large block that the library is done with is kept here for a short while, and the
// next large allocation of a similar size takes it instead.
//
// Every block is plain malloc'ed memory: whoever gets one may free it with std::free, and any
// malloc'ed block may be released here. A kept block's pages are the kernel's to take back under
// memory pressure, and the first use of the cache after `c_keepTime` frees it.
class LargeBlockCache {
public:
    // Smaller blocks come from the heap, where fresh pages are rare.
    static constexpr std::size_t c_smallestKept = 4u << 20;
    static constexpr std::size_t c_maxKeptBlocks = 2;
    static constexpr std::size_t c_maxKeptBytes = std::size_t(1) << 30;
    static constexpr std::chrono::milliseconds c_keepTime{2000};

    // A kept block of at least `size` bytes and at most twice that, present and writable; null
    // when none fits.
    static void* take(std::size_t size);
    // std::malloc, or a kept block when one fits.
    static void* allocate(std::size_t size);
    // Keeps a malloc'ed block (null is ignored) when it is large, freeing the oldest kept blocks
    // to make room; frees a small one.
    static void release(void* block);

    // For tests: frees every kept block, and how many are kept (after freeing those kept too
    // long).
    static void clear();
    static std::size_t keptCount();
};

} // namespace Kestrane
