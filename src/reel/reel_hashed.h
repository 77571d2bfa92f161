// Static hashed files on tape: the sub-files of a hashed file and the
// records in their data blocks.
#pragma once

#include <cstdint>

// Walks the sub-files of a static hashed file, from the block at hand (the
// first sub-file description, if there is one); makes and loads the target
// from the first sub-file with data. Leaves the next block not dealt with
// in the buffer.
void reel_hashed_subfiles(unsigned char* buffer, int32_t* length);
