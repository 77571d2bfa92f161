// Block I/O and group scanning.
//
// All block traffic of a hashed file passes through M_blkread and
// M_blkwrite: they turn a BLOCK_ADDRESS into a descriptor and an offset,
// check alignment and the block's kind, and treat a full disk as something
// to wait out. Both run under the caller's group and file locks and take no
// locks themselves.
#pragma once

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

#include "flib/fl_filehdr.h"

struct REL_TYPE;

// The block of the last successful key search, with that record's position
// and stored length, so that a read of the record needs no second block read.
extern uint8_t M_blkbuf[MAX_BLOCK_SIZE];
extern uint32_t M_found_position;
extern int32_t M_found_length;
// Set while M_blkwrite writes, for the full-disk routine.
extern int32_t M_write_in_progress;
// Count of block writes that reached the disk through M_blkwrite.
extern uint64_t M_block_writes;
// Recovery point of a running add or split: a write to an overflow part
// that is too large jumps here (with value 1) instead of returning.
extern std::jmp_buf* M_overflow_recovery;

// Kinds of check for M_blkread.
inline constexpr int CHECK_NONE = -1;
inline constexpr int CHECK_HEAD = 0;          // a group block must be a head
inline constexpr int CHECK_CONTINUATION = 1;  // a group block must be a continuation
inline constexpr int CHECK_GROUP_ONLY = 2;    // static file: group field only

// A read session: while a file is held shared, M_blkread copies its blocks
// out of a read-only mapping instead of a read call per block (a static
// file is mapped when the lock is taken, each part of a dynamic file at its
// first read). The shared lock keeps writers, and so any shrinking of the
// file, out; blocks beyond the mapped length are read as before. Mapping is an optimisation
// only: when it fails, reads go on by pread.
void M_map_for_reading(REL_TYPE* rel);
void M_unmap_reading(REL_TYPE* rel);

int M_get_fd(REL_TYPE* rel, uint32_t address);
int M_blkread(REL_TYPE* rel, uint32_t address, uint8_t* buffer, int check);
// The block at `address`, checked as M_blkread checks it, without a copy
// where the read session's mapping holds it: a pointer into the mapping,
// good while the file stays held, or else `buffer`, read into. Null after
// a report.
const uint8_t* M_blkview(REL_TYPE* rel, uint32_t address, uint8_t* buffer, int check);
int M_blkwrite(REL_TYPE* rel, uint32_t address, uint8_t* buffer);
// A positioned write that repeats after an interrupted call. Returns the
// count written or -1.
ssize_t M_ls_write(int fd, const uint8_t* buffer, size_t length, off_t offset);
// Writes a whole buffer at an offset; a full disk is waited out unless the
// no-wait switch is on. 0 or -1.
int M_write_waiting(int fd, const uint8_t* buffer, size_t length, off_t offset);
// Makes an overflow part current; 0 or -1.
int M_set_over_fd(REL_TYPE* rel, int32_t part_number);
// The full-disk routine: tells the operator and waits for RETURN. 0 to try
// again, -1 when no answer can come (end of input): it says so, turns the
// no-wait switch on and sets M_full_wait_abandoned. `message` replaces the
// text of the hashed files (the index file has its own).
int M_fs_full_wait(const char* message = nullptr);

// Row index of `key` in a group block, or -1. The key area is walked from
// datapos downward; a length that would leave the key area ends the walk.
int find_key_in_block(const uint8_t* block, uint32_t block_size, const uint8_t* key, int32_t length);
// Row whose position equals `position`, or -1.
int M_get_order(const uint8_t* block, uint32_t block_size, uint32_t position);
// Checks the fields of a group block before it is trusted: datapos, byteleft,
// their sum, and that the key table and key area lie between 32 and datapos.
// Null when sound, else the fault's text (in `text`).
const char* group_block_fault(const uint8_t* block, uint32_t block_size, bool head, char* text,
                              size_t size);
// Searches the group chain starting at *address for `key`. 1 found (row in
// *row, the block in `block`, its address in *address, the block before it
// in *previous), 0 absent, -1 after a report.
int M_read_grpblk(REL_TYPE* rel, uint32_t* address, uint8_t* block, const uint8_t* key,
                  int32_t length, int32_t* row, uint32_t* previous);
// Closes the hole that the record of row `entry` of `table_block` leaves in
// `data_block` (at `address`; `size` is the block size): the bytes behind it
// move down, the rows of this block behind it follow, byteleft grows and
// the freed bytes are zeroed. An emptied data block goes onto the group free
// list of `table_block`, or back to the file when that list is full or the
// block served a continuation block. A group block is left for the caller
// to write; any other block is written here. 1 or -1.
int M_arrange_block(REL_TYPE* rel, uint8_t* table_block, uint8_t* data_block, uint32_t address,
                    int32_t entry, int32_t size);
// The same for the hole of `length` bytes at record position `position`,
// which no row needs to describe (the tail of a long record, a row already
// cut out).
int M_arrange_hole(REL_TYPE* rel, uint8_t* table_block, uint8_t* data_block, uint32_t address, uint32_t position,
                   int32_t length, int32_t size);
