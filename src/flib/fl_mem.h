// Memory-buffered writing of a hashed file.
//
// A restore writes many records into a file nobody else has open. While the
// writer is active for a handle, M_blkread and M_blkwrite of that handle go
// to two pools of blocks in memory (group blocks and overflow blocks)
// instead of the disk, so the record writing of fl_write runs unchanged and
// its many small block writes become a few large sequential ones at each
// flush. New overflow blocks come from the group's free list and then from
// the end of the part (the next-block field of the part's OVERFLOW_HEADER);
// there is no split, no free stack and no reservation.
//
// Invariants:
//  1. The whole-file lock is held from M_init_mem_buffers until
//     M_mem_force_flush(rel, 1); the disk lags behind the pools meanwhile,
//     so nobody may read the file by another path before the force flush.
//  2. Each pool holds its rows sorted by offset, with the bytes of row i at
//     i*B of one array, so that consecutive blocks are consecutive in memory
//     and a run of them is written by one call.
//  3. Both pools belong to one part index; a block of another part flushes
//     both first.
//  4. A file laid out with its heads left to the writer (fl_heads.h) gets
//     a head not yet on disk made in memory, and the heads it never wrote
//     at M_mem_force_flush(rel, 1).
//  5. A flush hands its runs to the flush thread (fl_memflush.h) and the
//     pools start again empty; until the next flush a block of that batch
//     is read from its rows, never from the disk. The next flush, the
//     force flush and every close of a descriptor wait for the batch.
#pragma once

#include <cstdint>

struct REL_TYPE;

// Bytes of each pool; a whole number of blocks is used. With the writes on
// the flush thread, larger pools restored faster up to this size; pools of
// 2 MiB restored at half the speed, for a cause not looked into.
inline constexpr uint32_t MEM_POOL_BYTES = 524288;
// Counts the write calls of flushes (statistics, tests and benchmarks).
extern uint64_t M_mem_write_calls;

// Takes the whole-file lock and starts the pools. 1, or -1 when the lock fails.
int M_init_mem_buffers(REL_TYPE* rel);
// Whether the writer is active for `rel`.
bool M_mem_active(const REL_TYPE* rel);
// B, or -1.
int M_memread(REL_TYPE* rel, uint32_t address, uint8_t* buffer);
int M_memwrite(REL_TYPE* rel, uint32_t address, const uint8_t* buffer);
// Writes both pools in runs and empties them. 0 or -1.
int M_mem_flush(REL_TYPE* rel);
// Flushes and, with `unlock`, ends the writer and releases the lock. 1 or -1.
int M_mem_force_flush(REL_TYPE* rel, int unlock);
// Ends the writer of a file that its caller removes next: what the pools
// hold is dropped, and so are the group heads left to the writer.
void M_mem_end_for_removal(REL_TYPE* rel);
// Adds or replaces one record through the pools. 1 or -1.
int M_mem_add_tuple(REL_TYPE* rel, const uint8_t* key, int32_t key_length, const uint8_t* record,
                    int32_t record_length);
// Head block address of the key's group, without a lock; -1 on failure.
int64_t mem_dyn_hash(REL_TYPE* rel, const uint8_t* key, int32_t length, int32_t mode);
// A new overflow block of overflow part `part` (1-based; a static file's
// end of file). The address, or -1.
int64_t M_mem_get_blk(REL_TYPE* rel, uint32_t part);
// M_memread (write 0) or M_memwrite (write 1); 0 or -1.
int mem_file_io(REL_TYPE* rel, uint32_t address, uint8_t* buffer, int write);
