#include "reel/reel_progress.h"

#include <cstdio>

#include "common/mrv_status.h"
#include "reel/reel_account.h"
#include "reel/reel_current.h"
#include "reel/reel_settings.h"
#include "reel/reel_summary.h"

namespace {

// Redraws at most this often; the first block of the first file draws at once.
constexpr double kRedrawSeconds = 0.25;
constexpr double kMegabyte = 1024.0 * 1024.0;

int64_t tape_bytes = 0;
double first_block = -1;
double last_drawn = -1;
// Records read in the files before the current one; the current slot's
// count is added as it grows. A smaller count or another name means the
// slot holds a new file.
int64_t earlier_records = 0;
int64_t slot_records = 0;
std::string slot_name;
int64_t file_written = 0;

void redraw() {
  const double now = reel_clock();
  if (last_drawn >= 0 && now - last_drawn < kRedrawSeconds) return;
  const CurrentFile& f = reel_current;
  if (f.record_count < slot_records || f.name != slot_name) {
    earlier_records += slot_records;
    slot_name = f.name;
    file_written = 0;
  }
  slot_records = f.record_count;
  if (f.name.empty()) return;  // between files: nothing to tell yet
  last_drawn = now;
  ProgressState state{.account = tape_account.empty() ? reel_settings.account_name : tape_account,
                      .file = f.name,
                      .file_records = f.record_count,
                      .file_written = file_written,
                      .total_records = earlier_records + f.record_count,
                      .tape_bytes = tape_bytes,
                      .seconds = first_block >= 0 ? now - first_block : 0};
  M_status_show(reel_progress_line(state));
}

}  // namespace

std::string reel_progress_line(const ProgressState& s) {
  const double mb = static_cast<double>(s.tape_bytes) / kMegabyte;
  char line[512];
  int n = std::snprintf(line, sizeof line, "%s %s: %lld records, %lld written; %lld in all, %.1f MB read",
                        s.account.c_str(), s.file.c_str(), static_cast<long long>(s.file_records),
                        static_cast<long long>(s.file_written), static_cast<long long>(s.total_records), mb);
  std::string text(line, n > 0 && static_cast<size_t>(n) < sizeof line ? static_cast<size_t>(n) : 0);
  // A rate over a moment says nothing yet.
  if (s.seconds >= kRedrawSeconds) {
    std::snprintf(line, sizeof line, ", %.0f records/s, %.1f MB/s", static_cast<double>(s.total_records) / s.seconds,
                  mb / s.seconds);
    text += line;
  }
  return text;
}

void reel_progress_tape(int32_t bytes) {
  if (bytes > 0) tape_bytes += bytes;
  if (!M_status_enabled()) return;
  if (first_block < 0) first_block = reel_clock();
  redraw();
}

void reel_progress_record(int64_t written) {
  if (!M_status_enabled()) return;
  file_written = written;
  redraw();
}

void reel_progress_clear() { M_status_clear(); }
