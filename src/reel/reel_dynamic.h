// Dynamic files on tape: pages of a primary and an overflow part, put back
// into chains and taken apart into records.
#pragma once

#include <cstdint>

// Restores one dynamic file.
// REQUIRES: the buffer holds its first sub-file description (a direct one).
void reel_dyn_file(unsigned char* buffer, int32_t* length);
