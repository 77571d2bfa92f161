// The flush thread of the memory-buffered writer.
//
// A flush hands its runs of blocks to a thread of their own and returns:
// the loader goes on filling the emptied pools while the kernel copies the
// runs into the page cache, which is a quarter of a restore's time. One
// batch is in flight at most; the next flush, and anything that needs the
// disk as the batch leaves it, waits for it first.
//
// Who decides the writes stays on the loader's thread: each write passes
// the write seam there (NT_write_begin), in the order the writes were
// decided, so that counted and injected faults fall where they always did;
// the flush thread only makes the writes, and a failure it meets is counted
// and reported on the loader's thread when the batch is collected.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <vector>

// One positioned write of a batch.
struct FlushRun {
  int fd = -1;
  const uint8_t* bytes = nullptr;
  size_t length = 0;
  off_t offset = 0;
};

// One run written whole at its offset, through no seam and counting
// nothing: the flush thread's write, and that of a flush made in place.
// Its length, or -1 with errno.
ssize_t M_mem_write_run(const FlushRun& run);
// Starts writing `runs` in order on the flush thread; the batch before
// must have been collected. Bytes and descriptors must stay as they are
// until the batch is settled.
void M_flush_start(std::vector<FlushRun> runs);
// Waits until the batch started last is written (or has failed).
void M_flush_settle();
// Settles, and gives the failure of the batch once: the index of the run
// that failed, with its errno in `error`, or -1 when every run was written.
int32_t M_flush_collect(int* error);
