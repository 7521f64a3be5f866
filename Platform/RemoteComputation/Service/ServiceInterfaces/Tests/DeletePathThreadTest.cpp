#include "Platform/RemoteComputation/Service/ServiceInterfaces/DeletePathThread.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <unistd.h>

using namespace Kestrane;
using TestSupport::TempDir;
using TestSupport::waitUntil;

namespace {
class DeletePathThreadTest : public ::testing::Test {
protected:
    void TearDown() override { DeletePathThread::shutdown(); }

    FileName makeFile(const TempDir& dir, const std::string& name) {
        FileName file = FileName(dir.path()) / name;
        TestSupport::writeFile(file.toString(), "content");
        return file;
    }
    FileName makeTree(const TempDir& dir, const std::string& name) {
        FileName root = FileName(dir.path()) / name;
        FileUtilities::createDirectories(root / "a" / "b");
        TestSupport::writeFile((root / "a" / "b" / "leaf.txt").toString(), "x");
        TestSupport::writeFile((root / "top.txt").toString(), "y");
        return root;
    }
};
} // namespace

TEST_F(DeletePathThreadTest, DeletesFilesAndDirectoriesInTheBackground) {
    TempDir dir;
    FileName file = makeFile(dir, "f.txt");
    FileName tree = makeTree(dir, "tree");
    DeletePathThread::deletePath(file, false);
    DeletePathThread::deletePath(tree, false);
    EXPECT_TRUE(waitUntil([&] { return !FileUtilities::exists(file); }, std::chrono::seconds(10)));
    EXPECT_TRUE(waitUntil([&] { return !FileUtilities::exists(tree); }, std::chrono::seconds(10)));
    EXPECT_TRUE(FileUtilities::exists(dir.path())) << "only the given paths go";
}

TEST_F(DeletePathThreadTest, KeepLeavesThePath) {
    TempDir dir;
    FileName file = makeFile(dir, "kept.txt");
    FileName tree = makeTree(dir, "keptTree");
    DeletePathThread::deletePath(file, true);
    DeletePathThread::deletePath(tree, true);
    DeletePathThread::shutdown(); // drains whatever was queued
    EXPECT_TRUE(FileUtilities::exists(file));
    EXPECT_TRUE(FileUtilities::exists(tree / "a" / "b" / "leaf.txt"));
}

TEST_F(DeletePathThreadTest, ShutdownDrainsTheQueue) {
    TempDir dir;
    std::vector<FileName> paths;
    for (int i = 0; i < 40; ++i) {
        paths.push_back(i % 4 == 0 ? makeTree(dir, "t" + std::to_string(i))
                                   : makeFile(dir, "f" + std::to_string(i)));
        DeletePathThread::deletePath(paths.back(), false);
    }
    DeletePathThread::shutdown();
    for (const auto& path : paths)
        EXPECT_FALSE(FileUtilities::exists(path)) << path.toString();
}

TEST_F(DeletePathThreadTest, WorksAgainAfterShutdown) {
    TempDir dir;
    FileName first = makeFile(dir, "first");
    DeletePathThread::deletePath(first, false);
    DeletePathThread::shutdown();
    EXPECT_FALSE(FileUtilities::exists(first));

    FileName second = makeFile(dir, "second");
    DeletePathThread::deletePath(second, false);
    EXPECT_TRUE(
        waitUntil([&] { return !FileUtilities::exists(second); }, std::chrono::seconds(10)));
    DeletePathThread::shutdown();
    DeletePathThread::shutdown(); // twice is harmless

    FileName third = makeFile(dir, "third");
    DeletePathThread::deletePath(third, false);
    DeletePathThread::shutdown();
    EXPECT_FALSE(FileUtilities::exists(third));
}

TEST_F(DeletePathThreadTest, ShutdownWithoutWorkReturns) {
    DeletePathThread::shutdown();
    TempDir dir;
    FileName file = makeFile(dir, "late");
    DeletePathThread::deletePath(file, false);
    DeletePathThread::shutdown();
    EXPECT_FALSE(FileUtilities::exists(file));
}

TEST_F(DeletePathThreadTest, MissingAndEmptyPathsAreHarmless) {
    TempDir dir;
    LogCapture capture;
    DeletePathThread::deletePath(FileName(), false);
    DeletePathThread::deletePath(FileName(dir.path()) / "never-existed", false);
    FileName file = makeFile(dir, "real");
    DeletePathThread::deletePath(file, false);
    DeletePathThread::shutdown();
    EXPECT_FALSE(FileUtilities::exists(file));
    EXPECT_TRUE(capture.messages(LogLevel::Warn).empty());
}

TEST_F(DeletePathThreadTest, ManyThreadsHandOverAtOnce) {
    TempDir dir;
    std::vector<FileName> paths;
    for (int i = 0; i < 60; ++i)
        paths.push_back(makeFile(dir, "p" + std::to_string(i)));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&paths, t] {
            for (size_t i = t; i < paths.size(); i += 4)
                DeletePathThread::deletePath(paths[i], false);
        });
    for (auto& thread : threads)
        thread.join();
    DeletePathThread::shutdown();
    for (const auto& path : paths)
        EXPECT_FALSE(FileUtilities::exists(path)) << path.toString();
}

TEST_F(DeletePathThreadTest, ShutdownRacingWithNewWorkEnds) {
    TempDir dir;
    std::atomic<bool> done{false};
    std::vector<FileName> paths;
    for (int i = 0; i < 200; ++i)
        paths.push_back(makeFile(dir, "r" + std::to_string(i)));
    std::thread adder([&] {
        for (const auto& path : paths)
            DeletePathThread::deletePath(path, false);
    });
    std::thread stopper([&] {
        for (int i = 0; i < 200; ++i)
            DeletePathThread::shutdown();
        done = true;
    });
    bool finished = waitUntil([&] { return done.load(); }, std::chrono::seconds(20));
    if (!finished) {
        std::fprintf(stderr, "shutdown() hung while paths were handed over\n");
        std::fflush(stderr);
        ::_exit(1);
    }
    adder.join();
    stopper.join();
    DeletePathThread::shutdown();
    for (const auto& path : paths)
        EXPECT_FALSE(FileUtilities::exists(path)) << path.toString();
}
