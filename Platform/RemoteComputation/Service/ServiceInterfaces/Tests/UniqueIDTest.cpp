#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <gtest/gtest.h>

#include <mutex>
#include <regex>
#include <set>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <unordered_set>

using namespace Kestrane;

namespace {
const std::regex c_idForm("[0-9A-F]{16}-[0-9A-F]{16}-[0-9A-F]{16}");
}

TEST(UniqueIDTest, ExactForm) {
    UniqueID generator;
    for (int i = 0; i < 1000; ++i) {
        std::string id = generator.getUniqueID();
        ASSERT_EQ(id.size(), 50u);
        ASSERT_TRUE(std::regex_match(id, c_idForm)) << id;
        ASSERT_TRUE(UniqueID::isValid(id)) << id;
    }
    std::string id = UniqueID::generateId();
    EXPECT_EQ(id.size(), UniqueID::c_length);
    EXPECT_TRUE(std::regex_match(id, c_idForm)) << id;
}

TEST(UniqueIDTest, HundredThousandIdsAreUnique) {
    std::unordered_set<std::string> seen;
    seen.reserve(100000);
    for (int i = 0; i < 100000; ++i)
        seen.insert(UniqueID::generateId());
    EXPECT_EQ(seen.size(), 100000u);
}

TEST(UniqueIDTest, ManyThreadsAtOnceGiveUniqueValidIds) {
    constexpr int c_threads = 8;
    constexpr int c_perThread = 5000;
    std::vector<std::vector<std::string>> results(c_threads);
    std::vector<std::thread> threads;
    for (int t = 0; t < c_threads; ++t)
        threads.emplace_back([&results, t] {
            UniqueID generator;
            for (int i = 0; i < c_perThread; ++i)
                results[t].push_back(generator.getUniqueID());
        });
    for (auto& thread : threads)
        thread.join();
    std::unordered_set<std::string> seen;
    for (const auto& list : results)
        for (const auto& id : list) {
            EXPECT_TRUE(UniqueID::isValid(id)) << id;
            seen.insert(id);
        }
    EXPECT_EQ(seen.size(), static_cast<size_t>(c_threads * c_perThread));
}

TEST(UniqueIDTest, ForkedChildDoesNotRepeatParentIds) {
    UniqueID::generateId(); // the parent's generator is in use before the fork
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        ::close(fds[0]);
        std::string id = UniqueID::generateId();
        ssize_t written = ::write(fds[1], id.data(), id.size());
        ::_exit(written == static_cast<ssize_t>(id.size()) ? 0 : 1);
    }
    ::close(fds[1]);
    std::string parentId = UniqueID::generateId();
    char buffer[64] = {0};
    ssize_t got = ::read(fds[0], buffer, sizeof(buffer));
    ::close(fds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    ASSERT_EQ(got, 50);
    EXPECT_NE(std::string(buffer, 50), parentId);
    EXPECT_TRUE(UniqueID::isValid(std::string(buffer, 50)));
}

TEST(UniqueIDTest, IsValid) {
    EXPECT_TRUE(UniqueID::isValid(UniqueID::c_nullId));
    EXPECT_EQ(UniqueID::c_nullId, "0000000000000000-0000000000000000-0000000000000000");
    EXPECT_TRUE(UniqueID::isValid("0123456789ABCDEF-FEDCBA9876543210-AAAAAAAAAAAAAAAA"));
    EXPECT_FALSE(UniqueID::isValid("0123456789abcdef-FEDCBA9876543210-AAAAAAAAAAAAAAAA"))
        << "lower case";
    EXPECT_FALSE(UniqueID::isValid("0123456789ABCDEF-FEDCBA9876543210-AAAAAAAAAAAAAAA"))
        << "too short";
    EXPECT_FALSE(UniqueID::isValid("0123456789ABCDEF-FEDCBA9876543210-AAAAAAAAAAAAAAAAA"))
        << "too long";
    EXPECT_FALSE(UniqueID::isValid("0123456789ABCDEF_FEDCBA9876543210-AAAAAAAAAAAAAAAA"))
        << "wrong separator";
    EXPECT_FALSE(UniqueID::isValid("0123456789ABCDEFF-EDCBA9876543210-AAAAAAAAAAAAAAAA"))
        << "separator in the wrong place";
    EXPECT_FALSE(UniqueID::isValid("0123456789ABCDEG-FEDCBA9876543210-AAAAAAAAAAAAAAAA"))
        << "not hex";
    EXPECT_FALSE(UniqueID::isValid(""));
}

TEST(TigerHashTest, KnownDigests) {
    EXPECT_EQ(TigerHash::tHash("abc"), "2aab1484e8c158f2bfb8c5ff41b57a525129131c957b5f93");
    EXPECT_EQ(TigerHash::tHash(""), "3293ac630c13f0245f92bbb1766e16167a4e58492dde73f3");
    EXPECT_EQ(TigerHash::tHash("Tiger"), "dd00230799f5009fec6debc838bb6a27df2b9d6f110c7937");
}

TEST(TigerHashTest, FormAndDeterminism) {
    std::string hash = TigerHash::tHash("some text");
    EXPECT_EQ(hash.size(), 48u);
    EXPECT_TRUE(std::regex_match(hash, std::regex("[0-9a-f]{48}"))) << hash;
    EXPECT_EQ(TigerHash::tHash("some text"), hash);
    EXPECT_NE(TigerHash::tHash("some texT"), hash);
    std::string withNul("a\0b", 3);
    EXPECT_NE(TigerHash::tHash(withNul), TigerHash::tHash("a"));
}

TEST(TigerHashTest, ManyThreadsAgree) {
    std::string expected = TigerHash::tHash("abc");
    std::vector<std::thread> threads;
    std::mutex mutex;
    std::set<std::string> seen;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                std::string h = TigerHash::tHash("abc");
                std::lock_guard<std::mutex> lock(mutex);
                seen.insert(h);
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(seen, std::set<std::string>{expected});
}
