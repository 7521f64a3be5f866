#include "Platform/RemoteComputation/Service/ServiceInterfaces/MemoryAdvice.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

using namespace Kestrane;

namespace {

// The line of /proc/self/smaps that starts with `field` in the entry of the mapping that holds
// `address`; empty when there is none.
std::string smapsLineOfMappingAt(const void* address, const std::string& field) {
    const auto at = reinterpret_cast<uintptr_t>(address);
    std::ifstream smaps("/proc/self/smaps");
    std::string line;
    bool inside = false;
    while (std::getline(smaps, line)) {
        uintptr_t from = 0, to = 0;
        char dash = 0;
        std::istringstream range(line);
        if (line.find(field) == 0) {
            if (inside)
                return line;
        } else if (range >> std::hex >> from >> dash >> to && dash == '-' &&
                   line.find(' ') != std::string::npos && from < to) {
            inside = from <= at && at < to;
        }
    }
    return "";
}

// The VmFlags line; "hg" marks huge page advice.
std::string flagsOfMappingAt(const void* address) {
    return smapsLineOfMappingAt(address, "VmFlags:");
}

// The LazyFree figure, in kB: pages the kernel may take back. -1 when there is none.
long lazyFreeKbOfMappingAt(const void* address) {
    const std::string line = smapsLineOfMappingAt(address, "LazyFree:");
    return line.empty() ? -1 : std::stol(line.substr(9));
}

bool advised(const void* address) {
    std::istringstream flags(flagsOfMappingAt(address));
    std::string flag;
    while (flags >> flag)
        if (flag == "hg")
            return true;
    return false;
}

} // namespace

TEST(MemoryAdviceTest, ALargeBlockIsAdvisedBeforeItIsWritten) {
    constexpr std::size_t size = 64u << 20;
    // A block this large gets a mapping of its own from malloc.
    auto* block = static_cast<unsigned char*>(std::malloc(size));
    ASSERT_NE(block, nullptr);
    ASSERT_FALSE(flagsOfMappingAt(block + size / 2).empty());
    EXPECT_FALSE(advised(block + size / 2));
    adviseHugePages(block, size);
    EXPECT_TRUE(advised(block + size / 2));
    // Still an ordinary block: written, read and freed like any other.
    std::memset(block, 7, size);
    EXPECT_EQ(block[size - 1], 7);
    std::free(block);
}

TEST(MemoryAdviceTest, SmallBlocksAndNothingAreLeftAlone) {
    constexpr std::size_t size = 1u << 20;
    auto* block = static_cast<unsigned char*>(std::malloc(size));
    ASSERT_NE(block, nullptr);
    const bool before = advised(block);
    adviseHugePages(block, size);
    EXPECT_EQ(advised(block), before);
    adviseHugePages(nullptr, 64u << 20);
    std::free(block);
}

TEST(MemoryAdviceTest, ALargeBlockIsPresentBeforeItIsWritten) {
    constexpr std::size_t size = 64u << 20;
    auto* block = static_cast<unsigned char*>(std::malloc(size));
    ASSERT_NE(block, nullptr);
    const long page = ::sysconf(_SC_PAGESIZE);
    const auto first = (reinterpret_cast<uintptr_t>(block) + page - 1) / page * page;
    const std::size_t pages = (reinterpret_cast<uintptr_t>(block) + size - first) / page;
    std::vector<unsigned char> present(pages);
    auto countPresent = [&] {
        EXPECT_EQ(::mincore(reinterpret_cast<void*>(first), pages * page, present.data()), 0);
        std::size_t count = 0;
        for (unsigned char state : present)
            count += state & 1;
        return count;
    };
    // A fresh mapping: nothing touched yet, so (almost) nothing present.
    EXPECT_LT(countPresent(), pages / 2);
    populateForWrite(block, size);
    EXPECT_EQ(countPresent(), pages);
    std::memset(block, 9, size);
    EXPECT_EQ(block[size / 3], 9);
    std::free(block);
    populateForWrite(nullptr, size);
}

TEST(MemoryAdviceTest, AKeptBlocksPagesAreTheKernelsToTakeBackUntilWrittenAgain) {
    constexpr std::size_t size = 16u << 20;
    auto* block = static_cast<unsigned char*>(std::malloc(size));
    ASSERT_NE(block, nullptr);
    std::memset(block, 5, size);
    EXPECT_EQ(lazyFreeKbOfMappingAt(block + size / 2), 0);
    allowReclaim(block, size);
    // All but the partial pages at the ends.
    EXPECT_GE(lazyFreeKbOfMappingAt(block + size / 2), static_cast<long>(size / 1024) - 64);
    // Written again, the pages are the block's once more.
    std::memset(block, 6, size);
    EXPECT_EQ(lazyFreeKbOfMappingAt(block + size / 2), 0);
    EXPECT_EQ(block[size - 1], 6);
    std::free(block);
    allowReclaim(nullptr, size);
}
