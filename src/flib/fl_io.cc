#include "flib/fl_io.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "NT/NT_fault.h"
#include "common/fl_errout.h"
#include "common/mrv_msg.h"
#include "common/mrv_msgno.h"
#include "flib/fl_block.h"
#include "flib/fl_create.h"
#include "flib/fl_free.h"
#include "flib/fl_globals.h"
#include "flib/fl_hash.h"
#include "flib/fl_lock.h"
#include "flib/fl_mem.h"
#include "flib/fl_rel.h"
#include "flib/fl_report.h"
#include "flib/lrgfillib.h"

uint8_t M_blkbuf[MAX_BLOCK_SIZE];
uint32_t M_found_position = 0;
int32_t M_found_length = 0;
int32_t M_write_in_progress = 0;
uint64_t M_block_writes = 0;
std::jmp_buf* M_overflow_recovery = nullptr;

namespace {

// A chain longer than this has a loop in it.
constexpr int kMaxChainBlocks = 1 << 20;

int blkread_error(REL_TYPE* rel, const char* cause) {
  return M_file_error(rel, "M_blkread", cause, nullptr, 0, static_cast<int32_t>(M_groupno));
}

int blkwrite_error(REL_TYPE* rel, const char* cause, uint32_t address) {
  M_write_in_progress = 0;
  char text[96];
  std::snprintf(text, sizeof text, "%s, blkoff=0X%X", cause, address);
  return M_file_error(rel, "M_blkwrite", text, nullptr, 0, static_cast<int32_t>(M_groupno));
}

// The offset of an address in its file: bit 31 and the part index cleared.
uint32_t file_offset(uint32_t address) { return addr_offset(address); }

// Moves the positions of records in a head block that now lies at offset B
// of a new primary part: in-block records keep their offset in the block.
void rebase_rows(uint8_t* block, uint32_t block_size) {
  if (static_cast<uint32_t>(gb_datapos(block)) >= block_size) return;
  int32_t rows = std::min<int32_t>(gb_key_count(block), max_key_rows(block_size));
  for (int32_t row = 0; row < rows; ++row) {
    uint32_t position = ke_position(block, row);
    if (addr_is_overflow(position)) break;
    ke_set_position(block, row, position % block_size + block_size);
  }
}

}  // namespace

int M_fs_full_wait(const char* message) {
  M_errmsg(0, "%s",
           message != nullptr ? message
                              : "File system(s) full. You must reclaim space or change the part table.\n"
                                "When you are ready, press <RETURN> to continue.");
  for (;;) {
    char c;
    ssize_t n = read(STDIN_FILENO, &c, 1);
    if (n == 1 && c == '\n') return 0;
    if (n == 1) continue;
    if (n < 0 && errno == EINTR) continue;
    M_errmsg(0, "%s", M_END_OF_INPUT_TEXT);
    M_no_wait = 1;
    M_full_wait_abandoned = 1;
    return -1;
  }
}

int M_get_fd(REL_TYPE* rel, uint32_t address) {
  if (!rel_is_dynamic(rel)) return rel->fd;
  uint32_t number = addr_part_index(address) + 1;
  if (addr_is_overflow(address)) {
    if (rel->over_current == number && rel->over_fd >= 0) return rel->over_fd;
    if (rel->sfd != nullptr && rel->sfd->overflow_count > rel->overflow.size() && M_open_large_file(rel) < 0)
      return -1;
    return open_large_file(rel, number | PART_OVERFLOW);
  }
  if (rel->primary_current == number && rel->fd >= 0) return rel->fd;
  return open_large_file(rel, number);
}

void M_map_for_reading(REL_TYPE* rel) {
  M_unmap_reading(rel);
  struct stat st;
  // A dynamic file's parts are mapped one by one at their first read.
  if (rel_is_dynamic(rel) || rel->fd < 0 || fstat(rel->fd, &st) != 0 || st.st_size <= 0) return;
  void* map = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_SHARED, rel->fd, 0);
  if (map == MAP_FAILED) return;
  rel->read_map = static_cast<const uint8_t*>(map);
  rel->read_map_length = static_cast<size_t>(st.st_size);
}

void M_unmap_reading(REL_TYPE* rel) {
  if (rel->read_map != nullptr) munmap(const_cast<uint8_t*>(rel->read_map), rel->read_map_length);
  rel->read_map = nullptr;
  rel->read_map_length = 0;
  for (auto* parts : {&rel->primary, &rel->overflow})
    for (PartEntry& p : *parts) {
      if (p.read_map != nullptr) munmap(const_cast<uint8_t*>(p.read_map), p.read_map_length);
      p.read_map = nullptr;
      p.read_map_length = 0;
      p.map_tried = false;
    }
}

namespace {

// The mapping that a read session reads the block at `address` from: the
// static file's, or that of the dynamic part, made now if this is the
// part's first read in the session (`fd` is its open descriptor). Null
// when there is none.
const uint8_t* session_map(REL_TYPE* rel, int fd, uint32_t address, size_t* length) {
  if (!rel_is_dynamic(rel)) {
    *length = rel->read_map_length;
    return fd == rel->fd ? rel->read_map : nullptr;
  }
  if (rel->file_lock != LOCK_SHARED) return nullptr;
  PartEntry* part = M_part_entry(rel, address);
  if (part == nullptr) return nullptr;
  if (!part->map_tried) {
    part->map_tried = true;
    struct stat st;
    if (fstat(fd, &st) == 0 && st.st_size > 0) {
      void* map = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_SHARED, fd, 0);
      if (map != MAP_FAILED) {
        part->read_map = static_cast<const uint8_t*>(map);
        part->read_map_length = static_cast<size_t>(st.st_size);
      }
    }
  }
  *length = part->read_map_length;
  return part->read_map;
}

// A block: where the read session's mapping holds it, else read into
// `buffer` by a read call. Its bytes, or null with `*n` the read's result.
const uint8_t* read_block(REL_TYPE* rel, int fd, uint32_t address, uint8_t* buffer, uint32_t b, uint32_t offset,
                          ssize_t* n) {
  size_t length = 0;
  const uint8_t* map = session_map(rel, fd, address, &length);
  if (map != nullptr && static_cast<size_t>(offset) + b <= length) return map + offset;
  *n = pread(fd, buffer, b, offset);
  return *n == static_cast<ssize_t>(b) ? buffer : nullptr;
}

// The checks of M_blkread on a block that was had whole. 1, or the report's
// result.
int check_block(REL_TYPE* rel, const uint8_t* block, int check) {
  char text[96];
  if (check == CHECK_NONE) return 1;
  if (!rel_is_dynamic(rel) && gb_group(block) != M_groupno) {
    std::snprintf(text, sizeof text, "Grpno error. blkbuf->group=%d, M_groupno=%d, ",
                  static_cast<int>(gb_group(block)), static_cast<int>(M_groupno));
    return blkread_error(rel, text);
  }
  if (check == CHECK_GROUP_ONLY) return 1;
  uint8_t flags = gb_flags(block);
  if ((flags & FLAG_GROUP_BIT) == 0) return 1;
  if ((flags & 1) == check) return 1;
  return blkread_error(rel, "check over");
}

// The block at `address`, from the pools, the mapping or a read, or null
// after a report (`*result` its result).
const uint8_t* get_block(REL_TYPE* rel, uint32_t address, uint8_t* buffer, int* result) {
  errno = 0;
  uint32_t b = rel->block_size;
  int fd = rel->fd;
  char text[192];
  if (rel_is_dynamic(rel)) {
    fd = M_get_fd(rel, address);
    if (fd < 0) {
      std::snprintf(text, sizeof text, "blkoff=0X%X, M_get_fd", address);
      *result = blkread_error(rel, text);
      return nullptr;
    }
  }
  uint32_t offset = file_offset(address);
  if (b == 0 || offset % b != 0) {
    *result = blkread_error(rel, "block offset");
    return nullptr;
  }
  ssize_t n = static_cast<ssize_t>(b);
  const uint8_t* block = nullptr;
  if (M_mem_active(rel)) {
    n = M_memread(rel, address, buffer);
    if (n == static_cast<ssize_t>(b)) block = buffer;
  } else {
    block = read_block(rel, fd, address, buffer, b, offset, &n);
  }
  if (block == nullptr) {
    std::snprintf(text, sizeof text,
                  "M_pread return error. fd=%d, blkbuf addr=%lX, blksize=%d, blkoff=%d. ret=%d, "
                  "errno=%d. Read",
                  fd, static_cast<unsigned long>(reinterpret_cast<uintptr_t>(buffer)), static_cast<int>(b),
                  static_cast<int>(offset), static_cast<int>(n), errno);
    *result = blkread_error(rel, text);
  }
  return block;
}

}  // namespace

int M_blkread(REL_TYPE* rel, uint32_t address, uint8_t* buffer, int check) {
  int result = 1;
  const uint8_t* block = get_block(rel, address, buffer, &result);
  if (block == nullptr) return result;
  if (block != buffer) std::memcpy(buffer, block, rel->block_size);
  return check_block(rel, buffer, check);
}

const uint8_t* M_blkview(REL_TYPE* rel, uint32_t address, uint8_t* buffer, int check) {
  int result = 1;
  const uint8_t* block = get_block(rel, address, buffer, &result);
  return block != nullptr && check_block(rel, block, check) == 1 ? block : nullptr;
}

int M_blkwrite(REL_TYPE* rel, uint32_t address, uint8_t* buffer) {
  errno = 0;
  uint32_t b = rel->block_size;
  int fd = rel->fd;
  if (rel_is_dynamic(rel)) {
    fd = M_get_fd(rel, address);
    if (fd < 0) {
      M_msgno_out(MRV_MSG_NO_PART_DESCRIPTOR, "%u %zu %zu", address, rel->primary.size(), rel->overflow.size());
      return blkwrite_error(rel, "M_get_fd", address);
    }
  } else if (static_cast<uint64_t>(file_offset(address)) < static_cast<uint64_t>(b) * (M_groupno + 1)) {
    return blkwrite_error(rel, "block offset", address);
  }
  if (b == 0 || file_offset(address) % b != 0) return blkwrite_error(rel, "block offset", address);
  if (M_mem_active(rel)) {
    if (M_memwrite(rel, address, buffer) == static_cast<int>(b)) return 1;
    return blkwrite_error(rel, "M_memwrite", address);
  }
  ++M_block_writes;
  M_write_in_progress = 1;
  bool short_count = false;
  for (;;) {
    ssize_t n = NT_pwrite(fd, buffer, b, file_offset(address));
    if (n == static_cast<ssize_t>(b)) {
      M_write_in_progress = 0;
      return 1;
    }
    if (n < 0 && errno == EINTR) continue;
    if ((n < 0 && errno == ENOSPC) || (n >= 0 && errno == 0)) {
      short_count = true;
      if (M_no_wait != 0 || M_fs_full_wait() < 0) return blkwrite_error(rel, "write", address);
      continue;
    }
    if (n < 0 && errno == EFBIG && !short_count && rel_is_dynamic(rel)) {
      if (addr_is_overflow(address)) {
        if (M_overflow_recovery != nullptr) {
          M_write_in_progress = 0;
          std::longjmp(*M_overflow_recovery, 1);
        }
        return blkwrite_error(rel, "write", address);
      }
      if (create_primary_part_file(rel, 0) != 0) return blkwrite_error(rel, "write", address);
      // The block now opens the new part.
      address = make_addr(false, b, static_cast<uint32_t>(rel->primary.size() - 1));
      rebase_rows(buffer, b);
      rel->primary_current = 0;
      rel->fd = -1;
      fd = M_get_fd(rel, address);
      if (fd < 0) return blkwrite_error(rel, "M_get_fd", address);
      continue;
    }
    return blkwrite_error(rel, "write", address);
  }
}

ssize_t M_ls_write(int fd, const uint8_t* buffer, size_t length, off_t offset) {
  for (;;) {
    if (lseek(fd, offset, SEEK_SET) < 0) {
      M_file_error(nullptr, "M_ls_write", "lseek", nullptr, 0, static_cast<int32_t>(offset));
      return -1;
    }
    ssize_t n = NT_write(fd, buffer, length);
    if (n < 0 && errno == EINTR) continue;
    return n;
  }
}

int M_write_waiting(int fd, const uint8_t* buffer, size_t length, off_t offset) {
  for (;;) {
    errno = 0;
    if (M_ls_write(fd, buffer, length, offset) == static_cast<ssize_t>(length)) return 0;
    if (errno != ENOSPC && errno != 0) return -1;
    if (M_no_wait != 0 || M_fs_full_wait() < 0) return -1;
  }
}

int M_set_over_fd(REL_TYPE* rel, int32_t part_number) {
  if (!rel_is_dynamic(rel)) return 0;
  if (part_number == 0) {
    rel->over_current = 0;
    return 0;
  }
  if (rel->sfd == nullptr || part_number < 0 || part_number > rel->sfd->overflow_count) {
    return M_file_error(rel, "M_set_over_fd", "opfile error", nullptr, 0, part_number);
  }
  if (rel->sfd->overflow_count > rel->overflow.size() && M_open_large_file(rel) < 0)
    return M_file_error(rel, "M_set_over_fd", "M_open_large_file", nullptr, 0, part_number);
  int fd = open_large_file(rel, static_cast<uint32_t>(part_number) | PART_OVERFLOW);
  if (fd < 0) return M_file_error(rel, "M_set_over_fd", "opfile error", nullptr, 0, part_number);
  const PartEntry& p = rel->overflow[static_cast<size_t>(part_number - 1)];
  rel->over_fd = fd;
  rel->over_current = static_cast<uint8_t>(part_number);
  rel->space_cell = p.space_cell;
  rel->space_reserved = p.space_reserved;
  return 0;
}

int find_key_in_block(const uint8_t* block, uint32_t block_size, const uint8_t* key, int32_t length) {
  int32_t count = gb_key_count(block);
  if (count <= 0) return -1;
  KeyWalk walk = key_walk(block);
  if (walk.end < 0 || static_cast<uint32_t>(walk.end) > block_size) return -1;
  count = std::min(count, max_key_rows(block_size));
  int32_t floor = static_cast<int32_t>(ke_offset(count));
  for (int32_t row = 0; row < count; ++row, walk.next()) {
    if (!walk.fits_above(floor)) return -1;
    if (walk.length() == length && std::memcmp(walk.bytes(), key, static_cast<size_t>(length)) == 0) return row;
  }
  return -1;
}

int M_get_order(const uint8_t* block, uint32_t block_size, uint32_t position) {
  int32_t count = std::min<int32_t>(gb_key_count(block), max_key_rows(block_size));
  for (int32_t row = 0; row < count; ++row)
    if (ke_position(block, row) == position) return row;
  return -1;
}

const char* group_block_fault(const uint8_t* block, uint32_t block_size, bool head, char* text,
                              size_t size) {
  int32_t b = static_cast<int32_t>(block_size);
  int32_t datapos = gb_datapos(block);
  int32_t byteleft = gb_byteleft(block);
  if (datapos > b || datapos < static_cast<int32_t>(initial_datapos(block_size))) {
    if (head) {
      std::snprintf(text, size, "blksize=%d, datapos=%d ", b, datapos);
      return text;
    }
    return "datapos";
  }
  if (byteleft < 0 || byteleft > b - static_cast<int32_t>(BLOCK_OVERHEAD)) return "byteleft";
  if (byteleft + datapos > b) return "datapos+byteleft";
  int32_t count = gb_key_count(block);
  int32_t key_bytes = gb_key_bytes(block);
  if (count < 0 || key_bytes < 0 || static_cast<int32_t>(ke_offset(count)) > datapos - key_bytes)
    return "key table";
  return nullptr;
}

int M_read_grpblk(REL_TYPE* rel, uint32_t* address, uint8_t* block, const uint8_t* key,
                  int32_t length, int32_t* row, uint32_t* previous) {
  const char* fn = "M_read_grpblk";
  int32_t group = static_cast<int32_t>(M_groupno);
  char text[64];
  for (int step = 0; step < kMaxChainBlocks; ++step) {
    bool head = step == 0;
    if (M_blkread(rel, *address, block, head ? CHECK_HEAD : CHECK_CONTINUATION) < 0)
      return M_file_error(rel, fn, nullptr, key, length, group);
    if ((gb_flags(block) & FLAG_KIND_MASK) != (head ? FLAG_HEAD : FLAG_CONTINUATION))
      return M_file_error(rel, fn, "blk check", key, length, group);
    if (const char* fault = group_block_fault(block, rel->block_size, head, text, sizeof text))
      return M_file_error(rel, fn, fault, key, length, group);
    if (rel_is_dynamic(rel) && M_set_over_fd(rel, gb_over_part(block)) < 0)
      return M_file_error(rel, fn, nullptr, key, length, group);
    int found = find_key_in_block(block, rel->block_size, key, length);
    if (found >= 0) {
      if (block != M_blkbuf) std::memcpy(M_blkbuf, block, rel->block_size);
      M_found_position = ke_position(block, found);
      M_found_length = ke_length(block, found);
      *row = found;
      return 1;
    }
    if (gb_next(block) == 0) return 0;
    *previous = *address;
    *address = gb_next(block);
  }
  return M_file_error(rel, fn, "chain loop", key, length, group);
}

int M_arrange_block(REL_TYPE* rel, uint8_t* table_block, uint8_t* data_block, uint32_t address,
                    int32_t entry, int32_t size) {
  const char* fn = "M_arrange_block";
  int32_t group = static_cast<int32_t>(M_groupno);
  uint32_t b = rel->block_size;
  if (entry < 0 || entry >= std::min<int32_t>(gb_key_count(table_block), max_key_rows(b)))
    return M_file_error(rel, fn, "entry", nullptr, 0, group);
  return M_arrange_hole(rel, table_block, data_block, address, ke_position(table_block, entry),
                        ke_length(table_block, entry), size);
}

int M_arrange_hole(REL_TYPE* rel, uint8_t* table_block, uint8_t* data_block, uint32_t address, uint32_t position,
                   int32_t length, int32_t size) {
  const char* fn = "M_arrange_block";
  int32_t group = static_cast<int32_t>(M_groupno);
  uint32_t b = rel->block_size;
  // The block's own position base: its offset with the overflow bit.
  uint32_t base = address & ~ADDR_PART_MASK;
  int64_t start = static_cast<int64_t>(position & 0x7FFFFFFFu) - (base & 0x7FFFFFFFu);
  int64_t end = start + length;
  int32_t byteleft = gb_byteleft(data_block);
  int64_t moving = static_cast<int64_t>(size) - (byteleft + end);
  if (length <= 0 || start < 0 || end > size || size > static_cast<int32_t>(b) || moving < 0)
    return M_file_error(rel, fn, "movlen", nullptr, 0, group);
  if (moving > 0) {
    std::memmove(data_block + start, data_block + end, static_cast<size_t>(moving));
    int32_t next = M_get_order(table_block, b, base + static_cast<uint32_t>(end));
    if (next < 0) return M_file_error(rel, fn, "M_get_order", nullptr, 0, group);
    int32_t rows = std::min<int32_t>(gb_key_count(table_block), max_key_rows(b));
    for (int32_t row = next; row < rows; ++row) {
      uint32_t p = ke_position(table_block, row);
      if (p >= base && p < base + b) ke_set_position(table_block, row, p - static_cast<uint32_t>(length));
    }
  }
  byteleft += length;
  gb_set_byteleft(data_block, static_cast<int16_t>(byteleft));
  std::memset(data_block + size - byteleft, 0, static_cast<size_t>(length));

  uint8_t flags = gb_flags(data_block);
  if (byteleft == static_cast<int32_t>(b - BLOCK_OVERHEAD)) {
    gb_set_flags(data_block, static_cast<uint8_t>(flags & ~FLAG_LOW_BITS));
    bool for_continuation = (flags & FLAG_FOR_CONTINUATION) != 0;
    if (rel_is_dynamic(rel) && (gb_free_count(table_block) >= rel->grp_free_blk || for_continuation)) {
      if (M_release_to_file(rel, address) != 0) return M_file_error(rel, fn, nullptr, nullptr, 0, group);
      return 1;
    }
    fl_put_u32(data_block, DB_NEXT, gb_free_chain(table_block));
    gb_set_free_chain(table_block, address);
    gb_set_free_count(table_block, static_cast<int16_t>(gb_free_count(table_block) + 1));
  } else if ((flags & FLAG_GROUP_BIT) != 0) {
    return 1;
  } else if (((flags & FLAG_LONG_MASK) == FLAG_LONG_LAST || (flags & FLAG_LONG_MASK) == FLAG_LONG_FIRST) &&
             start == DB_DATA) {
    // The tail of a long record is gone: only short records remain.
    gb_set_flags(data_block, static_cast<uint8_t>(flags & ~FLAG_LONG_MASK));
  }
  if (M_blkwrite(rel, address, data_block) != 1) return M_file_error(rel, fn, nullptr, nullptr, 0, group);
  return 1;
}
