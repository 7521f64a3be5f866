#pragma once

#include <cstddef>

namespace Kestrane {

// A memory file's image is written from end to end right after it is allocated. On 4 KiB pages
// that costs a page fault per page, more than the copy itself; on transparent huge pages it costs
// one per 2 MiB. (Blocks read from connections and the arrays made from them measured slower
// with this advice, on the receiving side of a fork check: they get populateForWrite instead.)
//
// Advises the kernel to back the pages of [block, block + size) with huge pages when the block
// is large enough for it to pay. Call it before the block is written: pages already touched stay
// as they are. Only advice: without huge page support nothing changes, and nothing fails.
void adviseHugePages(void* block, std::size_t size);

// A block that is about to be written whole (a received block, an array read out of a memory
// file) takes a page fault for each of its 4 KiB pages on first touch. Makes the pages of
// [block, block + size) present and writable in one call instead, for blocks large enough for it
// to pay. Pages stay ordinary: nothing is locked, and the block is freed as before. Without
// kernel support nothing changes, and nothing fails.
void populateForWrite(void* block, std::size_t size);

// A block whose contents no longer matter, kept for reuse: lets the kernel take its pages back
// under memory pressure. Pages it takes come back zeroed when they are next touched; pages it
// leaves stay as they are, at no cost. For blocks large enough for it to pay.
void allowReclaim(void* block, std::size_t size);

// A block kept unused for reuse need not be in a child made by fork: leaving it out spares the
// fork copying its page table, and the parent a write fault per page afterwards (a fork
// write-protects every page that both processes share). For blocks large enough for it to pay.
void leaveOutOfFork(void* block, std::size_t size);
// Undoes `leaveOutOfFork`; required before the block is used or freed, since memory handed out
// again must be in every child.
void keepAcrossFork(void* block, std::size_t size);

} // namespace Kestrane
