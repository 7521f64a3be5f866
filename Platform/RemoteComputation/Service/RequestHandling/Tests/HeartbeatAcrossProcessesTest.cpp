// A real child process publishes its heartbeat; this process watches it.
#include "RecordingSubscriber.h"

#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcessWatcher.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/TestSupport/ServerProcess.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <sys/wait.h>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;

namespace {

HostInfo publisherAt(int port) {
    HostInfo host;
    host.setIp("127.0.0.1");
    host.setPublisherPort(port);
    return host;
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

} // namespace

TEST(HeartbeatAcrossProcessesTest, StoppedChildIsNoticedAndRecovers) {
    LogCapture capture;
    ::setenv("KS_ALIVE_PUBLISH_INTERVAL", "100", 1);
    ServerProcess child({});
    ASSERT_TRUE(child.start());
    ASSERT_GT(child.port(), 0);
    int publisher = child.publisherPort();
    ASSERT_GT(publisher, 0);

    std::atomic<int> lost{0};
    LivingProcessWatcher watcher(publisherAt(publisher), 1, 0, false);
    auto connection = watcher.maxAliveAgeExceeded().connect([&] { ++lost; });
    watcher.start(true);
    ASSERT_TRUE(
        waitUntil([&] { return watcher.getLastAliveMsg() == "RequestServer running"; }, 5000ms));
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(watcher.getLastAliveAge(), 0);
    EXPECT_EQ(lost.load(), 0);

    ASSERT_TRUE(child.process().kill(SIGSTOP));
    ASSERT_TRUE(waitUntil([&] { return lost.load() > 0; }, 4000ms));
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "Max alive message age exceeded (2 > 1)"));
    EXPECT_GE(watcher.getLastAliveAge(), 2);

    ASSERT_TRUE(child.process().kill(SIGCONT));
    ASSERT_TRUE(waitUntil([&] { return watcher.getLastAliveAge() == 0; }, 3000ms));
    int lostBefore = lost.load();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(lost.load(), lostBefore); // no verdict while the heartbeat is back

    child.process().kill(SIGTERM);
    EXPECT_EQ(child.waitForExit(5000ms), 0);
}

TEST(HeartbeatAcrossProcessesTest, KilledChildGivesTheSameVerdict) {
    LogCapture capture;
    ::setenv("KS_ALIVE_PUBLISH_INTERVAL", "100", 1);
    ServerProcess child({});
    ASSERT_TRUE(child.start());
    int publisher = child.publisherPort();
    ASSERT_GT(publisher, 0);
    std::atomic<int> lost{0};
    LivingProcessWatcher watcher(publisherAt(publisher), 1, 0, false);
    auto connection = watcher.maxAliveAgeExceeded().connect([&] { ++lost; });
    watcher.start(true);
    ASSERT_TRUE(waitUntil([&] { return !watcher.getLastAliveMsg().empty(); }, 5000ms));
    ASSERT_TRUE(child.process().kill(SIGKILL));
    EXPECT_EQ(child.waitForExit(5000ms), 128 + SIGKILL);
    ASSERT_TRUE(waitUntil([&] { return lost.load() > 0; }, 4000ms));
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "Max alive message age exceeded (2 > 1)"));
}

TEST(HeartbeatAcrossProcessesTest, BusyPublisherStillHeartbeatsOnTime) {
    // The child keeps every core busy while its heartbeat runs at 100 ms.
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    unsigned int cores = std::max(2u, std::thread::hardware_concurrency());
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        ::close(pipeFds[0]);
        RequestServerConfiguration::getRegisteredInstance()->setValue("alivePublishInterval",
                                                                      "100");
        int port = Publisher::getInstance()->getPort();
        LivingProcess::alive("spinning", "");
        std::atomic<bool> run{true};
        std::vector<std::thread> spinners;
        for (unsigned int i = 0; i < cores; ++i)
            spinners.emplace_back([&] {
                volatile unsigned long x = 0;
                while (run.load(std::memory_order_relaxed))
                    x = x + 1;
            });
        if (::write(pipeFds[1], &port, sizeof(port)) != sizeof(port))
            ::_exit(3);
        std::this_thread::sleep_for(4000ms);
        run = false;
        for (auto& t : spinners)
            t.join();
        ::_exit(0);
    }
    ::close(pipeFds[1]);
    int port = -1;
    ASSERT_EQ(::read(pipeFds[0], &port, sizeof(port)), static_cast<ssize_t>(sizeof(port)));
    ::close(pipeFds[0]);
    ASSERT_GT(port, 0);
    {
        RecordingSubscriber subscriber(publisherAt(port), {"alive"});
        subscriber.start(true);
        ASSERT_TRUE(subscriber.waitFor([](const ReceivedMessage&) { return true; }, 3000ms));
        std::this_thread::sleep_for(2500ms);
        auto messages = subscriber.messages();
        ASSERT_GT(messages.size(), 15u);
        auto worst = std::chrono::steady_clock::duration::zero();
        for (size_t i = 1; i < messages.size(); ++i)
            worst = std::max(worst, messages[i].time - messages[i - 1].time);
        EXPECT_LT(worst, 300ms)
            << "largest gap "
            << std::chrono::duration_cast<std::chrono::milliseconds>(worst).count() << " ms";
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}
