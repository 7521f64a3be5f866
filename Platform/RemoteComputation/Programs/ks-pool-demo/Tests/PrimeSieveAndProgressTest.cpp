// The count that the workers do, and the progress line that the master shows.
#include "Platform/RemoteComputation/Programs/ks-pool-demo/PrimeSieve.h"
#include "Platform/RemoteComputation/Programs/ks-pool-demo/ProgressLine.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string>
#include <termios.h>
#include <unistd.h>
#include <vector>

using namespace Kestrane;

namespace {

// Trial division: slow, but shares nothing with the sieve.
bool isPrime(uint64_t n) {
    if (n < 2)
        return false;
    for (uint64_t d = 2; d * d <= n; ++d)
        if (n % d == 0)
            return false;
    return true;
}

uint64_t countByTrialDivision(uint64_t from, uint64_t to) {
    uint64_t count = 0;
    for (uint64_t n = from; n < to; ++n)
        count += isPrime(n) ? 1 : 0;
    return count;
}

// The segment length of the sieve, where ranges are cut inside.
const unsigned long long c_segment = 1ULL << 18;

} // namespace

TEST(PoolDemoPrimeSieveTest, KnownCountsBelowPowersOfTen) {
    EXPECT_EQ(countPrimes(0, 10), 4u);
    EXPECT_EQ(countPrimes(0, 100), 25u);
    EXPECT_EQ(countPrimes(0, 1000), 168u);
    EXPECT_EQ(countPrimes(0, 1000000), 78498u);
    EXPECT_EQ(countPrimes(0, 2000000), 148933u);
    EXPECT_EQ(countPrimes(0, 10000000), 664579u);
    EXPECT_EQ(countPrimes(0, 100000000), 5761455u);
}

TEST(PoolDemoPrimeSieveTest, SmallAndEmptyRanges) {
    EXPECT_EQ(countPrimes(0, 0), 0u);
    EXPECT_EQ(countPrimes(0, 2), 0u);
    EXPECT_EQ(countPrimes(1, 2), 0u);
    EXPECT_EQ(countPrimes(0, 3), 1u);
    EXPECT_EQ(countPrimes(2, 3), 1u);
    EXPECT_EQ(countPrimes(3, 3), 0u);
    EXPECT_EQ(countPrimes(4, 5), 0u);
    EXPECT_EQ(countPrimes(5, 6), 1u);
    EXPECT_EQ(countPrimes(9, 4), 0u);
    // The end is not counted.
    EXPECT_EQ(countPrimes(0, 7), 3u);
    EXPECT_EQ(countPrimes(0, 8), 4u);
}

TEST(PoolDemoPrimeSieveTest, EveryRangeAgreesWithTrialDivision) {
    for (uint64_t from = 0; from < 260; from += 7)
        for (uint64_t to = from; to < 600; to += 13)
            ASSERT_EQ(countPrimes(from, to), countByTrialDivision(from, to))
                << "[" << from << ", " << to << ")";
    // Far up, where the base primes reach 31623 and squares of primes fall inside the range.
    for (uint64_t from : {999999000ULL, 1000000000ULL, 4294967000ULL})
        EXPECT_EQ(countPrimes(from, from + 3000), countByTrialDivision(from, from + 3000)) << from;
    // 31607^2 and 31627^2 (squares of primes) end or start a range.
    EXPECT_EQ(countPrimes(999002449ULL - 500, 999002449ULL + 1),
              countByTrialDivision(999002449ULL - 500, 999002449ULL + 1));
    EXPECT_EQ(countPrimes(1000267129ULL, 1000267129ULL + 500),
              countByTrialDivision(1000267129ULL, 1000267129ULL + 500));
}

TEST(PoolDemoPrimeSieveTest, RangesSplitAnywhereAddUp) {
    const uint64_t total = 78498;
    for (unsigned long long split :
         {0ULL, 1ULL, 2ULL, 3ULL, 4ULL, 97ULL, 1000ULL, c_segment - 1, c_segment, c_segment + 1,
          2 * c_segment, 999983ULL, 999984ULL, 1000000ULL})
        EXPECT_EQ(countPrimes(0, split) + countPrimes(split, 1000000), total) << split;

    // Uneven pieces, none of them on a segment boundary of another.
    uint64_t sum = 0;
    uint64_t from = 0;
    for (uint64_t length = 1; from < 1000000; length = length * 3 + 17) {
        const uint64_t to = std::min<uint64_t>(from + length, 1000000);
        sum += countPrimes(from, to);
        from = to;
    }
    EXPECT_EQ(sum, total);

    // As the master cuts the bound into tasks: equal steps, the remainder in the last.
    for (unsigned int tasks : {1u, 7u, 40u, 333u}) {
        const uint64_t below = 2000000, step = below / tasks;
        uint64_t count = 0;
        for (unsigned int i = 0; i < tasks; ++i)
            count += countPrimes(i * step, i + 1 == tasks ? below : (i + 1) * step);
        EXPECT_EQ(count, 148933u) << tasks << " tasks";
    }
}

// ---- progress line

TEST(PoolDemoProgressLineTest, FormatShowsEveryNumber) {
    ProgressLine::State state;
    state.done = 3;
    state.total = 40;
    state.running = 2;
    state.failed = 1;
    state.workers = 2;
    EXPECT_EQ(ProgressLine::format(state, 12.345),
              "tasks 3/40 done, 2 running, 1 failed, 2 workers alive, 12.3 tasks/s");
    EXPECT_EQ(ProgressLine::format(ProgressLine::State(), 0.0),
              "tasks 0/0 done, 0 running, 0 failed, 0 workers alive, 0.0 tasks/s");
    ProgressLine::State big{4000000000u, 4000000000u, 123456, 77, 1024};
    EXPECT_EQ(ProgressLine::format(big, 99999.96),
              "tasks 4000000000/4000000000 done, 123456 running, 77 failed, 1024 workers alive, "
              "100000.0 tasks/s");
}

TEST(PoolDemoProgressLineTest, PlainLinesWhenNotATerminal) {
    std::FILE* file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    {
        ProgressLine progress(file);
        // Nothing done yet: the rate is 0 whatever the time.
        progress.show({0, 5, 1, 0, 1});
        progress.show({0, 5, 2, 1, 2});
        progress.finish();
    }
    std::rewind(file);
    std::string text;
    char buffer[512];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof(buffer), file)) > 0)
        text.append(buffer, n);
    std::fclose(file);
    EXPECT_EQ(text, "tasks 0/5 done, 1 running, 0 failed, 1 workers alive, 0.0 tasks/s\n"
                    "tasks 0/5 done, 2 running, 1 failed, 2 workers alive, 0.0 tasks/s\n");
}

TEST(PoolDemoProgressLineTest, RedrawnInPlaceOnATerminal) {
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(::grantpt(master), 0);
    ASSERT_EQ(::unlockpt(master), 0);
    const int slave = ::open(::ptsname(master), O_RDWR | O_NOCTTY);
    ASSERT_GE(slave, 0);
    // Raw, so that the terminal passes the bytes as written ("\n" stays "\n").
    termios mode{};
    ASSERT_EQ(::tcgetattr(slave, &mode), 0);
    ::cfmakeraw(&mode);
    ASSERT_EQ(::tcsetattr(slave, TCSANOW, &mode), 0);
    std::FILE* terminal = ::fdopen(slave, "w");
    ASSERT_NE(terminal, nullptr);
    {
        ProgressLine progress(terminal);
        progress.show({0, 9, 1, 0, 1});
        progress.show({0, 9, 2, 0, 2});
        progress.finish();
    }
    std::fclose(terminal);
    std::string text;
    char buffer[512];
    pollfd p{master, POLLIN, 0};
    while (::poll(&p, 1, 200) > 0) {
        const ssize_t n = ::read(master, buffer, sizeof(buffer));
        if (n <= 0)
            break;
        text.append(buffer, static_cast<size_t>(n));
    }
    ::close(master);
    EXPECT_EQ(text, "\r\033[Ktasks 0/9 done, 1 running, 0 failed, 1 workers alive, 0.0 tasks/s"
                    "\r\033[Ktasks 0/9 done, 2 running, 0 failed, 2 workers alive, 0.0 tasks/s\n");
}
