#include "reel/reel_dispatch.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "NT/NT_command.h"
#include "NT/NT_utils.h"
#include "reel/reel_account.h"
#include "reel/reel_app_tuple.h"
#include "reel/reel_current.h"
#include "reel/reel_device.h"
#include "reel/reel_dynamic.h"
#include "reel/reel_get_expbuf.h"
#include "reel/reel_hashed.h"
#include "reel/reel_member.h"
#include "reel/reel_plan.h"
#include "reel/reel_resume.h"
#include "reel/reel_settings.h"
#include "reel/reel_summary.h"
#include "reel/reel_tape_format.h"
#include "reel/reel_target.h"
#include "reel/reel_util.h"

namespace {

constexpr char kDictPrefix[] = "D_";
constexpr char kTapeVoc[] = "VOC";
constexpr char kTapeVocRenamed[] = "DUMP_VOC";
constexpr char kReservedPrefix[] = "XX";

// Files that every target account has of its own. "VOC" stands twice, as
// it always has; by the time a name is looked up, "VOC" has become
// "DUMP_VOC", so only "voc" and the others are ever matched.
constexpr const char* kReservedNames[] = {
    "AE_COMS",   "ENGLISH", "VOC",      "AE_XCOMS",   "FRENCH",   "voc",
    "M_V__VIEW", "AE_DOC",  "LANGUAGE", "CTLGTB",     "&report&", "UTILITY.MSGS",
    "ERRMSG",    "&MAP&",   "MENUFILE", "COLLATIONS", "VOC",
};


bool is_hashed(uint8_t type) {
  return type == TAPE_OBJECT_HASHED || type == TAPE_OBJECT_HASHED_ALT;
}
bool is_directory(uint8_t type) { return type == TAPE_OBJECT_DIR || type == TAPE_OBJECT_DIR_ALT; }

// "<-T directory>/<name>"
std::string in_target_dir(const std::string& name) { return reel_target_path() + "/" + name; }

// With -T the account is a staging area: a file that has been loaded
// leaves it for the -T directory at once. A directory's members have been
// moved one by one, so what is left of it goes. Members of both kinds are
// looked for under SAM, so a direct member stays in DAM and goes with the
// account's close-down.
void move_to_target_dir(const CurrentFile& f) {
  // A file that never got a name on disk has nothing to move, and an empty
  // name must never reach the removal below.
  if (f.short_name.empty()) return;
  switch (f.file_kind) {
    case FILE_KIND_DATA:
      std::rename(f.short_name.c_str(), in_target_dir(f.short_name).c_str());
      break;
    case FILE_KIND_DICT:
      std::rename((kDictPrefix + f.short_name).c_str(),
                  in_target_dir(kDictPrefix + f.short_name).c_str());
      break;
    case FILE_KIND_DIR:
      NT_RemoveFile(f.short_name.c_str(), "");
      break;
    case FILE_KIND_SAM:
    case FILE_KIND_DAM:
      std::rename(("SAM/" + f.short_name).c_str(), in_target_dir(f.short_name).c_str());
      break;
    default:
      break;
  }
}

// The file before this description is done: its plan line in an analysis,
// else its target is closed (a hashed one through the loader's finish) and,
// with -T, moved out.
void close_previous_file() {
  const RunSettings& s = reel_settings;
  CurrentFile& f = reel_current;
  if (s.analyse_mode) {
    reel_write_plan_line();
    return;
  }
  if (f.rel != nullptr) {
    if (f.file_kind < FILE_KIND_DIR)
      reel_finish_file(f.rel.get());
    else
      reel_close_target();
  }
  if (!s.target_dir.empty()) move_to_target_dir(f);
  if (!f.name.empty()) reel_loading_done(f.file_kind, f.name, reel_file_complete(f));
  reel_write_failure_done();
}

// A directory: its target is made (or found in the VOC with -O) and opened,
// its own data blocks are passed, and its members are restored.
void directory_file(unsigned char* buffer, int32_t* length) {
  const RunSettings& s = reel_settings;
  CurrentFile& f = reel_current;
  f.file_kind = FILE_KIND_DIR;
  f.modulo = 0;
  if (s.analyse_mode) {
    reel_skip_blocks(buffer, length, SkipMode::Object);
    return;
  }
  if (s.overlay) {
    reel_target_from_voc();
    reel_show('L', 1);
  } else if (reel_create_target(0, false) == 0) {
    reel_skip_blocks(buffer, length, SkipMode::Object);
    return;
  }
  if (reel_open_target() == 0) {
    reel_skip_blocks(buffer, length, SkipMode::Object);
    return;
  }
  reel_skip_blocks(buffer, length, SkipMode::Data);
  if (!s.target_dir.empty()) NT_cmd_mkdir(in_target_dir(f.short_name).c_str());
  reel_dir_members(buffer, length);
}

// A hashed file: its own data blocks are passed; its first sub-file tells
// a dynamic source (a direct sub-file) from a static one. The target is
// made by the decoder, since the modulo comes from the first sub-file.
void hashed_file(unsigned char* buffer, int32_t* length) {
  const RunSettings& s = reel_settings;
  if (s.data_only && reel_current.file_kind == FILE_KIND_DICT) {
    reel_skip_blocks(buffer, length, SkipMode::Object);  // -D leaves dictionaries alone
    return;
  }
  reel_skip_blocks(buffer, length, SkipMode::Data);
  if (*length == s.level_sub && tape_block_type(buffer) == TAPE_BLOCK_DESCRIPTION &&
      tape_path_type(buffer, s.level_file) == TAPE_OBJECT_DAM)
    reel_dyn_file(buffer, length);
  else
    reel_hashed_subfiles(buffer, length);
}

// The account's name from tape becomes a directory beside the account
// directory (a restore works inside it): a name that would lead anywhere
// else, or that a file beside it already has, is no name.
bool is_account_name(const char* name) {
  if (name[0] == '\0' || std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0 ||
      std::strchr(name, '/') != nullptr)
    return false;
  if (reel_settings.analyse_mode) return true;
  std::error_code ec;
  const std::filesystem::file_status beside =
      std::filesystem::status(std::string("../") + name, ec);
  return !std::filesystem::exists(beside) || std::filesystem::is_directory(beside);
}

}  // namespace

int reel_is_reserved_name(const char* name) {
  for (const char* reserved : kReservedNames)
    if (std::strcmp(name, reserved) == 0) return 1;
  return 0;
}

std::string reel_file_name(const char* tape_name, int32_t* file_kind) {
  std::string name = tape_name;
  *file_kind = FILE_KIND_DATA;
  if (name.starts_with(kDictPrefix)) {
    name.erase(0, std::strlen(kDictPrefix));
    *file_kind = FILE_KIND_DICT;
  }
  if (name == kTapeVoc) name = kTapeVocRenamed;
  return reel_guard_reserved_name(std::move(name));
}

std::string reel_guard_reserved_name(std::string name) {
  if (reel_is_reserved_name(name.c_str())) name.insert(0, kReservedPrefix);
  return name;
}

void reel_account_block(unsigned char* buffer, int32_t* length) {
  RunSettings& s = reel_settings;
  char name[PATH_NAME_SIZE + 1];
  tape_path_name(name, buffer, s.level_base - PATH_ENTRY_SIZE);
  if (!is_account_name(name)) {
    // Logged, and what follows is restored into the account at hand.
    reel_log_error(REEL_ERR_ACCOUNT, "");
    reel_skip_blocks(buffer, length, SkipMode::Object);
    return;
  }
  if (!tape_account.empty()) {
    // An analysis covers the first account only: its plan ends here.
    if (s.analyse_mode) reel_summary_end(RunEnd::EndOfPlan);
    if (s.analyse_mode) reel_finish_analysis();
    reel_close_account();
    (s.target_dir.empty() ? s.account_name : s.target_dir) = name;
    reel_open_account();
    reel_open_dispmsg();
  }
  tape_account = name;
  reel_summary_rename_account(name);
  reel_tell("\t\t\tACCT_NAME  ---  %s\n", name);
  reel_skip_blocks(buffer, length, SkipMode::Object);
}

int reel_dispatch_block(unsigned char* buffer, int32_t* length) {
  const RunSettings& s = reel_settings;
  if (tape_block_type(buffer) == TAPE_BLOCK_END) return 0;

  // Length alone classifies a block here, whatever its type. The account's
  // own entry ends at level_base; with -L0 there is none, and no block is
  // an account block.
  if (*length == s.level_base) {
    const int32_t account_type_at = s.level_base - PATH_ENTRY_SIZE + PATH_OFF_TYPE;
    if (account_type_at > TAPE_HEADER_SIZE && is_directory(buffer[account_type_at]))
      reel_account_block(buffer, length);
    else
      reel_skip_blocks(buffer, length, SkipMode::Object);
    return 1;
  }
  if (*length != s.level_file) {
    reel_log_error(REEL_ERR_FILE_DESC, "block length error");
    reel_skip_blocks(buffer, length, SkipMode::Object);
    return 1;
  }

  close_previous_file();
  reel_current = CurrentFile{};

  const uint8_t type = tape_path_type(buffer, s.level_base);
  // -D restores data only: members and directories go before their names
  // are even looked at.
  if (s.data_only && !is_hashed(type)) {
    reel_skip_blocks(buffer, length, SkipMode::Object);
    return 1;
  }
  char tape_name[PATH_NAME_SIZE + 1];
  tape_path_name(tape_name, buffer, s.level_base);
  reel_current.name = reel_file_name(tape_name, &reel_current.file_kind);

  // The -R list names files as they are after the rules above.
  if (s.recovery_mode == 1 && reel_in_recovery_list(reel_current.name.c_str()) == 0) {
    reel_skip_blocks(buffer, length, SkipMode::Object);
    reel_current.name.clear();
    return 1;
  }

  switch (type) {
    case TAPE_OBJECT_SAM:
    case TAPE_OBJECT_DAM:
      reel_current.file_kind = type == TAPE_OBJECT_SAM ? FILE_KIND_SAM : FILE_KIND_DAM;
      if (s.analyse_mode)
        reel_skip_blocks(buffer, length, SkipMode::Object);
      else
        reel_member_file(buffer, length);
      break;
    case TAPE_OBJECT_DIR:
    case TAPE_OBJECT_DIR_ALT:
      directory_file(buffer, length);
      break;
    case TAPE_OBJECT_HASHED:
    case TAPE_OBJECT_HASHED_ALT:
      hashed_file(buffer, length);
      break;
    default:  // an object type this system does not know
      reel_current.name.clear();
      reel_skip_blocks(buffer, length, SkipMode::Object);
      break;
  }
  return 1;
}
