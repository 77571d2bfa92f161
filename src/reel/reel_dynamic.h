// Dynamic files on tape: pages of a primary and an overflow part, put back
// into chains and taken apart into records (layouts in reel_tape_format.h).
//
// The pages of a part stand in a byte stream that data blocks cut at any
// point, and the stream may have slipped against the places where pages
// are expected: a page whose mark is missing is looked for among the
// bytes just read, with the previous block at hand for a page that began
// in it. A group's chain starts at its primary page and goes on in pages
// of the overflow part, in any order: a page that arrives before its group
// has reached it waits in the file "overflow", and is fetched when the
// overflow part has been read. A record cut by the end of a page waits as
// the group's tail until its next page arrives.
//
// Every size and number taken from a page is checked before it is used; a
// page that cannot be read goes whole to BAD_BLOCKS and the file is
// reported with "unsolved data block error"; the rest of the file and the
// files after it go on.
#pragma once

#include <cstdint>

// Passes of reel_dyn_page.
enum DynPass : int {
  DYN_PASS_PRIMARY = 0,   // a page of the primary part
  DYN_PASS_OVERFLOW = 1,  // a page of the overflow part, as it arrives
  DYN_PASS_HELD = 2,      // a page fetched from "overflow" afterwards
};

// Where each group of the source file stands.
struct DynGroupState {
  int32_t next_page;       // the page the chain expects next, 0 for none
  int32_t tail_len;        // bytes of a record cut by the end of the last page
  unsigned char* tail;     // those bytes, in the level arena of the file
};

// The most pages "overflow" holds for one file.
inline constexpr int32_t REEL_OVERFLOW_SLOTS = 100000;

// Restores one dynamic file.
// REQUIRES: the buffer holds its first sub-file description (a direct one).
void reel_dyn_file(unsigned char* buffer, int32_t* length);

// Takes the records out of one page of `length` bytes. `groups` has
// `modulo` + 1 entries. Returns 1, or 0 when the page is bad.
// REQUIRES: page is a buffer of DYN_PAGE_ROOM bytes.
int reel_dyn_page(unsigned char* page, int32_t length, int pass, DynGroupState* groups, int32_t modulo);

// Decodes the page record at `record`: 0 at the end mark, 1 to go on, -1
// when the page must be given up. Counts it in the current-file slot and,
// in a restore, hands it to the loader (in line) or to the large path.
// REQUIRES: the record's size in bytes can be read from `record`.
int reel_dyn_record(const unsigned char* record);
// 2 at an end mark, 1 where a plausible record starts, 0 otherwise.
int reel_dyn_check_record(const unsigned char* position);

// The file "overflow" in the working directory, emptied; 1 or 0.
int reel_overflow_open();
void reel_overflow_close();
// Keeps a page of `bytes` bytes: its first DYN_PAGE_UNIT bytes under its
// number, each further unit under 0. Pages under DYN_PAGE_HEAD bytes are
// not kept; with the table full, "Block is overflowed!" and nothing kept.
void reel_overflow_put(const unsigned char* page, int32_t bytes);
// The overflow page `page_number` held in the file "overflow" into
// `page_buffer` (room for 0x4000 bytes), its length in *length_out; the
// page is no longer held afterwards. 1, or 0 when it is not held (or its
// size byte is over 4).
int reel_overflow_get(unsigned char* page_buffer, int32_t page_number, int32_t* length_out);

// Appends what the index description page of `length` bytes tells to
// idx_list: the file's counts, then one line per index. The page's text
// is decoded in place.
void reel_index_info(unsigned char* page, int32_t length);
