#pragma once

#include <cstddef>
#include <cstdint>

namespace Kestrane {

// Hierarchical data files held in memory: standard HDF5 files whose bytes live in this process,
// so that a whole file can travel as one block and be opened by any HDF5 tool on arrival.
//
// A file is a positive handle; results of 0 or below are failures. Every function is safe from
// many threads: all HDF5 work is serialised behind one lock of this library, which also guards
// the handle table and does not rely on how the installed HDF5 was built.
//
// Datasets are one-dimensional. Compression levels:
//   level <= 3      stored contiguous, without any filter. Deflate costs about ten times the rest
//                   of the send path, and the callers on that path use 3, so it is kept cheap.
//   level 4 to 9    chunked, shuffle + deflate at that level (levels above 9 count as 9).
// Only shuffle and deflate are ever used, so that every HDF5 installation can read the block.

// A new, empty memory file; `sizeHint` (bytes) sizes the first allocation. Returns the handle.
int KSHLcreateMemoryFile(uint64_t sizeHint);

// Reads an HDF5 file from disk into a new memory file. Paths of `maxPathLength` characters or
// more are refused. Returns the handle.
int KSHLloadMemoryFileFromDiskFile(const char* path, std::size_t maxPathLength);

// Opens a memory block that holds an HDF5 file (as KSHLgetMemoryFile gives it), read-only. The
// block's length is read from the file's own superblock. The block is used in place, without a
// copy: it must stay untouched until KSHLcloseFile. Returns 1 and sets `handle`, or 0 and leaves
// `handle` alone.
// Trusts the block to be as long as its superblock says: only for blocks made in this process.
int KSHLopenMemoryFile(const void* block, int& handle);
// The same for a block of `blockSize` bytes, such as one that came from a peer: a block shorter
// than the file it announces, or too short for its superblock, is refused with 0 and never read
// beyond its end. The system's HDF5 crashes on some corrupted files, so the block is first
// opened and read through in a child process (IsolatedCheck); when that child crashes, fails or
// overruns its time, the block is refused with an error line. This costs a fork, about 5 ms per
// 100 MB of this process's resident memory.
int KSHLopenMemoryFile(const void* block, uint64_t blockSize, int& handle);

// The current bytes of a memory file. The block belongs to this library and stays valid until
// the next call on the same handle or KSHLcloseFile; callers copy it out. Returns 1 or 0.
int KSHLgetMemoryFile(int handle, uint64_t& size, const unsigned char*& block);

// Closes the file and releases what the library holds for it. Returns 1 or 0.
int KSHLcloseFile(int handle);

// Closes a file made by KSHLcreateMemoryFile and hands over its bytes without copying them: the
// block is the file's own memory, from malloc, and the caller frees it. Returns 1 and sets both,
// or 0 (the file is closed all the same, and nothing is handed over).
int KSHLcloseMemoryFileTakingImage(int handle, uint64_t& size, unsigned char*& block);

// Writes `count` elements as the dataset `group`/`name`, creating the group when needed.
// `count` must be above 0. Returns 1 or 0; on failure no dataset is left behind.
int KSHLcreateDoubleDataset(int handle, const char* group, const char* name, int compressionLevel,
                            uint64_t count, const double* data);
int KSHLcreateFloatDataset(int handle, const char* group, const char* name, int compressionLevel,
                           uint64_t count, const float* data);
int KSHLcreateIntDataset(int handle, const char* group, const char* name, int compressionLevel,
                         uint64_t count, const int* data);
// Bytes, stored as unsigned so that they come back bit for bit whatever char's signedness.
int KSHLcreateCharDataset(int handle, const char* group, const char* name, int compressionLevel,
                          uint64_t count, const void* data);

// Reads the whole dataset into `target`, which must hold KSHLgetSizeOfDataset elements.
// Returns 1 or 0.
int KSHLreadDoubleDataset(int handle, const char* group, const char* name, double* target);
int KSHLreadFloatDataset(int handle, const char* group, const char* name, float* target);
int KSHLreadIntDataset(int handle, const char* group, const char* name, int* target);
int KSHLreadCharDataset(int handle, const char* group, const char* name, void* target);

// The dataset's element count. Returns 1 and sets `count`, or 0 when there is no such dataset.
int KSHLgetSizeOfDataset(int handle, const char* group, const char* name, uint64_t& count);

} // namespace Kestrane
