// The index file of a hashed file: every alternate key index of one file
// lives in one file of fixed-size blocks (idx001, with further parts for a
// large index). Numbers are little-endian; offsets count from the block's
// start. Nothing outside this header knows an offset of the index format.
//
// Addresses: in a plain index the byte offset in idx001, a multiple of the
// block size; in a large index the part number in the low 8 bits and the
// byte offset in that part in the rest. -1 (0xFFFFFFFF) is none.
//
// MASTER HEAD: the first 80 bytes of block 0 (of idx001 and of every part).
// OFFSET SIZE  DESCRIPTION
//      0    4  version: 0x30000 (leaf keys prefix-compressed) or 0x40000
//      4    4  next entry block, -1 for none
//      8    4  index count
//     12    4  auto update, 0 or 1
//     16    4  block size code n: (n+1)*1024 bytes, 0..15
//     20    4  free block, always -1
//     24    4  node size code, equal to the block size code
//     28    4  head of the free node list, -1 for empty
//     32    4  key length: longest key kept whole in a node, 1..300
//     36    4  overflow modulo: bucket chains for long key tails (1 in 0x40000)
//     40    4  overflow hash type, 0..2
//     44    1  large flag, 0 or 1
//     45    1  part number of this file, 0 in idx001
//     46    1  active part: first part with room (in idx001) or the next one
//              in the list; a part outside the list holds its own number
//     47    1  part count, not below the active part
//     48    4  part size limit (MAX_FLENGTH when the part was made)
//     52    4  free nodes in this part
//     56    4  end of the used area of this part
//     60    4  first slot map block, 0 when none
//     64   16  reserved, 0
//     80       index entries of block 0
//
// INDEX ENTRY (44 bytes; from 80 in block 0, from 8 in further entry blocks,
// which begin with the next entry block's address and 4 zero bytes):
//      0   32  name, NUL-terminated; byte 0 = 0 and byte 1 = 1: deleted;
//              bytes 0 and 1 both 0: the end of the list
//     32    1  field type 'D', 'S', 'I' or 'V'
//     33    1  value type 'S' single or 'M' multivalue
//     34    1  key type 'T' text or 'N' number
//     35    1  option: bit 0 = empty keys are not indexed
//     36    4  location: field number for types 'D' and 'S'
//     40    4  root node, -1 for none (type 'S' has no tree)
//
// SLOT MAP block: next (4), 4 zero bytes, then 8-byte slots: the 1-based
// ordinal of an entry and a zero word. Slot n is index number n, the number
// that nodes carry.
//
// BUCKET block (block 1: the expressions of virtual fields; blocks 2..:
// the first blocks of the ov_modulo chains of long key tails):
//      0    4  next block of the chain, -1 at the end, -3 off the chain
//      4    2  bucket number while off the chain, else -1 (0xFFFF)
//      6    2  slot count
//      8    4  free bytes, size-12 when empty
//     12  2*n  slots: offset of a text in the block, 65535 for an empty slot
//    ...       free bytes, then NUL-terminated texts packed down from the end
// A link word names a text: block number in its low 20 bits, slot in the
// high 12; zero low bits mean no link.
//
// NODE:
//      0    4  next: 0; a root also -1 (to be built) or -2 (reset by a clear)
//      4    2  index number; 65534 in a free node, whose next links the list
//      6    1  root flag
//      7    1  leaf flag
//      8    4  key entries, signed
//     12    4  free bytes of the key area, signed
//     16       key entries in key order, packed from the start
//
// KEY ENTRY, uncompressed (internal nodes; leaves of version 0x40000):
//   key length (2, signed), key, link (4), @ID length (1), @ID, and in an
//   internal node the child (4): the subtree whose keys are up to this entry.
// KEY ENTRY, compressed (leaves of version 0x30000):
//   prefix count (1: bytes shared with the previous key, 0 in the first
//   entry), the rest of the key NUL-terminated, link (4), @ID length (1), @ID.
#pragma once

#include <cassert>
#include <cstdint>
#include <string>
#include <vector>

#include "flib/fl_coding.h"
#include "flib/fl_filehdr.h"

inline constexpr int32_t IDX_VERSION_COMPRESSED = 0x30000;
inline constexpr int32_t IDX_VERSION_PLAIN = 0x40000;
inline constexpr uint32_t IDX_NONE = 0xFFFFFFFFu;
inline constexpr int32_t IDX_MAX_KEY_LENGTH = 300;
inline constexpr int32_t IDX_MAX_BLOCK_CODE = 15;
// An index head stores a block size code in the file header's form.
static_assert(IDX_MAX_BLOCK_CODE == BlockSizeCode{BlockSizeCode::kMax}.stored());
inline constexpr int32_t IDX_MAX_ID_LENGTH = 127;
inline constexpr uint32_t IDX_PART_MASK = 0xFFu;
inline constexpr int32_t IDX_MAX_PARTS = 255;

// Master head.
inline constexpr uint32_t IH_VERSION = 0;
inline constexpr uint32_t IH_NEXT_ENTRY_BLOCK = 4;
inline constexpr uint32_t IH_INDEX_COUNT = 8;
inline constexpr uint32_t IH_AUTO_UPDATE = 12;
inline constexpr uint32_t IH_BLOCK_CODE = 16;
inline constexpr uint32_t IH_FREE_BLOCK = 20;
inline constexpr uint32_t IH_NODE_CODE = 24;
inline constexpr uint32_t IH_FREE_NODE = 28;
inline constexpr uint32_t IH_KEY_LENGTH = 32;
inline constexpr uint32_t IH_OV_MODULO = 36;
inline constexpr uint32_t IH_OV_HASH_TYPE = 40;
inline constexpr uint32_t IH_LARGE_FLAG = 44;
inline constexpr uint32_t IH_PART_NO = 45;
inline constexpr uint32_t IH_ACTIVE_PART = 46;
inline constexpr uint32_t IH_PART_COUNT = 47;
inline constexpr uint32_t IH_PART_SIZE_LIMIT = 48;
inline constexpr uint32_t IH_FREE_COUNT = 52;
inline constexpr uint32_t IH_END_OFFSET = 56;
inline constexpr uint32_t IH_SLOT_MAP = 60;
inline constexpr uint32_t IH_SIZE = 80;

// Index entries.
inline constexpr uint32_t IE_SIZE = 44;
inline constexpr uint32_t IE_NAME = 0;
inline constexpr uint32_t IE_NAME_SIZE = 32;
inline constexpr uint32_t IE_FIELD_TYPE = 32;
inline constexpr uint32_t IE_VALUE_TYPE = 33;
inline constexpr uint32_t IE_KEY_TYPE = 34;
inline constexpr uint32_t IE_OPTION = 35;
inline constexpr uint32_t IE_LOCATION = 36;
inline constexpr uint32_t IE_ROOT = 40;
inline constexpr uint32_t IE_FIRST_IN_BLOCK0 = IH_SIZE;
inline constexpr uint32_t CHAIN_HEAD = 8;  // entry blocks and slot maps
inline constexpr uint8_t IE_OPTION_SKIP_EMPTY = 1;

// Slot maps.
inline constexpr uint32_t SLOT_SIZE = 8;

// Buckets.
inline constexpr uint32_t BK_NEXT = 0;
inline constexpr uint32_t BK_BUCKET = 4;
inline constexpr uint32_t BK_COUNT = 6;
inline constexpr uint32_t BK_FREE = 8;
inline constexpr uint32_t BK_SLOTS = 12;
inline constexpr uint32_t BK_END_OF_CHAIN = 0xFFFFFFFFu;
inline constexpr uint32_t BK_OFF_CHAIN = 0xFFFFFFFDu;  // -3
inline constexpr uint16_t BK_EMPTY_SLOT = 65535;
inline constexpr uint32_t BK_VIRTUAL_CHAIN = 1;  // block of the expressions' chain
inline constexpr uint32_t BK_FIRST_TAIL_BLOCK = 2;
inline constexpr int32_t BK_LEAVE_BELOW = 100;
inline constexpr int32_t BK_RETURN_AT = 200;
inline constexpr uint32_t LINK_BLOCK_MASK = 0xFFFFFu;
inline constexpr uint32_t LINK_SLOT_SHIFT = 20;
inline uint32_t make_link(uint32_t block, uint32_t slot) { return (block & LINK_BLOCK_MASK) | (slot << LINK_SLOT_SHIFT); }
inline uint32_t link_block(uint32_t link) { return link & LINK_BLOCK_MASK; }
inline uint32_t link_slot(uint32_t link) { return link >> LINK_SLOT_SHIFT; }
// Runs of whole blocks that hold a long expression (plain index).
inline constexpr uint32_t RUN_BLOCKS = 6;
inline constexpr uint32_t RUN_TEXT = 14;

// Nodes.
inline constexpr uint32_t ND_NEXT = 0;
inline constexpr uint32_t ND_IDX_NO = 4;
inline constexpr uint32_t ND_IS_ROOT = 6;
inline constexpr uint32_t ND_IS_LEAF = 7;
inline constexpr uint32_t ND_NKEYS = 8;
inline constexpr uint32_t ND_NB_LEFT = 12;
inline constexpr uint32_t ND_KEYS = 16;
inline constexpr uint16_t ND_FREE_MARK = 65534;
inline constexpr int32_t ROOT_TO_BUILD = -1;
inline constexpr int32_t ROOT_RESET = -2;
// Smallest entries, the base of the nkeys limits.
inline constexpr int32_t MIN_LEAF_ENTRY = 8;
inline constexpr int32_t MIN_INTERNAL_ENTRY = 12;
// A node is split on the way down when its free bytes fall below these.
inline int32_t leaf_full_below(int32_t key_length) { return key_length + 134; }
inline int32_t internal_full_below(int32_t key_length) { return 2 * key_length + 266; }

// REQUIRES: 0 <= code <= IDX_MAX_BLOCK_CODE (index_head_valid checks it).
inline uint32_t idx_block_size(int32_t code) {
  assert(code >= 0 && code <= IDX_MAX_BLOCK_CODE);
  return BlockSizeCode::of_stored(code).bytes();
}
// Whether new index files may use this key length with this block size: a
// node holding a single entry of the largest size must never count as
// full, or it could neither be split nor take its next entry. Files made
// elsewhere are read whatever their sizes.
inline bool key_length_fits(int32_t key_length, uint32_t block_size) {
  return block_size >= ND_KEYS + static_cast<uint32_t>(key_length + 138 + internal_full_below(key_length));
}

struct IndexHead {
  int32_t version = IDX_VERSION_PLAIN;
  uint32_t next_entry_block = IDX_NONE;
  int32_t index_count = 0;
  int32_t auto_update = 1;
  int32_t block_code = 0;
  uint32_t free_block = IDX_NONE;
  int32_t node_code = 0;
  uint32_t free_node = IDX_NONE;
  int32_t key_length = 0;
  int32_t ov_modulo = 1;
  int32_t ov_hash_type = 0;
  uint8_t large_flag = 0;
  uint8_t part_no = 0;
  uint8_t active_part = 0;
  uint8_t part_count = 1;
  uint32_t part_size_limit = 0;
  uint32_t free_count = 0;
  uint32_t end_offset = 0;
  uint32_t slot_map = 0;
};

IndexHead decode_index_head(const uint8_t* block);
// Writes the 80 head bytes (the reserved ones zero).
void encode_index_head(const IndexHead& head, uint8_t* block);

struct IndexEntry {
  char name[IE_NAME_SIZE] = {};
  char field_type = 'D';
  char value_type = 'S';
  char key_type = 'T';
  uint8_t option = 0;
  int32_t location = 0;
  uint32_t root = IDX_NONE;
};
IndexEntry decode_index_entry(const uint8_t* p);
void encode_index_entry(const IndexEntry& entry, uint8_t* p);
inline bool entry_slot_is_end(const uint8_t* p) { return p[0] == 0 && p[1] == 0; }
inline bool entry_slot_is_deleted(const uint8_t* p) { return p[0] == 0 && p[1] == 1; }
// Entries a block holds: block 0 from offset 80, others from offset 8.
inline uint32_t entries_in_block(uint32_t block_size, bool block0) {
  return (block_size - (block0 ? IE_FIRST_IN_BLOCK0 : CHAIN_HEAD)) / IE_SIZE;
}

// Node head.
struct NodeHead {
  int32_t next = 0;
  uint16_t idx_no = 0;
  uint8_t is_root = 0;
  uint8_t is_leaf = 0;
  int32_t nkeys = 0;
  int32_t nb_left = 0;
};
inline NodeHead decode_node_head(const uint8_t* n) {
  return NodeHead{fl_get_i32(n, ND_NEXT), fl_get_u16(n, ND_IDX_NO), n[ND_IS_ROOT], n[ND_IS_LEAF],
                  fl_get_i32(n, ND_NKEYS), fl_get_i32(n, ND_NB_LEFT)};
}

// One key entry of a node, decoded: key bytes as stored in the node (the
// first key_length bytes of a long key), its link, the @ID and, in an
// internal node, the child.
struct KeyEntry {
  std::string key;
  uint32_t link = 0;
  std::string id;
  uint32_t child = 0;
};

// The tests of a master head, in their fixed order; the first failure is
// reported and false returned. `node_size` is the size the code gives.
bool index_head_valid(const IndexHead& head);
// The tests of one index entry; reports and returns false on a failure.
bool index_entry_valid(const IndexEntry& entry);
// The tests of a node head against the index's number and root address.
// `short_forms` selects the wording of the key search.
bool node_head_valid(const NodeHead& node, uint32_t address, uint32_t root, uint16_t idx_no, uint32_t node_size,
                     bool short_forms);

// Decodes the key area of a node into `out`; false after a report when an
// entry is impossible (a length beyond its limit, a position beyond the
// key area).
bool decode_node_entries(const uint8_t* node, uint32_t node_size, int32_t key_length, bool compressed,
                         std::vector<KeyEntry>* out);
// Bytes the entries take in a node of this kind.
int32_t encoded_entries_size(const std::vector<KeyEntry>& entries, bool leaf, bool compressed);
// Writes a whole node: head and entries; the rest of the block is zeroed.
// REQUIRES: the entries fit (encoded_entries_size <= node_size - 16).
void encode_node(uint8_t* node, uint32_t node_size, const NodeHead& head, const std::vector<KeyEntry>& entries,
                 bool compressed);
// A fresh empty leaf (root or not).
void init_empty_node(uint8_t* node, uint32_t node_size, uint16_t idx_no, bool root, int32_t next);
// A free node that links to `next`.
void init_free_node(uint8_t* node, uint32_t node_size, uint32_t next);
// An empty bucket block.
void init_bucket_block(uint8_t* block, uint32_t block_size, uint32_t next);
