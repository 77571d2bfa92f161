#include "flib/fl_mem.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "NT/NT_fault.h"
#include "common/fl_errout.h"
#include "flib/fl_block.h"
#include "flib/fl_dirfile.h"
#include "flib/fl_free.h"
#include "flib/fl_hash.h"
#include "flib/fl_heads.h"
#include "flib/fl_io.h"
#include "flib/fl_index.h"
#include "flib/fl_lock.h"
#include "flib/fl_memflush.h"
#include "flib/fl_ovhdr.h"
#include "flib/fl_rel.h"
#include "flib/fl_report.h"
#include "flib/fl_write.h"
#include "flib/lrgfillib.h"

uint64_t M_mem_write_calls = 0;

namespace {

// One pool: rows sorted by offset, row i's bytes at i*B of `data`.
struct Pool {
  std::vector<uint32_t> offsets;
  std::vector<uint8_t> data;
  int32_t count = 0;
};

// A run of a flush as the reports name it.
struct SentRun {
  bool overflow = false;
  bool last = false;  // the pool's last run
  uint32_t offset = 0;
  size_t length = 0;
};

struct MemState {
  REL_TYPE* rel = nullptr;
  uint32_t boundary = 0;
  uint32_t block_size = 0;
  int32_t capacity = 0;
  uint32_t current_part = 0;  // part index of both pools
  uint32_t end_of_file = 0;   // static file: next new overflow block
  Pool group;
  Pool over;
  // Dynamic file: the byte length of each overflow part (by part index),
  // -1 until asked for. The length is taken from the disk once per load;
  // after that only this writer's flushes extend the part (invariant 1),
  // and they keep it up to date.
  std::vector<int64_t> over_length;
  // The file's group heads that are not on disk yet, when it was laid out
  // for this writer: they are made in memory when asked for, and the rest
  // is written when the writer ends.
  PendingHeads* heads = nullptr;
  int32_t next_head = 0;  // groups below it were taken or passed
  // What the last flush handed to the flush thread (fl_memflush.h): its
  // rows, which reads find here until the next flush, and its runs, to
  // report a failure the thread meets.
  Pool group_sent;
  Pool over_sent;
  uint32_t sent_part = 0;
  std::vector<SentRun> sent_runs;
};
MemState g_mem;

// The length of overflow part `part` (an index), from the disk at its first
// use in the load; -1 when it cannot be had.
int64_t overflow_length(REL_TYPE* rel, uint32_t part) {
  if (g_mem.over_length.size() <= part) g_mem.over_length.resize(part + 1, -1);
  int64_t& length = g_mem.over_length[part];
  struct stat st;
  if (length < 0) {
    // The length as the flushes so far leave it.
    M_flush_settle();
    int fd = M_get_fd(rel, make_addr(true, 0, part));
    if (fd >= 0 && fstat(fd, &st) == 0) length = st.st_size;
  }
  return length;
}

// A write of `length` bytes at `offset` of overflow part `part` reached the
// disk: the part is now at least that long.
void overflow_written(uint32_t part, uint32_t offset, size_t length) {
  if (part >= g_mem.over_length.size() || g_mem.over_length[part] < 0) return;
  g_mem.over_length[part] = std::max<int64_t>(g_mem.over_length[part], static_cast<int64_t>(offset) + static_cast<int64_t>(length));
}

// Blocks that miss the pools are read from the disk through a window of
// kReadWindow bytes: a restore asks for group heads in ascending order, so
// one read serves many misses. The window holds the disk's bytes as they
// were when it was read; every flush writes to the disk and drops it, and
// no other path writes the file while the writer is active (invariant 1).
constexpr size_t kReadWindow = 256 * 1024;

struct ReadWindow {
  int fd = -1;  // -1: nothing held
  uint32_t at = 0;
  uint32_t length = 0;
  std::vector<uint8_t> bytes;
};
ReadWindow g_window;

void drop_window() { g_window.fd = -1; }

// Reads the block at `offset` of `fd` into `buffer`, through the window.
// True when all B bytes were had.
bool window_read(int fd, uint32_t offset, uint8_t* buffer) {
  uint32_t b = g_mem.block_size;
  ReadWindow& w = g_window;
  auto inside = [&] { return w.fd == fd && offset >= w.at && offset - w.at + b <= w.length; };
  if (!inside()) {
    w.bytes.resize(std::max<size_t>(kReadWindow, b));
    ssize_t n = pread(fd, w.bytes.data(), w.bytes.size(), offset);
    if (n < static_cast<ssize_t>(b)) {
      drop_window();
      return false;
    }
    w.fd = fd;
    w.at = offset;
    w.length = static_cast<uint32_t>(n);
  }
  std::memcpy(buffer, w.bytes.data() + (offset - w.at), b);
  return true;
}

// Reads the block at `offset` of `fd` alone. Overflow blocks are asked for
// here and there (a chain's next block, a part's header after each flush):
// a window would read many blocks to use one.
bool block_read(int fd, uint32_t offset, uint8_t* buffer) {
  const uint32_t b = g_mem.block_size;
  return pread(fd, buffer, b, offset) == static_cast<ssize_t>(b);
}

bool is_overflow(uint32_t address) {
  if (hash_is_dynamic(g_mem.rel->hashtype)) return addr_is_overflow(address);
  return address >= g_mem.boundary;
}

Pool& pool_of(uint32_t address) { return is_overflow(address) ? g_mem.over : g_mem.group; }

uint32_t key_of(uint32_t address) { return addr_offset(address); }

uint32_t part_of(uint32_t address) {
  return hash_is_dynamic(g_mem.rel->hashtype) ? addr_part_index(address) : 0;
}

// The group whose head lies at `address` when that head is not on disk
// yet and no pool has it; -1 otherwise.
int32_t pending_group(uint32_t address) {
  const PendingHeads* heads = g_mem.heads;
  if (heads == nullptr || is_overflow(address)) return -1;
  const int32_t g = head_group(heads->layout, part_of(address), key_of(address));
  return g >= 0 && heads->done[static_cast<size_t>(g)] == 0 ? g : -1;
}

// Row of `offset` in the pool, or -1. A load works on the block it took
// last, which in ascending order is the last row: that row is tried first.
int32_t find_row(const Pool& pool, uint32_t offset) {
  if (pool.count > 0 && pool.offsets[static_cast<size_t>(pool.count - 1)] == offset) return pool.count - 1;
  auto end = pool.offsets.begin() + pool.count;
  auto it = std::lower_bound(pool.offsets.begin(), end, offset);
  return it != end && *it == offset ? static_cast<int32_t>(it - pool.offsets.begin()) : -1;
}

// The block at `address` as the last flush handed it to the flush thread:
// until the next flush it is read here, whether or not the thread has
// written it yet. Null when that flush did not have it.
const uint8_t* sent_block(uint32_t address) {
  if (part_of(address) != g_mem.sent_part) return nullptr;
  const Pool& pool = is_overflow(address) ? g_mem.over_sent : g_mem.group_sent;
  const int32_t row = find_row(pool, key_of(address));
  return row >= 0 ? pool.data.data() + static_cast<size_t>(row) * g_mem.block_size : nullptr;
}

void report_pool_failure(const SentRun& run) {
  M_errout(0, run.overflow ? (run.last ? "write last blocks error.\n" : "write over block error\n")
                           : (run.last ? "write last piece of group blocks error\n" : "write group blk error.\n"));
}

// Reports a run of a flush that failed, as the writes of a pool always
// have: the write, then the pool.
void report_run_failure(const REL_TYPE* rel, const SentRun& run, ssize_t result) {
  M_errout(0, "m_write error,name=%s,offset=%d.\n", rel->path, static_cast<int>(run.offset));
  M_errout(0, "length=%d.ret=%d.\n", static_cast<int>(run.length), static_cast<int>(result));
  report_pool_failure(run);
}

// Waits for the batch of the last flush and reports its failure: the run
// that failed and the write error it met. 0, or -1 after a report.
int collect_sent(const REL_TYPE* rel) {
  int error = 0;
  const int32_t failed = M_flush_collect(&error);
  if (failed < 0) return 0;
  NT_write_failed(error);
  report_run_failure(rel, g_mem.sent_runs[static_cast<size_t>(failed)], -1);
  return -1;
}

void clear_pool(Pool& pool) {
  std::fill(pool.offsets.begin(), pool.offsets.end(), 0xFFFFFFFFu);
  pool.count = 0;
}

// A pool's runs of consecutive offsets, each one write of the flush.
void plan_runs(REL_TYPE* rel, const Pool& pool, bool overflow, std::vector<SentRun>* runs,
               std::vector<FlushRun>* writes) {
  const uint32_t b = g_mem.block_size;
  const size_t first = runs->size();
  int fd = rel->fd;
  if (hash_is_dynamic(rel->hashtype)) fd = M_get_fd(rel, make_addr(overflow, 0, g_mem.current_part));
  int32_t start = 0;
  for (int32_t i = 1; i <= pool.count; ++i) {
    const auto row = static_cast<size_t>(i);
    if (i < pool.count && pool.offsets[row] == pool.offsets[row - 1] + b) continue;
    const uint32_t offset = pool.offsets[static_cast<size_t>(start)];
    const size_t length = static_cast<size_t>(i - start) * b;
    runs->push_back({overflow, false, offset, length});
    writes->push_back({fd, pool.data.data() + static_cast<size_t>(start) * b, length, static_cast<off_t>(offset)});
    start = i;
  }
  if (runs->size() > first) runs->back().last = true;
}

// The flush of a batch that cannot go to the flush thread whole: a run
// without a descriptor or one the write seam refuses. The runs are written
// here, one by one, up to that one, which is reported, as a flush always
// did; a pool all of whose runs were written is emptied. -1.
int flush_here(REL_TYPE* rel, const std::vector<SentRun>& runs, const std::vector<FlushRun>& writes,
               size_t refused, bool no_descriptor) {
  size_t failed = refused;
  bool write_failed = false;
  for (size_t i = 0; i < refused && !write_failed; ++i) {
    ++M_mem_write_calls;
    if (M_mem_write_run(writes[i]) != static_cast<ssize_t>(writes[i].length)) {
      NT_write_failed(errno);
      failed = i;
      write_failed = true;
    } else if (runs[i].overflow && hash_is_dynamic(rel->hashtype)) {
      overflow_written(g_mem.current_part, runs[i].offset, runs[i].length);
    }
  }
  if (!write_failed && no_descriptor) {
    M_errout(0, "m_lseek error,name=%s,offset=%d.\n", rel->path, static_cast<int>(runs[failed].offset));
    report_pool_failure(runs[failed]);
  } else {
    if (!write_failed) ++M_mem_write_calls;  // the refused write was asked for all the same
    report_run_failure(rel, runs[failed], -1);
  }
  if (runs[failed].overflow) clear_pool(g_mem.group);
  return -1;
}

// Stores a block in the pool by its offset, keeping the rows sorted.
void M_mem_insert_block(uint32_t offset, const uint8_t* bytes, Pool& pool) {
  uint32_t b = g_mem.block_size;
  auto end = pool.offsets.begin() + pool.count;
  auto row = static_cast<size_t>(std::upper_bound(pool.offsets.begin(), end, offset) - pool.offsets.begin());
  if (row < static_cast<size_t>(pool.count)) {
    std::memmove(pool.data.data() + (row + 1) * b, pool.data.data() + row * b,
                 (static_cast<size_t>(pool.count) - row) * b);
    std::memmove(pool.offsets.data() + row + 1, pool.offsets.data() + row,
                 (static_cast<size_t>(pool.count) - row) * sizeof(uint32_t));
  }
  pool.offsets[row] = offset;
  std::memcpy(pool.data.data() + row * b, bytes, b);
  ++pool.count;
}

// Puts a block into its pool: flushes first when the pool is full or the
// block lies in another part. 0 or -1.
int pool_block(REL_TYPE* rel, uint32_t address, const uint8_t* bytes) {
  Pool& pool = pool_of(address);
  if (pool.count >= g_mem.capacity || part_of(address) != g_mem.current_part) {
    if (M_mem_flush(rel) != 0) return -1;
    g_mem.current_part = part_of(address);
  }
  M_mem_insert_block(key_of(address), bytes, pool);
  return 0;
}

// A load takes the groups in ascending order. The heads not on disk between
// the last group it took and group g, of g's part, are groups that receive
// no record: they join the pool before g, so that a flush writes them in
// one run with their neighbours instead of in a write of their own later.
int pool_heads_before(REL_TYPE* rel, int32_t g) {
  PendingHeads& heads = *g_mem.heads;
  const HeadLayout& layout = heads.layout;
  const int32_t part_start = static_cast<int32_t>(head_part(layout, g)) * layout.groups_per_part;
  uint8_t block[MAX_BLOCK_SIZE];
  for (int32_t h = std::max(g_mem.next_head, part_start); h < g; ++h) {
    if (heads.done[static_cast<size_t>(h)] != 0) continue;
    heads.done[static_cast<size_t>(h)] = 1;
    head_block(layout, h, block);
    if (pool_block(rel, make_addr(false, head_offset(layout, h), head_part(layout, h)), block) != 0) return -1;
  }
  g_mem.next_head = std::max(g_mem.next_head, g + 1);
  return 0;
}

// Takes a block into its pool. 0 or -1.
int take_block(REL_TYPE* rel, uint32_t address, const uint8_t* bytes) {
  if (int32_t g = pending_group(address); g >= 0) {
    if (pool_heads_before(rel, g) != 0) return -1;
    g_mem.heads->done[static_cast<size_t>(g)] = 1;
  }
  return pool_block(rel, address, bytes);
}

void init_pool(Pool& pool) {
  pool.offsets.assign(static_cast<size_t>(g_mem.capacity), 0xFFFFFFFFu);
  pool.data.assign(static_cast<size_t>(g_mem.capacity) * g_mem.block_size, 0);
  pool.count = 0;
}

}  // namespace

bool M_mem_active(const REL_TYPE* rel) { return g_mem.rel != nullptr && g_mem.rel == rel; }

int M_init_mem_buffers(REL_TYPE* rel) {
  const int first_part = M_get_fd(rel, 0);
  if (M_lock_file(rel, LOCK_EXCLUSIVE | LOCK_NOWAIT) != 0) {
    // Without the writer the file is written block by block from the disk:
    // heads left for the writer must be there first.
    if (PendingHeads* heads = M_heads_take(first_part)) M_heads_write_rest(heads);
    M_file_error(rel, "M_init_mem_buffers", "M_mrvlockf", nullptr, 0, 0);
    return -1;
  }
  // This writer keeps no index: the file's trees wait for a build.
  M_index_mark_to_build(rel);
  // A writer left without its force flush may still have a batch out: it
  // is settled before its rows go, and a failure of it counted.
  if (int error = 0; M_flush_collect(&error) >= 0) NT_write_failed(error);
  g_mem = MemState{};
  drop_window();
  g_mem.rel = rel;
  g_mem.block_size = rel->block_size;
  g_mem.boundary = static_cast<uint32_t>(rel->modulo + 1) * rel->block_size;
  g_mem.capacity = static_cast<int32_t>(std::max<uint32_t>(MEM_POOL_BYTES / rel->block_size, 1));
  init_pool(g_mem.group);
  init_pool(g_mem.over);
  init_pool(g_mem.group_sent);
  init_pool(g_mem.over_sent);
  struct stat st;
  int fd = M_get_fd(rel, hash_is_dynamic(rel->hashtype) ? ADDR_OVERFLOW : 0);
  if (fd >= 0 && fstat(fd, &st) == 0) g_mem.end_of_file = static_cast<uint32_t>(st.st_size - st.st_size % rel->block_size);
  g_mem.end_of_file = std::max(g_mem.end_of_file, g_mem.boundary);
  g_mem.heads = M_heads_take(first_part);
  return 1;
}

int M_memread(REL_TYPE* rel, uint32_t address, uint8_t* buffer) {
  uint32_t b = g_mem.block_size;
  if (part_of(address) == g_mem.current_part) {
    const Pool& pool = pool_of(address);
    int32_t row = find_row(pool, key_of(address));
    if (row >= 0) {
      std::memcpy(buffer, pool.data.data() + static_cast<size_t>(row) * b, b);
      return static_cast<int>(b);
    }
  }
  int fd = M_get_fd(rel, address);
  if (const uint8_t* sent = sent_block(address)) {
    std::memcpy(buffer, sent, b);
  } else if (int32_t g = pending_group(address); g >= 0) {
    head_block(g_mem.heads->layout, g, buffer);
  } else if (fd < 0 || !(is_overflow(address) ? block_read(fd, key_of(address), buffer)
                                                : window_read(fd, key_of(address), buffer))) {
    M_errout(0, "M_memread error.\n");
    return -1;
  }
  // A block read now is written soon after: it joins the pool.
  if (take_block(rel, address, buffer) != 0) {
    M_errout(0, "2__memread error.\n");
    return -1;
  }
  return static_cast<int>(b);
}

int M_memwrite(REL_TYPE* rel, uint32_t address, const uint8_t* buffer) {
  uint32_t b = g_mem.block_size;
  if (part_of(address) == g_mem.current_part) {
    Pool& pool = pool_of(address);
    int32_t row = find_row(pool, key_of(address));
    if (row >= 0) {
      std::memcpy(pool.data.data() + static_cast<size_t>(row) * b, buffer, b);
      return static_cast<int>(b);
    }
  }
  if (!hash_is_dynamic(rel->hashtype) && key_of(address) >= g_mem.end_of_file)
    g_mem.end_of_file = key_of(address) + b;
  if (take_block(rel, address, buffer) != 0) {
    M_errout(0, "M_memwrite error.\n");
    return -1;
  }
  return static_cast<int>(b);
}

int mem_file_io(REL_TYPE* rel, uint32_t address, uint8_t* buffer, int write) {
  if (write != 0) {
    if (M_memwrite(rel, address, buffer) < 0) return M_errout(0, "memwrite() error in mem_file_io()\n"), -1;
  } else if (M_memread(rel, address, buffer) < 0) {
    return M_errout(0, "memread() error in mem_file_io()\n"), -1;
  }
  return 0;
}

int M_mem_flush(REL_TYPE* rel) {
  drop_window();
  // The batch before reports its failure here, as a flush that fails.
  if (collect_sent(rel) != 0) return -1;
  // That batch is on disk now: its rows are no longer the latest word on
  // its blocks once the pools' rows are written.
  clear_pool(g_mem.group_sent);
  clear_pool(g_mem.over_sent);
  std::vector<SentRun> runs;
  std::vector<FlushRun> writes;
  plan_runs(rel, g_mem.group, false, &runs, &writes);
  plan_runs(rel, g_mem.over, true, &runs, &writes);
  for (size_t i = 0; i < runs.size(); ++i) {
    if (writes[i].fd < 0) return flush_here(rel, runs, writes, i, true);
    if (!NT_write_begin()) return flush_here(rel, runs, writes, i, false);
  }
  for (const SentRun& run : runs) {
    ++M_mem_write_calls;
    if (run.overflow && hash_is_dynamic(rel->hashtype)) overflow_written(g_mem.current_part, run.offset, run.length);
  }
  // The rows go with the batch; the pools start again empty.
  std::swap(g_mem.group, g_mem.group_sent);
  std::swap(g_mem.over, g_mem.over_sent);
  clear_pool(g_mem.group);
  clear_pool(g_mem.over);
  g_mem.sent_part = g_mem.current_part;
  g_mem.sent_runs = std::move(runs);
  if (!writes.empty()) M_flush_start(std::move(writes));
  return 0;
}

int M_mem_force_flush(REL_TYPE* rel, int unlock) {
  if (!M_mem_active(rel)) return 1;
  int result = M_mem_flush(rel) == 0 && collect_sent(rel) == 0 ? 1 : -1;
  if (result != 1) M_errout(0, "forceflush error.\n");
  // A head that cannot be written stays pending (fl_heads.h); the failed
  // write is counted where every write's failure is.
  if (unlock != 0 && g_mem.heads != nullptr && M_heads_write_rest(g_mem.heads) != 0) result = -1;
  if (unlock != 0) {
    g_mem = MemState{};
    drop_window();
    if (M_unlock_file(rel) != 0) result = -1;
  }
  return result;
}

void M_mem_end_for_removal(REL_TYPE* rel) {
  if (!M_mem_active(rel)) return;
  collect_sent(rel);
  if (g_mem.heads != nullptr) M_heads_forget(g_mem.heads);
  g_mem = MemState{};
  drop_window();
  M_unlock_file(rel);
}

int64_t mem_dyn_hash(REL_TYPE* rel, const uint8_t* key, int32_t length, int32_t mode) {
  M_hash(key, length, rel);
  uint32_t head = M_get_head_off(rel, M_groupno);
  if (head == 0) return M_file_error(rel, "mem_dyn_hash", "M_get_head_off", key, length, static_cast<int32_t>(M_groupno));
  return head;
}

int64_t M_mem_get_blk(REL_TYPE* rel, uint32_t part) {
  const char* fn = "M_mem_get_blk";
  uint32_t b = g_mem.block_size;
  if (!hash_is_dynamic(rel->hashtype)) {
    uint32_t at = g_mem.end_of_file;
    if (static_cast<uint64_t>(at) + b > 0x7FFFFFFFu) return M_file_error(rel, fn, "new block's offset is over the limit", nullptr, 0, 0);
    g_mem.end_of_file += b;
    return at;
  }
  if (part == 0) part = 1;
  uint32_t header = make_addr(true, 0, part - 1);
  uint8_t block[MAX_BLOCK_SIZE];
  if (M_memread(rel, header, block) < 0) return M_errout(0, "memread() error in mem_get_blk()\n"), -1;
  uint32_t next = addr_offset(fl_get_u32(block, OH_NEXT_BLOCK));
  // Blocks that the ordinary allocator added lie below the part's end.
  if (int64_t length = overflow_length(rel, part - 1); length >= 0)
    next = std::max<uint32_t>(next, static_cast<uint32_t>(length - length % b));
  next = std::max(next, b);
  if (static_cast<uint64_t>(next) + b > static_cast<uint64_t>(ADDR_OFFSET_MASK))
    return M_file_error(rel, fn, "new block's offset is over the limit", nullptr, 0, 0);
  fl_put_u32(block, OH_NEXT_BLOCK, (next + b) | (part - 1));
  if (M_memwrite(rel, header, block) < 0) return M_errout(0, "memwrite() error in mem_get_blk()\n"), -1;
  return make_addr(true, next, part - 1);
}

int M_mem_add_tuple(REL_TYPE* rel, const uint8_t* key, int32_t key_length, const uint8_t* record,
                    int32_t record_length) {
  const char* fn = "M_mem_add_tuple";
  if (key_length > MAX_KEY_LENGTH) {
    M_errout(0, "Record id too long, length=%d,id=%.*s.\n", key_length, key_length, reinterpret_cast<const char*>(key));
    return -1;
  }
  key_length = M_key_prologue(key, key_length);
  if (key_length < 0) return -1;
  if (record_length < 0 || record_length >= MAX_RECORD_BYTES)
    return M_file_error(rel, fn, "record length", key, key_length, record_length);
  if (rel->modulo == 0) return M_dir_write(rel, key, key_length, record, record_length, 0);
  int64_t head = mem_dyn_hash(rel, key, key_length, LOCK_NONE);
  if (head < 0) return M_file_error(rel, fn, nullptr, key, key_length, static_cast<int32_t>(M_groupno));
  if (add_to_group(rel, static_cast<uint32_t>(head), key, key_length, record, record_length + 1, nullptr, nullptr) != 1)
    return M_file_error(rel, fn, nullptr, key, key_length, static_cast<int32_t>(M_groupno));
  return 1;
}
