#include "reel/reel_account.h"

#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <vector>

#include "NT/NT_access.h"
#include "NT/NT_command.h"
#include "NT/NT_utils.h"
#include "common/mrv_msg.h"
#include "flib/fl_globals.h"
#include "flib/fl_lang.h"
#include "flib/fl_mem.h"
#include "flib/fl_mkfile.h"
#include "flib/fl_open.h"
#include "flib/fl_voc.h"
#include "reel/reel_app_tuple.h"
#include "reel/reel_current.h"
#include "reel/reel_device.h"
#include "reel/reel_init.h"
#include "reel/reel_resume.h"
#include "reel/reel_settings.h"
#include "reel/reel_summary.h"
#include "reel/reel_target.h"

CurrentFile reel_current;
FILE* dispmsg = nullptr;
std::string tape_account;
std::string reel_account_parent = "..";
REL_TYPE reel_pgm_map;
REL_TYPE reel_sam_file;
REL_TYPE reel_dam_file;

namespace {

constexpr char kOverflowFile[] = "overflow";
// The account directory as it was entered, an absolute path.
std::string account_directory;
constexpr char kResizeList[] = "resize_list";

struct WorkFile {
  const char* name;
  REL_TYPE* rel;
  int32_t modulo;
  int32_t flags;
  const char* open_failure;
};

const WorkFile kWorkFiles[] = {
    {"pgm_map", &reel_pgm_map, 5, CREATE_DICT | CREATE_DATA, "Can't open file pgm_map\n"},
    {"SAM", &reel_sam_file, 0, CREATE_DIR, "Can't open file SAM\n"},
    {"DAM", &reel_dam_file, 0, CREATE_DIR, "Can't open file DAM\n"},
};

std::string absolute_path(const std::string& path) {
  std::error_code ec;
  const std::filesystem::path absolute = std::filesystem::absolute(path, ec);
  return ec ? path : absolute.lexically_normal().string();
}

// Where the close-down will leave the account, seen from inside it: under
// the tape's name for it beside it (an absolute -T keeps its own), else in
// the -T directory, else where it is.
std::string final_directory() {
  const RunSettings& s = reel_settings;
  std::error_code ec;
  const std::filesystem::path here = std::filesystem::current_path(ec);
  const bool absolute_target = !s.target_dir.empty() && s.target_dir[0] == '/';
  if (absolute_target) return s.target_dir;
  if (!tape_account.empty()) return (here.parent_path() / tape_account).string();
  if (!s.target_dir.empty()) return (here.parent_path() / s.target_dir).string();
  return here.string();
}

bool exists(const std::string& path) { return NT_access(path.c_str(), AccessMode::Exists) == 0; }

// A directory that must be there: made, unless the run only loads into
// what exists.
void need_directory(const std::string& path, const char* missing) {
  const RunSettings& s = reel_settings;
  if (exists(path)) return;
  if (s.data_only || s.overlay) reel_fatal(missing);
  NT_cmd_mkdir(path.c_str());
}

void touch_side_file(const char* name, const char* failure) {
  FILE* file = std::fopen(name, "a");
  if (file == nullptr) reel_fatal(failure);
  std::fclose(file);
}

// The last line of a save that ended without its end-of-save block: the
// file it cut and what of it was restored.
void tell_tape_ended() {
  const CurrentFile& f = reel_current;
  if (f.name.empty()) {
    reel_tell("The tape ended early: the save has no end block.\n");
  } else if (f.file_kind == FILE_KIND_DATA || f.file_kind == FILE_KIND_DICT) {
    reel_tell("The tape ended early: the save has no end block. %s %s was cut, %d of its records restored.\n",
              reel_file_kind_text(f.file_kind), f.name.c_str(), f.records_standing);
  } else {
    reel_tell("The tape ended early: the save has no end block. %s %s was cut.\n",
              reel_file_kind_text(f.file_kind), f.name.c_str());
  }
}

}  // namespace

std::string reel_target_path() {
  const std::string& t = reel_settings.target_dir;
  return !t.empty() && t[0] == '/' ? t : reel_account_parent + "/" + t;
}

void reel_open_account() {
  reel_summary_account(reel_settings.account_name, absolute_path(reel_settings.account_name));
  const RunSettings& s = reel_settings;
  need_directory(s.account_name, "Account dir is not exist!\n");
  // The account may be named by an absolute path or one with "/" in it:
  // its real place decides where "above the account" is.
  std::error_code ec;
  const std::filesystem::path real = std::filesystem::canonical(s.account_name, ec);
  if (ec || NT_chdir(real.c_str()) != 0)
    reel_fatal(("Can't enter account directory " + s.account_name + "\n").c_str());
  account_directory = real.string();
  reel_account_parent = real.parent_path().string();
  if (!s.target_dir.empty()) need_directory(reel_target_path(), "Incompatable options (-T -O -D)\n");
  reel_read_loading_note();
  if (!exists("VOC")) {
    if (s.data_only || s.overlay) reel_fatal("Account is not exist!\n");
    if (NT_run_program("newacct", {}) != 0) reel_fatal("newacct is failed!\n");
  }
  if (M_open_voc("VOC") != 1) reel_fatal("Can't open file VOC\n");
  reel_clear_scratch();
  M_lang_startup();  // a language that can't be loaded leaves number-only messages
  M_startup_messages = 0;

  touch_side_file("pgm_list", "Can't open pgm_list file");
  touch_side_file("idx_list", "Can't open idx_list file");
  touch_side_file(kResizeList, "Can't open resize_list file");
  overflow_count = 0;

  for (const WorkFile& w : kWorkFiles) {
    std::string record;
    // One that a run which broke off was making is made again.
    if (reel_is_noted(REEL_OBJECT_WORK_FILE, w.name)) {
      M_voc_delete(w.name);
      NT_RemoveFile(w.name, "");
      NT_RemoveFile((std::string("D_") + w.name).c_str(), "");
    }
    if (M_voc_read(w.name, &record) != 1) {
      reel_note_loading(REEL_OBJECT_WORK_FILE, w.name);
      M_create_file(w.name, nullptr, 1, w.modulo, 1, 1, w.flags, 0, 0, nullptr);
    }
    *w.rel = REL_TYPE{};
    if (M_open_by_voc(w.rel, w.name, 1) != 1) reel_fatal(w.open_failure);
    reel_loading_done(REEL_OBJECT_WORK_FILE, w.name, true);
  }
}

void reel_open_dispmsg() {
  reel_current.name.clear();
  reel_current.short_name.clear();
  reel_current.rel.reset();
  dispmsg = std::fopen("dispmsg", "a");
  if (dispmsg == nullptr) reel_fatal("Can't open dispmsg file");
}

void reel_close_account() {
  reel_summary_account_at(final_directory());
  const RunSettings& s = reel_settings;
  CurrentFile& f = reel_current;
  if (f.rel != nullptr) {
    if (f.rel->modulo > 0)
      reel_finish_file(f.rel.get());
    else
      reel_close_target();
  }
  if (!f.name.empty()) reel_loading_done(f.file_kind, f.name, reel_file_complete(f));
  reel_forget_loading_note();
  if (tape_ended_early) tell_tape_ended();
  for (const WorkFile& w : kWorkFiles) M_closefile(w.rel);
  if (exists(kOverflowFile)) std::remove(kOverflowFile);
  if (dispmsg != nullptr) std::fclose(dispmsg);
  dispmsg = nullptr;
  M_lang_close();
  M_close_voc();

  if (overflow_count > 0) {
    NT_cmd_cat(kResizeList);
    M_errmsg(0, "There are %d files overflowed, Check resize_list in the account please\n", overflow_count);
  }
  if (!s.target_dir.empty()) {
    M_errmsg(0, "\nLoading files from tape complete, now copying to %s...\n", s.target_dir.c_str());
    // "mv * ../<target>": every entry of the account, as the shell's "*"
    // gives them (names starting with "." stay).
    NT_DIR* dir = NT_opendir(".");
    std::vector<std::string> names;
    while (NT_dirent* e = dir != nullptr ? NT_readdir(dir) : nullptr)
      if (e->d_name[0] != '.') names.emplace_back(e->d_name);
    if (dir != nullptr) NT_closedir(dir);
    const std::string target = reel_target_path();
    for (const std::string& name : names) NT_cmd_move(name.c_str(), target.c_str());
  }
  NT_chdir(reel_account_parent.c_str());

  // The account takes its name from the tape, beside where it was made.
  // With -T the target gets it and the emptied staging directory stays; a
  // staging directory named as the tape's account is moved onto it. An
  // absolute -T names the account's very place and keeps its name.
  if (tape_account.empty()) return;
  if (!s.target_dir.empty() && s.target_dir != tape_account) {
    if (s.target_dir[0] != '/') NT_cmd_move(s.target_dir.c_str(), tape_account.c_str());
    return;
  }
  if (std::filesystem::path(account_directory).filename() != tape_account)
    NT_cmd_move(account_directory.c_str(), tape_account.c_str());
}

void reel_tell(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = M_vformat(format, args);
  va_end(args);
  M_errmsg(0, "%s", text.c_str());
  if (dispmsg == nullptr) return;
  std::fputs(text.c_str(), dispmsg);
  std::fflush(dispmsg);
}
