#include "flib/fl_open.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>

#include "NT/NT_utils.h"
#include "common/fl_errout.h"
#include "common/mrv_msg.h"
#include "common/mrv_msgno.h"
#include "common/readconf.h"
#include "flib/fl_block.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_globals.h"
#include "flib/fl_hash.h"
#include "flib/fl_index.h"
#include "flib/fl_io.h"
#include "flib/fl_lock.h"
#include "flib/fl_memflush.h"
#include "flib/fl_ovhdr.h"
#include "flib/fl_rel.h"
#include "flib/fl_report.h"
#include "flib/fl_sfd.h"
#include "flib/lrgfillib.h"

namespace {

constexpr size_t kMaxGmekeyBytes = 1 << 20;

bool language_byte_ok(uint8_t stored, uint8_t running, uint8_t standard) {
  return stored != 0 ? stored == running : running == standard;
}

// Loads the group boundaries of a key-range file: one key per line of the
// file "gmekey" in the file's directory, in ascending order.
bool load_key_ranges(REL_TYPE* rel) {
  std::string path = std::string(rel->path) + "/gmekey";
  std::ifstream in(path, std::ios::binary);
  if (!in) return true;
  in.seekg(0, std::ios::end);
  if (static_cast<size_t>(in.tellg()) > kMaxGmekeyBytes) return false;
  in.seekg(0);
  std::string line;
  while (std::getline(in, line)) rel->key_ranges.push_back(line);
  return true;
}

// Reports a failed open of a dynamic file and takes it out of the shared
// file table and the part rows; the rows close the parts they own. A
// descriptor not yet in a row is closed by its guard after this.
int open_error(REL_TYPE* rel, const char* cause) {
  M_file_error(rel, "M_openfile", cause, nullptr, 0, rel->modulo);
  M_remove_part_files(rel);
  M_del_file_entry(rel);
  rel->fd = -1;
  return -1;
}

// The checks of the size rules and the header words that do not need the
// file's kind. Reports and returns false on the first failure.
bool header_words_ok(const FileHeader& h, const char* name, int64_t size, uint32_t block_size,
                     bool dynamic) {
  bool key_range = hash_is_key_range(h.hashtype) && h.modulo != 0;
  int32_t wanted = dynamic ? (key_range ? FORMAT_KEY_RANGE : FORMAT_DYNAMIC) : FORMAT_STATIC;
  if (h.format != wanted) {
    report_format_word(h.format, h.rfs, name);
    return false;
  }
  if (h.rfs != 0 && h.rfs != 1) {
    M_errout(0, "The 7th integer location in file header(RFS flag) should be 0 or 1, it is (%d).\n",
             h.rfs);
    M_msgno_out(MRV_MSG_BAD_FILE_LAYOUT, "%s", name);
    return false;
  }
  if (block_size == 0 || size < block_size || size % block_size != 0) {
    M_errout(0, "File size (%d) is not a multiple of block size(%d).\n", static_cast<int>(size),
             static_cast<int>(block_size));
    M_msgno_out(MRV_MSG_BAD_FILE_LAYOUT, "%s", name);
    return false;
  }
  if (h.modulo < 0 || size < static_cast<int64_t>(block_size) * (static_cast<int64_t>(h.modulo) + 1)) {
    M_errout(0, "File size(%d) is < minimum hash file size, blocksize(%d) * (modulo(%d) + 1).\n",
             static_cast<int>(size), static_cast<int>(block_size), h.modulo);
    M_msgno_out(MRV_MSG_BAD_FILE_LAYOUT, "%s", name);
    return false;
  }
  return true;
}

// A header that counts indexes has its index file opened with it; a
// damaged index keeps the file shut, unless the caller asked for the data
// alone (OPEN_NO_INDEX), so that no write can leave the index behind.
int open_index_of(REL_TYPE* rel, const FileHeader& h, int32_t mode) {
  if (h.index_count == 0 || (mode & OPEN_NO_INDEX) != 0) return 1;
  if (M_open_index(rel) >= 0) return 1;
  M_errout(0, "Index: master head has been damaged\n");
  M_closefile(rel);
  return -1;
}

// Opens the first part of the file at `path` (the file itself, or dat001
// of a dynamic file's directory), reads its FILE_HEADER and checks it in
// the fixed order; the handle takes the header's fields and the file's
// identity. 1 with the descriptor in *fd, 0 when the file is absent or not
// permitted, -1 after a report.
int read_file_header(REL_TYPE* rel, const char* path, ScopedFd* fd, FileHeader* out, MRV_STAT* id) {
  struct stat st;
  if (stat(path, &st) != 0) {
    M_msgno_out(MRV_MSG_NO_SUCH_FILE, "%s", path);
    M_file_error(rel, "M_openfile", "stat", nullptr, 0, 0);
    return -1;
  }
  bool directory = S_ISDIR(st.st_mode);
  char part[REL_NAME_SIZE + 16];
  M_part_path(rel, 1, part, sizeof part);
  std::string main_path = directory ? std::string(part) : std::string(path);

  fd->reset(open(main_path.c_str(), M_open_flags(rel->open_mode)));
  if (!fd->valid()) {
    int e = errno;
    if (M_startup_messages) M_errmsg(0, "Open %s error.\n", main_path.c_str());
    errno = e;
    if (e == EACCES || (e == ENOENT && !directory)) return 0;
    return -1;
  }
  uint8_t header[FH_READ_SIZE];
  if (pread(fd->get(), header, sizeof header, 0) != static_cast<ssize_t>(sizeof header)) {
    M_msgno_out(MRV_MSG_SHORT_HEADER, "%s", path);
    return -1;
  }
  FileHeader h = decode_file_header(header);
  if (!language_byte_ok(h.record_mark, M_langgrp[0], DEFAULT_LANGGRP[0]) ||
      !language_byte_ok(h.lang2, M_langgrp[1], DEFAULT_LANGGRP[1]) ||
      !language_byte_ok(h.lang3, M_langgrp[2], DEFAULT_LANGGRP[2])) {
    M_msgno_out(MRV_MSG_LANGUAGE_DIFFERS, "%s", path);
    return -1;
  }
  rel->modulo = h.modulo;
  rel->hashtype = static_cast<int16_t>(h.hashtype);
  std::memcpy(rel->update_trigger, h.update_trigger, sizeof rel->update_trigger);
  std::memcpy(rel->delete_trigger, h.delete_trigger, sizeof rel->delete_trigger);
  if (rel->hashtype < 0 || hash_function(rel->hashtype) >= 3) {
    M_msgno_out(MRV_MSG_UNKNOWN_HASH, "%d", rel->hashtype);
    return -1;
  }
  if (directory && !hash_is_dynamic(rel->hashtype)) {
    M_msgno_out(MRV_MSG_DIR_NOT_DYNAMIC, "%d", rel->hashtype);
    return -1;
  }
  bool dynamic = hash_is_dynamic(rel->hashtype);
  rel->block_size = block_size_of_code(h.block_code);
  if (dynamic) {
    rel->spread = static_cast<uint32_t>(h.spread);
    rel->max_flength = h.max_flength;
    int32_t length = h.max_flength != 0 ? h.max_flength : M_cfg_max_flength();
    rel->groups_per_part = rel->block_size != 0 ? length / static_cast<int32_t>(rel->block_size) : 0;
  }
  if (mrv_fstat(fd->get(), id) != 0) return -1;
  rel->file_id[0] = id->ino_high;
  rel->file_id[1] = id->ino_low;
  rel->file_id[2] = id->dev;
  rel->device_slot = id->dev;
  if (!header_words_ok(h, path, id->size, rel->block_size, dynamic)) return -1;
  rel->rfs = static_cast<uint8_t>(h.rfs);
  *out = h;
  return 1;
}

// Under the shared lock of over001's block 0: joins the shared file table,
// takes the live state of the OVERFLOW_HEADER, and opens the other parts.
// The lock ends before the caller reports a failure, which closes the
// parts. The cause of a failure, or null.
const char* read_live_state(REL_TYPE* rel) {
  // The lock is held through the part row, so that over001 keeps its
  // descriptor while the other parts are opened.
  BlockLock lock(rel);
  if (!lock.take(ADDR_OVERFLOW, LOCK_SHARED)) return "M_mrvlockf";
  uint8_t over[MAX_BLOCK_SIZE];
  if (pread(rel->overflow[0].fd, over, rel->block_size, 0) != static_cast<ssize_t>(rel->block_size))
    return "m_read";
  if (M_link_file_entry(rel, over) < 0) return "M_link_file_entry";
  OverflowHeader oh = decode_overflow_header(over);
  rel->grp_free_blk = oh.grp_free_blk != 0
                          ? oh.grp_free_blk
                          : static_cast<int16_t>(M_cfg_grp_free_blk());
  rel->split_load = oh.split_load;
  rel->merge_load = oh.merge_load;
  rel->min_modulo = static_cast<int32_t>(oh.min_modulo);
  rel->sfd->split_flag = 0;
  if (M_insert_part_file(rel, 0) < 0 || M_insert_part_file(rel, PART_OVERFLOW) < 0)
    return "M_insert_part_file";
  rel->modulo = static_cast<int32_t>(oh.modulo);
  set_split_base(rel);
  if (M_open_large_file(rel) < 0) return "M_open_large_file";
  // No part is current yet; M_get_fd finds every part through its row.
  rel->primary_current = 0;
  rel->over_current = 0;
  rel->fd = -1;
  rel->over_fd = -1;
  rel->space_cell = rel->overflow[0].space_cell;
  rel->space_reserved = rel->overflow[0].space_reserved;
  if (hash_is_key_range(rel->hashtype) && !load_key_ranges(rel)) {
    M_errout(0, "GMK file is too big to open.\n");
    return "malloc";
  }
  if (lock.release() != 0) return "M_mrvunlock";
  return nullptr;
}

// Attaches the dynamic parts of a file whose dat001 is open in `fd`: opens
// over001, gives both their part rows, and reads the live state. 1, or -1
// after a report.
int attach_dynamic_parts(REL_TYPE* rel, ScopedFd fd, const MRV_STAT& id) {
  char part[REL_NAME_SIZE + 16];
  M_part_path(rel, 1 | PART_OVERFLOW, part, sizeof part);
  ScopedFd over_fd(open(part, M_open_flags(rel->open_mode)));
  if (!over_fd.valid()) return open_error(rel, "m_open");
  rel->over_fd = over_fd.get();
  MRV_STAT over_id;
  if (mrv_fstat(over_fd.get(), &over_id) != 0) return open_error(rel, "m_fstat");
  // From here the part rows own both descriptors.
  rel->primary.assign(1, PartEntry{});
  rel->overflow.assign(1, PartEntry{});
  rel->primary[0].fd = fd.release();
  rel->primary[0].device = id.dev;
  rel->primary[0].first_group = 0;
  rel->overflow[0].fd = over_fd.release();
  rel->overflow[0].device = over_id.dev;
  if (const char* cause = read_live_state(rel)) return open_error(rel, cause);
  return 1;
}

}  // namespace

int M_openfile(REL_TYPE* rel, const char* path, OpenMode open_mode, int32_t flags) {
  const int32_t mode = static_cast<int32_t>(open_mode) | flags;
  *rel = REL_TYPE{};
  std::snprintf(rel->name, sizeof rel->name, "%s", path);
  std::snprintf(rel->path, sizeof rel->path, "%s", path);
  rel->name_len = static_cast<uint8_t>(std::min<size_t>(std::strlen(rel->name), 255));
  rel->path_len = rel->name_len;
  rel->open_mode = mode & ~(OPEN_TEMPORARY | OPEN_NO_INDEX);
  rel->temporary = (mode & OPEN_TEMPORARY) != 0 ? 1 : 0;

  ScopedFd fd;
  FileHeader h;
  MRV_STAT id;
  if (int r = read_file_header(rel, path, &fd, &h, &id); r != 1) return r;
  if (!hash_is_dynamic(rel->hashtype)) {
    rel->fd = fd.release();
    return open_index_of(rel, h, mode);
  }
  // A dynamic file: the live state is in block 0 of over001.
  rel->fd = fd.get();
  if (attach_dynamic_parts(rel, std::move(fd), id) != 1) return -1;
  return open_index_of(rel, h, mode);
}

void M_closefile(REL_TYPE* rel) {
  // A flush may still be writing through the file's descriptors.
  M_flush_settle();
  M_close_index(rel);
  // Closing a descriptor gives up the process's locks on the file.
  M_unmap_reading(rel);
  rel->file_lock = 0;
  if (rel_is_dynamic(rel)) {
    M_remove_part_files(rel);
    M_del_file_entry(rel);
  } else if (rel->fd >= 0) {
    close(rel->fd);
  }
  rel->fd = -1;
  rel->over_fd = -1;
  rel->key_ranges.clear();
}
