#include "reel/reel_target.h"

#include <cerrno>
#include <cstring>

#include "NT/NT_utils.h"
#include "common/fl_errout.h"
#include "flib/fl_clear.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_heads.h"
#include "flib/fl_lock.h"
#include "flib/fl_mem.h"
#include "flib/fl_mkfile.h"
#include "flib/fl_open.h"
#include "flib/fl_read.h"
#include "flib/fl_voc.h"
#include "reel/reel_account.h"
#include "reel/reel_app_tuple.h"
#include "reel/reel_current.h"
#include "reel/reel_device.h"
#include "reel/reel_get_expbuf.h"
#include "reel/reel_resume.h"
#include "reel/reel_settings.h"
#include "reel/reel_summary.h"

namespace {

constexpr int32_t kTypeDynamic0 = 0x40;
constexpr int32_t kTypeDynamic1 = 0x41;
constexpr int32_t kVocDataPath = 1;
constexpr int32_t kVocDictPath = 3;

// V__Errout while a failed file keeps the library quiet; -1 otherwise.
int32_t saved_errout = -1;

}  // namespace

int reel_create_under_name(const std::string& tape_name, const std::string& target, int32_t dict_modulo,
                           int32_t modulo, int32_t dict_block, int32_t block, int32_t flags, int32_t type,
                           bool for_load) {
  const bool renamed = tape_name != target;
  std::string record;
  // The core completes the entry of the other half under the name it makes.
  if (renamed && M_voc_read(tape_name, &record) == 1) M_voc_write(target, record);
  // A data file made to be loaded at once leaves its group heads to the
  // loader, which writes each of them once, with its records.
  M_heads_to_loader = for_load && flags == CREATE_DATA;
  const int made = M_create_file(target.c_str(), nullptr, dict_modulo, modulo, dict_block, block, flags, 0, type,
                                 nullptr);
  M_heads_to_loader = false;
  if (made == 0) return 0;
  if (renamed && M_voc_read(target, &record) == 1) {
    M_voc_write(tape_name, record);
    M_voc_delete(target);
  }
  return 1;
}

int reel_create_target(int dynamic, bool for_load) {
  const RunSettings& s = reel_settings;
  CurrentFile& f = reel_current;
  std::string key = f.name;
  // What a run that broke off left of the object under its name on disk
  // goes, so that the name is free for it again.
  if (const std::string stale = reel_noted_path(f.file_kind, f.name); !stale.empty())
    NT_RemoveFile(stale.c_str(), "");
  if (reel_target_name(key, f.short_name, REEL_NAME_FILE) == REEL_TARGET_EXISTS &&
      reel_ask_overwrite(f.name, f.short_name) == 2)
    return 0;
  reel_note_loading(f.file_kind, f.name, (f.file_kind == FILE_KIND_DICT ? "D_" : "") + f.short_name);

  int32_t dict_modulo = 1, modulo = 1, block = BlockSizeCode::kOneKiB, flags = CREATE_DATA, type = 0;
  switch (f.file_kind) {
    case FILE_KIND_DATA:
      modulo = f.modulo;
      if (s.block_list_on) modulo = reel_block_list_modulo(f.name.c_str(), f.modulo, &block);
      if (dynamic == 1) type = s.dynamic_zero ? kTypeDynamic0 : kTypeDynamic1;
      break;
    case FILE_KIND_DICT:
      dict_modulo = f.modulo;
      flags = CREATE_DICT;
      break;
    default:
      dict_modulo = 0;
      flags = CREATE_DIR | CREATE_DIR_NO_DICT;
      break;
  }
  if (f.file_kind == FILE_KIND_DATA && s.block_list_on) f.modulo = modulo;
  if (reel_create_under_name(f.name, f.short_name, dict_modulo, modulo, BlockSizeCode::kOneKiB, block, flags,
                             type, for_load) == 0) {
    reel_show('C', 0);
    reel_log_error(REEL_ERR_CREATE, "Create file error");
    return 0;
  }
  reel_show('C', 1);
  return 1;
}

int reel_open_loader(const std::string& name) {
  const RunSettings& s = reel_settings;
  CurrentFile& f = reel_current;
  reel_records_restored = 0;
  if (f.file_kind != FILE_KIND_DATA && f.file_kind != FILE_KIND_DICT) return 0;
  auto rel = std::make_unique<REL_TYPE>();
  if (M_open_by_voc(rel.get(), name, f.file_kind == FILE_KIND_DICT ? kVocDictPath : kVocDataPath) < 1)
    return 0;
  f.rel = std::move(rel);
  M_init_mem_buffers(f.rel.get());
  if (!s.data_only && !s.overlay) reel_new_file = 1;
  return 1;
}

int reel_prepare_hashed_target(int dynamic) {
  const RunSettings& s = reel_settings;
  if (s.data_only || s.overlay) {
    reel_target_from_voc();
    reel_show('L', 1);
  } else if (reel_create_target(dynamic, true) == 0) {
    return 0;
  }
  return reel_open_target();
}

int reel_open_target() {
  const RunSettings& s = reel_settings;
  CurrentFile& f = reel_current;
  reel_note_loading(f.file_kind, f.name);
  // -E empties a file that is loaded into rather than made: every file
  // with -O, the data files with -D. Whether that worked, the open below
  // tells.
  if (s.erase_first && (s.overlay || (s.data_only && f.file_kind == FILE_KIND_DATA)))
    M_clear_file(f.name.c_str(), f.file_kind == FILE_KIND_DICT ? CLEAR_DICT : CLEAR_DATA, 1, 0, 0);
  if (f.file_kind == FILE_KIND_DICT || f.file_kind == FILE_KIND_DATA) {
    if (reel_open_loader(f.name) != 0) return 1;
  } else {
    auto rel = std::make_unique<REL_TYPE>();
    if (M_open_by_voc(rel.get(), f.name, kVocDataPath) > 0) {
      f.rel = std::move(rel);
      return 1;
    }
  }
  reel_show('O', 0);
  reel_log_error(REEL_ERR_OPEN, "Open file error");
  return 0;
}

void reel_close_target() {
  CurrentFile& f = reel_current;
  if (f.rel == nullptr) return;
  reel_summary_file_end(-1, true);
  M_closefile(f.rel.get());
  f.rel.reset();
  reel_write_failure_done();
}

int32_t reel_count_standing() {
  const CurrentFile& f = reel_current;
  REL_TYPE rel{};
  if (M_open_by_voc(&rel, f.name, f.file_kind == FILE_KIND_DICT ? kVocDictPath : kVocDataPath) != 1) return 0;
  // Held shared, the walk reads the file's blocks from a mapping rather
  // than by a read call each; without the lock it reads them all the same.
  M_lock_file(&rel, LOCK_SHARED | LOCK_NOWAIT);
  int32_t count = 0;
  M_for_each_key(&rel, [&count](const uint8_t*, int32_t, const uint8_t*, int32_t, uint32_t) {
    ++count;
    return 0;
  });
  M_closefile(&rel);
  return count;
}

void reel_write_failed(int error) {
  CurrentFile& f = reel_current;
  if (f.write_error != 0) return;
  f.write_error = error != 0 ? error : EIO;
  reel_tell("Write to %s %s failed: %s; the file is incomplete\n", reel_file_kind_text(f.file_kind),
            f.name.c_str(), std::strerror(f.write_error));
  if (saved_errout < 0) {
    saved_errout = V__Errout;
    V__Errout = 0;
  }
}

void reel_write_failure_done() {
  if (saved_errout < 0) return;
  V__Errout = saved_errout;
  saved_errout = -1;
}
void reel_show(char letter, int ok) {
  const CurrentFile& f = reel_current;
  const char* kind = reel_file_kind_text(f.file_kind);
  const char* name = f.name.c_str();
  switch (letter) {
    case 'L':
      reel_tell("Loading %s %s ...\n", kind, name);
      reel_summary_file_begin();
      break;
    case 'O':
      reel_tell(f.file_kind == FILE_KIND_DICT ? "%s open dict failure!\n" : "%s open failure!\n",
                name);
      break;
    case 'M':
      reel_tell("Resize %s to new modulo ----- %d  ", name, f.modulo);
      reel_tell(ok ? "\n" : "failed\n");
      break;
    case 'C':
      if (ok == 0) {
        reel_tell("Create %s %s failure!\n", kind, name);
        break;
      }
      reel_tell("Create %s %s --- %d ", kind, name, f.modulo);
      reel_summary_file_begin();
      // A plan's file is done once it is made: nothing is loaded into it.
      if (reel_settings.create_mode) reel_summary_file_end(0, true);
      if (f.short_name != f.name)
        reel_tell(" -----> %s\n", f.short_name.c_str());
      else
        reel_tell("\n");
      break;
    default:
      break;
  }
}
