// Blocks of a hashed file: addresses, group blocks with their key table,
// data blocks and free-list blocks. Every block is B bytes, B being 512 or
// k*1024 for k in 1..16.
//
// BLOCK_ADDRESS (32 bits): in a static file the byte offset of the block; in
// a dynamic file bit 31 = overflow part, bits 8..30 = byte offset in the part
// (a multiple of B), bits 0..7 = part index (part number - 1). 0 = none.
//
// RECORD_POSITION (KEY_ENTRY offset 0): bit 31 = overflow part, plus the
// byte offset of the record's first byte in its part; the part is that of
// the group block's byte 28 (minus one; part index 0 when the byte is 0).
//
// GROUP_BLOCK, the head block of a group and its continuation blocks:
// OFFSET SIZE  DESCRIPTION
//      0    4  free chain: first block of the group free list, 0 if none
//      4    2  byteleft: free bytes at the end of the data area, 0..B-12
//      6    1  flags (see below)
//      7    1  low byte of the hash type word
//      8    4  group number
//     12    4  next GROUP_BLOCK of the group, 0 at the end of the chain
//     16    4  time of the last change, seconds since 1970
//     20    2  key count: keys and KEY_ENTRY rows in this block
//     22    2  key bytes: sum of (key length + 1)
//     24    2  datapos: start of the data area; the key area ends here
//     26    2  free count: blocks on the group free list
//     28    1  overflow part (1..255) holding this group's overflow; 0 none
//     29    3  reserved, 0
//     32  8*n  key table, rows growing upward
//    ...       gap
//  datapos-kb  key area, growing downward from datapos: byte datapos-1 is
//              the length n (0..126) of row 0's key, its n bytes stand just
//              below; the next key's length byte stands below that key
//  datapos     data area, records in ascending offset, growing upward
//
// KEY_ENTRY (8 bytes at 32 + 8*row):
//      0    4  RECORD_POSITION; the row after the last holds 0 here
//      4    4  stored length: record bytes plus the closing record mark
//
// DATA_BLOCK:
//      0    4  next block of a long record (or free-chain link), 0 in the last
//      4    2  byteleft: B-12 when empty
//      6    1  flags
//      7    1  low byte of the hash type word
//      8    4  group number
//     12  B-12 record bytes; the next free byte is at B-byteleft
//
// FREE_LIST_BLOCK:
//      0    4  next FREE_LIST_BLOCK, 0 at the end
//      4    2  index of the last entry (the address of this block itself)
//      6    1  flags, 4
//      7    1  low byte of the hash type word
//      8    4  space left: B-80 with one entry, 4 less for each further one
//     12  4*n  BLOCK_ADDRESS entries
//
// Flags (byte 6): bits 0-1 = 2 head GROUP_BLOCK, 3 continuation GROUP_BLOCK;
// bit 0 alone in a DATA_BLOCK written for a continuation block; bits 2-3 =
// 0 short records only, 12 first block of a long record, 4 middle block (and
// free-list block), 8 last block; bits 4-7 are preserved when 0-3 clear.
#pragma once

#include <cassert>
#include <cstdint>

#include "flib/fl_coding.h"

// Block address.
inline constexpr uint32_t ADDR_OVERFLOW = 0x80000000u;
inline constexpr uint32_t ADDR_OFFSET_MASK = 0x7FFFFF00u;
inline constexpr uint32_t ADDR_PART_MASK = 0xFFu;

inline bool addr_is_overflow(uint32_t a) { return (a & ADDR_OVERFLOW) != 0; }
inline uint32_t addr_offset(uint32_t a) { return a & ADDR_OFFSET_MASK; }
inline uint32_t addr_part_index(uint32_t a) { return a & ADDR_PART_MASK; }
inline uint32_t make_addr(bool overflow, uint32_t offset, uint32_t part_index) {
  return (overflow ? ADDR_OVERFLOW : 0u) | (offset & ADDR_OFFSET_MASK) | (part_index & ADDR_PART_MASK);
}

// Group block fields.
inline constexpr uint32_t GB_FREE_CHAIN = 0;
inline constexpr uint32_t GB_BYTELEFT = 4;
inline constexpr uint32_t GB_FLAGS = 6;
inline constexpr uint32_t GB_HASHTYPE = 7;
inline constexpr uint32_t GB_GROUP = 8;
inline constexpr uint32_t GB_NEXT = 12;
inline constexpr uint32_t GB_TIME = 16;
inline constexpr uint32_t GB_KEY_COUNT = 20;
inline constexpr uint32_t GB_KEY_BYTES = 22;
inline constexpr uint32_t GB_DATAPOS = 24;
inline constexpr uint32_t GB_FREE_COUNT = 26;
inline constexpr uint32_t GB_OVER_PART = 28;
inline constexpr uint32_t GB_KEY_TABLE = 32;
inline constexpr uint32_t KEY_ENTRY_SIZE = 8;
inline constexpr uint32_t KE_POSITION = 0;
inline constexpr uint32_t KE_LENGTH = 4;

// Data and free-list block fields.
inline constexpr uint32_t DB_NEXT = 0;
inline constexpr uint32_t DB_BYTELEFT = 4;
inline constexpr uint32_t DB_DATA = 12;
inline constexpr uint32_t FL_NEXT = 0;
inline constexpr uint32_t FL_LAST_INDEX = 4;
inline constexpr uint32_t FL_SPACE_LEFT = 8;
inline constexpr uint32_t FL_ENTRIES = 12;
inline constexpr uint32_t FL_ENTRY_SIZE = 4;

// Block overhead: a record of stored length up to B-12 is short.
inline constexpr uint32_t BLOCK_OVERHEAD = 12;

// The layout the formulas below rely on: the key table follows the fixed
// fields, a row is a position word and a length word, and a data block's
// bytes and a free-list block's entries start after the 12 bytes all blocks
// share.
static_assert(GB_KEY_TABLE == GB_OVER_PART + 4);
static_assert(KEY_ENTRY_SIZE == KE_LENGTH + 4 && KE_POSITION == 0);
static_assert(DB_DATA == BLOCK_OVERHEAD && FL_ENTRIES == BLOCK_OVERHEAD);

// Flags.
inline constexpr uint8_t FLAG_KIND_MASK = 3;
inline constexpr uint8_t FLAG_HEAD = 2;
inline constexpr uint8_t FLAG_CONTINUATION = 3;
inline constexpr uint8_t FLAG_GROUP_BIT = 2;  // bit 1: a group block
inline constexpr uint8_t FLAG_FOR_CONTINUATION = 1;
inline constexpr uint8_t FLAG_LONG_MASK = 12;
inline constexpr uint8_t FLAG_LONG_FIRST = 12;
inline constexpr uint8_t FLAG_LONG_MIDDLE = 4;
inline constexpr uint8_t FLAG_LONG_LAST = 8;
inline constexpr uint8_t FLAG_FREE_LIST = 4;
inline constexpr uint8_t FLAG_LOW_BITS = 15;

// Initial datapos D of a group block: 124 for B of 512 or 1024, 224 for
// 2048, 424 for 4096, 824 for 8192, 1624 for 16384.
inline constexpr uint32_t initial_datapos(uint32_t block_size) {
  return ((block_size + 512) / 1024) * 100 + 24;
}
static_assert(initial_datapos(512) == 124 && initial_datapos(1024) == 124 && initial_datapos(16384) == 1624);

inline uint32_t gb_free_chain(const uint8_t* b) { return fl_get_u32(b, GB_FREE_CHAIN); }
inline int16_t gb_byteleft(const uint8_t* b) { return fl_get_i16(b, GB_BYTELEFT); }
inline uint8_t gb_flags(const uint8_t* b) { return b[GB_FLAGS]; }
inline uint8_t gb_hashtype(const uint8_t* b) { return b[GB_HASHTYPE]; }
inline uint32_t gb_group(const uint8_t* b) { return fl_get_u32(b, GB_GROUP); }
inline uint32_t gb_next(const uint8_t* b) { return fl_get_u32(b, GB_NEXT); }
inline uint32_t gb_time(const uint8_t* b) { return fl_get_u32(b, GB_TIME); }
inline int16_t gb_key_count(const uint8_t* b) { return fl_get_i16(b, GB_KEY_COUNT); }
inline int16_t gb_key_bytes(const uint8_t* b) { return fl_get_i16(b, GB_KEY_BYTES); }
inline int16_t gb_datapos(const uint8_t* b) { return fl_get_i16(b, GB_DATAPOS); }
inline int16_t gb_free_count(const uint8_t* b) { return fl_get_i16(b, GB_FREE_COUNT); }
inline uint8_t gb_over_part(const uint8_t* b) { return b[GB_OVER_PART]; }

inline void gb_set_free_chain(uint8_t* b, uint32_t v) { fl_put_u32(b, GB_FREE_CHAIN, v); }
inline void gb_set_byteleft(uint8_t* b, int16_t v) { fl_put_i16(b, GB_BYTELEFT, v); }
inline void gb_set_flags(uint8_t* b, uint8_t v) { b[GB_FLAGS] = v; }
inline void gb_set_hashtype(uint8_t* b, uint8_t v) { b[GB_HASHTYPE] = v; }
inline void gb_set_group(uint8_t* b, uint32_t v) { fl_put_u32(b, GB_GROUP, v); }
inline void gb_set_next(uint8_t* b, uint32_t v) { fl_put_u32(b, GB_NEXT, v); }
inline void gb_set_time(uint8_t* b, uint32_t v) { fl_put_u32(b, GB_TIME, v); }
inline void gb_set_key_count(uint8_t* b, int16_t v) { fl_put_i16(b, GB_KEY_COUNT, v); }
inline void gb_set_key_bytes(uint8_t* b, int16_t v) { fl_put_i16(b, GB_KEY_BYTES, v); }
inline void gb_set_datapos(uint8_t* b, int16_t v) { fl_put_i16(b, GB_DATAPOS, v); }
inline void gb_set_free_count(uint8_t* b, int16_t v) { fl_put_i16(b, GB_FREE_COUNT, v); }
inline void gb_set_over_part(uint8_t* b, uint8_t v) { b[GB_OVER_PART] = v; }

// Key table rows. REQUIRES: 32 + 8*(row+1) <= B.
inline uint32_t ke_offset(int32_t row) { return GB_KEY_TABLE + KEY_ENTRY_SIZE * static_cast<uint32_t>(row); }
inline uint32_t ke_position(const uint8_t* b, int32_t row) { return fl_get_u32(b, ke_offset(row) + KE_POSITION); }
inline int32_t ke_length(const uint8_t* b, int32_t row) { return fl_get_i32(b, ke_offset(row) + KE_LENGTH); }
inline void ke_set_position(uint8_t* b, int32_t row, uint32_t v) { fl_put_u32(b, ke_offset(row) + KE_POSITION, v); }
inline void ke_set_length(uint8_t* b, int32_t row, int32_t v) { fl_put_i32(b, ke_offset(row) + KE_LENGTH, v); }
// Bytes that `rows` KEY_ENTRY rows take.
inline int32_t key_table_bytes(int32_t rows) { return static_cast<int32_t>(KEY_ENTRY_SIZE) * rows; }
// Rows a block of size B can hold at most.
inline int32_t max_key_rows(uint32_t block_size) {
  return static_cast<int32_t>((block_size - GB_KEY_TABLE) / KEY_ENTRY_SIZE);
}

// FREE_LIST_BLOCK entries. REQUIRES: 0 <= i < free_list_capacity(B).
inline uint32_t free_list_entry_offset(int32_t i) {
  assert(i >= 0);
  return FL_ENTRIES + FL_ENTRY_SIZE * static_cast<uint32_t>(i);
}
inline uint32_t free_list_entry(const uint8_t* b, int32_t i) { return fl_get_u32(b, free_list_entry_offset(i)); }
inline void free_list_set_entry(uint8_t* b, int32_t i, uint32_t v) { fl_put_u32(b, free_list_entry_offset(i), v); }
// Entries a FREE_LIST_BLOCK of size B can hold at most.
inline int32_t free_list_capacity(uint32_t block_size) {
  return static_cast<int32_t>((block_size - FL_ENTRIES) / FL_ENTRY_SIZE);
}

// The block that holds a record: position minus its in-block offset, with
// the part index of the group's overflow part (byte 28 minus one).
inline uint32_t record_block_address(uint32_t position, uint32_t block_size, uint8_t over_part) {
  uint32_t in_block = (position & 0x7FFFFFFFu) % block_size;
  uint32_t part_index = over_part == 0 ? 0 : static_cast<uint32_t>(over_part - 1);
  return (position - in_block) | (addr_is_overflow(position) ? part_index : 0u);
}
