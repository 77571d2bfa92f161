// The restore's status line: account, file, records of the file, records of
// the run, tape megabytes read and the rate, kept up to date in place on
// standard error while records are loaded, when standard error is a
// terminal (see common/mrv_status.h). Off a terminal it costs one test per
// call and adds nothing to the output.
#pragma once

#include <cstdint>
#include <string>

struct ProgressState {
  std::string account;
  std::string file;
  int64_t file_records = 0;   // read from tape for the file
  int64_t file_written = 0;   // of those, written into its target
  int64_t total_records = 0;  // read from tape in the run
  int64_t tape_bytes = 0;
  double seconds = 0;  // since the first block
};

// The line for a state: "SALES CUSTOMERS: 12000 records, 8000 written;
// 250000 in all, 31.5 MB read, 41000 records/s, 5.2 MB/s".
std::string reel_progress_line(const ProgressState& state);

// A block of `bytes` came from the tape; redraws the line a few times a
// second.
void reel_progress_tape(int32_t bytes);
// A record went into the file under restoration (`written` of it so far);
// redraws the line a few times a second.
void reel_progress_record(int64_t written);
// Removes the line before other console output.
void reel_progress_clear();
