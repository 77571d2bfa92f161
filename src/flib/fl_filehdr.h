// FILE_HEADER: block 0 of a static file, of dat001 and of every later datNNN.
//
// Only the first 512 bytes are read at open; the rest of the block is zero.
//
// OFFSET SIZE  DESCRIPTION
//      0    4  modulo: groups at creation; in a dynamic file made with more
//              groups than fit in one part, the groups of one part; in a
//              datNNN made later, the minimum modulo
//      4    4  hash type word (read back as its low 16 bits)
//      8    4  reserved, 0 (the head-block image reuses it for the group)
//     12    4  format word: 2 static, 3 dynamic, 4 key-range
//     16    4  block size code: -1 for 512 bytes, else k-1 for k*1024 bytes
//     20    4  number of alternate key indexes
//     24    4  RFS flag, 0 or 1 ("the 7th integer location")
//     28   20  reserved, 0
//     48    4  spread flag: 1 when overflow parts were laid out spread
//     52    1  record mark of the writing language group (default 255)
//     53    1  language byte 2 (default 192)
//     54    1  language byte 3 (default 129)
//     55    1  reserved, 0
//     56    4  first group whose head lies in this part (0 in dat001)
//     60    4  MAX_FLENGTH: largest part size in bytes; 0 = the setting
//     64  192  reserved, 0
//    256   32  update trigger name, NUL-padded, not terminated when full
//    288   32  delete trigger name, the same
//    320 rest  reserved, 0
//
// Hash type word: bit 6 (64) dynamic; bit 5 (32) KEYDATA load accounting;
// (word & 66) == 66 key-range file; (word & ~96) is the hash function, 0 or 1
// (2 for a key-range file).
#pragma once

#include <cstdint>

inline constexpr uint32_t FH_MODULO = 0;
inline constexpr uint32_t FH_HASHTYPE = 4;
inline constexpr uint32_t FH_RESERVED_8 = 8;
inline constexpr uint32_t FH_FORMAT = 12;
inline constexpr uint32_t FH_BLOCK_CODE = 16;
inline constexpr uint32_t FH_INDEX_COUNT = 20;
inline constexpr uint32_t FH_RFS = 24;
inline constexpr uint32_t FH_SPREAD = 48;
inline constexpr uint32_t FH_RECORD_MARK = 52;
inline constexpr uint32_t FH_LANG_2 = 53;
inline constexpr uint32_t FH_LANG_3 = 54;
inline constexpr uint32_t FH_FIRST_GROUP = 56;
inline constexpr uint32_t FH_MAX_FLENGTH = 60;
inline constexpr uint32_t FH_UPDATE_TRIGGER = 256;
inline constexpr uint32_t FH_DELETE_TRIGGER = 288;
inline constexpr uint32_t FH_TRIGGER_SIZE = 32;
// The part of block 0 that open reads.
inline constexpr uint32_t FH_READ_SIZE = 512;
// Every field lies in the part read at open.
static_assert(FH_DELETE_TRIGGER + FH_TRIGGER_SIZE <= FH_READ_SIZE);
static_assert(FH_UPDATE_TRIGGER + FH_TRIGGER_SIZE == FH_DELETE_TRIGGER);

inline constexpr int32_t HASH_DYNAMIC = 64;
inline constexpr int32_t HASH_KEYDATA = 32;
inline constexpr int32_t HASH_KEY_RANGE = 66;
inline constexpr int32_t FORMAT_STATIC = 2;
inline constexpr int32_t FORMAT_DYNAMIC = 3;
inline constexpr int32_t FORMAT_KEY_RANGE = 4;

inline constexpr int32_t DEFAULT_MAX_FLENGTH = 1073741824;
inline constexpr uint32_t MAX_BLOCK_SIZE = 16384;

inline bool hash_is_dynamic(int32_t word) { return (word & HASH_DYNAMIC) != 0; }
inline bool hash_is_key_range(int32_t word) { return (word & HASH_KEY_RANGE) == HASH_KEY_RANGE; }
inline bool hash_is_keydata(int32_t word) { return (word & HASH_KEYDATA) != 0; }
inline int32_t hash_function(int32_t word) { return word & ~96; }

struct FileHeader {
  int32_t modulo = 0;
  int32_t hashtype = 0;  // low 16 bits of the stored word
  int32_t format = 0;
  int32_t block_code = 0;
  int32_t index_count = 0;
  int32_t rfs = 0;
  int32_t spread = 0;
  uint8_t record_mark = 0;
  uint8_t lang2 = 0;
  uint8_t lang3 = 0;
  int32_t first_group = 0;
  int32_t max_flength = 0;
  char update_trigger[FH_TRIGGER_SIZE + 1] = {};
  char delete_trigger[FH_TRIGGER_SIZE + 1] = {};
};

// REQUIRES: `block` holds at least FH_READ_SIZE bytes.
FileHeader decode_file_header(const uint8_t* block);
// Writes every field into `block` (FH_READ_SIZE bytes or more); the bytes
// between the fields are left as they are, so pass a zeroed buffer.
void encode_file_header(const FileHeader& header, uint8_t* block);

// Block size code. The blocks of a hashed file are B = 512 bytes or k KiB
// for k in 1..16, and two forms of code name B:
//   creation form (M_create_hashed, M_create_file, a -B list, the tools):
//     0 for 512 bytes, k for k KiB, kMin..kMax;
//   stored form (FILE_HEADER offset 16; the block and node codes of an
//     index head, 0..15 there): one less, -1 for 512 bytes, so that
//     B = (stored + 1) * 1024.
// BlockSizeCode holds the creation form; every conversion goes through it.
struct BlockSizeCode {
  static constexpr int32_t kMin = 0;
  static constexpr int32_t kMax = 16;
  static constexpr uint32_t kKiB = 1024;
  static constexpr uint32_t kSmallest = 512;  // the block of code 0

  int32_t code;  // creation form

  static constexpr BlockSizeCode of_stored(int32_t stored) { return {stored + 1}; }
  // A size below 1 KiB has code 0 (512 bytes).
  static constexpr BlockSizeCode of_bytes(uint32_t bytes) { return {static_cast<int32_t>(bytes / kKiB)}; }

  constexpr int32_t stored() const { return code - 1; }
  // B; a code below 1 gives 512 bytes.
  constexpr uint32_t bytes() const { return code <= 0 ? kSmallest : static_cast<uint32_t>(code) * kKiB; }
  // A file of `modulo` groups of 1 KiB recounted in blocks of this size so
  // that it keeps its size: twice the groups of 512 bytes, a k-th of them
  // (rounded toward zero) of k KiB.
  constexpr int32_t modulo_keeping_size(int32_t modulo) const {
    return code <= 0 ? modulo * static_cast<int32_t>(kKiB / kSmallest) : modulo / code;
  }
};
static_assert(BlockSizeCode{BlockSizeCode::kMax}.bytes() == MAX_BLOCK_SIZE);
static_assert(BlockSizeCode::of_bytes(BlockSizeCode{0}.bytes()).code == 0 &&
              BlockSizeCode::of_bytes(BlockSizeCode{BlockSizeCode::kMax}.bytes()).code == BlockSizeCode::kMax);
static_assert(BlockSizeCode{0}.stored() == -1 && BlockSizeCode::of_stored(15).bytes() == 16384);
// The part of block 0 read at open is there in the smallest block.
static_assert(FH_READ_SIZE <= BlockSizeCode{0}.bytes());

// B of a stored code; 0 for a code outside -1..15.
uint32_t block_size_of_code(int32_t code);

// Prints the report for a format word that this machine does not accept:
// which machine this is, then what the word says the file is. `rfs` picks
// "Recoverable" or "Nonrecoverable" for the two-name forms.
void report_format_word(int32_t format, int32_t rfs, const char* name);
