#include "flib/fl_lock.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <tuple>

#include "NT/NT_utils.h"
#include "common/fl_errout.h"
#include "common/readconf.h"
#include "flib/fl_block.h"
#include "flib/fl_io.h"
#include "flib/fl_rel.h"
#include "flib/lrgfillib.h"

LockStatistics M_lock_stats;
int32_t M_lock_fifo = 0;

namespace {

using LockName = std::tuple<uint32_t, uint32_t, std::string, std::string>;
// Names this process holds, with the number of times each was taken.
std::map<LockName, int32_t> g_held;

std::string cut_text(const char* text, int32_t length) {
  if (text == nullptr) return {};
  size_t n = length >= 0 ? static_cast<size_t>(length) : std::strlen(text);
  return std::string(text, std::min(n, LLM_TEXT_LIMIT));
}

LockName lock_name(const char* kind, const uint32_t file_id[2], const char* key, int32_t kind_length,
                   int32_t key_length) {
  return {file_id != nullptr ? file_id[0] : 0u, file_id != nullptr ? file_id[1] : 0u,
          cut_text(key, key_length), cut_text(kind, kind_length)};
}

bool is_semaphore(const char* kind) { return kind != nullptr && std::strncmp(kind, "semaphore", 9) == 0; }

}  // namespace

int M_mrvlockf(int fd, int32_t mode, uint32_t start, uint32_t length) {
  NT_flock lock{(mode & 0xFF) == LOCK_SHARED ? NT_RDLCK : NT_WRLCK, 0, static_cast<int32_t>(start),
                static_cast<int32_t>(length)};
  return NT_fcntl(fd, (mode & LOCK_NOWAIT) != 0 ? NT_SETLK : NT_SETLKW, &lock);
}

int M_mrvunlock(int fd, uint32_t start, uint32_t length) {
  NT_flock lock{NT_UNLCK, 0, static_cast<int32_t>(start), static_cast<int32_t>(length)};
  return NT_fcntl(fd, NT_SETLK, &lock);
}

namespace {

// A lock of `length` bytes (0: to the end and beyond) at the offset of
// `address` in its part; the part's lock count keeps its descriptor open.
int lock_range(REL_TYPE* rel, uint32_t address, int32_t mode, uint32_t length) {
  int fd = M_get_fd(rel, address);
  if (fd < 0) return -1;
  if (M_mrvlockf(fd, mode, addr_offset(address), length) != 0) return -1;
  if (PartEntry* part = M_part_entry(rel, address)) ++part->lock_count;
  return 0;
}

int unlock_range(REL_TYPE* rel, uint32_t address, uint32_t length) {
  int fd = M_get_fd(rel, address);
  if (fd < 0) return -1;
  int result = M_mrvunlock(fd, addr_offset(address), length);
  if (PartEntry* part = M_part_entry(rel, address); part != nullptr && part->lock_count > 0) --part->lock_count;
  return result;
}

// Under a whole-file lock of this handle, a block lock of the same or a
// weaker mode is already had: no call is made. (A byte-range unlock inside
// the file lock would even open a hole in it for other processes.)
bool covered_by_file_lock(const REL_TYPE* rel, int32_t mode) {
  return rel->file_lock == LOCK_EXCLUSIVE || (rel->file_lock == LOCK_SHARED && (mode & 0xFF) == LOCK_SHARED);
}

}  // namespace

int M_lock_block(REL_TYPE* rel, uint32_t address, int32_t mode) {
  if (covered_by_file_lock(rel, mode)) return 0;
  return lock_range(rel, address, mode, 1);
}

int M_unlock_block(REL_TYPE* rel, uint32_t address) {
  if (rel->file_lock != 0) return 0;
  return unlock_range(rel, address, 1);
}

int M_lock_file(REL_TYPE* rel, int32_t mode) {
  if (lock_range(rel, 0, mode, 0) != 0) return -1;
  rel->file_lock = mode & 0xFF;
  if (rel->file_lock == LOCK_SHARED) M_map_for_reading(rel);
  return 0;
}

int M_unlock_file(REL_TYPE* rel) {
  M_unmap_reading(rel);
  rel->file_lock = 0;
  return unlock_range(rel, 0, 0);
}

bool BlockLock::take(uint32_t address, int32_t mode) {
  assert(!held_);
  if (M_lock_block(rel_, address, mode) != 0) return false;
  address_ = address;
  held_ = true;
  return true;
}

void BlockLock::adopt(uint32_t address) {
  assert(!held_);
  address_ = address;
  held_ = true;
}

int BlockLock::release() {
  if (!held_) return 0;
  held_ = false;
  return M_unlock_block(rel_, address_);
}

int M_LLM_Lock(const char* kind, const uint32_t file_id[2], const char* key, int32_t function,
               int32_t wait, int32_t owner, int32_t kind_length, int32_t key_length) {
  ++M_lock_stats.lock_calls;
  if (is_semaphore(kind)) ++M_lock_stats.semaphore_locks;
  // One process at a time: nobody else can hold the name, so it is granted.
  ++g_held[lock_name(kind, file_id, key, kind_length, key_length)];
  return LLM_GRANTED;
}

int M_LLM_Release(const char* kind, const uint32_t file_id[2], const char* key, int32_t owner,
                  int32_t kind_length, int32_t key_length) {
  ++M_lock_stats.release_calls;
  if (is_semaphore(kind)) ++M_lock_stats.semaphore_releases;
  auto it = g_held.find(lock_name(kind, file_id, key, kind_length, key_length));
  if (it == g_held.end()) {
    M_errout(0, "M_LLM_Release error %d.\n", LLM_SYSTEM_FAILURE);
    return -1;
  }
  if (--it->second == 0) g_held.erase(it);
  return 0;
}

bool M_LLM_held(const char* kind, const uint32_t file_id[2], const char* key, int32_t kind_length,
                int32_t key_length) {
  return g_held.count(lock_name(kind, file_id, key, kind_length, key_length)) != 0;
}

int M_upl_lock(const REL_TYPE* rel, uint32_t group, int32_t mode) {
  std::string key = std::to_string(group);
  int result = M_LLM_Lock("UPL", rel->file_id + 1, key.c_str(), mode, 1, 0, -1, -1);
  if (result != LLM_GRANTED) {
    M_errout(0, "upl lock error(%d).\n", result);
    return -1;
  }
  return 0;
}

int M_upl_unlock(const REL_TYPE* rel, uint32_t group) {
  std::string key = std::to_string(group);
  int result = M_LLM_Release("UPL", rel->file_id + 1, key.c_str(), 0, -1, -1);
  if (result != 0) {
    M_errout(0, "upl unlock error(%d).\n", result);
    return -1;
  }
  return 0;
}

void M_check_lock_config() { M_lock_fifo = M_cfg_lockfifo() ? 1 : 0; }

int M_idx_lockf(int fd, int32_t mode) {
  int result = mode == LOCK_NONE ? M_mrvunlock(fd, 0, 1) : M_mrvlockf(fd, mode, 0, 1);
  if (result != 0) M_errout(0, "M_lock lock error in M_idx_lockf.(%d) \n", errno);
  return result;
}
