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

// How a file is opened. The value is the mode word the handle keeps
// (rel->open_mode); any word but 0 opens the parts for writing.
enum class OpenMode : int32_t {
  Read = 0,
  Write = 1,
  ReadWrite = 2,
};

// `mode`: an OpenMode value, with OPEN_TEMPORARY and OPEN_NO_INDEX OR-ed in
// as asked; any other value but 0 is read-write too. 1 opened, 0 absent or
// no permission, -1 error.
int M_openfile(REL_TYPE* rel, const char* path, int32_t mode);
inline int M_openfile(REL_TYPE* rel, const char* path, OpenMode mode, int32_t flags = 0) {
  return M_openfile(rel, path, static_cast<int32_t>(mode) | flags);
}
void M_closefile(REL_TYPE* rel);
