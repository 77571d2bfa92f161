// Static hashed files on tape: the sub-files of a hashed file and the
// records in their data blocks (layouts in reel_tape_format.h).
//
// The record machine keeps its state for the whole run: a record, its
// header, its key or one of its chunks may be cut by the end of a block,
// and the machine takes up where it stopped at the next block, and even at
// the first block of the next sub-file. Every size and key length comes
// from the tape and is checked against its limit before it is used; a
// damaged record gives its "Record error" line in dispmsg and the rest of
// the file goes on.
#pragma once

#include <cstdint>

// Walks the sub-files of a static hashed file, from the block at hand (the
// first sub-file description, if there is one); makes and loads the target
// from the first sub-file with data. Leaves the next block not dealt with
// in the buffer.
void reel_hashed_subfiles(unsigned char* buffer, int32_t* length);

// Decodes the records of one data block; `first` is 1 for the first data
// block of a sub-file, whose stream starts at offset 12. Returns 0 when
// the record size 0 (the end of the sub-file) was met, else 1.
int reel_group_block(unsigned char* buffer, int32_t* length, int first);

// Advances the record machine over the bytes [pos, end) of the block, for
// the record of `size` bytes and `key_len` key bytes whose header has been
// read. Returns 1 when the record is finished (counted in the current-file
// slot and, in a restore, handed to the loader or refused), 0 when it goes
// on in the next block.
int reel_group_record(const unsigned char* pos, const unsigned char* end, int32_t size,
                      int32_t key_len);
