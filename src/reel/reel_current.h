// The current-file slot: the file on tape that is being restored or
// analysed, from its description block until the next one.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "flib/fl_rel.h"

enum FileKind : int32_t {
  FILE_KIND_DATA = 0,
  FILE_KIND_DICT = 1,
  FILE_KIND_DIR = 2,
  FILE_KIND_SAM = 3,
  FILE_KIND_DAM = 4,
};

// Texts of the kinds as messages show them, four characters each; a kind
// out of range shows as four blanks.
inline constexpr const char* reel_file_kind_text(int32_t kind) {
  constexpr const char* kTexts[] = {"DATA", "DICT", "DIR ", "SAM ", "DAM "};
  return kind >= 0 && kind <= 4 ? kTexts[kind] : "    ";
}

struct CurrentFile {
  int64_t key_bytes = 0;
  int64_t data_bytes = 0;
  int32_t record_count = 0;
  int32_t file_kind = FILE_KIND_DATA;
  int32_t modulo = 0;
  // errno of the first write into the target that failed, 0 while every
  // write succeeds. From that write on nothing more is written into the
  // file, and it is named in dispmsg as incomplete.
  int32_t write_error = 0;
  // Records that stand in the target at its close (a hashed target's
  // "records restored").
  int32_t records_standing = 0;
  std::string name;        // name on tape, after the name rules
  std::string short_name;  // name on disk
  // The open target; null when none is open. Held by address by the file
  // library while open, so it lives on the heap and is never copied.
  std::unique_ptr<REL_TYPE> rel;
};

// The file is whole: no write into it failed.
inline bool reel_file_complete(const CurrentFile& f) { return f.write_error == 0; }

extern CurrentFile reel_current;
// The run's log in the working directory; open from reel_open_dispmsg to the
// account's close-down.
extern FILE* dispmsg;
