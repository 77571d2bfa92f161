// Sequential and direct members: program text that becomes one
// operating-system file each, in SAM or DAM or inside a directory file.
//
// A member's text is decoded block by block (reel_text_from_tape) into one
// transfer buffer and written out in chunks: the first chunk makes the
// file afresh, later ones are appended, so a member of any length arrives
// whole. A member whose name on disk differs from its tape name is written
// down in pgm_map (tape path -> name) and pgm_list.
#pragma once

#include <cstddef>
#include <cstdint>

// The transfer buffer, and the room under which it is written out before
// the next block is decoded into it.
inline constexpr size_t REEL_MEMBER_BUFFER = 0x19000;
inline constexpr size_t REEL_MEMBER_FLUSH_ROOM = 0x5001;

// Restores a member at the top of the account.
// REQUIRES: the buffer holds the member's description.
void reel_member_file(unsigned char* buffer, int32_t* length);
// Restores the members of the directory of the current-file slot, from the
// block at hand; what is not a member description is left to the caller.
void reel_dir_members(unsigned char* buffer, int32_t* length);
// Writes one chunk of a member to "<directory>/<item>": `first` makes the
// file afresh, otherwise the chunk is appended. An item that ends in the
// field mark loses it. A file that can't be opened for lack of rights is
// removed and opened again, once. Returns 1, or -1 after a message.
int reel_write_member(const char* directory, const char* item, int32_t item_len, const char* data,
                      int32_t data_len, int first);
