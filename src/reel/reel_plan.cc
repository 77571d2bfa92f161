#include "reel/reel_plan.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>

#include "reel/reel_current.h"
#include "reel/reel_init.h"
#include "reel/reel_settings.h"
#include "reel/reel_util.h"

namespace {

// Usable bytes of a 1 KiB group block, and the overhead of one record in it.
constexpr int64_t kUsableBlockBytes = 992;
constexpr int64_t kRecordOverhead = 10;

FILE* analyse_handle = nullptr;

const char* plan_kind_text(int32_t kind) {
  constexpr const char* kTexts[] = {"DATA", "DICT", " DIR", " SAM", " DAM"};
  return kind >= 0 && kind <= 4 ? kTexts[kind] : "????";
}

}  // namespace

int32_t reel_suggest_modulo(int32_t kind, int64_t key_bytes, int64_t data_bytes,
                            int32_t records, int32_t tape_modulo) {
  bool hashed = kind == FILE_KIND_DATA || kind == FILE_KIND_DICT;
  int32_t s = tape_modulo;
  if (hashed && records > 0) {
    int64_t average_key = key_bytes / (records + 1);
    // Keys are far shorter than a block; the guard only keeps damaged counts
    // from dividing by zero.
    int64_t room = kUsableBlockBytes - average_key > 0 ? kUsableBlockBytes - average_key : 1;
    int64_t blocks = (data_bytes + kRecordOverhead * records + key_bytes) / room;
    // 1 + trunc(1.1 * blocks), computed as the original did: 1 - trunc(-1.1 * blocks).
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
