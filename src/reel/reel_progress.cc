#include "reel/reel_progress.h"

#include <cstdio>

#include "common/mrv_status.h"
#include "reel/reel_account.h"
#include "reel/reel_current.h"
#include "reel/reel_settings.h"
#include "reel/reel_summary.h"

namespace {

// Redraws at most this often; the first record of a run draws at once.
constexpr double kRedrawSeconds = 0.25;
constexpr double kMegabyte = 1024.0 * 1024.0;

int64_t total_records = 0;
int64_t tape_bytes = 0;
double last_drawn = -1;

}  // namespace

std::string reel_progress_line(const ProgressState& s) {
  const double mb = static_cast<double>(s.tape_bytes) / kMegabyte;
  const double seconds = s.seconds > 0 ? s.seconds : 0;
  char line[512];
  int n = std::snprintf(line, sizeof line, "%s %s: %lld records, %lld in all, %.1f MB read", s.account.c_str(),
                        s.file.c_str(), static_cast<long long>(s.file_records),
                        static_cast<long long>(s.total_records), mb);
  std::string text(line, n > 0 && static_cast<size_t>(n) < sizeof line ? static_cast<size_t>(n) : 0);
  if (seconds >= kRedrawSeconds) {
    std::snprintf(line, sizeof line, ", %.0f records/s, %.1f MB/s", static_cast<double>(s.total_records) / seconds,
                  mb / seconds);
    text += line;
  }
  return text;
}

void reel_progress_tape(int32_t bytes) {
  if (bytes > 0) tape_bytes += bytes;
}

void reel_progress_record(int64_t file_records) {
  ++total_records;
  if (!M_status_enabled()) return;
  const double now = reel_clock();
  if (last_drawn >= 0 && now - last_drawn < kRedrawSeconds) return;
  last_drawn = now;
  ProgressState state{.account = tape_account.empty() ? reel_settings.account_name : tape_account,
                      .file = reel_current.name,
                      .file_records = file_records,
                      .total_records = total_records,
                      .tape_bytes = tape_bytes,
                      .seconds = now - reel_summary.started};
  M_status_show(reel_progress_line(state));
}

void reel_progress_clear() { M_status_clear(); }
