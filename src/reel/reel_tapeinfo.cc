// The unit's line of tapeinfo: which devices to open and the block size.
//
// tapeinfo holds one line per unit, four fields separated by blanks (the
// blank is the only separator): the unit, whose first character is the
// line's first character; the non-rewind device; the rewind device; the
// block size in decimal. There is no comment syntax: a line that does not
// start with the unit is passed over, but still counts against the ten.
#include <cstdio>
#include <cstdlib>
#include <climits>
#include <cstring>
#include <memory>
#include <string>

#include "common/readroot.h"
#include "common/mrv_msg.h"
#include "reel/reel_device.h"
#include "reel/reel_tape_format.h"

std::string non_rewind_device;
std::string rewind_device;
int32_t tape_block_size = 0;
int32_t tape_is_stream = 0;

namespace {

struct FileCloser {
  void operator()(FILE* f) const { std::fclose(f); }
};

std::string with_separator(std::string dir) {
  if (!dir.empty() && dir.back() != '/') dir += '/';
  return dir;
}

// The next blank-separated word, or the empty text when the line has no
// more; `cursor` moves past it.
std::string next_word(char*& cursor) {
  while (*cursor == ' ') ++cursor;
  const char* start = cursor;
  while (*cursor != '\0' && *cursor != ' ') ++cursor;
  return std::string(start, static_cast<size_t>(cursor - start));
}

}  // namespace

int reel_find_home(char* buffer) {
  buffer[0] = '\0';
  std::string include = get_include_dir_if_known();
  if (include.empty()) {
    if (auto home = registry_value("MRVHOME"); home && !home->empty())
      include = with_separator(*home) + "include";
  }
  if (include.empty()) return 0;
  std::string path = include + "/path";
  FILE* f = std::fopen(path.c_str(), "r");
  if (f == nullptr) return 0;
  if (std::fgets(buffer, REEL_TAPEINFO_LINE, f) == nullptr) buffer[0] = '\0';
  std::fclose(f);
  buffer[std::strcspn(buffer, " \t\r\n\f\v")] = '\0';
  return buffer[0] != '\0';
}

int reel_read_tapeinfo(char unit) {
  std::string home;
  if (const char* env = std::getenv("MRVHOME"); env != nullptr) {
    home = env;
  } else {
    char found[REEL_TAPEINFO_LINE];
    if (!reel_find_home(found)) {
      M_errmsg(0, "Please setenv MRVHOME!\n");
      return 0;
    }
    home = found;
  }
  std::string path = with_separator(home) + "sys/tapeinfo";
  std::unique_ptr<FILE, FileCloser> table(std::fopen(path.c_str(), "r"));
  if (!table) {
    M_errmsg(0, "can't open tapeinfo\n");
    return 0;
  }

  char line[REEL_TAPEINFO_LINE];
  bool found = false;
  for (int i = 0; i < REEL_TAPEINFO_LINES && !found; ++i) {
    if (std::fgets(line, sizeof line, table.get()) == nullptr) break;
    found = line[0] == unit;
  }
  table.reset();
  if (!found) {
    M_errmsg(0, "Unit is not mounted, check your tapeinfo file\n");
    return 0;
  }

  // A line of fewer than four fields leaves the missing ones empty, and an
  // empty block size reads as 0, which the size test refuses.
  line[std::strcspn(line, "\r\n")] = '\0';
  char* cursor = line;
  next_word(cursor);
  non_rewind_device = next_word(cursor);
  rewind_device = next_word(cursor);
  long size = std::strtol(next_word(cursor).c_str(), nullptr, 10);
  tape_block_size = static_cast<int32_t>(size > INT32_MAX ? INT32_MAX : size < INT32_MIN ? INT32_MIN : size);

  M_errmsg(0, "non rewind device name = %s\n", non_rewind_device.c_str());
  M_errmsg(0, "rewind device name = %s\n", rewind_device.c_str());
  M_errmsg(0, "Block size = %d\n", tape_block_size);
  if (tape_block_size < TAPE_MIN_BLOCK_SIZE) {
    M_errmsg(0, "Block size is too small (less than 5120)\n");
    return 0;
  }
  return 1;
}
