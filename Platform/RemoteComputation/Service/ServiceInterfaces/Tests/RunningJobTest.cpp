#include "Platform/RemoteComputation/Service/ServiceInterfaces/RunningJob.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "TestHelpers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <new>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace Kestrane;
using namespace Kestrane::Computing;
using namespace std::chrono_literals;

namespace {

// A child process running `body`; its exit code is what `body` returns. Killed at the end of
// the test should it still run.
class Child {
public:
    explicit Child(const std::function<int()>& body) {
        m_pid = ::fork();
        if (m_pid == 0)
            ::_exit(body());
    }
    ~Child() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return m_pid; }
    // The raw wait status, or -1 when the child does not end within `limit`.
    int wait(std::chrono::milliseconds limit = 10s) {
        int status = -1;
        bool ended = TestSupport::waitUntil(
            [&] { return ::waitpid(m_pid, &status, WNOHANG) == m_pid; }, limit);
        if (!ended)
            return -1;
        m_pid = -1;
        return status;
    }

private:
    pid_t m_pid = -1;
};

// One byte from the other side of a pipe, or false after `limit`.
bool readByte(int fd, std::chrono::milliseconds limit = 10s) {
    char byte = 0;
    return TestSupport::waitUntil([&] { return ::read(fd, &byte, 1) == 1; }, limit);
}

struct Pipe {
    int fds[2] = {-1, -1};
    Pipe() {
        if (::pipe2(fds, O_NONBLOCK) != 0)
            throw std::runtime_error("pipe2 failed");
    }
    ~Pipe() {
        for (int fd : fds)
            if (fd >= 0)
                ::close(fd);
    }
    int readEnd() const { return fds[0]; }
    int writeEnd() const { return fds[1]; }
};

class RunningJobTest : public ::testing::Test {
protected:
    void SetUp() override { PathConfiguration::setKsPathTmp(FileName(m_dir.path())); }
    void TearDown() override { PathConfiguration::setKsPathTmp(FileName()); }

    std::string registry() const { return m_dir.file("running-jobs"); }

    TestSupport::TempDir m_dir;
};

// What several competitors saw, in memory that forked children share with the test.
struct Competition {
    std::atomic<int> holders{0};
    std::atomic<int> maxHolders{0};
    std::atomic<unsigned int> maxUsed{0};
    std::atomic<int> refusals{0};
    std::atomic<int> successes[8];

    static void raise(std::atomic<int>& maximum, int value) {
        int seen = maximum.load();
        while (value > seen && !maximum.compare_exchange_weak(seen, value)) {
        }
    }
    static void raise(std::atomic<unsigned int>& maximum, unsigned int value) {
        unsigned int seen = maximum.load();
        while (value > seen && !maximum.compare_exchange_weak(seen, value)) {
        }
    }

    // Takes one core of two again and again: for 300 ms, and on until it got one itself and a
    // refusal has shown that the competitors met (5 s at most).
    void compete(int competitor) {
        RunningJob job("competitor " + std::to_string(competitor));
        auto begin = std::chrono::steady_clock::now();
        for (;;) {
            auto elapsed = std::chrono::steady_clock::now() - begin;
            if ((elapsed >= 300ms && refusals > 0 && successes[competitor] > 0) || elapsed >= 5s)
                break;
            if (!job.add(2, 1, 0, "competitor " + std::to_string(competitor))) {
                ++refusals;
                continue;
            }
            raise(maxHolders, ++holders);
            raise(maxUsed, RunningJob::usedCores());
            sched_yield();
            --holders;
            job.remove();
            ++successes[competitor];
        }
    }
};

} // namespace

TEST(RunningJobCapacityTest, TheSettingOrTheOnlineCores) {
    long online = ::sysconf(_SC_NPROCESSORS_ONLN);
    ASSERT_GT(online, 0);
    EXPECT_EQ(RunningJob::capacity(3), 3u);
    EXPECT_EQ(RunningJob::capacity(1), 1u);
    EXPECT_EQ(RunningJob::capacity(0), static_cast<unsigned int>(online));
    EXPECT_EQ(RunningJob::capacity(-4), static_cast<unsigned int>(online));
}

TEST_F(RunningJobTest, AddTakesTheCoresAndRemoveGivesThemBack) {
    EXPECT_EQ(RunningJob::usedCores(), 0u);
    RunningJob job("solver");
    EXPECT_FALSE(job.isAdded());
    ASSERT_TRUE(job.add(8, 3, 5, "solve model"));
    EXPECT_TRUE(job.isAdded());
    EXPECT_EQ(RunningJob::usedCores(), 3u);
    auto jobs = RunningJob::runningJobs();
    ASSERT_EQ(jobs.size(), 1u);
    EXPECT_EQ(jobs[0].pid, ::getpid());
    EXPECT_EQ(jobs[0].cores, 3u);
    EXPECT_EQ(jobs[0].computingType, 5);
    EXPECT_EQ(jobs[0].jobText, "solve model");
    job.remove();
    EXPECT_FALSE(job.isAdded());
    EXPECT_EQ(RunningJob::usedCores(), 0u);
    EXPECT_TRUE(RunningJob::runningJobs().empty());
    // Once more: nothing left to give back.
    job.remove();
    EXPECT_EQ(RunningJob::usedCores(), 0u);
    // A removed job can be entered again.
    ASSERT_TRUE(job.add(8, 2, 5, "solve model again"));
    EXPECT_EQ(RunningJob::usedCores(), 2u);
}

TEST_F(RunningJobTest, DestructorGivesTheCoresBack) {
    {
        RunningJob job("scoped");
        ASSERT_TRUE(job.add(4, 4, 0, "scoped job"));
        EXPECT_EQ(RunningJob::usedCores(), 4u);
    }
    EXPECT_EQ(RunningJob::usedCores(), 0u);
    EXPECT_TRUE(RunningJob::runningJobs().empty());
}

TEST_F(RunningJobTest, AddingAnEnteredJobAgainThrows) {
    RunningJob job("twice");
    ASSERT_TRUE(job.add(8, 2, 0, "twice"));
    EXPECT_THROW(job.add(8, 2, 0, "twice"), std::logic_error);
    EXPECT_TRUE(job.isAdded());
    EXPECT_EQ(RunningJob::usedCores(), 2u);
    EXPECT_EQ(RunningJob::runningJobs().size(), 1u);
}

TEST_F(RunningJobTest, JobsOfOneProcessAreDistinct) {
    RunningJob first("first"), second("second");
    ASSERT_TRUE(first.add(8, 1, 1, "same text"));
    ASSERT_TRUE(second.add(8, 2, 1, "same text"));
    EXPECT_EQ(RunningJob::usedCores(), 3u);
    first.remove();
    auto jobs = RunningJob::runningJobs();
    ASSERT_EQ(jobs.size(), 1u);
    EXPECT_EQ(jobs[0].cores, 2u);
}

TEST_F(RunningJobTest, CapacityIsRespected) {
    RunningJob a("a"), b("b"), c("c");
    ASSERT_TRUE(a.add(3, 2, 0, "a"));
    EXPECT_FALSE(b.add(3, 2, 0, "b")) << "2 + 2 cores on a host of 3";
    EXPECT_FALSE(b.isAdded());
    EXPECT_TRUE(c.add(3, 1, 0, "c"));
    EXPECT_EQ(RunningJob::usedCores(), 3u);
    a.remove();
    EXPECT_TRUE(b.add(3, 2, 0, "b"));
    EXPECT_EQ(RunningJob::usedCores(), 3u);
    // The capacity is the caller's: a bigger host takes more beside the same jobs.
    RunningJob d("d");
    EXPECT_FALSE(d.add(3, 1, 0, "d"));
    EXPECT_TRUE(d.add(4, 1, 0, "d"));
}

TEST_F(RunningJobTest, AJobBiggerThanTheHostRunsAlone) {
    RunningJob idle("idle"), big("big"), small("small");
    // An entry without cores does not keep the host busy.
    ASSERT_TRUE(idle.add(2, 0, 0, "idle"));
    ASSERT_TRUE(big.add(2, 5, 0, "big"));
    EXPECT_EQ(RunningJob::usedCores(), 5u);
    EXPECT_FALSE(small.add(2, 1, 0, "small"));
    big.remove();
    EXPECT_TRUE(small.add(2, 1, 0, "small"));
    // Now the host is not free any more: the big one waits.
    EXPECT_FALSE(big.add(2, 5, 0, "big"));
}

TEST_F(RunningJobTest, JobTextWithBlanksRoundTripsAndLineBreaksBecomeBlanks) {
    RunningJob blanks("blanks"), breaks("breaks"), empty("empty");
    const std::string text = "  solve  model 7\tof 9 ";
    ASSERT_TRUE(blanks.add(8, 1, -3, text));
    ASSERT_TRUE(breaks.add(8, 1, 2, "line one\nline two\r\nend"));
    ASSERT_TRUE(empty.add(8, 1, 0, ""));
    auto jobs = RunningJob::runningJobs();
    ASSERT_EQ(jobs.size(), 3u);
    EXPECT_EQ(jobs[0].jobText, text);
    EXPECT_EQ(jobs[0].computingType, -3);
    EXPECT_EQ(jobs[1].jobText, "line one line two  end");
    EXPECT_EQ(jobs[2].jobText, "");
    // One line per job.
    std::string content = TestSupport::readFile(registry());
    EXPECT_EQ(std::count(content.begin(), content.end(), '\n'), 3) << content;
}

TEST_F(RunningJobTest, CoresOfAKilledProcessComeBack) {
    Pipe ready, release;
    Child child([&] {
        RunningJob job("child");
        if (!job.add(2, 2, 0, "child job"))
            return 1;
        (void)!::write(ready.writeEnd(), "x", 1);
        // Holds the cores until it is killed (or released, should the test fail early).
        readByte(release.readEnd(), 10s);
        return 0;
    });
    ASSERT_GT(child.pid(), 0);
    ASSERT_TRUE(readByte(ready.readEnd()));
    EXPECT_EQ(RunningJob::usedCores(), 2u);
    RunningJob mine("mine");
    EXPECT_FALSE(mine.add(2, 2, 0, "mine")) << "the child holds both cores";
    pid_t childPid = child.pid();
    ASSERT_EQ(::kill(childPid, SIGKILL), 0);
    int status = child.wait();
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(RunningJob::usedCores(), 0u);
    EXPECT_TRUE(RunningJob::runningJobs().empty());
    LogCapture capture;
    EXPECT_TRUE(mine.add(2, 2, 0, "mine"));
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Freed 2 cores of job 'child job' of process " +
                                                     std::to_string(childPid) +
                                                     ", which has ended"));
    // Pruned: the child's line is gone from the file.
    EXPECT_EQ(TestSupport::readFile(registry()).find("child job"), std::string::npos);
}

TEST_F(RunningJobTest, AnEndedButUnreapedProcessHoldsNothing) {
    Child child([] {
        // Ends without leaving the registry: the job is never destroyed.
        auto job = new RunningJob("child");
        return job->add(2, 2, 0, "zombie job") ? 0 : 1;
    });
    ASSERT_GT(child.pid(), 0);
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child.pid()), &info, WEXITED | WNOWAIT), 0);
    ASSERT_EQ(info.si_status, 0);
    // Still a zombie here, its entry still in the file.
    EXPECT_NE(TestSupport::readFile(registry()).find("zombie job"), std::string::npos);
    EXPECT_EQ(RunningJob::usedCores(), 0u);
    RunningJob mine("mine");
    EXPECT_TRUE(mine.add(2, 2, 0, "mine"));
    EXPECT_TRUE(WIFEXITED(child.wait()));
}

TEST_F(RunningJobTest, AnEntryOfALaterProcessUnderTheSamePidHoldsNothing) {
    {
        RunningJob job("original");
        ASSERT_TRUE(job.add(8, 3, 0, "original"));
        std::string line = TestSupport::readFile(registry());
        // "<pid> <start time> ...": the same pid, started at another time.
        size_t first = line.find(' '), second = line.find(' ', first + 1);
        ASSERT_NE(second, std::string::npos) << line;
        uint64_t startTime = std::stoull(line.substr(first + 1, second - first - 1));
        ASSERT_GT(startTime, 0u) << line;
        std::string reused = line.substr(0, first + 1) + std::to_string(startTime + 1) +
                             line.substr(second, line.size() - second - 1) + " reused\n";
        TestSupport::writeFile(registry(), line + reused);
        EXPECT_EQ(RunningJob::usedCores(), 3u);
        EXPECT_EQ(RunningJob::runningJobs().size(), 1u);
    }
    // The original is gone, the other entry counts for nothing.
    EXPECT_EQ(RunningJob::usedCores(), 0u);
    EXPECT_EQ(TestSupport::readFile(registry()), "");
}

TEST_F(RunningJobTest, AForkedCopyLeavesTheParentsEntryAlone) {
    RunningJob job("parent");
    ASSERT_TRUE(job.add(8, 2, 0, "parent job"));
    Child child([&] {
        job.remove();
        return job.isAdded() ? 1 : 0;
    });
    ASSERT_GT(child.pid(), 0);
    int status = child.wait();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(RunningJob::usedCores(), 2u);
}

TEST_F(RunningJobTest, CompetingProcessesNeverExceedTheCapacity) {
    void* memory = ::mmap(nullptr, sizeof(Competition), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    Competition* competition = new (memory) Competition();
    for (auto& count : competition->successes)
        count = 0;
    constexpr int c_children = 4;
    std::vector<std::unique_ptr<Child>> children;
    for (int i = 0; i < c_children; ++i)
        children.push_back(std::make_unique<Child>([competition, i] {
            competition->compete(i);
            return 0;
        }));
    for (auto& child : children) {
        int status = child->wait(20s);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    EXPECT_LE(competition->maxHolders.load(), 2);
    EXPECT_LE(competition->maxUsed.load(), 2u);
    // A refusal of one core on a host of two means that two were taken at that moment.
    EXPECT_GT(competition->refusals.load(), 0);
    for (int i = 0; i < c_children; ++i)
        EXPECT_GT(competition->successes[i].load(), 0) << "competitor " << i;
    EXPECT_EQ(RunningJob::usedCores(), 0u);
    competition->~Competition();
    ::munmap(memory, sizeof(Competition));
}

TEST_F(RunningJobTest, CompetingThreadsNeverExceedTheCapacity) {
    Competition competition;
    for (auto& count : competition.successes)
        count = 0;
    constexpr int c_threads = 4;
    std::vector<std::thread> threads;
    for (int i = 0; i < c_threads; ++i)
        threads.emplace_back([&competition, i] { competition.compete(i); });
    for (auto& thread : threads)
        thread.join();
    EXPECT_LE(competition.maxHolders.load(), 2);
    EXPECT_LE(competition.maxUsed.load(), 2u);
    EXPECT_GT(competition.refusals.load(), 0);
    for (int i = 0; i < c_threads; ++i)
        EXPECT_GT(competition.successes[i].load(), 0) << "thread " << i;
    EXPECT_EQ(RunningJob::usedCores(), 0u);
}

TEST_F(RunningJobTest, MalformedLinesAreSkippedWithALogLine) {
    RunningJob job("valid");
    ASSERT_TRUE(job.add(8, 2, 0, "valid job"));
    std::string valid = TestSupport::readFile(registry());
    std::string pid = std::to_string(::getpid());
    const char binary[] = "\x01\x02\xff binary\0zero";
    const std::vector<std::string> garbage = {
        "garbage",
        "",
        "1 2",
        "1 2 3 4",                                            // no computing type
        pid + " 0 1 99999999999999999999 0 huge cores",       // beyond 64 bits
        pid + " 0 1 4294967296 0 cores beyond 32 bits",       //
        "99999999999999999999999 0 1 1 0 huge pid",           //
        "0 0 1 1 0 pid zero",                                 // would mean the process group
        "-1 0 1 1 0 negative pid",                            //
        pid + " 0 1 -2 0 negative cores",                     //
        pid + " 0 1 2 99999999999 computing type beyond int", //
        pid + "  0 1 2 0 two blanks",                         //
        std::string(binary, sizeof(binary) - 1),
    };
    std::string content = valid;
    for (const auto& line : garbage)
        content += line + "\n";
    TestSupport::writeFile(registry(), content);
    LogCapture capture;
    EXPECT_EQ(RunningJob::usedCores(), 2u);
    // Every line but the valid one is named.
    size_t warnings = 0;
    for (const auto& message : capture.messages(LogLevel::Warn))
        warnings += message.find("Skipped malformed line") != std::string::npos;
    EXPECT_EQ(warnings, garbage.size());
    EXPECT_TRUE(capture.containsSubstring(
        "Skipped malformed line 2 of the running jobs registry '" + registry() + "': 'garbage'"));
    EXPECT_TRUE(capture.containsSubstring(": '??? binary?zero'"));
    // The next entry rewrites the registry without them.
    RunningJob other("other");
    EXPECT_TRUE(other.add(8, 1, 0, "other job"));
    EXPECT_EQ(RunningJob::usedCores(), 3u);
    std::string rewritten = TestSupport::readFile(registry());
    EXPECT_EQ(rewritten.find("garbage"), std::string::npos) << rewritten;
    EXPECT_EQ(rewritten.rfind(valid, 0), 0u) << rewritten;
    EXPECT_EQ(std::count(rewritten.begin(), rewritten.end(), '\n'), 2) << rewritten;
}

TEST_F(RunningJobTest, EmptyAndUnterminatedRegistriesAreRead) {
    TestSupport::writeFile(registry(), "");
    EXPECT_EQ(RunningJob::usedCores(), 0u);
    RunningJob job("job");
    ASSERT_TRUE(job.add(1, 1, 0, "job"));
    // A last line without its line break still counts.
    std::string content = TestSupport::readFile(registry());
    TestSupport::writeFile(registry(), content.substr(0, content.size() - 1));
    EXPECT_EQ(RunningJob::usedCores(), 1u);
}

TEST_F(RunningJobTest, UnusableDirectoryIsAnErrorNotACrash) {
    std::string blocker = m_dir.file("plain-file");
    TestSupport::writeFile(blocker, "x");
    LogCapture capture;
    // A file where the directory should be: the lock file can't be made.
    PathConfiguration::setKsPathTmp(FileName(blocker));
    RunningJob job("homeless");
    EXPECT_FALSE(job.add(8, 1, 0, "homeless"));
    EXPECT_FALSE(job.isAdded());
    EXPECT_EQ(RunningJob::usedCores(), 0u);
    EXPECT_TRUE(RunningJob::runningJobs().empty());
    // The directory can't even be created.
    PathConfiguration::setKsPathTmp(FileName(blocker) / "tmp");
    EXPECT_FALSE(job.add(8, 1, 0, "homeless"));
    EXPECT_EQ(RunningJob::usedCores(), 0u);
    auto errors = capture.messages(LogLevel::Error);
    ASSERT_EQ(errors.size(), 5u);
    EXPECT_EQ(errors[0].rfind("Job 'homeless' can't take 1 cores: cannot open lock file '" +
                                  blocker + "/running-jobs.lock': ",
                              0),
              0u)
        << errors[0];
    EXPECT_EQ(errors[1].rfind("Can't count the cores that running jobs take: ", 0), 0u);
    EXPECT_EQ(errors[2].rfind("Can't list the running jobs: ", 0), 0u);
    EXPECT_EQ(errors[3].rfind("Job 'homeless' can't take 1 cores: ", 0), 0u);
}
