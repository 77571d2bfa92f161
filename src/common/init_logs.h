// The level logger.
//
// Levels 1 and 3 always pass. Other levels pass when they are at or below
// the rule's level and the rule's source filters accept the caller. The rule
// comes from MRMSGCONFIG (one rule without a head, final) or else from the
// file msglevelconfig in the include directory, else it is the default rule:
// level 2 with the DT prefix.
//
// msglevelconfig holds rules separated by "," and ended by a rule "0":
//   # comment line
//   morvane = 4 /PID /DT +fl_io.cc *M_blkread,
//   1234 = 2 /CON,
//   0
// A head word of digits is a process number and beats a process name. In a
// level the first digit may be 0..9 but later digits only 0..8, so "9" is a
// level and "19" is a broken rule; a broken rule ends the reading.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum LogFlag : uint8_t {
  LOG_CON = 1,
  LOG_PID = 2,
  LOG_SI = 4,
  LOG_DT = 8,
  LOG_EXE = 16,
  LOG_CWD = 32,
};

inline constexpr int32_t MRV_LOG_FORCE = 256;

struct LogFilter {
  char kind;  // '+' source file name, '*' routine name
  std::string text;
};

struct LogConfig {
  std::optional<std::string> process_name;
  int32_t pid = -1;
  int32_t level = 2;
  uint8_t flags = LOG_DT;
  std::vector<LogFilter> filters;
};

// Where the next mrv_log call comes from; set by MRV_LOG_SOURCE().
extern const char* mrv_log_source_file;
extern const char* mrv_log_routine;
extern int32_t mrv_log_line;
#define MRV_LOG_SOURCE() \
  (mrv_log_source_file = __FILE__, mrv_log_routine = __func__, mrv_log_line = __LINE__)

// Stream slots: primary, secondary and two more. An empty primary slot means
// standard output, an empty secondary one the standard error stream.
extern FILE* mrv_log_streams[4];

int mrv_log(int32_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// One rule without a head, as MRMSGCONFIG holds it; empty on a syntax error.
std::optional<LogConfig> log_parse_single_rule(std::string_view text);
// Picks this process's rule from the text of a msglevelconfig file: the
// first rule for `pid` wins at once, else the first for `process_name`.
std::optional<LogConfig> log_select_rule(std::string_view text, int32_t pid,
                                         std::string_view process_name);
// Whether a message from the stored source passes the rule's filters.
bool log_source_passes(const LogConfig& config, const char* source_file, const char* routine);

// The rule in force, read on first use.
const LogConfig& log_current_config();
// Forgets the rule so that the next use reads it again (tests).
void log_reset_config();

// Server start-up step: names the process and opens its log streams. The
// tool does not call it.
void init_logs(const char* name);
const char* log_process_name();
