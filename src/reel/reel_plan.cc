#include "reel/reel_plan.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "reel/reel_account.h"
#include "reel/reel_current.h"
#include "reel/reel_dispatch.h"
#include "reel/reel_init.h"
#include "reel/reel_resume.h"
#include "reel/reel_settings.h"
#include "reel/reel_sizing.h"
#include "reel/reel_target.h"
#include "reel/reel_util.h"

namespace {

// An analysis has no target yet: the plan sizes for blocks of 1 KiB, the
// block of a file made without a -B entry.
constexpr int64_t kPlanBlockSize = 1024;

FILE* analyse_handle = nullptr;

// A plan line is read into this many bytes: 1,087 characters and the end.
constexpr size_t kPlanLineSize = 1088;
constexpr char kPlanSeparators[] = ", \t\r\n";
// The fields that -C reads: kind, name, modulo. The counts after them are
// for the administrator, so an edited plan may drop them.
constexpr size_t kPlanFieldsRead = 3;

constexpr const char* kPlanKinds[] = {"DATA", "DICT", " DIR", " SAM", " DAM"};

const char* plan_kind_text(int32_t kind) { return kind >= 0 && kind <= 4 ? kPlanKinds[kind] : "????"; }

// The kind of a plan line's first token; -1 for a line that -C passes
// over (" SAM" and " DAM" among them, and any kind not in capitals).
int32_t plan_kind_of(const std::string& token) {
  if (token == "DATA") return FILE_KIND_DATA;
  if (token == "DICT") return FILE_KIND_DICT;
  if (token == "DIR") return FILE_KIND_DIR;
  return -1;
}

// The plan of -C lies in the directory above the account, where -A left
// it; the run works inside the account. An absolute name is taken as it is.
std::string plan_path(const std::string& name) { return name.starts_with("/") ? name : "../" + name; }

struct CloseFile {
  void operator()(FILE* file) const { std::fclose(file); }
};

// Reads one line of at most kPlanLineSize - 1 characters; the rest of a
// longer line is passed. A NUL ends the line's text, as it ends a string,
// but not the line: the next line is read in full. False at the end of
// the plan.
bool read_plan_line(FILE* plan, std::string* line) {
  line->clear();
  int c = std::fgetc(plan);
  if (c == EOF) return false;
  for (; c != EOF; c = std::fgetc(plan)) {
    if (line->size() < kPlanLineSize - 1) line->push_back(static_cast<char>(c));
    if (c == '\n') break;
  }
  line->erase(std::min(line->find('\0'), line->size()));
  return true;
}

std::vector<std::string> plan_tokens(const std::string& line) {
  std::vector<std::string> tokens;
  size_t at = line.find_first_not_of(kPlanSeparators);
  while (at != std::string::npos) {
    size_t end = line.find_first_of(kPlanSeparators, at);
    tokens.push_back(line.substr(at, end == std::string::npos ? std::string::npos : end - at));
    at = end == std::string::npos ? end : line.find_first_not_of(kPlanSeparators, end);
  }
  return tokens;
}

}  // namespace

int32_t reel_suggest_modulo(int32_t kind, int64_t key_bytes, int64_t data_bytes,
                            int32_t records, int32_t tape_modulo) {
  bool hashed = kind == FILE_KIND_DATA || kind == FILE_KIND_DICT;
  int32_t s = tape_modulo;
  if (hashed && records > 0) {
    // The average key is taken over one record too many. Keys are far
    // shorter than a block; the guard only keeps damaged counts from
    // dividing by zero.
    int64_t room = std::max<int64_t>(reel_group_room(kPlanBlockSize, key_bytes, int64_t{records} + 1), 1);
    int64_t blocks = reel_record_blocks(key_bytes, data_bytes, records, room);
    // A tenth more groups to spare: 1 + trunc(1.1 * blocks), computed in
    // double precision as 1 - trunc(-1.1 * blocks).
    int64_t target = 1 - static_cast<int64_t>(std::trunc(static_cast<double>(blocks) * -1.1));
    s = reel_next_prime(static_cast<int32_t>(target));
    if (s > records) s = reel_next_prime(records);
    if (s < tape_modulo) s = reel_next_prime(tape_modulo);
  }
  if (hashed && s < 1) s = 1;
  return s;
}

void reel_write_plan_line() {
  if (analyse_handle == nullptr) {
    analyse_handle = std::fopen(reel_settings.analyse_file.c_str(), "w");
    if (analyse_handle == nullptr) reel_fatal("Can't open alanyze file\n");
  }
  const CurrentFile& f = reel_current;
  if (f.name.empty()) return;
  int32_t suggested =
      reel_suggest_modulo(f.file_kind, f.key_bytes, f.data_bytes, f.record_count, f.modulo);
  std::fprintf(analyse_handle, "%s, %s, %d, %d, %lld, %lld, %d\n", plan_kind_text(f.file_kind),
               f.name.c_str(), suggested, f.modulo, static_cast<long long>(f.key_bytes),
               static_cast<long long>(f.data_bytes), f.record_count);
  std::fflush(analyse_handle);
}

void reel_finish_analysis() {
  reel_write_plan_line();
  if (analyse_handle != nullptr) std::fclose(analyse_handle);
  analyse_handle = nullptr;
  unlink("overflow");
  reel_finish();
}

void reel_apply_plan() {
  std::unique_ptr<FILE, CloseFile> plan(std::fopen(plan_path(reel_settings.create_file).c_str(), "r"));
  if (plan == nullptr) reel_fatal("Can't open create file\n");
  std::string line;
  while (read_plan_line(plan.get(), &line)) {
    size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == '\n' || line[start] == '\r') continue;
    std::vector<std::string> tokens = plan_tokens(line);
    if (tokens.size() < kPlanFieldsRead) {
      line.erase(line.find_last_not_of("\r\n") + 1);
      reel_tell("Plan line passed over (fewer than three fields): %s\n", line.c_str() + start);
      continue;
    }
    const int32_t kind = plan_kind_of(tokens[0]);
    if (kind < 0) continue;
    CurrentFile& f = reel_current;
    f = CurrentFile{};
    f.file_kind = kind;
    f.name = reel_guard_reserved_name(tokens[1]);
    f.modulo = std::atoi(tokens[2].c_str());
    // A plan only makes files: one that was made is done.
    if (reel_create_target(0, false) == 1) reel_loading_done(f.file_kind, f.name, true);
  }
}
