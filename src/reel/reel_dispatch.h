// The walk over a saved account on tape.
#pragma once

#include <cstdint>

// Deals with the block in `buffer` and the blocks of its object; returns 0
// at the end-of-save block. On return the buffer holds the next block not yet
// dealt with and `length` its logical length.
int reel_dispatch_block(unsigned char* buffer, int32_t* length);
