// Tape units, reels, labels and logical reads.
#pragma once

#include <cstdint>

// Opens the unit named in tapeinfo; returns its block size.
int32_t reel_open_unit(char unit_char);
// The logical length of the next good block, read into `buffer`.
int32_t reel_next_block(unsigned char* buffer);
// Closes the tape device; harmless when none was opened.
void reel_close_device();
