#include "flib/fl_clear.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "NT/NT_signal.h"
#include "NT/NT_utils.h"
#include "common/fl_errout.h"
#include "common/mrv_msgno.h"
#include "flib/fl_create.h"
#include "flib/fl_delete.h"
#include "flib/fl_hash.h"
#include "flib/fl_index.h"
#include "flib/fl_lock.h"
#include "flib/fl_mkfile.h"
#include "flib/fl_open.h"
#include "flib/fl_read.h"
#include "flib/fl_rel.h"
#include "flib/fl_report.h"
#include "flib/fl_sfd.h"
#include "flib/fl_voc.h"
#include "flib/lrgfillib.h"

namespace {

constexpr int32_t kOpenReadWrite = 3;
constexpr char kVocPath[] = "VOC";
constexpr char kDictPrefix[] = "D_";
constexpr char kLockKind[] = "CLEAR.FILE";
// What a cleared dynamic file keeps besides the primary parts of its
// layout: the first overflow part (laid out again), its index files, the
// key file of a key-range file and its own part table.
constexpr char kKeptFiles[] = "over001|idx|gmekey|parttbl";

// Holds the break signal back while a file is in pieces.
class DeferSignals {
 public:
  DeferSignals() { M_enter_critical(); }
  ~DeferSignals() { M_leave_critical(); }
  DeferSignals(const DeferSignals&) = delete;
  DeferSignals& operator=(const DeferSignals&) = delete;
};

// A handle opened here, closed on every way out.
class OpenFile {
 public:
  OpenFile() = default;
  ~OpenFile() { close(); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  int open(const std::string& path) {
    int rc = M_openfile(&rel_, path.c_str(), kOpenReadWrite);
    open_ = rc == 1;
    return rc;
  }
  void close() {
    if (open_) M_closefile(&rel_);
    open_ = false;
  }
  REL_TYPE* get() { return &rel_; }

 private:
  REL_TYPE rel_;
  bool open_ = false;
};

// The named lock of a file, for callers that ask for it.
class NamedLock {
 public:
  NamedLock(const REL_TYPE* rel, const std::string& name) : name_(name) {
    id_[0] = rel->file_id[1];
    id_[1] = rel->file_id[2];
  }
  ~NamedLock() {
    if (held_) M_LLM_Release(kLockKind, id_, name_.c_str(), 0, sizeof kLockKind - 1, length());
  }
  NamedLock(const NamedLock&) = delete;
  NamedLock& operator=(const NamedLock&) = delete;
  bool take() {
    held_ = M_LLM_Lock(kLockKind, id_, name_.c_str(), 0, 1, 0, sizeof kLockKind - 1, length()) == LLM_GRANTED;
    return held_;
  }

 private:
  int32_t length() const { return static_cast<int32_t>(name_.size()); }
  std::string name_;
  uint32_t id_[2] = {};
  bool held_ = false;
};

bool starts_with_any_case(const std::string& text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i)
    if ((text[i] & ~0x20) != (prefix[i] & ~0x20)) return false;
  return true;
}

bool is_multi_level(const std::string& type) { return starts_with_any_case(type, "L"); }

// Without force, the name must be the path, unless it holds a comma.
bool path_allowed(const std::string& name, const std::string& path, int32_t force) {
  return force != 0 || name.find(',') != std::string::npos || name == path;
}

int open_failure(int32_t other_message, const std::string& path) {
  M_msgno_out(errno == EACCES ? MRV_MSG_DENIED : other_message, "%s", path.c_str());
  return 0;
}

// The handle with which M_initfile lays `rel` out again.
REL_TYPE layout_of(const REL_TYPE* rel, int32_t modulo) {
  REL_TYPE fresh;
  std::memcpy(fresh.path, rel->path, sizeof fresh.path);
  std::memcpy(fresh.name, rel->name, sizeof fresh.name);
  fresh.modulo = modulo;
  fresh.hashtype = rel->hashtype;
  fresh.block_size = rel->block_size;
  fresh.rfs = rel->rfs;
  fresh.split_load = rel->split_load;
  fresh.merge_load = rel->merge_load;
  std::memcpy(fresh.update_trigger, rel->update_trigger, sizeof fresh.update_trigger);
  std::memcpy(fresh.delete_trigger, rel->delete_trigger, sizeof fresh.delete_trigger);
  return fresh;
}

// Truncates `path` and lays the file out at `fresh`'s modulo. M_initfile
// removes the file when the layout fails. 1 or 0.
int lay_out_again(const char* path, REL_TYPE* fresh) {
  int fd = open(path, O_RDWR | O_TRUNC);
  if (fd < 0) return 0;
  int rc = M_initfile(fd, fresh);
  fsync(fd);
  close(fd);
  return rc == 1 ? 1 : 0;
}

// The parts of a dynamic file that its layout at the minimum modulo keeps:
// the primary parts whose first group lies below that layout's split base.
std::string kept_parts(const REL_TYPE* rel) {
  const uint32_t base = split_base_for(rel->hashtype, static_cast<uint32_t>(rel->min_modulo),
                                       static_cast<uint32_t>(rel->min_modulo));
  std::string keep = "^";
  for (size_t i = 0; i < rel->primary.size(); ++i) {
    if (rel->primary[i].first_group >= base) continue;
    char part[32];
    std::snprintf(part, sizeof part, "dat%03zu|", i + 1);
    keep += part;
  }
  return keep + kKeptFiles;
}

// Empties the open hashed file `rel`: a static one at its modulo, a dynamic
// one at its minimum modulo with the surplus parts deleted. 1 or 0.
int empty_hashed_file(REL_TYPE* rel) {
  if (!rel_is_dynamic(rel)) {
    REL_TYPE fresh = layout_of(rel, rel->modulo);
    DeferSignals deferred;
    return lay_out_again(rel->path, &fresh);
  }
  REL_TYPE fresh = layout_of(rel, rel->min_modulo);
  char first[REL_NAME_SIZE + 16];
  M_part_path(rel, 1, first, sizeof first);
  DeferSignals deferred;
  M_remove_dir_files(rel->path, kept_parts(rel).c_str());
  // Everyone who shares the file sees it at its minimum again.
  if (rel->sfd != nullptr) {
    rel->sfd->modulo = static_cast<uint32_t>(rel->min_modulo);
    rel->sfd->split_flag = 0;
  }
  rel->modulo = rel->min_modulo;
  if (lay_out_again(first, &fresh) != 1) return 0;
  if (rel->sfd != nullptr) {
    rel->sfd->primary_count = static_cast<uint8_t>(fresh.primary.size());
    rel->sfd->overflow_count = static_cast<uint8_t>(fresh.overflow.size());
  }
  rel->primary_current = 1;
  return 1;
}

// Opens `path` for a clear and refuses a file that has a delete trigger.
// 1 open, 0 refused or not opened (after its message).
int open_for_clear(OpenFile* file, const std::string& path, int32_t open_message) {
  int rc = file->open(path);
  if (rc != 1) return open_failure(open_message, path);
  if (file->get()->delete_trigger[0] != '\0') {
    M_msgno_out(MRV_MSG_DELETE_TRIGGER, "%s", path.c_str());
    return 0;
  }
  return 1;
}

// The common steps of both halves once the file is open: the named lock
// when asked, the file lock, the new layout, the index reset. 1, 0 or -1.
int clear_open_file(REL_TYPE* rel, const std::string& name, int32_t lock, bool multi_level_dict) {
  NamedLock named(rel, name);
  if (lock != 0 && !named.take()) {
    M_msgno_out(MRV_MSG_RECORD_LOCK, "%s", name.c_str());
    return -1;
  }
  if (M_lock_file(rel, LOCK_EXCLUSIVE) != 0) {
    M_msgno_out(MRV_MSG_FILE_LOCK, "%s", rel->path);
    return 0;
  }
  if (multi_level_dict) {
    M_unlock_file(rel);
    return clear_l_dict_file(rel);
  }
  int rc = empty_hashed_file(rel);
  M_unlock_file(rel);
  if (rc == 1) M_clear_reset_index(rel);
  return rc;
}

int clear_dictionary(const std::string& name, const VocEntry& entry, int32_t force, int32_t verbose,
                     int32_t lock) {
  if (!path_allowed(kDictPrefix + name, entry.dict_path, force)) {
    if (verbose != 0) M_msgno_out(MRV_MSG_DICT_PATH_DIFFERS, "%s", name.c_str());
    return 0;
  }
  const bool multi_level = is_multi_level(entry.type);
  OpenFile file;
  if (open_for_clear(&file, entry.dict_path, MRV_MSG_NO_FILE) != 1) return 0;
  int rc = clear_open_file(file.get(), name, lock, multi_level);
  if (rc != 1) return rc;
  if (!multi_level) {
    file.close();
    if (M_dict_at_id(name.c_str(), entry.dict_path.c_str(), verbose) != 1) return 0;
  }
  return 1;
}

int clear_data(const std::string& name, const VocEntry& entry, int32_t force, int32_t verbose, int32_t lock) {
  if (!path_allowed(name, entry.data_path, force)) {
    if (verbose != 0) M_msgno_out(MRV_MSG_DATA_PATH_DIFFERS, "%s", name.c_str());
    return 0;
  }
  OpenFile file;
  if (open_for_clear(&file, entry.data_path, MRV_MSG_OPEN_FAILED) != 1) return 0;
  return clear_open_file(file.get(), name, lock, false);
}

}  // namespace

int M_clear_reset_index(REL_TYPE* rel) {
  int32_t count = 0;
  return rel != nullptr && M_clear_all_indexes(rel, &count) >= 0 ? 1 : 0;
}

int M_remove_dir_files(const char* path, const char* pattern) {
  std::string_view list(pattern != nullptr ? pattern : "");
  const bool everything = list.empty();
  const bool keep_matches = !list.empty() && list.front() == '^';
  if (keep_matches) list.remove_prefix(1);
  std::vector<std::string_view> prefixes;
  for (size_t at = 0; !everything && at <= list.size();) {
    size_t bar = list.find('|', at);
    if (bar == std::string_view::npos) bar = list.size();
    if (bar > at) prefixes.push_back(list.substr(at, bar - at));
    at = bar + 1;
  }
  NT_DIR* dir = NT_opendir(path);
  if (dir == nullptr) return 0;
  std::vector<std::string> doomed;
  while (NT_dirent* e = NT_readdir(dir)) {
    std::string_view entry(e->d_name, e->d_namlen);
    if (entry.empty() || entry.front() == '.') continue;
    bool matches = false;
    for (std::string_view p : prefixes) matches = matches || entry.starts_with(p);
    if (everything || matches != keep_matches) doomed.emplace_back(entry);
  }
  NT_closedir(dir);
  int ok = 1;
  for (const std::string& entry : doomed)
    if (NT_RemoveFile(path, entry.c_str()) != 1) ok = 0;
  if (everything && rmdir(path) != 0) ok = 0;
  return ok;
}

int M_clear_dir(const char* name, const char* path, int32_t force, int32_t verbose) {
  if (!path_allowed(name, path, force)) {
    if (verbose != 0) M_msgno_out(MRV_MSG_DIR_PATH_DIFFERS, "%s%s", name, path);
    return 0;
  }
  NT_DIR* dir = NT_opendir(path);
  if (dir == nullptr) {
    M_msgno_out(MRV_MSG_NO_FILE, "%s", path);
    return 0;
  }
  std::vector<std::string> entries;
  while (NT_dirent* e = NT_readdir(dir)) {
    std::string_view entry(e->d_name, e->d_namlen);
    if (entry != "." && entry != "..") entries.emplace_back(entry);
  }
  NT_closedir(dir);
  for (const std::string& entry : entries) {
    if (NT_RemoveFile(path, entry.c_str()) != 1) {
      M_msgno_out(MRV_MSG_NO_FILE, "%s", path);
      return 0;
    }
  }
  if (verbose != 0) M_msgno_out(MRV_MSG_CLEARED, "%s", name);
  return 1;
}

int clear_l_dict_file(REL_TYPE* rel) {
  // The keys are gathered first: a delete may rearrange the group that the
  // walk stands in. Each delete takes the locks of its own group.
  std::vector<std::string> keys;
  int walked = M_for_each_key(rel, [&](const uint8_t* key, int32_t length, const uint8_t*, int32_t, uint32_t) {
    keys.emplace_back(reinterpret_cast<const char*>(key), static_cast<size_t>(length));
    return 0;
  });
  if (walked != 0) {
    M_file_error(rel, "clear_l_dict_file", "clear.file", nullptr, 0, 0);
    return 0;
  }
  for (const std::string& key : keys) {
    if (key == "@ID") continue;
    const auto* k = reinterpret_cast<const uint8_t*>(key.data());
    const auto length = static_cast<int32_t>(key.size());
    std::string record;
    if (M_read_tuple(rel, k, length, &record) < 0) {
      M_file_error(rel, "clear_l_dict_file", "clear.file", k, length, 0);
      return 0;
    }
    if (key.starts_with("@") &&
        (starts_with_any_case(record, "LF") || starts_with_any_case(record, "LD")))
      continue;  // a member pointer keeps its member reachable
    if (M_delete_tuple(rel, k, length, nullptr) < 0) return 0;
  }
  return 1;
}

int M_clear_one(const char* name, int32_t name_len, int32_t dict_mode, int32_t force, int32_t verbose,
                int32_t lock) {
  const std::string key(name, static_cast<size_t>(name_len));
  std::string record;
  if (M_voc_read(key, &record) != 1) {
    if (verbose != 0) M_msgno_out(MRV_MSG_NO_FILE, "%s", key.c_str());
    return 0;
  }
  const VocEntry entry = M_voc_fields(record);
  if (entry.data_path == kVocPath) {
    if (verbose != 0) M_msgno_out(MRV_MSG_NOT_CLEARED, "%s", key.c_str());
    return 0;
  }
  int rc;
  if (dict_mode != CLEAR_DICT && (starts_with_any_case(entry.type, "D") || starts_with_any_case(entry.type, "LD")))
    return M_clear_dir(key.c_str(), entry.data_path.c_str(), force, verbose);
  if (dict_mode == CLEAR_DICT)
    rc = clear_dictionary(key, entry, force, verbose, lock);
  else
    rc = clear_data(key, entry, force, verbose, lock);
  if (rc == 1 && verbose != 0) M_msgno_out(MRV_MSG_CLEARED, "%s", key.c_str());
  return rc;
}

int M_clear_file(const char* name, int32_t dict_mode, int32_t force, int32_t verbose, int32_t lock) {
  DeferSignals deferred;
  return M_clear_one(name, static_cast<int32_t>(std::strlen(name)), dict_mode, force, verbose, lock);
}
