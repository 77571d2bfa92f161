// The walk over a saved account on tape.
//
// After the reel label a save is, per account: the account's description
// (a block of level_base bytes), then for each file its description
// (level_file bytes) and what its type calls for: the data blocks of a
// member, or the sub-file or member descriptions (level_sub bytes) of a
// hashed file or a directory, each with its data blocks. A block of type 5
// ends the save. The three lengths come from -L (see reel_settings.h).
//
// Every handler leaves the next block not yet dealt with in the buffer and
// its length in *length. Damaged or unknown blocks are logged to dispmsg and
// passed over; nothing here ends the run.
#pragma once

#include <cstdint>
#include <string>

// Deals with the block in `buffer` and the blocks of its object; returns 0
// at the end-of-save block, else 1.
// REQUIRES: *length is the length reel_next_block gave for the block.
int reel_dispatch_block(unsigned char* buffer, int32_t* length);

// The account description in `buffer`: names the account, closes the one
// before it (an analysis ends there instead), and passes the block on.
void reel_account_block(unsigned char* buffer, int32_t* length);

// 1 when a file of this name belongs to every target account, so that a
// tape file of the name is restored as "XX" + name; the match is exact.
int reel_is_reserved_name(const char* name);
// `name`, with "XX" in front when it is reserved.
std::string reel_guard_reserved_name(std::string name);

// The name under which a file of the tape is restored: a leading "D_" is
// dropped and makes the file a dictionary (*file_kind 1, else 0), "VOC"
// becomes "DUMP_VOC" (the tape's VOC never merges into the target's), and
// a reserved name gets "XX" in front.
std::string reel_file_name(const char* tape_name, int32_t* file_kind);
