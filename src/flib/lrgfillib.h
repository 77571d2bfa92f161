// Descriptors of large (multi-part) files.
#pragma once

#include <cstdint>

// Size of the table of large-file descriptors.
extern int32_t M_large_file_limit;
void M_set_large_file_limit(int32_t limit);
