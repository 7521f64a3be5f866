#include "Platform/RemoteComputation/Service/ServiceInterfaces/MemoryAdvice.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

// Older C library headers lack it; kernels before 5.14 refuse it with EINVAL, which is harmless.
#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23
#endif

namespace Kestrane {

namespace {
// Below this a block holds at most one huge page, and smaller blocks come from the heap arena,
// whose pages the advice would change for neighbours too.
constexpr std::size_t c_smallestAdvised = 4u << 20;

// Gives the whole pages inside [block, block + size) to madvise, for blocks large enough.
void adviseWholePages(void* block, std::size_t size, int advice) {
    if (!block || size < c_smallestAdvised)
        return;
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto begin = reinterpret_cast<uintptr_t>(block);
    const uintptr_t first = (begin + page - 1) / page * page;
    const uintptr_t last = (begin + size) / page * page;
    if (last > first)
        madvise(reinterpret_cast<void*>(first), last - first, advice);
}
} // namespace

void adviseHugePages(void* block, std::size_t size) {
    adviseWholePages(block, size, MADV_HUGEPAGE);
}

void populateForWrite(void* block, std::size_t size) {
    adviseWholePages(block, size, MADV_POPULATE_WRITE);
}

void allowReclaim(void* block, std::size_t size) {
    adviseWholePages(block, size, MADV_FREE);
}

void leaveOutOfFork(void* block, std::size_t size) {
    adviseWholePages(block, size, MADV_DONTFORK);
}

void keepAcrossFork(void* block, std::size_t size) {
    adviseWholePages(block, size, MADV_DOFORK);
}

} // namespace Kestrane
