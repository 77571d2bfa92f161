// The index file as blocks: names, open and creation, block reads and
// writes, the version lock, parts of a large index, and the free node list.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>

#include "common/fl_errout.h"
#include "common/mrv_msgno.h"
#include "common/readconf.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_globals.h"
#include "flib/fl_index.h"
#include "flib/fl_io.h"
#include "flib/fl_lock.h"
#include "flib/fl_open.h"
#include "flib/fl_rel.h"
#include "flib/lrgfillib.h"

namespace {

constexpr const char* kIndexFull =
    "File mrv_system(s) full. You must reclaim space.\nWhen you are ready, press <RETURN> to continue.";
constexpr mode_t kPartMode = 0666;

uint32_t part_of(const IndexState* h, uint32_t address) { return h->head.large_flag ? address & IDX_PART_MASK : 0; }
uint32_t offset_of(const IndexState* h, uint32_t address) {
  return h->head.large_flag ? address & ~IDX_PART_MASK : address;
}
uint32_t address_of(const IndexState* h, uint32_t part, uint32_t offset) {
  return h->head.large_flag ? (offset | part) : offset;
}

bool is_dynamic_path(const std::string& path) { return std::filesystem::is_directory(path); }

// Descriptor of part `part`, opened on first use.
int part_fd(IndexState* h, uint32_t part) {
  if (part < h->part_fds.size() && h->part_fds[part] >= 0) return h->part_fds[part];
  if (part >= static_cast<uint32_t>(IDX_MAX_PARTS)) return -1;
  if (part >= h->part_fds.size()) h->part_fds.resize(part + 1, -1);
  std::string path = M_index_path(h->data_path, is_dynamic_path(h->data_path), static_cast<int>(part));
  int fd = open(path.c_str(), h->writable ? O_RDWR : O_RDONLY);
  h->part_fds[part] = fd;
  return fd;
}

int read_part_head(IndexState* h, uint32_t part, IndexHead* head) {
  uint8_t b[IH_SIZE];
  int fd = part_fd(h, part);
  if (fd < 0 || pread(fd, b, IH_SIZE, 0) != static_cast<ssize_t>(IH_SIZE)) {
    M_errout(0, "Index: read master head error(%d).\n", errno);
    return -1;
  }
  *head = decode_index_head(b);
  if (part == 0) h->head = *head;
  return 0;
}

int write_part_head(IndexState* h, uint32_t part, const IndexHead& head) {
  uint8_t b[IH_SIZE];
  encode_index_head(head, b);
  int fd = part_fd(h, part);
  if (fd < 0 || M_ls_write(fd, b, IH_SIZE, 0) != static_cast<ssize_t>(IH_SIZE)) return -1;
  if (part == 0) h->head = head;
  ++h->writes;
  return 0;
}

// Makes part `part` of a large index with the head values of the first.
int create_part(IndexState* h, uint32_t part) {
  std::string path = M_index_path(h->data_path, is_dynamic_path(h->data_path), static_cast<int>(part));
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, kPartMode);
  if (fd < 0) return -1;
  if (part >= h->part_fds.size()) h->part_fds.resize(part + 1, -1);
  h->part_fds[part] = fd;
  IndexHead head = h->head;
  head.next_entry_block = IDX_NONE;
  head.index_count = 0;
  head.auto_update = 1;
  head.free_block = IDX_NONE;
  head.free_node = IDX_NONE;
  head.large_flag = 1;
  head.part_no = static_cast<uint8_t>(part);
  head.active_part = static_cast<uint8_t>(part);
  head.part_count = 0;
  head.part_size_limit = static_cast<uint32_t>(M_cfg_max_flength());
  head.free_count = 0;
  head.end_offset = h->node_size;
  head.slot_map = 0;
  std::vector<uint8_t> block(h->node_size, 0);
  encode_index_head(head, block.data());
  if (M_ls_write(fd, block.data(), block.size(), 0) != static_cast<ssize_t>(block.size())) return -1;
  return 0;
}

// Takes a node from part `part`: from its free list or at its end.
// IDX_NONE when the part has no room.
// `past_limit` lets idx001 grow beyond the part size limit: bucket blocks
// are named by block numbers of idx001 and can live nowhere else.
uint32_t take_from_part(IndexState* h, uint32_t part, const uint8_t* buffer, bool past_limit = false) {
  IndexVersionLock lock(h, part);
  if (!lock.held()) return IDX_NONE;
  IndexHead head;
  if (read_part_head(h, part, &head) < 0) return IDX_NONE;
  uint32_t address;
  if (head.free_node != IDX_NONE) {
    if ((head.free_node & 0x7FFFFF00u) == 0) {
      M_errout(0, "Index: invalid free node address: %d\n", static_cast<int32_t>(head.free_node));
      return IDX_NONE;
    }
    address = head.free_node;
    std::vector<uint8_t> node(h->node_size);
    if (M_idx_read(h, address, node.data(), h->node_size) < 0) return IDX_NONE;
    if (fl_get_u16(node.data(), ND_IDX_NO) != ND_FREE_MARK) {
      M_errout(0, "Index: not a free node address: %d\n", static_cast<int32_t>(address));
      return IDX_NONE;
    }
    head.free_node = fl_get_u32(node.data(), ND_NEXT);
    if (head.large_flag && head.free_count > 0) --head.free_count;
    if (write_part_head(h, part, head) < 0) {
      M_errout(0, "Index: remove first free node error(%d).\n", errno);
      return IDX_NONE;
    }
  } else {
    if (head.large_flag && !past_limit && head.end_offset + h->node_size > head.part_size_limit) return IDX_NONE;
    address = address_of(h, part, head.end_offset);
    head.end_offset += h->node_size;
    if (write_part_head(h, part, head) < 0) return IDX_NONE;
  }
  if (M_idx_write(h, address, buffer, h->node_size) < 0) return IDX_NONE;
  ++h->nodes_taken;
  return address;
}

}  // namespace

IndexVersionLock::IndexVersionLock(IndexState* h, uint32_t part) : fd_(part_fd(h, part)) {
  if (fd_ < 0 || M_idx_lockf(fd_, LOCK_EXCLUSIVE) != 0) {
    M_errout(0, "Index: write lock version number error(%d).\n", errno);
    fd_ = -1;
  }
}

IndexVersionLock::~IndexVersionLock() {
  if (fd_ >= 0) M_idx_lockf(fd_, LOCK_NONE);
}

IndexRangeLock::IndexRangeLock(IndexState* h, uint32_t address, int32_t mode) {
  if (address == IDX_NONE) return;
  int fd = part_fd(h, part_of(h, address));
  if (fd < 0) return;
  if (M_mrvlockf(fd, mode, offset_of(h, address), 4) != 0) {
    M_msgno_out(MRV_MSG_INDEX_LOCK, "%d", errno);
    return;
  }
  fd_ = fd;
  offset_ = offset_of(h, address);
}

IndexRangeLock::~IndexRangeLock() {
  if (fd_ >= 0) M_mrvunlock(fd_, offset_, 4);
}

int M_idx_read_head(IndexState* h, uint32_t part, IndexHead* head) { return read_part_head(h, part, head); }
int M_idx_write_head(IndexState* h, uint32_t part, const IndexHead& head) { return write_part_head(h, part, head); }

std::string M_index_path(const std::string& data_path, bool dynamic, int part) {
  char number[16];
  std::snprintf(number, sizeof number, "%03d", part + 1);
  if (dynamic) return data_path + "/idx" + number;
  std::filesystem::path p(data_path);
  std::string stem = "idx" + p.filename().string() + (part == 0 ? std::string() : std::string(number));
  return (p.parent_path() / stem).string();
}

std::string M_xlog_path(const std::string& data_path, bool dynamic) {
  if (dynamic) return data_path + "/xlog001";
  std::filesystem::path p(data_path);
  return (p.parent_path() / ("xlog" + p.filename().string())).string();
}

int M_idx_read(IndexState* h, uint32_t address, uint8_t* buffer, uint32_t length) {
  uint32_t part = part_of(h, address);
  int64_t offset = offset_of(h, address);
  int fd = address == IDX_NONE ? -1 : part_fd(h, part);
  if (fd < 0 || address == IDX_NONE) {
    M_errout(0, "Index: invalid offset for read: %d\n", static_cast<int32_t>(address));
    return -1;
  }
  for (;;) {
    ssize_t n = pread(fd, buffer, length, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n != static_cast<ssize_t>(length)) {
      if (n >= 0) errno = EIO;
      M_errout(0, "Index: read index head error(%d).\n", errno);
      return -1;
    }
    ++h->reads;
    return static_cast<int>(n);
  }
}

int M_idx_write(IndexState* h, uint32_t address, const uint8_t* buffer, uint32_t length) {
  uint32_t part = part_of(h, address);
  int fd = address == IDX_NONE ? -1 : part_fd(h, part);
  if (fd < 0) {
    M_errout(0, "Index: invalid offset for write: %d\n", static_cast<int32_t>(address));
    return -1;
  }
  off_t offset = offset_of(h, address);
  for (;;) {
    ssize_t n = M_ls_write(fd, buffer, length, offset);
    if (n == static_cast<ssize_t>(length)) {
      ++h->writes;
      return static_cast<int>(offset);
    }
    if (n < 0 && errno == ENOSPC && M_no_wait == 0 && M_fs_full_wait(kIndexFull) == 0) continue;
    if (n >= 0) errno = ENOSPC;
    return -1;
  }
}

namespace {

// Reads the live entries of the index file along its entry block chain into
// h->rows, numbering every slot, deleted ones too. False when the chain or
// an entry is damaged.
bool read_index_entries(IndexState* h, const IndexHead& head, std::vector<uint8_t>& block) {
  uint32_t address = 0;
  uint32_t ordinal = 0;
  std::vector<uint32_t> seen;
  while (address != IDX_NONE) {
    if (std::find(seen.begin(), seen.end(), address) != seen.end()) return false;
    seen.push_back(address);
    if (M_idx_read(h, address, block.data(), h->node_size) < 0) return false;
    bool block0 = address == 0;
    uint32_t start = block0 ? IE_FIRST_IN_BLOCK0 : CHAIN_HEAD;
    bool ended = false;
    for (uint32_t i = 0; i < entries_in_block(h->node_size, block0); ++i) {
      const uint8_t* p = block.data() + start + i * IE_SIZE;
      if (entry_slot_is_end(p)) {
        ended = true;
        break;
      }
      ++ordinal;
      if (entry_slot_is_deleted(p)) continue;
      IndexRow row;
      row.entry = decode_index_entry(p);
      if (!index_entry_valid(row.entry)) return false;
      row.entry_block = address;
      row.entry_offset = start + i * IE_SIZE;
      row.ordinal = ordinal;
      h->rows.push_back(row);
    }
    if (ended) break;
    address = block0 ? head.next_entry_block : fl_get_u32(block.data(), 0);
  }
  return true;
}

// Gives each row its index number: slot n of the map holds the ordinal of
// index number n. False when the map's chain is damaged.
bool read_slot_map(IndexState* h, const IndexHead& head, std::vector<uint8_t>& block) {
  uint32_t address = head.slot_map != 0 ? head.slot_map : IDX_NONE;
  uint32_t slot = 0;
  std::vector<uint32_t> seen;
  while (address != IDX_NONE) {
    if (std::find(seen.begin(), seen.end(), address) != seen.end()) return false;
    seen.push_back(address);
    if (M_idx_read(h, address, block.data(), h->node_size) < 0) return false;
    for (uint32_t at = CHAIN_HEAD; at + SLOT_SIZE <= h->node_size; at += SLOT_SIZE, ++slot) {
      uint32_t o = fl_get_u32(block.data(), at);
      for (auto& row : h->rows)
        if (o != 0 && row.ordinal == o) row.idx_no = static_cast<uint16_t>(slot);
    }
    address = fl_get_u32(block.data(), 0);
  }
  return true;
}

}  // namespace

int M_open_index(REL_TYPE* rel) {
  bool dynamic = rel_is_dynamic(rel);
  std::string first = M_index_path(rel->path, dynamic, 0);
  if (access(first.c_str(), F_OK) != 0) return 0;
  auto h = std::make_unique<IndexState>();
  h->data_path = rel->path;
  h->writable = rel->open_mode != 0;
  IndexHead head;
  // On a failure the state and the parts it opened go with `h`.
  if (read_part_head(h.get(), 0, &head) < 0) return -1;
  if (!index_head_valid(head)) {
    M_errout(0, "Index: %s has damaged master head\n", first.c_str());
    return -1;
  }
  h->node_size = idx_block_size(head.node_code);
  std::vector<uint8_t> block(h->node_size);
  if (!read_index_entries(h.get(), head, block) || !read_slot_map(h.get(), head, block)) {
    M_errout(0, "Index: %s has damaged index entries\n", first.c_str());
    return -1;
  }
  M_close_index(rel);
  rel->index = h.release();
  return 1;
}

IndexState::~IndexState() {
  for (int fd : part_fds)
    if (fd >= 0) close(fd);
}

void M_close_index(REL_TYPE* rel) {
  if (rel->index == nullptr) return;
  delete rel->index;
  rel->index = nullptr;
}

int M_create_index_file(REL_TYPE* rel, const IndexFileOptions& o) {
  bool dynamic = rel_is_dynamic(rel);
  std::string first = M_index_path(rel->path, dynamic, 0);
  IndexHead head;
  head.version = o.version;
  head.block_code = o.block_code;
  head.node_code = o.block_code;
  head.key_length = o.key_length;
  head.ov_modulo = o.ov_modulo;
  head.ov_hash_type = o.ov_hash_type;
  head.large_flag = o.large ? 1 : 0;
  head.part_count = 1;
  head.part_size_limit = static_cast<uint32_t>(M_cfg_max_flength());
  if (!index_head_valid(head)) return -1;
  uint32_t size = idx_block_size(o.block_code);
  if (!key_length_fits(o.key_length, size)) {
    M_errout(0, "Index: key length %d is too long for blocks of %u bytes\n", o.key_length, size);
    return -1;
  }
  // Block 0, the chain of virtual field texts (block 1), the first blocks
  // of the tail buckets.
  uint32_t blocks = BK_FIRST_TAIL_BLOCK + static_cast<uint32_t>(o.ov_modulo);
  if (o.large && static_cast<uint64_t>(blocks + 1) * size > head.part_size_limit) {
    M_errout(0, "Index: MAX_FLENGTH (%u) is too small for an index of block size %u\n", head.part_size_limit, size);
    return -1;
  }
  head.end_offset = blocks * size;
  int fd = open(first.c_str(), O_RDWR | O_CREAT | O_EXCL, kPartMode);
  if (fd < 0) {
    M_errout(0, "Index: cannot create %s: %s\n", first.c_str(), std::strerror(errno));
    return -1;
  }
  std::vector<uint8_t> image(static_cast<size_t>(blocks) * size, 0);
  encode_index_head(head, image.data());
  for (uint32_t b = BK_VIRTUAL_CHAIN; b < blocks; ++b) init_bucket_block(image.data() + b * size, size, BK_END_OF_CHAIN);
  bool ok = M_ls_write(fd, image.data(), image.size(), 0) == static_cast<ssize_t>(image.size());
  close(fd);
  if (!ok) {
    unlink(first.c_str());
    return -1;
  }
  return M_open_index(rel) == 1 ? 1 : -1;
}

namespace {

enum class CountChange { Read, Add, Set };

// Reads the index count of the hashed file's header (block 0 of the static
// file or of dat001) and changes it, under the lock of block 0, through the
// file's own descriptor: closing another descriptor of the file would drop
// this process's locks on it. The count found, or -1.
int32_t header_count(REL_TYPE* rel, CountChange change, int32_t value) {
  int fd = M_get_fd(rel, 0);
  if (fd < 0 || M_lock_block(rel, 0, change == CountChange::Read ? LOCK_SHARED : LOCK_EXCLUSIVE) != 0) return -1;
  int32_t found = -1;
  uint8_t word[4];
  if (pread(fd, word, 4, FH_INDEX_COUNT) == 4) {
    found = fl_get_i32(word, 0);
    if (change != CountChange::Read) {
      int32_t count = change == CountChange::Set ? value : found + value;
      fl_put_i32(word, 0, count < 0 ? 0 : count);
      if (M_ls_write(fd, word, 4, FH_INDEX_COUNT) != 4) found = -1;
    }
  }
  M_unlock_block(rel, 0);
  return found;
}

}  // namespace

int M_ndx_updhdr(REL_TYPE* rel, int32_t delta) { return header_count(rel, CountChange::Add, delta) < 0 ? -1 : 0; }
int M_ndx_sethdr(REL_TYPE* rel, int32_t count) { return header_count(rel, CountChange::Set, count) < 0 ? -1 : 0; }
int32_t M_ndx_gethdr(REL_TYPE* rel) { return header_count(rel, CountChange::Read, 0); }

uint32_t M_get_first_part_block(IndexState* h, const uint8_t* buffer) {
  uint32_t a = take_from_part(h, 0, buffer, true);
  if (a == IDX_NONE) M_errout(0, "Index: cannot take a bucket block: %s\n", std::strerror(errno != 0 ? errno : ENOSPC));
  return a;
}

uint32_t M_take_run(IndexState* h, const uint8_t* buffer, uint32_t blocks) {
  IndexVersionLock lock(h, 0);
  IndexHead head;
  if (!lock.held() || read_part_head(h, 0, &head) < 0) return IDX_NONE;
  uint32_t address = head.end_offset;
  head.end_offset += blocks * h->node_size;
  if (write_part_head(h, 0, head) < 0) return IDX_NONE;
  if (M_idx_write(h, address, buffer, blocks * h->node_size) < 0) return IDX_NONE;
  h->nodes_taken += blocks;
  return address;
}

uint32_t M_get_node(IndexState* h, const uint8_t* buffer) {
  if (!h->head.large_flag) {
    uint32_t a = take_from_part(h, 0, buffer);
    if (a == IDX_NONE) M_errout(0, "Index: cannot take a node: %s\n", std::strerror(errno != 0 ? errno : ENOSPC));
    return a;
  }
  // A large index: idx001 first, then the list of parts with room, then a
  // new part.
  IndexHead first;
  {
    IndexVersionLock lock(h, 0);
    if (!lock.held() || read_part_head(h, 0, &first) < 0) return IDX_NONE;
  }
  uint32_t a = take_from_part(h, 0, buffer);
  if (a != IDX_NONE) return a;
  uint32_t previous = 0;
  uint32_t part = first.active_part;
  for (int steps = 0; part != 0 && steps < IDX_MAX_PARTS; ++steps) {
    a = take_from_part(h, part, buffer);
    if (a != IDX_NONE) return a;
    // A full part leaves the list: it holds its own number again.
    IndexHead ph;
    if (read_part_head(h, part, &ph) < 0) return IDX_NONE;
    uint32_t next = ph.active_part == part ? 0 : ph.active_part;
    IndexHead prev;
    if (read_part_head(h, previous, &prev) < 0) return IDX_NONE;
    prev.active_part = static_cast<uint8_t>(next);
    if (write_part_head(h, previous, prev) < 0) return IDX_NONE;
    ph.active_part = static_cast<uint8_t>(part);
    if (write_part_head(h, part, ph) < 0) return IDX_NONE;
    part = next;
  }
  IndexVersionLock lock(h, 0);
  if (!lock.held() || read_part_head(h, 0, &first) < 0) return IDX_NONE;
  if (first.part_count >= IDX_MAX_PARTS) {
    M_errout(0, "Index: no room for a node: %d parts are in use\n", first.part_count);
    errno = ENOSPC;
    return IDX_NONE;
  }
  uint32_t fresh = first.part_count;
  if (create_part(h, fresh) < 0) {
    M_errout(0, "Index: cannot create part %u: %s\n", fresh + 1, std::strerror(errno));
    return IDX_NONE;
  }
  IndexHead ph;
  if (read_part_head(h, fresh, &ph) < 0) return IDX_NONE;
  ph.active_part = first.active_part;
  if (write_part_head(h, fresh, ph) < 0) return IDX_NONE;
  first.part_count = static_cast<uint8_t>(fresh + 1);
  first.active_part = static_cast<uint8_t>(fresh);
  if (write_part_head(h, 0, first) < 0) return IDX_NONE;
  return take_from_part(h, fresh, buffer);
}

int M_free_node(IndexState* h, uint32_t address) {
  if (address == IDX_NONE || (address & 0x7FFFFF00u) == 0) {
    M_errout(0, "Index: invalid node to be freed: %d\n", static_cast<int32_t>(address));
    return -1;
  }
  uint32_t part = part_of(h, address);
  IndexVersionLock lock(h, part);
  if (!lock.held()) return -1;
  IndexHead head;
  if (read_part_head(h, part, &head) < 0) return -1;
  std::vector<uint8_t> node(h->node_size);
  init_free_node(node.data(), h->node_size, head.free_node);
  if (M_idx_write(h, address, node.data(), h->node_size) < 0) {
    M_errout(0, "Index: link free node error(%d).\n", errno);
    return -1;
  }
  head.free_node = address;
  ++h->nodes_freed;
  if (head.large_flag) {
    ++head.free_count;
    double limit = head.part_size_limit;
    double share = (limit - head.end_offset + static_cast<double>(head.free_count) * h->node_size) / limit * 100.0;
    if (part != 0 && share > 10.0 && head.active_part == part) {
      // Back into the list of parts with room, at its front.
      IndexVersionLock first_lock(h, 0);
      IndexHead first;
      if (!first_lock.held() || read_part_head(h, 0, &first) < 0) return -1;
      head.active_part = first.active_part;
      first.active_part = static_cast<uint8_t>(part);
      if (write_part_head(h, 0, first) < 0) return -1;
    }
    if (part != 0 && (static_cast<uint64_t>(head.free_count) + 1) * h->node_size >= head.end_offset) {
      // Every node of the part is free: the part shrinks to its head.
      std::string path = M_index_path(h->data_path, is_dynamic_path(h->data_path), static_cast<int>(part));
      if (ftruncate(part_fd(h, part), h->node_size) != 0) {
        M_errout(0, "Large index: Truncate part file error, filename=%s, errno=%d\n", path.c_str(), errno);
      } else {
        head.free_count = 0;
        head.free_node = IDX_NONE;
        head.end_offset = h->node_size;
      }
    }
  }
  if (write_part_head(h, part, head) < 0) {
    M_errout(0, "Index: link free node error(%d).\n", errno);
    return -1;
  }
  return 0;
}
