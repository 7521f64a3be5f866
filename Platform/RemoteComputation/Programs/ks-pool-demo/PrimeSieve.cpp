#include "PrimeSieve.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace Kestrane {

namespace {
const uint64_t c_segmentSize = 1 << 18;

std::vector<uint32_t> basePrimesUpTo(uint64_t limit) {
    std::vector<bool> composite(limit + 1, false);
    std::vector<uint32_t> primes;
    for (uint64_t i = 2; i <= limit; ++i) {
        if (composite[i])
            continue;
        primes.push_back(static_cast<uint32_t>(i));
        for (uint64_t j = i * i; j <= limit; j += i)
            composite[j] = true;
    }
    return primes;
}
} // namespace

uint64_t countPrimes(uint64_t from, uint64_t to) {
    from = std::max<uint64_t>(from, 2);
    if (to <= from)
        return 0;
    uint64_t root = static_cast<uint64_t>(std::sqrt(static_cast<double>(to)));
    while (root * root < to)
        ++root;
    const std::vector<uint32_t> primes = basePrimesUpTo(root);
    std::vector<char> composite(c_segmentSize);
    uint64_t count = 0;
    for (uint64_t low = from; low < to; low += c_segmentSize) {
        const uint64_t high = std::min(low + c_segmentSize, to);
        std::fill(composite.begin(), composite.begin() + static_cast<long>(high - low), 0);
        for (uint32_t p : primes) {
            const uint64_t square = static_cast<uint64_t>(p) * p;
            if (square >= high)
                break;
            uint64_t first = std::max(square, (low + p - 1) / p * p);
            for (uint64_t j = first; j < high; j += p)
                composite[j - low] = 1;
        }
        for (uint64_t i = low; i < high; ++i)
            count += composite[i - low] == 0;
    }
    return count;
}

} // namespace Kestrane
