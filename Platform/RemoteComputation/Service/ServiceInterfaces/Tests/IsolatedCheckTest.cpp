#include "Platform/RemoteComputation/Service/ServiceInterfaces/IsolatedCheck.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

using namespace Kestrane;
using Outcome = IsolatedCheck::Outcome;

namespace {

constexpr std::chrono::milliseconds c_limit{10000};

// No child of this test process is left, finished or not.
bool noChildLeft() {
    errno = 0;
    return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD;
}

} // namespace

TEST(IsolatedCheckTest, TheChildsVerdictComesBack) {
    EXPECT_EQ(IsolatedCheck::run([] { return true; }, c_limit), Outcome::Passed);
    EXPECT_EQ(IsolatedCheck::run([] { return false; }, c_limit), Outcome::Failed);
    EXPECT_TRUE(noChildLeft());
}

TEST(IsolatedCheckTest, TheCheckSeesThisProcesssMemoryButCannotChangeIt) {
    int value = 41;
    EXPECT_EQ(IsolatedCheck::run(
                  [&value] {
                      ++value;
                      return value == 42;
                  },
                  c_limit),
              Outcome::Passed);
    EXPECT_EQ(value, 41);
}

TEST(IsolatedCheckTest, ACrashTakesOnlyTheChild) {
    EXPECT_EQ(IsolatedCheck::run(
                  [] {
                      std::raise(SIGSEGV);
                      return true;
                  },
                  c_limit),
              Outcome::Crashed);
    EXPECT_EQ(IsolatedCheck::run([]() -> bool { std::abort(); }, c_limit), Outcome::Crashed);
    // Leaving without a verdict is no verdict either.
    EXPECT_EQ(IsolatedCheck::run([]() -> bool { _exit(0); }, c_limit), Outcome::Crashed);
    EXPECT_TRUE(noChildLeft());
}

TEST(IsolatedCheckTest, AChildThatRunsOnIsKilledAtTheLimit) {
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(IsolatedCheck::run(
                  [] {
                      while (true)
                          pause();
                      return true;
                  },
                  std::chrono::milliseconds(200)),
              Outcome::TimedOut);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(200));
    EXPECT_LT(took, std::chrono::seconds(5));
    EXPECT_TRUE(noChildLeft());
}

// The caller holds the lock the check takes, as the contract asks, while other threads of this
// process keep taking it: the child finds it in the state of the fork and goes on.
TEST(IsolatedCheckTest, ALockHeldAcrossTheForkIsUsableInTheChild) {
    std::mutex mutex;
    std::atomic<bool> stop{false};
    std::thread other([&] {
        while (!stop) {
            std::lock_guard<std::mutex> lock(mutex);
        }
    });
    for (int round = 0; round < 20; ++round) {
        std::unique_lock<std::mutex> lock(mutex);
        EXPECT_EQ(IsolatedCheck::run(
                      [&mutex] {
                          // The forking thread's own lock, inherited held; released and taken
                          // again in the child without another thread to wait for.
                          mutex.unlock();
                          std::lock_guard<std::mutex> again(mutex);
                          return true;
                      },
                      c_limit),
                  Outcome::Passed);
    }
    stop = true;
    other.join();
}

TEST(IsolatedCheckTest, OutcomesHaveWordsForLogLines) {
    EXPECT_STREQ(IsolatedCheck::describe(Outcome::Passed), "passed");
    EXPECT_STREQ(IsolatedCheck::describe(Outcome::Failed), "failed");
    EXPECT_STREQ(IsolatedCheck::describe(Outcome::Crashed), "crashed");
    EXPECT_STREQ(IsolatedCheck::describe(Outcome::TimedOut), "timed out");
    EXPECT_STREQ(IsolatedCheck::describe(Outcome::NotRun), "not run");
}
