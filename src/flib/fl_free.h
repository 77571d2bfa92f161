// Free block management of dynamic files: blocks given back go to the
// overflow part's free stack (in its OVERFLOW_HEADER) or, when the stack is
// full, onto the part's chain of FREE_LIST_BLOCKs.
//
// Released blocks gather in the release buffer, one FREE_LIST_BLOCK image
// whose entries all lie in one overflow part; the buffer is drained into
// that part's header when a block of another part arrives, when the image is
// full, or when the caller asks with address 0.
#pragma once

#include <cstdint>
#include <map>

struct REL_TYPE;

// Puts one block into the release buffer; 0 drains the buffer. 0 or -1.
int M_release_to_file(REL_TYPE* rel, uint32_t address);

// ---------------------------------------------------------------------------
// Allocation of overflow blocks.
//
// An operation first reserves every block it will need on the block stack
// (M_alloc_new_blocks), takes them one at a time (M_get_dest_block), and
// then either commits (M_relink_free_blocks) or gives back what it took
// (M_release_blocks_in_stack). A failing add therefore leaves the file's
// free space as it found it.
//
// A dynamic file has three levels of free blocks: the group free list of a
// group block (offset 0 and 26 of the block), the free stack in the
// OVERFLOW_HEADER of each overflow part, and that part's chain of
// FREE_LIST_BLOCKs. New space is taken from the end of an overflow part.
// A static file knows only the group free list and the end of the file.
//
// Invariants:
//  1. The header lock of a part is held from get_free_blocks until
//     M_check_file_lock; the header is written before any reserved block is
//     used, so a block handed out is never also on the part's free stack.
//  2. A group block gives its free list to the cells while a stack is open
//     and takes back what is left at the commit; the group block itself is
//     written by the caller after every block it refers to.
//  3. Blocks given back drain through the release buffer into the header of
//     their own part only.

// Modes of M_alloc_new_blocks: only the group's current part, or any part.
inline constexpr int32_t ALLOC_OWN_PART = 0x10000;
inline constexpr int32_t ALLOC_ANY_PART = 0x11000;
// Result of get_free_blocks when the part has no room.
inline constexpr int FREE_NO_ROOM = 28;

// Reserves `count` blocks for the group block `block` (whose free list and
// overflow part, byte 28, it uses and updates). extra1 non-zero asks that
// the block's records follow it when its part is full and another part is
// taken; extra2 is then the block's address (the records move at once, see
// M_move_group_data). extra3 is unused. 0 or -1.
int M_alloc_new_blocks(REL_TYPE* rel, int32_t count, int32_t mode, uint8_t* block, int32_t extra1,
                       int32_t extra2, int32_t extra3);
// Fills the stack with `count` blocks of the current overflow part, under
// its header lock; `charge` takes the space from the partition's cell.
// 0, FREE_NO_ROOM, or -1.
int get_free_blocks(REL_TYPE* rel, int32_t count, int charge);
// Loads the entries of the FREE_LIST_BLOCK `list` (read into `list_block`)
// onto the stack of `header`; the list block itself is not among them.
void next_free_blocks(uint32_t block_size, uint8_t* header, const uint8_t* list_block);
// The next reserved block, or in a static file the next free or new block.
// The address, or -1 after a report.
int64_t M_get_dest_block(REL_TYPE* rel);
// Commit: `block` takes back the rest of its free list, is written when
// `address` is not 0, the header lock ends and the stack is dropped; with
// `release` the push buffer drains too. 0 or -1.
int M_relink_free_blocks(REL_TYPE* rel, uint8_t* block, uint32_t address, int release);
// Undo: every block taken or reserved goes back to its part. 0 or -1.
int M_release_blocks_in_stack(REL_TYPE* rel);
// Drops the stack without giving anything back.
void M_release_block_stack(REL_TYPE* rel);
// Ends a held header lock (or a static file's end-of-file lock).
int M_check_file_lock(REL_TYPE* rel);
// Whether an operation holds a block stack now.
bool M_block_stack_open();
// Finds (or makes) an overflow part with room for `count` blocks, or
// `own_count` in the group's own part. 0 or -1.
int search_avail_part_file(REL_TYPE* rel, int32_t count, uint8_t* block, int32_t own_count);

// Moves the records of the group block `block` (at `address`) that lie in
// its overflow part `old_part` (still its byte 28) to blocks reserved in
// the current part, and rewrites their rows; the old blocks wait in the
// push buffer until the block is written. 0 or -1.
int M_move_group_data(REL_TYPE* rel, uint8_t* block, uint32_t address, uint8_t old_part);
// Copies the data block at `first`, or the whole long record that starts
// there, to reserved blocks; `moved` maps old addresses to new ones and
// keeps a block shared by several records from being copied twice. 0 or -1.
int M_move_block(REL_TYPE* rel, uint32_t first, std::map<uint32_t, uint32_t>* moved);
// Makes a block that leaves its group empty: data zeroed, byteleft B-12,
// flag bits 0-3 cleared (bits 4-7 kept).
void M_clear_block(uint8_t* block, uint32_t block_size);
// Clears the data block `block` at `address` and puts it on the free list
// of the group block `head`; in a dynamic file, when that list is full or
// the block served a continuation block, into the push buffer instead. The
// block is written when it goes on the list.
int M_release_one_block(REL_TYPE* rel, uint8_t* head, uint32_t address, uint8_t* block);
// The push buffer: blocks to give back after the group block is written.
void M_push_blkoff(uint32_t address);
// Pushes a whole group free list that starts at `address`. 0 or -1.
int M_release_grp_free_blocks(REL_TYPE* rel, uint32_t address);
// Drains the push buffer into the release buffer (or drops it with
// `discard`). 0 or -1.
int M_release_blk_in_buffer(REL_TYPE* rel, int discard);
// Rows of the group list stack: lists set aside to be given back later.
void M_push_group_free_block_list(REL_TYPE* rel, uint32_t head_address, uint8_t* head);
int M_release_free_block_in_group(REL_TYPE* rel);
