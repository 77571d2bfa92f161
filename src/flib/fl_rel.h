// REL_TYPE, the handle of an open hashed file, and the row of the shared file
// table that a dynamic file's handle points to.
//
// A static file is one descriptor. A dynamic file is a directory of parts:
// primary parts datNNN hold group heads, overflow parts overNNN hold all
// other blocks. The handle keeps one row per known part; a part's descriptor
// may be closed behind the caller's back when descriptors run short (see
// lrgfillib.h), and is reopened on its next use. The descriptor table refers
// to the handle by address: an open handle must not be copied or moved.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

inline constexpr size_t REL_NAME_SIZE = 1024;
inline constexpr int32_t MAX_PARTS = 255;

struct PartEntry {
  uint32_t device = 0;
  int32_t fd = -1;
  uint8_t closed = 0;      // 1 = temporarily closed, reopened on use
  uint8_t lock_count = 0;  // locks held through this descriptor
  uint32_t use_stamp = 0;
  uint32_t first_group = 0;  // primary parts only
  uint32_t* space_cell = nullptr;
  uint32_t space_reserved = 0;
  // While the file is held shared: a read-only mapping of this part, made
  // at its first read in the session (length as it was then); `map_tried`
  // keeps a failed mapping from being tried again.
  const uint8_t* read_map = nullptr;
  size_t read_map_length = 0;
  bool map_tried = false;
};

// Row of the shared file table. The table is one of this process: no other
// process shares a file with this build.
struct SharedFileRow {
  uint32_t file_id[3] = {0, 0, 0};
  uint32_t reserved = 0;
  uint8_t split_flag = 0;
  uint8_t no_reuse = 0;
  uint8_t primary_count = 0;
  uint8_t overflow_count = 0;
  uint32_t modulo = 0;
  uint32_t users = 0;
};

struct IndexState;

struct REL_TYPE {
  // Not copyable: a copy would share the descriptors and the table rows of
  // the handle. A handle that is not open yet (or a fresh one that clears
  // it) may be moved.
  REL_TYPE() = default;
  REL_TYPE(const REL_TYPE&) = delete;
  REL_TYPE& operator=(const REL_TYPE&) = delete;
  REL_TYPE(REL_TYPE&&) = default;
  REL_TYPE& operator=(REL_TYPE&&) = default;

  char name[REL_NAME_SIZE] = {};
  char path[REL_NAME_SIZE] = {};
  int32_t fd = -1;
  int32_t over_fd = -1;
  uint32_t* space_cell = nullptr;
  uint32_t space_reserved = 0;
  int32_t slot = -1;
  int32_t journal_id = -1;
  int32_t modulo = 0;  // 0 marks a directory-type file
  uint32_t file_id[3] = {0, 0, 0};  // inode high, inode low, device
  uint32_t remote = 0;
  int16_t hashtype = 0;
  uint8_t name_len = 0;
  uint8_t path_len = 0;
  uint32_t block_size = 0;
  uint32_t device_slot = 0;
  uint8_t rfs = 0;
  IndexState* index = nullptr;
  int16_t split_load = 0;
  int16_t merge_load = 0;
  int32_t min_modulo = 0;
  uint32_t split_base = 0;
  uint32_t spread = 0;
  int32_t groups_per_part = 0;  // MAX_FLENGTH div B: blocks of one part
  uint8_t over_current = 0;     // part number that over_fd names; 0 none
  uint8_t primary_current = 0;  // part number that fd names; 0 none
  int16_t grp_free_blk = 0;
  std::vector<PartEntry> primary;   // size = primary parts known here
  std::vector<PartEntry> overflow;  // size = overflow parts known here
  int32_t open_mode = 0;
  // The mode of the whole-file lock this handle holds (LOCK_SHARED or
  // LOCK_EXCLUSIVE), 0 when it holds none.
  int32_t file_lock = 0;
  // A static file held shared is read through a read-only mapping of the
  // length it had when the lock was taken; null when there is none. A
  // dynamic file's parts keep their mappings in their PartEntry rows.
  const uint8_t* read_map = nullptr;
  size_t read_map_length = 0;
  SharedFileRow* sfd = nullptr;
  uint8_t temporary = 0;
  const char* path_prefix = nullptr;
  char update_trigger[33] = {};
  char delete_trigger[33] = {};
  int32_t max_flength = 0;        // from the header, 0 = the setting
  std::vector<std::string> key_ranges;  // group boundaries of a key-range file
};

inline bool rel_is_dynamic(const REL_TYPE* rel) { return (rel->hashtype & 64) != 0; }
