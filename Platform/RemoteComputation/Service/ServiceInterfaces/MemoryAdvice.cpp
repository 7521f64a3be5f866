#include "Platform/RemoteComputation/Service/ServiceInterfaces/MemoryAdvice.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

namespace Kestrane {

namespace {
// Below this a block holds at most one huge page, and smaller blocks come from the heap arena,
// whose pages the advice would change for neighbours too.
constexpr std::size_t c_smallestAdvised = 4u << 20;
} // namespace

void adviseHugePages(void* block, std::size_t size) {
    if (!block || size < c_smallestAdvised)
        return;
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto begin = reinterpret_cast<uintptr_t>(block);
    const uintptr_t first = (begin + page - 1) / page * page;
    const uintptr_t last = (begin + size) / page * page;
    if (last > first)
        madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
}

} // namespace Kestrane
