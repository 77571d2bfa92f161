#include "flib/fl_create.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "NT/NT_access.h"
#include "NT/NT_utils.h"
#include "common/fl_errout.h"
#include "common/mrv_msg.h"
#include "common/mrv_msgno.h"
#include "common/readconf.h"
#include "flib/fl_block.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_globals.h"
#include "flib/fl_heads.h"
#include "flib/fl_io.h"
#include "flib/fl_lock.h"
#include "flib/fl_open.h"
#include "flib/fl_ovhdr.h"
#include "flib/fl_rel.h"
#include "flib/fl_report.h"
#include "flib/lrgfillib.h"
#include "flib/parttbl.h"

namespace {

void remove_new_file(const REL_TYPE* rel) {
  if (hash_is_dynamic(rel->hashtype))
    NT_RemoveFile(rel->path, "");
  else
    unlink(rel->path);
}

// Closes the part being written (when there is one), reports, and removes
// the new file. 0.
int initfile_error(const REL_TYPE* rel, const char* cause, ScopedFd* part = nullptr) {
  if (part != nullptr) part->reset();
  M_file_error(rel, "M_initfile", cause, nullptr, 0, rel->modulo);
  remove_new_file(rel);
  return 0;
}

uint32_t time_stamp() {
  return static_cast<uint32_t>(M_file_time_stamp != 0 ? M_file_time_stamp : std::time(nullptr));
}

int32_t overflow_part_count(int32_t spread, int32_t primary_parts) {
  if (spread == 0) return 1;
  if (spread == 1) return primary_parts;
  return spread - 1;
}

// A part of the layout. One that stands already belongs to a file being
// laid out again (a cleared file keeps its parts): it is emptied and used
// where it is, which may be another partition behind a link.
int layout_part(REL_TYPE* rel, const char* path, uint32_t size) {
  struct stat st;
  if (stat(path, &st) == 0) return open(path, O_RDWR | O_TRUNC);
  uint32_t device = 0;
  return M_create_part_file(rel, path, &device, size, 0);
}

int create_part_error(REL_TYPE* rel, const char* function, const char* cause, int fd, const char* path) {
  if (fd >= 0) {
    close(fd);
    unlink(path);
  }
  return M_file_error(rel, function, cause, nullptr, 0, rel->modulo);
}

// Writes the head block of every group: into `fd` (dat001, or the static
// file) and, for the groups past the first part, into further primary parts
// that each start with a copy of `h`. With `loader_parts` the heads are
// left out: each part gets its header and its full length, and a
// descriptor of each part goes to `loader_parts`. The number of primary
// parts, or 0 after a report (the new file is gone then).
int32_t write_group_heads(REL_TYPE* rel, int fd, const FileHeader& h, const HeadLayout& layout,
                          std::vector<ScopedFd>* loader_parts) {
  const uint32_t b = rel->block_size;
  const int32_t modulo = rel->modulo;
  const int32_t groups_per_part = layout.groups_per_part;
  // Later primary parts start with a copy of the header.
  FileHeader copy = h;
  uint8_t block[MAX_BLOCK_SIZE] = {};
  std::vector<uint8_t> run;
  int32_t primary_parts = 0;
  for (int32_t first = 0; first == 0 || first < modulo; first += groups_per_part) {
    // The part being written when it is not `fd`; closed when its heads
    // are written.
    ScopedFd part;
    if (first > 0) {
      copy.first_group = first;
      char path[REL_NAME_SIZE + 16];
      M_part_path(rel, static_cast<uint32_t>(first / groups_per_part + 1), path, sizeof path);
      uint32_t size = static_cast<uint32_t>(std::min(modulo - first + 1, groups_per_part)) * b;
      part.reset(layout_part(rel, path, size));
      if (!part.valid()) return initfile_error(rel, "M_create_part_file");
      std::memset(block, 0, b);
      encode_file_header(copy, block);
      if (M_write_waiting(part.get(), block, b, 0) != 0) return initfile_error(rel, "write", &part);
    }
    const int part_fd = part.valid() ? part.get() : fd;
    ++primary_parts;
    const int32_t end = std::min(modulo, first + groups_per_part);
    if (loader_parts != nullptr) {
      // The part's full length, as the heads would give it.
      loader_parts->emplace_back(dup(part_fd));
      if (end > first && ftruncate(part_fd, head_offset(layout, end - 1) + b) != 0)
        return initfile_error(rel, "write", &part);
      continue;
    }
    for (int32_t g = first; g < end; g = head_run_end(layout, g, end))
      if (M_write_head_run(layout, part_fd, g, head_run_end(layout, g, end), &run) != 0)
        return initfile_error(rel, "write", &part);
  }
  return primary_parts;
}

// Writes the OVERFLOW_HEADER of each overflow part of a new dynamic file,
// with the live state in over001's. 1, or 0 after a report (the new file is
// gone then).
int write_overflow_headers(REL_TYPE* rel, const FileHeader& h, int32_t groups_per_part, int32_t primary_parts,
                           int32_t overflow_parts) {
  const uint32_t b = rel->block_size;
  const int32_t modulo = rel->modulo;
  OverflowHeader oh;
  oh.primary_parts = static_cast<uint16_t>(primary_parts);
  oh.overflow_parts = static_cast<uint16_t>(overflow_parts);
  oh.next_block = b;
  oh.modulo = static_cast<uint32_t>(modulo);
  oh.min_modulo = static_cast<uint32_t>(modulo);
  bool key_range_groups = hash_is_key_range(rel->hashtype) && modulo != 0;
  int32_t split_setting = 0;
  int32_t merge_setting = 0;
  M_load_settings(rel->hashtype, &split_setting, &merge_setting);
  int32_t split = key_range_groups ? 100 : rel->split_load != 0 ? rel->split_load : split_setting;
  int32_t merge = key_range_groups ? 0 : rel->merge_load != 0 ? rel->merge_load : merge_setting;
  oh.split_load = static_cast<uint8_t>(std::clamp(split, 0, 255));
  oh.merge_load = static_cast<uint8_t>(std::clamp(merge, 0, MAX_MERGE_LOAD));
  oh.max_flength = h.max_flength;
  oh.grp_free_blk = static_cast<int16_t>(M_cfg_grp_free_blk());
  oh.stack_capacity = static_cast<int16_t>(overflow_stack_capacity(b));
  oh.stack_count = 0;
  uint8_t block[MAX_BLOCK_SIZE] = {};
  for (int32_t p = 1; p <= overflow_parts; ++p) {
    char path[REL_NAME_SIZE + 16];
    M_part_path(rel, static_cast<uint32_t>(p) | PART_OVERFLOW, path, sizeof path);
    uint32_t size = static_cast<uint32_t>(std::min(modulo + 1, groups_per_part)) * b;
    ScopedFd over_fd(layout_part(rel, path, size));
    if (!over_fd.valid()) return initfile_error(rel, "M_create_part_file");
    std::memset(block, 0, b);
    encode_overflow_header(oh, block);
    if (M_write_waiting(over_fd.get(), block, b, 0) != 0) return initfile_error(rel, "write", &over_fd);
  }
  return 1;
}

}  // namespace

void M_load_settings(int32_t hashtype, int32_t* split_load, int32_t* merge_load) {
  bool keydata = hash_is_keydata(hashtype);
  *split_load = M_cfg_split_load(keydata);
  *merge_load = M_cfg_merge_load(keydata);
}

int M_initfile(int fd, REL_TYPE* rel) {
  const bool to_loader = M_heads_to_loader;
  M_heads_to_loader = false;
  const BlockSizeCode code{
      std::clamp(BlockSizeCode::of_bytes(rel->block_size).code, BlockSizeCode::kMin, BlockSizeCode::kMax)};
  const int32_t k = code.code;
  const uint32_t b = code.bytes();
  rel->block_size = b;
  bool dynamic = hash_is_dynamic(rel->hashtype);
  int32_t modulo = rel->modulo;

  FileHeader h;
  h.rfs = rel->rfs != 0 ? 1 : 0;
  h.block_code = code.stored();
  h.max_flength = M_cfg_max_flength();
  int32_t groups_per_part = h.max_flength / static_cast<int32_t>(b) - 1;
  if (dynamic && modulo > groups_per_part) {
    h.modulo = groups_per_part;
  } else {
    h.modulo = modulo;
    groups_per_part = std::max(modulo, 1);
  }
  h.hashtype = rel->hashtype;
  if (hash_is_key_range(rel->hashtype)) {
    h.format = FORMAT_KEY_RANGE;
  } else if (!dynamic) {
    h.format = FORMAT_STATIC;
    if ((static_cast<int64_t>(modulo) + 1) * k > MAX_STATIC_KBLOCKS) {
      errno = EFBIG;
      return initfile_error(rel, "write");
    }
  } else {
    h.format = FORMAT_DYNAMIC;
  }
  int32_t spread = dynamic ? M_spread : 0;
  h.first_group = 0;
  h.spread = spread != 0 ? 1 : 0;
  h.record_mark = M_langgrp[0];
  h.lang2 = M_langgrp[1];
  h.lang3 = M_langgrp[2];
  std::memcpy(h.update_trigger, rel->update_trigger, sizeof h.update_trigger);
  std::memcpy(h.delete_trigger, rel->delete_trigger, sizeof h.delete_trigger);

  uint8_t block[MAX_BLOCK_SIZE] = {};
  encode_file_header(h, block);
  if (M_write_waiting(fd, block, b, 0) != 0) return initfile_error(rel, "write");
  HeadLayout layout;
  layout.block_size = b;
  layout.hashtype = rel->hashtype;
  layout.stamp = time_stamp();
  layout.spread = spread;
  layout.groups_per_part = groups_per_part;
  layout.modulo = modulo;
  std::vector<ScopedFd> loader_parts;
  int32_t primary_parts = write_group_heads(rel, fd, h, layout, to_loader ? &loader_parts : nullptr);
  if (primary_parts == 0) return 0;
  rel->primary.assign(static_cast<size_t>(primary_parts), PartEntry{});
  if (dynamic) {
    int32_t overflow_parts = overflow_part_count(spread, primary_parts);
    if (write_overflow_headers(rel, h, groups_per_part, primary_parts, overflow_parts) != 1) return 0;
    rel->overflow.assign(static_cast<size_t>(overflow_parts), PartEntry{});
  }
  if (to_loader) M_heads_pending_add(layout, std::move(loader_parts));
  return 1;
}

int write_file_header(REL_TYPE* rel, uint32_t part) {
  uint8_t block[MAX_BLOCK_SIZE] = {};
  uint32_t b = rel->block_size;
  bool overflow = (part & PART_OVERFLOW) != 0;
  uint32_t index = (part & ~PART_OVERFLOW) - 1;
  if (overflow) {
    OverflowHeader oh;
    oh.stack_capacity = static_cast<int16_t>(overflow_stack_capacity(b));
    oh.next_block = b | index;
    oh.modulo = rel->sfd != nullptr ? rel->sfd->modulo : static_cast<uint32_t>(rel->modulo);
    oh.split_load = static_cast<uint8_t>(rel->split_load);
    oh.merge_load = static_cast<uint8_t>(rel->merge_load);
    oh.primary_parts = rel->sfd != nullptr ? rel->sfd->primary_count : 1;
    oh.overflow_parts = rel->sfd != nullptr ? rel->sfd->overflow_count : 1;
    oh.min_modulo = static_cast<uint32_t>(rel->min_modulo);
    encode_overflow_header(oh, block);
  } else {
    fl_put_i32(block, FH_MODULO, rel->min_modulo);
    fl_put_i32(block, FH_HASHTYPE, rel->hashtype);
    fl_put_i32(block, FH_FIRST_GROUP,
               static_cast<int32_t>(rel->sfd != nullptr ? rel->sfd->modulo : static_cast<uint32_t>(rel->modulo)));
    fl_put_i32(block, FH_MAX_FLENGTH, rel->max_flength != 0 ? rel->max_flength : M_cfg_max_flength());
  }
  return M_blkwrite(rel, make_addr(overflow, 0, index), block) == 1 ? 0 : -1;
}

int update_file_info(REL_TYPE* rel, int what) {
  if (rel->sfd == nullptr) return -1;
  uint8_t block[MAX_BLOCK_SIZE];
  BlockLock lock(rel);
  if (!lock.take(ADDR_OVERFLOW, LOCK_EXCLUSIVE))
    return M_file_error(rel, "update_file_info", "M_mrvlockf", nullptr, 0, what);
  int result = M_blkread(rel, ADDR_OVERFLOW, block, CHECK_NONE) == 1 ? 0 : -1;
  if (result == 0) {
    switch (what) {
      case 1:
        fl_put_u16(block, OH_PRIMARY_PARTS, rel->sfd->primary_count);
        break;
      case 2:
        fl_put_u16(block, OH_OVERFLOW_PARTS, rel->sfd->overflow_count);
        break;
      default:
        fl_put_u32(block, OH_MODULO, rel->sfd->modulo);
        break;
    }
    result = M_blkwrite(rel, ADDR_OVERFLOW, block) == 1 ? 0 : -1;
  }
  lock.release();
  if (result != 0) M_file_error(rel, "update_file_info", nullptr, nullptr, 0, what);
  return result;
}

namespace {

// Creates part file `code` (a part number, with PART_OVERFLOW for the
// overflow side) of `size` bytes and fills `entry` with its descriptor and
// device. 0 on success; -2 when the caller asked not to wait for space;
// otherwise the reported failure.
int make_part_file(REL_TYPE* rel, const char* fn, uint32_t code, uint32_t size, int wait,
                   char* path, size_t path_size, PartEntry* entry) {
  M_part_path(rel, code, path, path_size);
  M_reserve_descriptor();
  uint32_t device = 0;
  int fd = M_create_part_file(rel, path, &device, size, wait);
  if (fd == -2) return -2;
  if (fd < 0)
    return M_file_error(rel, fn, "M_create_part_file", nullptr, 0,
                        static_cast<int32_t>(code & ~PART_OVERFLOW));
  entry->fd = fd;
  entry->device = device;
  return 0;
}

}  // namespace

int create_primary_part_file(REL_TYPE* rel, int wait) {
  const char* fn = "create_primary_part_file";
  if (rel->sfd == nullptr || rel->primary.size() >= static_cast<size_t>(MAX_PARTS))
    return M_file_error(rel, fn, "part count", nullptr, 0, static_cast<int32_t>(rel->primary.size()));
  auto number = static_cast<uint32_t>(rel->primary.size() + 1);
  uint32_t b = rel->block_size;
  uint32_t size = static_cast<uint32_t>(std::min<int64_t>(static_cast<int64_t>(rel->modulo) + 1, rel->groups_per_part)) * b;
  char path[REL_NAME_SIZE + 16];
  PartEntry entry;
  if (int made = make_part_file(rel, fn, number, size, wait, path, sizeof path, &entry); made != 0)
    return made;
  int fd = entry.fd;
  entry.first_group = rel->sfd->modulo;
  rel->primary.push_back(entry);
  rel->sfd->primary_count = static_cast<uint8_t>(number);
  rel->fd = fd;
  rel->primary_current = static_cast<uint8_t>(number);
  if (write_file_header(rel, number) != 0 || update_file_info(rel, 1) != 0 ||
      M_insert_part_file(rel, number - 1) != 0) {
    rel->primary.pop_back();
    rel->sfd->primary_count = static_cast<uint8_t>(number - 1);
    rel->fd = -1;
    rel->primary_current = 0;
    return create_part_error(rel, fn, "write", fd, path);
  }
  return 0;
}

int create_overflow_part_file(REL_TYPE* rel, int wait) {
  const char* fn = "create_overflow_part_file";
  if (rel->sfd == nullptr || rel->overflow.size() >= static_cast<size_t>(MAX_PARTS))
    return M_file_error(rel, fn, "part count", nullptr, 0, static_cast<int32_t>(rel->overflow.size()));
  uint32_t b = rel->block_size;
  char first[REL_NAME_SIZE + 16];
  M_part_path(rel, 1 | PART_OVERFLOW, first, sizeof first);
  struct stat st;
  int64_t blocks = stat(first, &st) == 0 ? st.st_size / b : 0;
  blocks = std::max<int64_t>(blocks, static_cast<int64_t>(rel->modulo) + 1);
  uint32_t size = static_cast<uint32_t>(std::min<int64_t>(blocks, rel->groups_per_part)) * b;
  auto number = static_cast<uint32_t>(rel->overflow.size() + 1);
  char path[REL_NAME_SIZE + 16];
  PartEntry entry;
  if (int made = make_part_file(rel, fn, number | PART_OVERFLOW, size, wait, path, sizeof path, &entry);
      made != 0)
    return made;
  int fd = entry.fd;
  rel->overflow.push_back(entry);
  rel->sfd->overflow_count = static_cast<uint8_t>(number);
  rel->over_fd = fd;
  rel->over_current = static_cast<uint8_t>(number);
  rel->space_cell = entry.space_cell;
  rel->space_reserved = entry.space_reserved;
  if (write_file_header(rel, number | PART_OVERFLOW) != 0 || update_file_info(rel, 2) != 0 ||
      M_insert_part_file(rel, (number - 1) | PART_OVERFLOW) != 0) {
    rel->overflow.pop_back();
    rel->sfd->overflow_count = static_cast<uint8_t>(number - 1);
    rel->over_fd = -1;
    rel->over_current = 0;
    return create_part_error(rel, fn, "write", fd, path);
  }
  return 0;
}

int M_create_hashed(const char* path, int32_t modulo, int32_t block, int32_t type, int32_t verbose,
                    const char* part_table) {
  if (NT_access(path, AccessMode::Exists) == 0) {
    M_msgno_out(MRV_MSG_PATH_EXISTS, "%s", path);
    return 0;
  }
  uint32_t b = BlockSizeCode{block}.bytes();
  REL_TYPE rel;
  std::snprintf(rel.path, sizeof rel.path, "%s", path);
  const char* slash = std::strrchr(path, '/');
  std::snprintf(rel.name, sizeof rel.name, "%s", slash != nullptr ? slash + 1 : path);
  rel.modulo = modulo;
  rel.hashtype = static_cast<int16_t>(type);
  rel.block_size = b;
  ScopedFd fd;
  if (!hash_is_dynamic(type)) {
    fd.reset(open(path, O_RDWR | O_CREAT, 0666));
    if (!fd.valid()) {
      M_msgno_out(MRV_MSG_CREATE_FAILED, "%s", path);
      return 0;
    }
  } else {
    if (mkdir(path, 0777) != 0) {
      M_msgno_out(MRV_MSG_CREATE_FAILED, "%s", path);
      return 0;
    }
    if (part_table != nullptr)
      M_errmsg(0, "NT doesn't support per-file part table, ingore the per-file part table.\n");
    int64_t g = M_cfg_max_flength() / static_cast<int64_t>(b);
    int64_t blocks = static_cast<int64_t>(modulo) + 1 < g ? static_cast<int64_t>(modulo) + 1 : g;
    rel.groups_per_part = static_cast<int32_t>(g);
    char first[REL_NAME_SIZE + 16];
    M_part_path(&rel, 1, first, sizeof first);
    uint32_t device = 0;
    fd.reset(M_create_part_file(&rel, first, &device, static_cast<uint32_t>(blocks * b), 0));
    if (!fd.valid()) {
      M_msgno_out(MRV_MSG_CREATE_FAILED, "%s", path);
      NT_RemoveFile(path, "");
      return 0;
    }
  }
  if (M_initfile(fd.get(), &rel) != 1) {
    // M_initfile has removed what it made.
    fd.reset();
    M_msgno_out(MRV_MSG_INIT_FAILED, "%s", path);
    return 0;
  }
  // No sync: like every other write of the library, the new file reaches
  // the disk through the page cache. A sync here cost a restore one disk
  // flush per file made, and guarded nothing that the load after it does
  // not leave to the page cache anyway. The descriptor closes here.
  return 1;
}
