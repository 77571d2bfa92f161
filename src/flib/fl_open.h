// Opening and closing hashed files.
//
// M_openfile checks a file's headers in a fixed order before it trusts any
// of them: language bytes, hash type word, format word, RFS word, then the
// file's size against its block size and modulo. A dynamic file then joins
// the shared file table and gets a row per part in the large-file table.
#pragma once

#include <cstdint>

struct REL_TYPE;

// Mode bit that marks a temporary open.
inline constexpr int32_t OPEN_TEMPORARY = static_cast<int32_t>(0x80000000u);
// Mode bit that opens the data without the file's index (tools that look
// at a damaged index).
inline constexpr int32_t OPEN_NO_INDEX = 0x40000000;

// mode 0 read, 1 write, other values read-write; OPEN_TEMPORARY may be
// OR-ed in. 1 opened, 0 absent or no permission, -1 error.
int M_openfile(REL_TYPE* rel, const char* path, int32_t mode);
void M_closefile(REL_TYPE* rel);
