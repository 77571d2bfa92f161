// Dynamic files on tape: pages of a primary and an overflow part, put back
// into chains and taken apart into records.
#pragma once

#include <cstdint>

// Restores one dynamic file.
// REQUIRES: the buffer holds its first sub-file description (a direct one).
void reel_dyn_file(unsigned char* buffer, int32_t* length);

// The overflow page `page_number` held in the file "overflow" into
// `page_buffer` (room for 0x4000 bytes), its length in *length_out. 1, or
// 0 when it is not held.
int reel_overflow_get(unsigned char* page_buffer, int32_t page_number, int32_t* length_out);
