// Small services on tape text and numbers.
//
// Text on tape has the high bit set on each character (tape_flip in
// reel_tape_format.h); zero bytes are filler. Each routine says what it
// does with them.
#pragma once

#include <cstddef>
#include <cstdint>

// The smallest prime at or above n (n itself if n < 4), searched below
// 1,000,000,000; at that limit a message is printed and n is returned.
int32_t reel_next_prime(int32_t n);

// 1 when the text is only digits, fewer than ten of them (the empty text
// passes), else 0.
int reel_is_number(const char* text);

// Each byte through tape_flip_keep_zero (zero bytes kept), terminated,
// trailing blanks cut. Returns the length after the cut.
// REQUIRES: destination has room for length + 1 bytes.
int reel_name_from_tape(char* destination, const unsigned char* source, int length);

// Each byte through tape_flip_keep_zero (zero bytes kept), terminated.
// REQUIRES: destination has room for length + 1 bytes.
void reel_mask_copy(char* destination, const unsigned char* source, int length);

// Decodes compressed member text:
//   0x91 n (1..100)  n blanks;  0x91 with 0 or n > 100: nothing, n stands alone
//   0x8A             newline; at an even source offset a following 0xA0 or 0
//                    is filler and skipped
//   0x80             blank
//   other            tape_flip(byte)
// Returns the bytes written.
// REQUIRES: destination has room for 50 * length + 1 bytes (the worst case).
int reel_text_from_tape(char* destination, const unsigned char* source, int length);
inline constexpr size_t reel_text_worst_case(size_t source_length) {
  return 50 * source_length + 1;
}

// The next field of a NUL-terminated record: up to the next field or record
// mark (those in force when `system_marks` is non-zero, the tape's when 0),
// at most 128 characters, terminated. Returns 1, stepping past the mark if
// there is one; when the limit cuts the field, skips to the next field mark
// and returns 0.
// REQUIRES: destination has room for 129 bytes.
inline constexpr int REEL_ATTRIBUTE_LIMIT = 128;
int reel_next_attribute(const unsigned char** cursor, char* destination, int system_marks);

// Removes the first `count` characters of the text, in place.
void reel_drop_prefix(char* text, int count);

// strncpy of at most n - 1 characters, then a terminator at place n, one
// beyond the copy: place n - 1 keeps its old content when the source is long.
// REQUIRES: destination has room for n + 1 bytes.
char* reel_copy_limited(char* destination, const char* source, int n);

// Prints each byte from 160 to 253 as "   %c" of its tape_flip (the byte
// less 128), every other one as " %03d", then "\n\n".
void reel_print_bytes(const unsigned char* bytes, int length);

// Reads at least one block through reel_next_block, leaving each length in
// *length. Mode 0 stops at the first block that is not a data block (type
// 1); mode 1 also passes description blocks of sub-file length (level_sub),
// and so a whole object with its sub-files. Both stop at the end-of-save
// block, whatever its length.
void reel_skip_blocks(unsigned char* buffer, int32_t* length, int mode);
// The modes of reel_skip_blocks by name.
enum class SkipMode : int {
  Data = 0,    // passes the data blocks at hand
  Object = 1,  // passes a whole object with its sub-objects
};
inline void reel_skip_blocks(unsigned char* buffer, int32_t* length, SkipMode mode) {
  reel_skip_blocks(buffer, length, static_cast<int>(mode));
}

// Keeps data that could not be placed: "\n<name>\n" and the raw bytes,
// appended to BAD_BLOCKS in the working directory (made afresh by the
// run's first call).
void reel_log_bad_block(const char* name, const unsigned char* data, int32_t size);
