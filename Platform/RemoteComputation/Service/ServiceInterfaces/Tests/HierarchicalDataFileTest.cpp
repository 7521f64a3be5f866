#include "Platform/RemoteComputation/Service/ServiceInterfaces/HierarchicalDataFile.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/IsolatedCheck.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/PlainHdf5.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

using namespace Kestrane;
using KestraneTest::PlainHdf5;

namespace {

std::vector<unsigned char> imageOf(int handle) {
    uint64_t size = 0;
    const unsigned char* block = nullptr;
    if (KSHLgetMemoryFile(handle, size, block) != 1)
        return {};
    return std::vector<unsigned char>(block, block + size);
}

std::vector<double> ramp(std::size_t count, double offset) {
    std::vector<double> values(count);
    for (std::size_t i = 0; i < count; ++i)
        values[i] = offset + 0.25 * static_cast<double>(i);
    return values;
}

std::string tempPath(const std::string& leaf) {
    return ::testing::TempDir() + "/" + std::to_string(getpid()) + "-" + leaf;
}

// The number of filters on root/<name>, through the plain API on a disk copy.
int filtersOnDisk(const std::vector<unsigned char>& image, const std::string& name) {
    std::string path = tempPath(name + ".h5");
    {
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(image.data()),
                  static_cast<std::streamsize>(image.size()));
    }
    const PlainHdf5& api = PlainHdf5::get();
    hid_t file = api.fopen(path.c_str(), PlainHdf5::c_readOnly, PlainHdf5::c_default);
    if (file < 0)
        return -1;
    hid_t dataset = api.dopen(file, ("root/" + name).c_str(), PlainHdf5::c_default);
    int filters = -1;
    if (dataset >= 0) {
        hid_t plist = api.dgetCreatePlist(dataset);
        filters = api.nfilters(plist);
        api.pclose(plist);
        api.dclose(dataset);
    }
    api.fclose(file);
    std::remove(path.c_str());
    return filters;
}

} // namespace

TEST(HierarchicalDataFileTest, DoublesGoThroughTheBlockAndBack) {
    std::vector<double> values = ramp(100000, -3.5);
    int handle = KSHLcreateMemoryFile(values.size() * sizeof(double));
    ASSERT_GT(handle, 0);
    ASSERT_EQ(KSHLcreateDoubleDataset(handle, "root", "d1", 3, values.size(), values.data()), 1);
    std::vector<unsigned char> image = imageOf(handle);
    ASSERT_GT(image.size(), values.size() * sizeof(double));
    EXPECT_EQ(KSHLcloseFile(handle), 1);

    int opened = 0;
    ASSERT_EQ(KSHLopenMemoryFile(image.data(), opened), 1);
    EXPECT_GT(opened, 0);
    uint64_t count = 0;
    ASSERT_EQ(KSHLgetSizeOfDataset(opened, "root", "d1", count), 1);
    EXPECT_EQ(count, values.size());
    std::vector<double> back(count);
    ASSERT_EQ(KSHLreadDoubleDataset(opened, "root", "d1", back.data()), 1);
    EXPECT_EQ(back, values);
    // The block handed out for an opened block is that block again, byte for byte.
    EXPECT_EQ(imageOf(opened), image);
    EXPECT_EQ(KSHLcloseFile(opened), 1);
}

TEST(HierarchicalDataFileTest, EveryElementKindKeepsItsBits) {
    std::vector<float> floats = {1.5f, -2.25f, 3e30f};
    std::vector<int> ints = {-1, 0, 2147483647, -2147483647 - 1};
    std::vector<char> bytes = {'\xff', '\x80', 0, 'a'};
    int handle = KSHLcreateMemoryFile(64);
    ASSERT_GT(handle, 0);
    ASSERT_EQ(KSHLcreateFloatDataset(handle, "root", "f", 0, floats.size(), floats.data()), 1);
    ASSERT_EQ(KSHLcreateIntDataset(handle, "root", "i", 5, ints.size(), ints.data()), 1);
    ASSERT_EQ(KSHLcreateCharDataset(handle, "root", "c", 9, bytes.size(), bytes.data()), 1);
    std::vector<float> floatsBack(floats.size());
    std::vector<int> intsBack(ints.size());
    std::vector<char> bytesBack(bytes.size());
    EXPECT_EQ(KSHLreadFloatDataset(handle, "root", "f", floatsBack.data()), 1);
    EXPECT_EQ(KSHLreadIntDataset(handle, "root", "i", intsBack.data()), 1);
    EXPECT_EQ(KSHLreadCharDataset(handle, "root", "c", bytesBack.data()), 1);
    EXPECT_EQ(floatsBack, floats);
    EXPECT_EQ(intsBack, ints);
    EXPECT_EQ(bytesBack, bytes);
    EXPECT_EQ(KSHLcloseFile(handle), 1);
}

TEST(HierarchicalDataFileTest, TakingTheImageHandsOverTheFileItself) {
    std::vector<double> values = ramp(300000, 2.0);
    int handle = KSHLcreateMemoryFile(values.size() * sizeof(double));
    ASSERT_GT(handle, 0);
    ASSERT_EQ(KSHLcreateDoubleDataset(handle, "root", "taken", 3, values.size(), values.data()), 1);
    std::vector<unsigned char> copied = imageOf(handle);
    uint64_t size = 0;
    unsigned char* block = nullptr;
    ASSERT_EQ(KSHLcloseMemoryFileTakingImage(handle, size, block), 1);
    ASSERT_NE(block, nullptr);
    // The same bytes as a copy made just before, and no more: a file of its own length.
    EXPECT_EQ(std::vector<unsigned char>(block, block + size), copied);
    EXPECT_EQ(KSHLcloseFile(handle), 0); // closed already

    int opened = 0;
    ASSERT_EQ(KSHLopenMemoryFile(block, size, opened), 1);
    std::vector<double> back(values.size());
    EXPECT_EQ(KSHLreadDoubleDataset(opened, "root", "taken", back.data()), 1);
    EXPECT_EQ(back, values);
    // Only files made here hand their memory over; another is closed and gives nothing.
    uint64_t otherSize = 0;
    unsigned char* other = nullptr;
    EXPECT_EQ(KSHLcloseMemoryFileTakingImage(opened, otherSize, other), 0);
    EXPECT_EQ(other, nullptr);
    EXPECT_EQ(KSHLcloseFile(opened), 0);
    EXPECT_EQ(KSHLcloseMemoryFileTakingImage(-5, otherSize, other), 0);
    std::free(block); // the caller's, from malloc
}

TEST(HierarchicalDataFileTest, BlockIsAPlainHdf5FileOnDisk) {
    std::vector<double> values = ramp(5000, 7.0);
    int handle = KSHLcreateMemoryFile(values.size() * sizeof(double));
    ASSERT_GT(handle, 0);
    ASSERT_EQ(KSHLcreateDoubleDataset(handle, "root", "plain", 3, values.size(), values.data()), 1);
    std::vector<unsigned char> image = imageOf(handle);
    KSHLcloseFile(handle);

    std::string path = tempPath("plain.h5");
    {
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(image.data()),
                  static_cast<std::streamsize>(image.size()));
    }
    const PlainHdf5& api = PlainHdf5::get();
    hid_t file = api.fopen(path.c_str(), PlainHdf5::c_readOnly, PlainHdf5::c_default);
    ASSERT_GE(file, 0);
    hid_t dataset = api.dopen(file, "root/plain", PlainHdf5::c_default);
    ASSERT_GE(dataset, 0);
    hid_t space = api.dgetSpace(dataset);
    EXPECT_EQ(api.npoints(space), static_cast<hssize_t>(values.size()));
    api.sclose(space);
    std::vector<double> back(values.size());
    EXPECT_GE(api.dread(dataset, api.nativeDouble, PlainHdf5::c_all, PlainHdf5::c_all,
                        PlainHdf5::c_default, back.data()),
              0);
    EXPECT_EQ(back, values);
    api.dclose(dataset);
    api.fclose(file);

    // The same file loaded back from disk.
    int loaded = KSHLloadMemoryFileFromDiskFile(path.c_str(), 256);
    ASSERT_GT(loaded, 0);
    uint64_t count = 0;
    EXPECT_EQ(KSHLgetSizeOfDataset(loaded, "root", "plain", count), 1);
    EXPECT_EQ(count, values.size());
    // A loaded file takes new datasets like one made in memory.
    ASSERT_EQ(KSHLcreateDoubleDataset(loaded, "root", "more", 6, values.size(), values.data()), 1);
    std::vector<double> more(values.size());
    EXPECT_EQ(KSHLreadDoubleDataset(loaded, "root", "more", more.data()), 1);
    EXPECT_EQ(more, values);
    KSHLcloseFile(loaded);
    std::remove(path.c_str());
}

TEST(HierarchicalDataFileTest, LevelsUpToThreeStoreWithoutFilterAndHigherOnesCompress) {
    std::vector<double> values(200000, 1.0);
    for (int level : {0, 3, 4, 9}) {
        int handle = KSHLcreateMemoryFile(values.size() * sizeof(double));
        ASSERT_GT(handle, 0);
        std::string name = "level" + std::to_string(level);
        ASSERT_EQ(KSHLcreateDoubleDataset(handle, "root", name.c_str(), level, values.size(),
                                          values.data()),
                  1);
        std::vector<unsigned char> image = imageOf(handle);
        KSHLcloseFile(handle);
        if (level <= 3) {
            EXPECT_EQ(filtersOnDisk(image, name), 0) << level;
            EXPECT_GT(image.size(), values.size() * sizeof(double)) << level;
        } else {
            EXPECT_EQ(filtersOnDisk(image, name), 2) << level; // shuffle + deflate
            EXPECT_LT(image.size(), values.size() * sizeof(double) / 10) << level;
        }
    }
}

TEST(HierarchicalDataFileTest, FailuresReportZero) {
    double value = 1.0;
    uint64_t size = 0;
    const unsigned char* block = nullptr;
    EXPECT_EQ(KSHLgetMemoryFile(12345678, size, block), 0);
    EXPECT_EQ(KSHLcloseFile(12345678), 0);
    EXPECT_EQ(KSHLcreateDoubleDataset(12345678, "root", "x", 3, 1, &value), 0);

    int handle = KSHLcreateMemoryFile(8);
    ASSERT_GT(handle, 0);
    EXPECT_EQ(KSHLcreateDoubleDataset(handle, "root", "empty", 3, 0, &value), 0);
    EXPECT_EQ(KSHLcreateDoubleDataset(handle, "root", "x", 3, 1, &value), 1);
    // A second dataset of the same name is refused and the first stays.
    EXPECT_EQ(KSHLcreateDoubleDataset(handle, "root", "x", 3, 1, &value), 0);
    uint64_t count = 99;
    EXPECT_EQ(KSHLgetSizeOfDataset(handle, "root", "missing", count), 0);
    EXPECT_EQ(KSHLgetSizeOfDataset(handle, "other", "x", count), 0);
    EXPECT_EQ(count, 99u);
    EXPECT_EQ(KSHLreadDoubleDataset(handle, "root", "missing", &value), 0);
    EXPECT_EQ(KSHLgetSizeOfDataset(handle, "root", "x", count), 1);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(KSHLcloseFile(handle), 1);
    EXPECT_EQ(KSHLcloseFile(handle), 0);

    std::vector<unsigned char> notHdf5(4096, 0x42);
    int opened = -7;
    EXPECT_EQ(KSHLopenMemoryFile(notHdf5.data(), opened), 0);
    EXPECT_EQ(opened, -7);
    EXPECT_EQ(KSHLopenMemoryFile(nullptr, opened), 0);

    EXPECT_LE(KSHLloadMemoryFileFromDiskFile("/no/such/file.hdf", 256), 0);
    std::string longPath(300, 'a');
    EXPECT_LE(KSHLloadMemoryFileFromDiskFile(longPath.c_str(), 256), 0);
    std::string text = tempPath("text.hdf");
    {
        std::ofstream out(text);
        out << "not an HDF5 file";
    }
    EXPECT_LE(KSHLloadMemoryFileFromDiskFile(text.c_str(), 256), 0);
    std::remove(text.c_str());
}

// A block from a peer may be cut or lie about its length. Each block here is a heap copy of
// exactly the bytes given, so that a read behind it shows under AddressSanitizer.
TEST(HierarchicalDataFileTest, BlockShorterThanItsFileIsRefused) {
    std::vector<double> values = ramp(500, 1.0);
    int handle = KSHLcreateMemoryFile(values.size() * sizeof(double));
    ASSERT_GT(handle, 0);
    ASSERT_EQ(KSHLcreateDoubleDataset(handle, "root", "d1", 3, values.size(), values.data()), 1);
    std::vector<unsigned char> image = imageOf(handle);
    ASSERT_EQ(KSHLcloseFile(handle), 1);
    ASSERT_GT(image.size(), 2000u);

    // Too short for the signature, for the superblock fields, and for the file they announce.
    for (std::size_t length : {std::size_t(1), std::size_t(8), std::size_t(9), std::size_t(20),
                               std::size_t(2000), image.size() - 1}) {
        std::vector<unsigned char> cut(image.begin(), image.begin() + length);
        int opened = -7;
        EXPECT_EQ(KSHLopenMemoryFile(cut.data(), cut.size(), opened), 0) << length;
        EXPECT_EQ(opened, -7) << length;
    }

    int opened = 0;
    ASSERT_EQ(KSHLopenMemoryFile(image.data(), image.size(), opened), 1);
    uint64_t count = 0;
    EXPECT_EQ(KSHLgetSizeOfDataset(opened, "root", "d1", count), 1);
    EXPECT_EQ(count, values.size());
    EXPECT_EQ(KSHLcloseFile(opened), 1);
}

TEST(HierarchicalDataFileTest, EndOfFileAddressBeyondTheBlockIsRefused) {
    int handle = KSHLcreateMemoryFile(64);
    ASSERT_GT(handle, 0);
    std::vector<unsigned char> image = imageOf(handle);
    ASSERT_EQ(KSHLcloseFile(handle), 1);
    ASSERT_GE(image.size(), 48u);
    // The end-of-file address is the third address of the superblock, which starts at byte 24
    // (version 0), 28 (version 1) or 12 (versions 2 and 3); byte 13 or 9 gives its width.
    const unsigned int version = image[8];
    ASSERT_LE(version, 3u);
    const unsigned int width = version <= 1 ? image[13] : image[9];
    ASSERT_EQ(width, 8u);
    const std::size_t endAt = (version == 0 ? 24 : version == 1 ? 28 : 12) + 2 * width;
    for (uint64_t end : {uint64_t(image.size()) + 1, uint64_t(1) << 40, ~uint64_t(0)}) {
        std::vector<unsigned char> lying = image;
        for (int i = 0; i < 8; ++i)
            lying[endAt + i] = static_cast<unsigned char>(end >> (8 * i));
        int opened = -7;
        EXPECT_EQ(KSHLopenMemoryFile(lying.data(), lying.size(), opened), 0) << end;
        EXPECT_EQ(opened, -7);
    }
}

std::vector<unsigned char> regressionBlock(const std::string& name) {
    std::ifstream in(KS_SOURCE_DIR "/fuzz/regressions/fuzz_hdfs/" + name, std::ios::binary);
    EXPECT_TRUE(in) << name;
    return std::vector<unsigned char>((std::istreambuf_iterator<char>(in)),
                                      std::istreambuf_iterator<char>());
}

// A block found by the fuzz target fuzz_hdfs: the chunk layout of root/d1 does not match its
// one-element dataspace, and reading it made HDF5 allocate gigabytes of chunk state.
TEST(HierarchicalDataFileTest, DatasetWhoseChunksCannotLieInTheFileIsRefused) {
    std::vector<unsigned char> block = regressionBlock("chunk-rank-mismatch.h5");
    ASSERT_FALSE(block.empty());
    // From a peer, the whole block is refused at the open.
    int handle = -7;
    EXPECT_EQ(KSHLopenMemoryFile(block.data(), block.size(), handle), 0);
    EXPECT_EQ(handle, -7);
    // Trusted as made here, the file opens and only the bad dataset refuses to be read.
    ASSERT_EQ(KSHLopenMemoryFile(block.data(), handle), 1);
    uint64_t count = 0;
    ASSERT_EQ(KSHLgetSizeOfDataset(handle, "root", "d1", count), 1);
    ASSERT_EQ(count, 1u);
    double value = 0;
    EXPECT_EQ(KSHLreadDoubleDataset(handle, "root", "d1", &value), 0);
    // The intact dataset beside it still reads.
    ASSERT_EQ(KSHLgetSizeOfDataset(handle, "root", "c", count), 1);
    std::vector<unsigned char> bytes(count);
    EXPECT_EQ(KSHLreadCharDataset(handle, "root", "c", bytes.data()), 1);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end() - 1), "bytes of a buffer");
    EXPECT_EQ(KSHLcloseFile(handle), 1);
}

// Why received blocks are read in a child first: read in a process, this one kills it.
TEST(HierarchicalDataFileTest, TheSystemReaderCrashesOnAHeapThatCannotBeAllocated) {
    std::vector<unsigned char> block = regressionBlock("local-heap-null-copy.h5");
    ASSERT_FALSE(block.empty());
    auto readTrusting = [&block] {
        int handle = 0;
        uint64_t count = 0;
        if (KSHLopenMemoryFile(block.data(), handle) == 1)
            KSHLgetSizeOfDataset(handle, "root", "d1", count);
        return true;
    };
    EXPECT_EQ(IsolatedCheck::run(readTrusting, std::chrono::seconds(30)),
              IsolatedCheck::Outcome::Crashed);
}

// Blocks found by fuzz_hdfs on which the system's HDF5 itself crashes: a root group whose local
// heap claims exabytes (allocation fails, then a copy to null), and compact data that is shorter
// than its dataspace (a read behind HDF5's own buffer). Opened as a peer's block, each is read
// in a child process first, refused with an error line, and this process carries on.
TEST(HierarchicalDataFileTest, BlocksThatCrashTheReaderAreRefusedWithoutHarm) {
    LogCapture capture;
    std::vector<std::size_t> sizes;
    for (const char* name :
         {"huge-local-heap.h5", "local-heap-null-copy.h5", "dataset-read-overflow.h5"}) {
        std::vector<unsigned char> block = regressionBlock(name);
        ASSERT_FALSE(block.empty());
        int handle = -7;
        EXPECT_EQ(KSHLopenMemoryFile(block.data(), block.size(), handle), 0) << name;
        EXPECT_EQ(handle, -7) << name;
        sizes.push_back(block.size());
    }
    std::vector<std::string> errors = capture.messages(LogLevel::Error);
    ASSERT_EQ(errors.size(), sizes.size());
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        // Whether the child crashes or HDF5 fails cleanly depends on the build (a sanitizer
        // aborts on an exabyte request or a stray read, malloc returns null).
        std::string prefix =
            "Refusing a received HDF5 block of " + std::to_string(sizes[i]) + " bytes: reading it ";
        EXPECT_TRUE(errors[i] == prefix + "crashed in a child process" ||
                    errors[i] == prefix + "failed in a child process")
            << errors[i];
    }
    // A sound block from a peer still opens after them.
    int handle = KSHLcreateMemoryFile(0);
    const double values[] = {1.5, -2.5, 3.25};
    ASSERT_EQ(KSHLcreateDoubleDataset(handle, "root", "d", 0, 3, values), 1);
    std::vector<unsigned char> image = imageOf(handle);
    ASSERT_EQ(KSHLcloseFile(handle), 1);
    ASSERT_EQ(KSHLopenMemoryFile(image.data(), image.size(), handle), 1);
    double back[3] = {0, 0, 0};
    EXPECT_EQ(KSHLreadDoubleDataset(handle, "root", "d", back), 1);
    EXPECT_EQ(back[2], 3.25);
    EXPECT_EQ(KSHLcloseFile(handle), 1);
}

// Datasets too large to read whole in the checking child are read there window by window:
// contiguous data at both ends, compressed data chunk by chunk. A sound block passes either way.
TEST(HierarchicalDataFileTest, LargeDatasetsFromAPeerPassTheCheck) {
    constexpr uint64_t count = 3u << 20;
    std::vector<double> values(count);
    for (uint64_t i = 0; i < count; ++i)
        values[i] = static_cast<double>(i % 1000) * 0.5;
    for (int level : {0, 4}) {
        int handle = KSHLcreateMemoryFile(count * sizeof(double));
        ASSERT_EQ(KSHLcreateDoubleDataset(handle, "root", "big", level, count, values.data()), 1);
        std::vector<unsigned char> image = imageOf(handle);
        ASSERT_EQ(KSHLcloseFile(handle), 1);
        ASSERT_EQ(KSHLopenMemoryFile(image.data(), image.size(), handle), 1) << level;
        std::vector<double> back(count);
        EXPECT_EQ(KSHLreadDoubleDataset(handle, "root", "big", back.data()), 1);
        EXPECT_EQ(back, values) << level;
        EXPECT_EQ(KSHLcloseFile(handle), 1);
    }
}

TEST(HierarchicalDataFileTest, EightThreadsAtOnce) {
    constexpr int c_threads = 8;
    std::vector<int> failures(c_threads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < c_threads; ++t) {
        threads.emplace_back([t, &failures] {
            for (int round = 0; round < 20; ++round) {
                std::vector<double> values = ramp(20000 + 100 * t, t * 1000.0 + round);
                int handle = KSHLcreateMemoryFile(values.size() * sizeof(double));
                std::string name = "t" + std::to_string(t) + "r" + std::to_string(round);
                if (handle <= 0 ||
                    KSHLcreateDoubleDataset(handle, "root", name.c_str(), round % 2 ? 3 : 6,
                                            values.size(), values.data()) != 1) {
                    ++failures[t];
                    continue;
                }
                std::vector<unsigned char> image = imageOf(handle);
                KSHLcloseFile(handle);
                int opened = 0;
                uint64_t count = 0;
                if (image.empty() || KSHLopenMemoryFile(image.data(), opened) != 1 ||
                    KSHLgetSizeOfDataset(opened, "root", name.c_str(), count) != 1 ||
                    count != values.size()) {
                    ++failures[t];
                    continue;
                }
                std::vector<double> back(count);
                if (KSHLreadDoubleDataset(opened, "root", name.c_str(), back.data()) != 1 ||
                    back != values)
                    ++failures[t];
                KSHLcloseFile(opened);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    for (int t = 0; t < c_threads; ++t)
        EXPECT_EQ(failures[t], 0) << "thread " << t;
}
