// OVERFLOW_HEADER: block 0 of over001 and of every overNNN.
//
// In over001 it holds the live state of a dynamic file; in the other parts
// only the free list fields are live.
//
// OFFSET SIZE  DESCRIPTION
//      0   20  reserved, 0
//     20    4  free list head: BLOCK_ADDRESS of the first FREE_LIST_BLOCK
//     24    2  stack count: free addresses on the stack at offset 76
//     26    2  stack capacity: (B-76)/4
//     28    4  next unused block offset of this part (memory-buffered writer)
//     32    4  current modulo (live in over001)
//     36    4  minimum modulo: the base below which the file does not merge
//     40    1  split load, percent
//     41    1  merge load, percent, at most 90
//     42    2  GRP_FREE_BLK: longest group free list; 0 = the setting
//     44    4  MAX_FLENGTH; 0 = the setting
//     48    4  free count: blocks on the stack and on all free lists
//     52    2  primary parts (a stored 0 counts as 1)
//     54    2  overflow parts (a stored 0 counts as 1)
//     56   20  reserved, 0
//     76  cap*4 free stack of BLOCK_ADDRESS values, top at stack count - 1
#pragma once

#include <cassert>
#include <cstdint>

#include "flib/fl_coding.h"

inline constexpr uint32_t OH_FREE_HEAD = 20;
inline constexpr uint32_t OH_STACK_COUNT = 24;
inline constexpr uint32_t OH_STACK_CAPACITY = 26;
inline constexpr uint32_t OH_NEXT_BLOCK = 28;
inline constexpr uint32_t OH_MODULO = 32;
inline constexpr uint32_t OH_MIN_MODULO = 36;
inline constexpr uint32_t OH_SPLIT_LOAD = 40;
inline constexpr uint32_t OH_MERGE_LOAD = 41;
inline constexpr uint32_t OH_GRP_FREE_BLK = 42;
inline constexpr uint32_t OH_MAX_FLENGTH = 44;
inline constexpr uint32_t OH_FREE_COUNT = 48;
inline constexpr uint32_t OH_PRIMARY_PARTS = 52;
inline constexpr uint32_t OH_OVERFLOW_PARTS = 54;
inline constexpr uint32_t OH_STACK = 76;
// The stack follows the 20 reserved bytes after the last field, and its
// capacity (B-76)/4 counts whole entries in every block size.
static_assert(OH_STACK == OH_OVERFLOW_PARTS + 2 + 20);
static_assert(OH_STACK % 4 == 0);

inline constexpr int32_t DEFAULT_GRP_FREE_BLK = 5;
inline constexpr int32_t MAX_MERGE_LOAD = 90;

struct OverflowHeader {
  uint32_t free_head = 0;
  int16_t stack_count = 0;
  int16_t stack_capacity = 0;
  uint32_t next_block = 0;
  uint32_t modulo = 0;
  uint32_t min_modulo = 0;
  uint8_t split_load = 0;
  uint8_t merge_load = 0;
  int16_t grp_free_blk = 0;
  int32_t max_flength = 0;
  uint32_t free_count = 0;
  uint16_t primary_parts = 0;   // as stored; see stored_part_count
  uint16_t overflow_parts = 0;  // as stored
};

inline int32_t overflow_stack_capacity(uint32_t block_size) {
  return static_cast<int32_t>((block_size - OH_STACK) / 4);
}
// Entry `i` of the free stack, 0 at the bottom.
// REQUIRES: 0 <= i < overflow_stack_capacity(B).
inline uint32_t oh_stack_offset(int32_t i) {
  assert(i >= 0);
  return OH_STACK + 4 * static_cast<uint32_t>(i);
}
inline uint32_t oh_stack_entry(const uint8_t* b, int32_t i) { return fl_get_u32(b, oh_stack_offset(i)); }
inline void oh_set_stack_entry(uint8_t* b, int32_t i, uint32_t v) { fl_put_u32(b, oh_stack_offset(i), v); }
// A stored part count of 0 counts as one part.
inline int32_t stored_part_count(uint16_t stored) { return stored == 0 ? 1 : stored; }

// REQUIRES: `block` holds at least OH_STACK bytes.
OverflowHeader decode_overflow_header(const uint8_t* block);
// Writes the fields of offsets 20..55; the stack is left as it is.
void encode_overflow_header(const OverflowHeader& header, uint8_t* block);
