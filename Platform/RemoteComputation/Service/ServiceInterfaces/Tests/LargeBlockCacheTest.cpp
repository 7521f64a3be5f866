#include "Platform/RemoteComputation/Service/ServiceInterfaces/LargeBlockCache.h"

#include <gtest/gtest.h>

#include <malloc.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

using namespace Kestrane;

namespace {

constexpr std::size_t c_large = 8u << 20;

class LargeBlockCacheTest : public ::testing::Test {
protected:
    void SetUp() override { LargeBlockCache::clear(); }
    void TearDown() override { LargeBlockCache::clear(); }
};

// Whether the page that holds `address` is mapped in a child made by fork now.
bool mappedInAForkedChild(const void* address) {
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    auto* start = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(address) / page * page);
    const pid_t child = ::fork();
    if (child == 0) {
        unsigned char present = 0;
        ::_exit(::mincore(start, page, &present) == 0 ? 0 : 1);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child)
        return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(LargeBlockCacheTest, ALargeReleasedBlockIsTakenAgainForTheSameSize) {
    void* block = std::malloc(c_large);
    ASSERT_NE(block, nullptr);
    LargeBlockCache::release(block);
    EXPECT_EQ(LargeBlockCache::keptCount(), 1u);
    void* again = LargeBlockCache::allocate(c_large);
    EXPECT_EQ(again, block);
    EXPECT_EQ(LargeBlockCache::keptCount(), 0u);
    std::memset(again, 0x5a, c_large); // present and writable to its end
    std::free(again);                  // plain malloc'ed memory
}

TEST_F(LargeBlockCacheTest, SmallBlocksAndNullAreNotKept) {
    LargeBlockCache::release(std::malloc(LargeBlockCache::c_smallestKept / 2));
    LargeBlockCache::release(nullptr);
    EXPECT_EQ(LargeBlockCache::keptCount(), 0u);
    EXPECT_EQ(LargeBlockCache::take(1024), nullptr);
}

TEST_F(LargeBlockCacheTest, ABlockIsTakenOnlyWhenItHoldsTheSizeAndNotTwiceAsMuch) {
    void* block = std::malloc(c_large);
    LargeBlockCache::release(block);
    EXPECT_EQ(LargeBlockCache::take(c_large + (1u << 20)), nullptr);     // too small
    EXPECT_EQ(LargeBlockCache::take(c_large / 2 - (1u << 20)), nullptr); // far too large
    EXPECT_EQ(LargeBlockCache::keptCount(), 1u);
    void* taken = LargeBlockCache::take(c_large / 2 + (1u << 20));
    EXPECT_EQ(taken, block);
    std::free(taken);
}

TEST_F(LargeBlockCacheTest, TheSmallestFittingBlockIsTaken) {
    void* larger = std::malloc(c_large + (2u << 20));
    void* smaller = std::malloc(c_large);
    LargeBlockCache::release(larger);
    LargeBlockCache::release(smaller);
    void* taken = LargeBlockCache::take(c_large);
    EXPECT_EQ(taken, smaller);
    std::free(taken);
}

TEST_F(LargeBlockCacheTest, BeyondTheMostBlocksTheNewestAreKept) {
    std::vector<void*> released;
    for (std::size_t i = 0; i < LargeBlockCache::c_maxKeptBlocks + 2; ++i) {
        released.push_back(std::malloc(c_large + i * (1u << 20))); // each a size of its own
        LargeBlockCache::release(released.back());
    }
    EXPECT_EQ(LargeBlockCache::keptCount(), LargeBlockCache::c_maxKeptBlocks);
    // The two oldest are gone: a block of their size gets the smallest of the newest.
    void* taken = LargeBlockCache::take(c_large);
    EXPECT_EQ(taken, released[2]);
    std::free(taken);
    taken = LargeBlockCache::take(c_large + 3 * (1u << 20));
    EXPECT_EQ(taken, released[3]);
    std::free(taken);
}

TEST_F(LargeBlockCacheTest, ABlockThatNoTransferFitsDoesNotHoldTheRoom) {
    // Arrays freed into the cache that the next memory file image is too large for.
    for (std::size_t i = 0; i < LargeBlockCache::c_maxKeptBlocks; ++i)
        LargeBlockCache::release(std::malloc(c_large));
    void* image = std::malloc(c_large + (1u << 20));
    LargeBlockCache::release(image);
    void* taken = LargeBlockCache::take(c_large + (1u << 20));
    EXPECT_EQ(taken, image);
    std::free(taken);
}

TEST_F(LargeBlockCacheTest, KeptBlocksAreFreedByTheFirstUseAfterTheKeepTime) {
    LargeBlockCache::release(std::malloc(c_large));
    std::this_thread::sleep_for(LargeBlockCache::c_keepTime / 2);
    void* younger = std::malloc(c_large + (1u << 20));
    LargeBlockCache::release(younger);
    ASSERT_EQ(LargeBlockCache::keptCount(), 2u);
    std::this_thread::sleep_for(LargeBlockCache::c_keepTime / 2 + std::chrono::milliseconds(50));
    EXPECT_EQ(LargeBlockCache::keptCount(), 1u); // the older one is gone
    void* taken = LargeBlockCache::take(c_large);
    EXPECT_EQ(taken, younger);
    std::free(taken);
}

TEST_F(LargeBlockCacheTest, ThreadsReleaseAndTakeAtOnce) {
    std::atomic<int> finished{0}; // threads that got through every round
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                void* block = LargeBlockCache::allocate(c_large);
                ASSERT_NE(block, nullptr);
                static_cast<char*>(block)[c_large - 1] = 1;
                if (i % 2)
                    LargeBlockCache::release(block);
                else
                    std::free(block);
            }
            finished.fetch_add(1);
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(finished.load(), 4);
    EXPECT_LE(LargeBlockCache::keptCount(), LargeBlockCache::c_maxKeptBlocks);
}

} // namespace

TEST_F(LargeBlockCacheTest, AKeptBlockIsLeftOutOfForkedChildrenUntilItIsTaken) {
    auto* block = static_cast<char*>(std::malloc(c_large));
    ASSERT_NE(block, nullptr);
    std::memset(block, 0x5a, c_large);
    const char* middle = block + c_large / 2;
    ASSERT_TRUE(mappedInAForkedChild(middle));
    LargeBlockCache::release(block);
    EXPECT_FALSE(mappedInAForkedChild(middle));
    void* taken = LargeBlockCache::take(c_large);
    ASSERT_EQ(taken, block);
    EXPECT_TRUE(mappedInAForkedChild(middle));
    std::free(taken);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The sanitizers' allocators ignore mallopt, so only the plain allocator can be made to keep a
// large block in its heap here.
TEST_F(LargeBlockCacheTest, AKeptBlockFreedIntoTheHeapIsInForkedChildrenAgain) {
    // In a child of its own, as the allocator's settings change for the whole process.
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // From the heap rather than a mapping of its own, and kept in the heap once freed.
        ::mallopt(M_MMAP_THRESHOLD, 64 << 20);
        ::mallopt(M_TRIM_THRESHOLD, 1 << 30);
        auto* block = static_cast<char*>(std::malloc(c_large));
        std::memset(block, 0x5a, c_large);
        const char* middle = block + c_large / 2;
        LargeBlockCache::release(block);
        const bool leftOut = !mappedInAForkedChild(middle);
        LargeBlockCache::clear();
        // The memory is the allocator's again and may be any object's next: every child has it.
        const bool backIn = mappedInAForkedChild(middle);
        ::_exit(leftOut && backIn ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}
#endif
