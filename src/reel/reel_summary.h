// The run summary: what a run restored, kept as the run goes and written as
// JSON to the path in MRV_SUMMARY when the process ends, whatever the end.
//
// The run feeds it at fixed points: an account entered, a target made or
// opened for loading, a file finished, a member written, a dispmsg line, a
// bad block, a resize. The file writer does not look at the run; it only
// renders this state. A file that is still open when the process ends
// stands with "complete": false and the records loaded so far.
//
// The document:
//   {"program", "version", "completed", "ended_by", "seconds",
//    "records_restored",
//    "accounts": [{"name", "directory",
//                  "files": [{"kind", "tape_name", "target",
//                             "records_restored", "records_dropped",
//                             "key_bytes", "data_bytes", "modulo",
//                             "resized_to", "suggested_modulo", "complete"}],
//                  "members", "bad_blocks", "dispmsg_errors"}]}
// "completed" is true only when the end-of-save block was reached.
// "records_restored" at the top is the sum over the hashed files (DATA and
// DICT); for a directory file it counts the members written into it.
// "resized_to" is the modulo the loader laid the file out again at (null
// when it kept its own); "suggested_modulo" the one resize_list names for a
// file that overflowed (null otherwise).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// How a run ended: the texts of "ended_by".
enum class RunEnd { Fatal, EndOfSave, Operator, EndOfInput, Break, EndOfPlan };
const char* reel_run_end_text(RunEnd end);

struct SummaryFile {
  std::string kind;  // DATA, DICT, DIR, SAM, DAM
  std::string tape_name;
  std::string target;
  int64_t records_restored = 0;
  int64_t records_dropped = 0;
  int64_t key_bytes = 0;
  int64_t data_bytes = 0;
  int32_t modulo = 0;
  int32_t resized_to = 0;        // 0: not resized
  int32_t suggested_modulo = 0;  // 0: did not overflow
  bool complete = false;
};

struct SummaryAccount {
  std::string name;
  std::string directory;  // absolute path where the account ended up
  std::vector<SummaryFile> files;
  int32_t members = 0;
  int32_t bad_blocks = 0;
  int32_t dispmsg_errors = 0;
};

struct RunSummary {
  RunEnd ended_by = RunEnd::Fatal;
  bool ended = false;  // ended_by was set by the path that ends the run
  bool completed = false;
  double started = 0;  // monotonic seconds at start
  std::vector<SummaryAccount> accounts;
  // Index in the last account's files of the current slot's entry; -1 none.
  int32_t open_file = -1;
};

extern RunSummary reel_summary;

// Notes how the run ends; the first call wins.
void reel_summary_end(RunEnd end);
// A new account: `name` its name (the staging name until the tape gives
// one), `directory` where it stands now.
void reel_summary_account(const std::string& name, const std::string& directory);
// The tape named the account that is open.
void reel_summary_rename_account(const std::string& name);
// The account's close-down left it at `directory`.
void reel_summary_account_at(const std::string& directory);
// The current slot's file has a target (made or found): its entry begins.
void reel_summary_file_begin();
// The entry of the current slot, or null when it has none.
SummaryFile* reel_summary_current_file();
// The current slot's file is finished with `records` in it (-1: the count
// kept here, as for a directory's members).
void reel_summary_file_end(int64_t records, bool complete);
// A member was written; it counts for the account and its directory file.
void reel_summary_member();
// dispmsg got a coded line; a dropped record counts for the file as well.
void reel_summary_dispmsg_error(bool record_dropped);
void reel_summary_bad_block();

// The document for the state as it stands, `now` in monotonic seconds.
std::string reel_summary_json(const RunSummary& summary, double now);
// Writes the document to `path` through a temporary name and a rename.
// 1 done, 0 failed.
int reel_summary_write(const std::string& path);
// Reads MRV_SUMMARY (made absolute, since the run changes directory),
// removes a summary an earlier run left there, and arranges for the
// document to be written when the process exits.
void reel_summary_arm();
// Monotonic seconds.
double reel_clock();
