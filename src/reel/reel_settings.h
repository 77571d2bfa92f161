// The run settings: program-wide values set once from the command line by
// reel_parse_options (or derived right after it) and only read afterwards,
// except `stop_requested`, which the break handler sets.
#pragma once

#include <csignal>
#include <cstdint>
#include <string>

#include "reel/reel_tape_format.h"

// The account stands at path depth n (-L n): its description block has n
// path entries, a file description one entry more, a sub-file two.
inline constexpr int32_t REEL_LEVEL_STEP = PATH_ENTRY_SIZE;
inline constexpr int32_t reel_level_length(int32_t level) { return tape_path_length(level); }

// Name characters of a tape file name that are replaced by default: "/", blank,
// "*", "?", the value, sub-value and text marks, "&". `-X` appends to them.
inline constexpr char REEL_DEFAULT_BAD_CHARS[] = "/ *?\xFD\xFC\xFB&";
// Room of the replacement map: one underscore per replaceable character.
inline constexpr size_t REEL_NAME_FILL_LEN = 48;

struct RunSettings {
  char unit_char = '0';
  char convert_mode = '0';
  int32_t transport_c = 0;
  int32_t transport_b = 0;
  int32_t analyse_mode = 0;
  std::string analyse_file;
  int32_t create_mode = 0;
  std::string create_file;
  int32_t recovery_mode = 0;  // 0 none, 1 files of the -R list, 2 ALL
  int32_t block_list_on = 0;
  int32_t data_only = 0;
  int32_t overlay = 0;
  int32_t erase_first = 0;
  int32_t short_names = 0;
  int32_t dynamic_zero = 1;  // 1: DYNAMIC0 (hash type 64), 0: DYNAMIC1 (65)
  std::string target_dir;
  int32_t level_base = reel_level_length(1);
  int32_t level_file = reel_level_length(2);
  int32_t level_sub = reel_level_length(3);
  int32_t buffer_factor = 8000;  // KiB of the main load buffer
  std::string name_bad_chars = REEL_DEFAULT_BAD_CHARS;
  std::string name_fill_chars = std::string(REEL_NAME_FILL_LEN, '_');
  std::string account_name;
  int32_t max_name_len = 198;
  int32_t mark_translate = 0;
};

extern RunSettings reel_settings;
// Set by the break handler; the block loop ends when it is 1.
extern volatile sig_atomic_t stop_requested;

// Back to the defaults (tests).
void reel_reset_settings();
