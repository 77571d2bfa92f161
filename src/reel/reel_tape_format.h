// The foreign system's tape, as far as reels, logical blocks and the walk
// over a save go: the block header, the reel label, the path entries of
// description blocks, and the framings of the two packed transports. The
// tape reader (reel_device), the dispatcher (reel_dispatch) and the tape
// writer (reel_tape_writer) all work through this header; nothing else
// knows these offsets. The layouts of static hashed files and of member
// text stand here as well: the decoders and the writer share them.
//
// Every integer on tape is big-endian. The source machine counts in 16-bit
// words, so block lengths are word counts and every block is even.
//
// Logical block header, at the start of every block:
//
//   OFFSET  SIZE  DESCRIPTION
//   0       2     block number; rises from 1 on each reel, wraps 65535 -> 0
//   2       2     block length in 16-bit words, header included
//   4       1     not used
//   5       1     block type (TapeBlockType)
//
// Reel label, a block of type 4; character fields hold 7-bit text with the
// high bit set:
//
//   OFFSET  SIZE  DESCRIPTION
//   0       5     header (number and length as above)
//   5       1     block type 4
//   6       1     revision b: the revision number is (b - 128) / 16
//   7       1     not used
//   8       2     month, two digits
//   10      2     day, two digits
//   12      2     year, two digits
//   14      3     not used
//   17      1     logical tape number, binary
//   18      6     tape name, blank padded
//
// Description block: the header and a path of entries, one for each level
// from the top of the save down to the object described, so that the
// block's length tells the depth: TAPE_HEADER_SIZE + PATH_ENTRY_SIZE * depth.
// The first entry starts at offset 6; the last one is the object itself.
//
// Path entry, 48 bytes:
//
//   OFFSET  SIZE  DESCRIPTION
//   0       2     not used
//   2       32    object name in tape text, blank padded
//   34      5     not used
//   39      1     object type (TapeObjectType)
//   40      8     not used
//
// Cartridge frame (-G C): every logical block is carried in frames of 512
// bytes, each block starting in a new frame:
//
//   OFFSET  SIZE  DESCRIPTION
//   0       2     not used
//   2       2     payload bytes in this frame, at most 508
//   4       508   payload
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

// ---- Tape text -----------------------------------------------------------------
//
// Text on tape is 7-bit text with the high bit set on every character; one
// flip of that bit encodes a byte and decodes it again. Names, label fields
// and the records of dynamic files keep a zero byte as zero, for there the
// tape fills with zeros (and so cannot carry a plain 0x80); static records,
// member text and the index description are flipped whole, so that there a
// zero byte stands for 0x80.
inline constexpr unsigned char TAPE_FLIP = 0x80;
inline constexpr unsigned char tape_flip(unsigned char c) { return static_cast<unsigned char>(c ^ TAPE_FLIP); }
inline constexpr unsigned char tape_flip_keep_zero(unsigned char c) { return c == 0 ? 0 : tape_flip(c); }
static_assert(tape_flip(tape_flip('A')) == 'A' && tape_flip(' ') == 0xA0);

inline constexpr int32_t TAPE_HEADER_SIZE = 6;
inline constexpr int32_t TAPE_OFF_BLOCK_NO = 0;
inline constexpr int32_t TAPE_OFF_LENGTH = 2;
inline constexpr int32_t TAPE_OFF_SPARE = 4;
inline constexpr int32_t TAPE_OFF_TYPE = 5;
static_assert(TAPE_OFF_TYPE + 1 == TAPE_HEADER_SIZE);
// The length field counts words; the largest block it can describe.
inline constexpr int32_t TAPE_MAX_BLOCK = 0xFFFF * 2;

enum TapeBlockType : uint8_t {
  TAPE_BLOCK_DATA = 1,
  TAPE_BLOCK_DESCRIPTION = 2,
  TAPE_BLOCK_LABEL = 4,
  TAPE_BLOCK_END = 5,
};

inline constexpr int32_t LABEL_OFF_REVISION = 6;
inline constexpr int32_t LABEL_OFF_MONTH = 8;
inline constexpr int32_t LABEL_OFF_DAY = 10;
inline constexpr int32_t LABEL_OFF_YEAR = 12;
inline constexpr int32_t LABEL_OFF_TAPE_NO = 17;
inline constexpr int32_t LABEL_OFF_NAME = 18;
inline constexpr int32_t LABEL_NAME_SIZE = 6;
inline constexpr int32_t LABEL_DATE_FIELD = 2;
inline constexpr int32_t LABEL_SIZE = LABEL_OFF_NAME + LABEL_NAME_SIZE;
// The three date fields stand side by side, each of two digits.
static_assert(LABEL_OFF_DAY == LABEL_OFF_MONTH + LABEL_DATE_FIELD &&
              LABEL_OFF_YEAR == LABEL_OFF_DAY + LABEL_DATE_FIELD && LABEL_DATE_FIELD == 2);
static_assert(LABEL_OFF_REVISION > TAPE_OFF_TYPE && LABEL_OFF_TAPE_NO < LABEL_OFF_NAME);

inline constexpr int32_t PATH_ENTRY_SIZE = 48;
inline constexpr int32_t PATH_OFF_NAME = 2;
inline constexpr int32_t PATH_NAME_SIZE = 32;
inline constexpr int32_t PATH_OFF_TYPE = 39;
static_assert(PATH_OFF_NAME + PATH_NAME_SIZE <= PATH_OFF_TYPE && PATH_OFF_TYPE < PATH_ENTRY_SIZE);

// Object types of a path entry. Inside a hashed file codes 0 and 1 mark its
// sub-files, inside a directory its members.
enum TapeObjectType : uint8_t {
  TAPE_OBJECT_SAM = 0,  // sequential member
  TAPE_OBJECT_DAM = 1,  // direct member
  TAPE_OBJECT_HASHED = 2,
  TAPE_OBJECT_HASHED_ALT = 3,
  TAPE_OBJECT_DIR = 4,
  TAPE_OBJECT_DIR_ALT = 5,
};

// Length of a description block whose path has `depth` entries.
inline constexpr int32_t tape_path_length(int32_t depth) {
  return TAPE_HEADER_SIZE + PATH_ENTRY_SIZE * depth;
}

// The fields of the entry that starts at `entry` bytes into a block.
// REQUIRES: the block holds entry + PATH_ENTRY_SIZE bytes.
inline uint8_t tape_path_type(const unsigned char* block, int32_t entry) {
  return block[entry + PATH_OFF_TYPE];
}
// Decodes the name (tape text, trailing blanks cut) into `name`; returns
// its length.
// REQUIRES: name has PATH_NAME_SIZE + 1 bytes.
int tape_path_name(char* name, const unsigned char* block, int32_t entry);
// Writes one entry: the name (at most PATH_NAME_SIZE characters) in tape
// text, blank padded, and the type; unused bytes are zero.
// REQUIRES: entry has PATH_ENTRY_SIZE bytes.
void tape_encode_path_entry(unsigned char* entry, const char* name, uint8_t type);

// ---- Static hashed files ---------------------------------------------------
//
// A static hashed file is a container of sub-files, each one group's worth
// of records as a byte stream that data blocks cut at any point. The first
// data block of a sub-file:
//
//   OFFSET  SIZE  DESCRIPTION
//   0       6     block header
//   6       4     not used
//   10      2     modulo of the source file (read from the first sub-file
//                 that has data only)
//   12      ..    the stream
//
// Every further data block carries the stream from offset 6. A record,
// and its header too, may be cut by the end of a block anywhere.
//
// Static record, at an even offset of the stream:
//
//   OFFSET  SIZE  DESCRIPTION
//   0       3     record size in 16-bit words, this header included; 0 ends
//                 the sub-file
//   3       1     key length; 0 marks a record that is passed over
//   4       k     key, every byte XOR 0x80
//   4+k     0/1   pad when k is odd
//   ..      ..    data chunks, then the end of the record
//
// Data chunk:
//
//   OFFSET  SIZE  DESCRIPTION
//   0       1     marker, 0xE0 or 0x00; any other byte ends the record
//   1       1     chunk length n; 0 ends the record
//   2       n     data, every byte XOR 0x80
//   2+n     0/1   pad to an even offset of the record
//
// A record's place in the stream follows from the sizes alone; where the
// chunks end is read from the chunks. A record that ends exactly on its
// last chunk is ended by the next record's size bytes, read as a chunk
// header of length 0.
inline constexpr int32_t SUBFILE_OFF_MODULO = 10;
inline constexpr int32_t SUBFILE_FIRST_STREAM = 12;
inline constexpr int32_t SUBFILE_STREAM = TAPE_HEADER_SIZE;

inline constexpr int32_t RECORD_OFF_SIZE = 0;
inline constexpr int32_t RECORD_OFF_KEY_LEN = 3;
inline constexpr int32_t RECORD_HEADER_SIZE = 4;
inline constexpr int32_t CHUNK_OFF_MARKER = 0;
inline constexpr int32_t CHUNK_OFF_LENGTH = 1;
inline constexpr int32_t CHUNK_HEADER_SIZE = 2;
inline constexpr unsigned char CHUNK_MARKER = 0xE0;
inline constexpr unsigned char CHUNK_MARKER_ALT = 0x00;
inline constexpr int32_t CHUNK_MAX = 255;
// The record size is three bytes before the key length; a chunk's length
// is one byte, which bounds CHUNK_MAX; the modulo is a 16-bit field.
static_assert(RECORD_OFF_SIZE + 3 == RECORD_OFF_KEY_LEN && RECORD_OFF_KEY_LEN + 1 == RECORD_HEADER_SIZE);
static_assert(CHUNK_OFF_LENGTH + 1 == CHUNK_HEADER_SIZE && CHUNK_MAX == 0xFF);
static_assert(SUBFILE_OFF_MODULO + 2 == SUBFILE_FIRST_STREAM && SUBFILE_OFF_MODULO >= TAPE_HEADER_SIZE);
// Limits of a static record: the size in bytes, and the key lengths that a
// target takes (below STATIC_KEY_LIMIT), that are cut and refused (up to
// STATIC_KEY_MAX), and that are plainly wrong (above it).
inline constexpr int32_t RECORD_SIZE_LIMIT = 0x80000;
inline constexpr int32_t STATIC_KEY_LIMIT = 127;
inline constexpr int32_t STATIC_KEY_MAX = 188;

// Copies n bytes of static record text, each through tape_flip: eight at a
// time through a word, the rest one by one. `out` and `in` may be the same.
inline void tape_flip_copy(unsigned char* out, const unsigned char* in, size_t n) {
  // The word form holds because the flip is an XOR with one constant.
  static_assert(tape_flip(0) == TAPE_FLIP && tape_flip(0xFF) == (0xFF ^ TAPE_FLIP));
  constexpr uint64_t kFlipWord = 0x0101010101010101ull * TAPE_FLIP;
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t w;
    std::memcpy(&w, in + i, 8);
    w ^= kFlipWord;
    std::memcpy(out + i, &w, 8);
  }
  for (; i < n; ++i) out[i] = tape_flip(in[i]);
}

// Copies n bytes of dynamic record text, each through tape_flip_keep_zero:
// eight at a time through a word (a byte's high bit is flipped when any of
// its bits is set), the rest one by one. `out` and `in` may be the same.
inline void tape_flip_keep_zero_copy(unsigned char* out, const unsigned char* in, size_t n) {
  static_assert(tape_flip_keep_zero(0) == 0 && tape_flip_keep_zero(1) == (1 ^ TAPE_FLIP));
  constexpr uint64_t kLow7 = 0x7F7F7F7F7F7F7F7Full;
  constexpr uint64_t kFlipWord = 0x0101010101010101ull * TAPE_FLIP;
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t w;
    std::memcpy(&w, in + i, 8);
    w ^= (((w & kLow7) + kLow7) | w) & kFlipWord;
    std::memcpy(out + i, &w, 8);
  }
  for (; i < n; ++i) out[i] = tape_flip_keep_zero(in[i]);
}

// Size of the static record at `p`, in bytes.
inline int32_t tape_record_size(const unsigned char* p) {
  return 2 * (p[0] << 16 | p[1] << 8 | p[2]);
}

// Appends the tape form of one static record: key and data flipped, the
// data in chunks of at most `chunk` bytes (1..CHUNK_MAX) whose markers
// alternate 0xE0 and 0x00, pads where they fall, and, unless `open_end`,
// a chunk of length 0 that ends it. With `size_words` the header claims
// that size instead of the true one (damaged records).
// REQUIRES: key.size() <= 255.
void tape_encode_static_record(std::vector<unsigned char>& out, const std::string& key,
                               const std::string& data, int32_t chunk, bool open_end,
                               std::optional<int32_t> size_words = {});

// ---- Member text -------------------------------------------------------------
//
// Sequential and direct members carry text in a compressed form, in data
// blocks from offset 6, read as one stream:
//
//   0x91 n     n blanks, n from 1 to 100; with any other n the 0x91 alone
//              is dropped and n is read in its own right
//   0x8A       newline; at an even offset of the block's text it is
//              followed by a pad 0xA0 or 0x00, so that a line fills whole
//              16-bit words
//   0x80       blank
//   other      the byte + 0x80 (mod 256)
inline constexpr unsigned char TEXT_BLANK_RUN = 0x91;
inline constexpr unsigned char TEXT_NEWLINE = 0x8A;
inline constexpr unsigned char TEXT_BLANK = 0x80;
inline constexpr unsigned char TEXT_FILL = 0xA0;
inline constexpr int TEXT_MAX_BLANK_RUN = 100;

// Appends the compressed form of `text`, as it stands from an even offset
// of a block's text: runs of three blanks or more in 0x91 n, newlines with
// their pads. Returns false (appending nothing) when the text holds a
// byte the form cannot carry (0x00, which reads back as a blank, and 0x11,
// which is the blank run's code).
bool tape_encode_text(std::vector<unsigned char>& out, const std::string& text);

inline constexpr int32_t CARTRIDGE_FRAME = 512;
inline constexpr int32_t CARTRIDGE_OFF_COUNT = 2;
inline constexpr int32_t CARTRIDGE_OFF_PAYLOAD = 4;
inline constexpr int32_t CARTRIDGE_PAYLOAD = CARTRIDGE_FRAME - CARTRIDGE_OFF_PAYLOAD;
static_assert(CARTRIDGE_OFF_COUNT + 2 == CARTRIDGE_OFF_PAYLOAD);

// The -G B reader takes its byte stream in requests of this size.
inline constexpr int32_t TAPE_STREAM_REQUEST = 32768;
// The smallest block size tapeinfo may name.
inline constexpr int32_t TAPE_MIN_BLOCK_SIZE = 5120;

inline uint16_t tape_get_u16(const unsigned char* p) {
  return static_cast<uint16_t>(p[0] << 8 | p[1]);
}
inline void tape_put_u16(unsigned char* p, uint16_t v) {
  p[0] = static_cast<unsigned char>(v >> 8);
  p[1] = static_cast<unsigned char>(v);
}

inline uint16_t tape_block_no(const unsigned char* block) {
  return tape_get_u16(block + TAPE_OFF_BLOCK_NO);
}
// Length in bytes that the header claims, header included.
inline int32_t tape_block_length(const unsigned char* block) {
  return 2 * static_cast<int32_t>(tape_get_u16(block + TAPE_OFF_LENGTH));
}
inline uint8_t tape_block_type(const unsigned char* block) { return block[TAPE_OFF_TYPE]; }

// REQUIRES: block has TAPE_HEADER_SIZE bytes; length is even.
inline void tape_put_header(unsigned char* block, uint16_t number, int32_t length, uint8_t type) {
  tape_put_u16(block + TAPE_OFF_BLOCK_NO, number);
  tape_put_u16(block + TAPE_OFF_LENGTH, static_cast<uint16_t>(length / 2));
  block[TAPE_OFF_SPARE] = 0;
  block[TAPE_OFF_TYPE] = type;
}

// ---- Dynamic files -------------------------------------------------------------
//
// A dynamic file of the source is a hashed file whose first sub-file is a
// direct one: the primary part, one page chain head per group; a second
// direct sub-file is the overflow part. Each part is a byte stream of
// pages that data blocks cut at any point; the first data block of a part
// is at least DYN_FIRST_BLOCK_MIN long and its stream opens with a header
// page of DYN_PAGE_UNIT bytes, so the pages start at block offset
// DYN_PAGES_START. Later blocks carry the stream from offset 6.
//
// Header page, offsets in the first data block of the primary part:
//
//   OFFSET  SIZE  DESCRIPTION
//   41      3     source modulo (number of groups)
//   57      3     page number of the index description page, 0 for none
//
// Page, DYN_PAGE_UNIT bytes or a multiple of it (at most DYN_PAGE_MAX_UNITS):
//
//   OFFSET  SIZE  DESCRIPTION
//   0       1     size in units of DYN_PAGE_UNIT bytes
//   1       3     page number
//   4       1     page mark "q"
//   5       1     page kind: "f" a free page, "k" never part of a group chain
//   6       5     not used
//   11      1     non-zero on a group page
//   12      1     non-zero when the chain goes on
//   13      3     next page of the chain, 0 at its end
//   16      3     not used
//   19      3     group number
//   22      ..    records, ended by 0xFF 0xFE; on a page of a large record's
//                 data, that data
//
// The records of a group run as one stream through the pages of its chain,
// cut wherever a page ends.
//
// Page record, key and data with every non-zero byte XOR 0x80:
//
//   OFFSET  SIZE  DESCRIPTION
//   0       1     0xFF with byte 1 makes a mark: 0xFF 0xFE ends the records,
//                 0xFF 0xFF is a record passed over
//   1       1     key length
//   2       2     not used
//   4       2     record size in 16-bit words, this header included
//   6       1     not used
//   7       3     data length in bytes
//   10      1     not used
//   11      3     large record: first page of the chain that holds its data
//   14      k     key
//   14+k    0/1   pad when k is odd
//   ..      d     data when the record holds it in line
//   ..      0/1   pad when d is odd
//
// A record holds its data in line when its size covers the padded key and
// data; a large record's size covers only its header and padded key.
//
// Index description page, a page of the overflow part:
//
//   OFFSET  SIZE  DESCRIPTION
//   18      2     byte count of the text
//   20      ..    the text, every byte XOR 0x80: fields parted by 0xFE; field
//                 2 the count of indexes, 6 and 7 the counts of D and I
//                 indexes, and from field 11 one field per index, whose
//                 value-mark parts 2 to 5 are its name, type, number and
//                 one more letter
inline constexpr int32_t DYN_PAGE_UNIT = 2048;
inline constexpr int32_t DYN_PAGE_MAX_UNITS = 4;
inline constexpr int32_t DYN_PAGE_ROOM = 0x4000;  // a page buffer; the longest in-line record
inline constexpr int32_t DYN_FIRST_BLOCK_MIN = 4096;
inline constexpr int32_t DYN_PAGES_START = TAPE_HEADER_SIZE + DYN_PAGE_UNIT;
inline constexpr int32_t DYN_HDR_OFF_MODULO = 41;
inline constexpr int32_t DYN_HDR_OFF_INDEX = 57;

inline constexpr int32_t DYN_PAGE_OFF_UNITS = 0;
inline constexpr int32_t DYN_PAGE_OFF_NUMBER = 1;
inline constexpr int32_t DYN_PAGE_OFF_MARK = 4;
inline constexpr int32_t DYN_PAGE_OFF_KIND = 5;
inline constexpr int32_t DYN_PAGE_OFF_GROUP_PAGE = 11;
inline constexpr int32_t DYN_PAGE_OFF_HAS_NEXT = 12;
inline constexpr int32_t DYN_PAGE_OFF_NEXT = 13;
inline constexpr int32_t DYN_PAGE_OFF_GROUP = 19;
inline constexpr int32_t DYN_PAGE_HEAD = 22;
inline constexpr unsigned char DYN_PAGE_MARK = 'q';
inline constexpr unsigned char DYN_KIND_FREE = 'f';
inline constexpr unsigned char DYN_KIND_NO_CHAIN = 'k';
// A page whose mark is not where it is expected is looked for among the
// stream bytes that end at the page's 22nd byte.
inline constexpr int32_t DYN_SHIFT_WINDOW = 32;

inline constexpr int32_t DYN_REC_OFF_KEY_LEN = 1;
inline constexpr int32_t DYN_REC_OFF_SIZE = 4;
inline constexpr int32_t DYN_REC_OFF_DATA_LEN = 7;
inline constexpr int32_t DYN_REC_OFF_FIRST_PAGE = 11;
inline constexpr int32_t DYN_REC_HEADER = 14;
inline constexpr unsigned char DYN_MARK = 0xFF;
inline constexpr unsigned char DYN_MARK_END = 0xFE;
inline constexpr unsigned char DYN_MARK_SKIP = 0xFF;
// Limits of a page record: keys below DYN_KEY_LIMIT are taken, up to
// DYN_KEY_MAX refused, above it wrong; in-line data below DYN_INLINE_LIMIT,
// large data below DYN_LARGE_LIMIT.
inline constexpr int32_t DYN_KEY_LIMIT = 128;
inline constexpr int32_t DYN_KEY_MAX = STATIC_KEY_MAX;  // the same bound as a static key
inline constexpr int32_t DYN_INLINE_LIMIT = 16384;
inline constexpr int32_t DYN_LARGE_LIMIT = 0x7FC00;

inline constexpr int32_t DYN_INDEX_OFF_COUNT = 18;
inline constexpr int32_t DYN_INDEX_OFF_TEXT = 20;

inline int32_t tape_get_u24(const unsigned char* p) { return p[0] << 16 | p[1] << 8 | p[2]; }
inline void tape_put_u24(unsigned char* p, int32_t v) {
  p[0] = static_cast<unsigned char>(v >> 16);
  p[1] = static_cast<unsigned char>(v >> 8);
  p[2] = static_cast<unsigned char>(v);
}

inline int32_t dyn_page_units(const unsigned char* page) { return page[DYN_PAGE_OFF_UNITS]; }
inline int32_t dyn_page_number(const unsigned char* page) { return tape_get_u24(page + DYN_PAGE_OFF_NUMBER); }
inline bool dyn_page_marked(const unsigned char* page) { return page[DYN_PAGE_OFF_MARK] == DYN_PAGE_MARK; }
inline int32_t dyn_page_next(const unsigned char* page) { return tape_get_u24(page + DYN_PAGE_OFF_NEXT); }
inline int32_t dyn_page_group(const unsigned char* page) { return tape_get_u24(page + DYN_PAGE_OFF_GROUP); }
inline bool dyn_is_end_mark(const unsigned char* p) { return p[0] == DYN_MARK && p[1] == DYN_MARK_END; }
// Record size in bytes, data length and first data page of the record at p.
inline int32_t dyn_record_size(const unsigned char* p) { return 2 * tape_get_u16(p + DYN_REC_OFF_SIZE); }
inline int32_t dyn_record_data_len(const unsigned char* p) { return tape_get_u24(p + DYN_REC_OFF_DATA_LEN); }
inline int32_t dyn_record_first_page(const unsigned char* p) { return tape_get_u24(p + DYN_REC_OFF_FIRST_PAGE); }

// The three-byte fields close the page head and the record header; the
// header page fits the first block; a page buffer holds the largest page.
static_assert(DYN_PAGE_OFF_GROUP + 3 == DYN_PAGE_HEAD && DYN_REC_OFF_FIRST_PAGE + 3 == DYN_REC_HEADER);
static_assert(DYN_HDR_OFF_INDEX + 3 <= DYN_PAGES_START && DYN_PAGES_START <= DYN_FIRST_BLOCK_MIN);
static_assert(DYN_PAGE_UNIT * DYN_PAGE_MAX_UNITS <= DYN_PAGE_ROOM);
static_assert(DYN_INDEX_OFF_COUNT + 2 == DYN_INDEX_OFF_TEXT && DYN_INDEX_OFF_TEXT < DYN_PAGE_UNIT);

// ---- Dynamic files: the decoder's reading of the fields -------------------
//
// Every field of the header page, of a page, of a page record and of the
// index description page that the dynamic decoder reads is read through
// these, so that no offset of the dynamic layout is known outside this
// header.
inline int32_t dyn_header_modulo(const unsigned char* first_block) {
  return tape_get_u24(first_block + DYN_HDR_OFF_MODULO);
}
inline int32_t dyn_header_index_page(const unsigned char* first_block) {
  return tape_get_u24(first_block + DYN_HDR_OFF_INDEX);
}
inline unsigned char dyn_page_kind(const unsigned char* page) { return page[DYN_PAGE_OFF_KIND]; }
inline bool dyn_page_on_group(const unsigned char* page) { return page[DYN_PAGE_OFF_GROUP_PAGE] != 0; }
inline bool dyn_page_has_next(const unsigned char* page) { return page[DYN_PAGE_OFF_HAS_NEXT] != 0; }
// Offset of the first end mark (0xFF 0xFE) that starts at or after `from`
// and ends before `length`; `length` when there is none.
inline int32_t dyn_find_end_mark(const unsigned char* page, int32_t from, int32_t length) {
  for (int32_t i = from; i + 1 < length;) {
    const void* hit = std::memchr(page + i, DYN_MARK, static_cast<size_t>(length - 1 - i));
    if (hit == nullptr) break;
    i = static_cast<int32_t>(static_cast<const unsigned char*>(hit) - page);
    if (page[i + 1] == DYN_MARK_END) return i;
    ++i;
  }
  return length;
}

inline bool dyn_is_skip_mark(const unsigned char* p) { return p[0] == DYN_MARK && p[1] == DYN_MARK_SKIP; }
inline int32_t dyn_record_key_len(const unsigned char* p) { return p[DYN_REC_OFF_KEY_LEN]; }
inline const unsigned char* dyn_record_key(const unsigned char* p) { return p + DYN_REC_HEADER; }
// Bytes of a record's header and padded key: where in-line data starts,
// and the whole size of a large record.
inline constexpr int32_t dyn_record_key_room(int32_t key_len) { return DYN_REC_HEADER + key_len + key_len % 2; }
// Size of a record that holds `data_len` bytes in line.
inline constexpr int32_t dyn_record_inline_size(int32_t key_len, int32_t data_len) {
  return dyn_record_key_room(key_len) + data_len + data_len % 2;
}
// The data bytes of a page of a large record's chain.
inline const unsigned char* dyn_page_body(const unsigned char* page) { return page + DYN_PAGE_HEAD; }

// Byte count and text of an index description page.
inline int32_t dyn_index_count(const unsigned char* page) { return tape_get_u16(page + DYN_INDEX_OFF_COUNT); }
inline unsigned char* dyn_index_text(unsigned char* page) { return page + DYN_INDEX_OFF_TEXT; }

// The head of one page, over its first DYN_PAGE_HEAD bytes.
struct DynPageHead {
  int32_t units = 1;
  int32_t number = 0;
  unsigned char kind = 0;  // 0, DYN_KIND_FREE or DYN_KIND_NO_CHAIN
  bool group_page = false;
  int32_t next = 0;        // 0: the chain ends here
  int32_t group = 0;
  bool marked = true;      // false writes no page mark (damage)
};
// REQUIRES: page has DYN_PAGE_HEAD bytes.
void tape_encode_dyn_head(unsigned char* page, const DynPageHead& head);
// Appends the tape form of one page record: key and data flipped, with
// their pads. A large record (first_page above 0) carries its key only
// and claims `data_len` bytes on the chain from first_page.
// REQUIRES: key.size() <= 255.
void tape_encode_dyn_record(std::vector<unsigned char>& out, const std::string& key,
                            const std::string& data, int32_t data_len = -1, int32_t first_page = 0);

// Label fields in plain form.
struct TapeLabel {
  int32_t tape_no = 0;
  int32_t revision = 0;
  char name[LABEL_NAME_SIZE + 1] = {};  // trailing blanks cut
  char date[3 * (LABEL_DATE_FIELD + 1)] = {};  // "MM-DD-YY"
};

// REQUIRES: label has LABEL_SIZE bytes.
TapeLabel tape_decode_label(const unsigned char* label);
// Writes the label fields in their tape form over the first LABEL_SIZE
// bytes (the header is left to tape_put_header). Missing date digits and
// name characters become blanks.
void tape_encode_label(unsigned char* label, const TapeLabel& fields);
