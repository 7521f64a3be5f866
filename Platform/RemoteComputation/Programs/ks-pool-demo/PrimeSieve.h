#pragma once

#include <cstdint>

namespace Kestrane {

// Counts the primes in [from, to) with a segmented sieve: memory stays at the square root of
// `to` plus one segment, whatever the range.
uint64_t countPrimes(uint64_t from, uint64_t to);

} // namespace Kestrane
