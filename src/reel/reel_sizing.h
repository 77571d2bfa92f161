// How many group blocks a hashed file's records fill: the arithmetic under
// the three modulo estimates of the tool.
//
//   reel_suggest_modulo  (reel_plan)      the plan of -A, in 1 KiB blocks,
//                                         with a tenth more groups to spare;
//   reel_resize_modulo   (reel_app_tuple) before the first write of a load,
//                                         whether the tape's modulo is too
//                                         small for the records in hand;
//   reel_overfull_modulo (reel_app_tuple) after the load, the modulo that a
//                                         resize_list line proposes.
//
// All three take the room of a group block and the bytes of the records
// from here. Where they part (the average key over r or r + 1 records, 10
// or 9 bytes for each key) each decision keeps its own margin on purpose:
// the estimates are not to be made one.
#pragma once

#include <cassert>
#include <cstdint>

#include "flib/fl_block.h"

// A group block's header stands before its key table. A record costs, beside
// its key and data, its key table row, its key's length byte and its closing
// record mark; a key alone costs its row and its length byte.
inline constexpr int64_t REEL_GROUP_HEAD_BYTES = 32;
inline constexpr int64_t REEL_RECORD_COST = 10;
inline constexpr int64_t REEL_KEY_COST = 9;
static_assert(REEL_GROUP_HEAD_BYTES == GB_KEY_TABLE);
static_assert(REEL_KEY_COST == KEY_ENTRY_SIZE + 1 && REEL_RECORD_COST == REEL_KEY_COST + 1);

// Bytes of a block of `block_size` that records can use once the group
// head and one average key (key_bytes / key_divisor) are taken; 0 or less
// when an average key does not fit.
// REQUIRES: key_divisor > 0.
inline constexpr int64_t reel_group_room(int64_t block_size, int64_t key_bytes, int64_t key_divisor) {
  assert(key_divisor > 0);
  return block_size - REEL_GROUP_HEAD_BYTES - key_bytes / key_divisor;
}

// Whole blocks of `room` bytes that `records` records fill, keys, data and
// REEL_RECORD_COST each counted; with data_bytes 0, what their keys fill.
// REQUIRES: room > 0.
inline constexpr int64_t reel_record_blocks(int64_t key_bytes, int64_t data_bytes, int64_t records,
                                            int64_t room) {
  assert(room > 0);
  return (data_bytes + REEL_RECORD_COST * records + key_bytes) / room;
}

// Whole blocks of `room` bytes that the keys of `records` records fill at
// REEL_KEY_COST each: the key table test of a finished load.
// REQUIRES: room > 0.
inline constexpr int64_t reel_key_blocks(int64_t key_bytes, int64_t records, int64_t room) {
  assert(room > 0);
  return (key_bytes + REEL_KEY_COST * records) / room;
}
