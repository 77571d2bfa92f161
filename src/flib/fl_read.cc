#include "flib/fl_read.h"

#include <algorithm>
#include <cstring>

#include "common/mrv_marks.h"
#include "flib/fl_block.h"
#include "flib/fl_dirfile.h"
#include "flib/fl_hash.h"
#include "flib/fl_io.h"
#include "flib/fl_lock.h"
#include "flib/fl_rel.h"
#include "flib/fl_report.h"
#include "flib/fl_write.h"

namespace {

// Nothing is pending between M_pre_read and M_post_read.
constexpr int32_t kNothingPending = -2;

// The last found record, between M_pre_read and M_post_read.
struct Pending {
  int32_t state = kNothingPending;
  REL_TYPE* rel = nullptr;
  uint32_t head = 0;
  uint32_t block_address = 0;
  uint32_t position = 0;
  int32_t length = 0;
  std::string dir_record;  // a directory-type entry, read at M_preread_seq
};
Pending g_pending;

int32_t usable(uint32_t b) { return static_cast<int32_t>(b - BLOCK_OVERHEAD); }

// Copies the `length - 1` record bytes of the row at `position`, held by
// `block` at `address`, into `out`. `fn` names the caller in reports.
// Returns the bytes copied, or -1 - copied after a report.
int64_t copy_record(REL_TYPE* rel, const uint8_t* block, uint32_t address, uint32_t position, int32_t length,
                    uint8_t* out, const char* fn) {
  uint32_t b = rel->block_size;
  int32_t wanted = length - 1;
  uint32_t in_block = (position & 0x7FFFFFFFu) % b;
  if (length < 1) return M_file_error(rel, fn, "check", nullptr, 0, length), -1;
  if (position_in_block(position, address, b)) {
    if (in_block + static_cast<uint32_t>(length) > b) return M_file_error(rel, fn, "check", nullptr, 0, length), -1;
    std::memcpy(out, block + in_block, static_cast<size_t>(wanted));
    return wanted;
  }
  uint8_t data[MAX_BLOCK_SIZE];
  uint32_t at = data_block_address(rel, block, position);
  if (M_blkread(rel, at, data, CHECK_GROUP_ONLY) != 1) return M_file_error(rel, fn, "M_blkread", nullptr, 0, 0), -1;
  uint8_t kind = gb_flags(data) & FLAG_LONG_MASK;
  if (length <= usable(b)) {
    if ((kind != 0 && kind != FLAG_LONG_LAST) || in_block < DB_DATA || in_block + static_cast<uint32_t>(length) > b)
      return M_file_error(rel, fn, "blk check", nullptr, 0, 1), -1;
    std::memcpy(out, data + in_block, static_cast<size_t>(wanted));
    return wanted;
  }
  if (kind != FLAG_LONG_FIRST || in_block != DB_DATA) return M_file_error(rel, fn, "blk check", nullptr, 0, 2), -1;
  int32_t done = 0;
  for (int32_t i = 0;; ++i) {
    int32_t chunk = std::min(usable(b), wanted - done);
    std::memcpy(out + done, data + DB_DATA, static_cast<size_t>(chunk));
    done += chunk;
    if (done >= wanted) return done;
    uint32_t next = fl_get_u32(data, DB_NEXT);
    if (next == 0) return M_file_error(rel, fn, "long record", nullptr, 0, done), -1 - done;
    if (M_blkread(rel, next, data, CHECK_GROUP_ONLY) != 1) return M_file_error(rel, fn, "M_blkread", nullptr, 0, 0), -1 - done;
    kind = gb_flags(data) & FLAG_LONG_MASK;
    bool last = done + usable(b) >= length;  // this block holds the mark
    if (last ? (kind != FLAG_LONG_LAST && fl_get_u32(data, DB_NEXT) != 0) : kind != FLAG_LONG_MIDDLE)
      return M_file_error(rel, fn, "blk check", nullptr, 0, last ? 4 : 3), -1 - done;
  }
}

}  // namespace

int M_read_key(REL_TYPE* rel, const uint8_t* key, int32_t length) {
  length = M_key_prologue(key, length);
  if (length < 0) return -1;
  if (rel->modulo == 0) return M_dir_exists(rel, key, length);
  M_hash(key, length, rel);
  uint32_t head = M_get_head_off(rel, M_groupno);
  if (head == 0) return M_file_error(rel, "M_read_key", "M_get_head_off", key, length, static_cast<int32_t>(M_groupno));
  uint8_t block[MAX_BLOCK_SIZE];
  uint32_t previous = 0;
  int32_t row = -1;
  int r = M_read_grpblk(rel, &head, block, key, length, &row, &previous);
  g_pending.state = kNothingPending;
  return r;
}

int M_pre_read(REL_TYPE* rel, const uint8_t* key, int32_t length, int32_t* size) {
  const char* fn = "M_pre_read";
  length = M_key_prologue(key, length);
  if (length < 0) return -1;
  g_pending.state = kNothingPending;
  if (rel->modulo == 0) return M_preread_seq(rel, key, length, size);
  int64_t head = M_dyn_hash(rel, key, length, LOCK_SHARED);
  if (head < 0) return M_file_error(rel, fn, nullptr, key, length, static_cast<int32_t>(M_groupno));
  BlockLock head_lock(rel);
  head_lock.adopt(static_cast<uint32_t>(head));
  uint32_t address = static_cast<uint32_t>(head);
  uint32_t previous = 0;
  int32_t row = -1;
  int r = M_read_grpblk(rel, &address, M_blkbuf, key, length, &row, &previous);
  if (r == 1 && (M_found_length < 1 || M_found_length > MAX_RECORD_BYTES + 1))
    r = M_file_error(rel, fn, "check", key, length, M_found_length);
  if (r != 1) return r;
  // M_post_read ends the lock.
  head_lock.keep();
  g_pending = Pending{0, rel, static_cast<uint32_t>(head), address, M_found_position, M_found_length, {}};
  *size = M_found_length - 1;
  return 1;
}

int M_preread_seq(REL_TYPE* rel, const uint8_t* name, int32_t length, int32_t* size) {
  g_pending.state = kNothingPending;
  std::string record;
  int r = M_dir_read(rel, name, length, &record);
  if (r != 1) return r;
  g_pending = Pending{0, rel, 0, 0, 0, static_cast<int32_t>(record.size()) + 1, std::move(record)};
  *size = g_pending.length - 1;
  return 1;
}

int M_post_read(REL_TYPE* rel, const uint8_t* key, int32_t* size, uint8_t* buffer) {
  const char* fn = "M_post_read";
  if (g_pending.state == kNothingPending || g_pending.rel != rel) return M_file_error(rel, fn, "check", key, 0, 0);
  Pending p = std::move(g_pending);
  g_pending = Pending{};
  if (rel->modulo == 0) {
    if (*size != p.length - 1) return M_file_error(rel, fn, "check", key, 0, *size);
    std::memcpy(buffer, p.dir_record.data(), p.dir_record.size());
    buffer[*size] = 0;
    return 1;
  }
  int result = 1;
  if (*size != p.length - 1) {
    result = M_file_error(rel, fn, "check", key, 0, *size);
  } else {
    int64_t copied = copy_record(rel, M_blkbuf, p.block_address, p.position, p.length, buffer, fn);
    if (copied < 0) {
      *size = static_cast<int32_t>(-1 - copied);
      result = -1;
    } else {
      buffer[copied] = 0;
    }
  }
  M_unlock_block(rel, p.head);
  return result;
}

int M_read_tuple(REL_TYPE* rel, const uint8_t* key, int32_t length, std::string* record) {
  int32_t size = 0;
  int r = M_pre_read(rel, key, length, &size);
  if (r != 1) return r;
  record->assign(static_cast<size_t>(size) + 1, '\0');
  r = M_post_read(rel, key, &size, reinterpret_cast<uint8_t*>(record->data()));
  record->resize(static_cast<size_t>(std::max(size, 0)));
  return r;
}

int M_catch_tuple(REL_TYPE* rel, const uint8_t* key, int32_t key_length, const uint8_t* block, int32_t row,
                  uint32_t address, std::string* record, int with_key) {
  const char* fn = "M_catch_tuple";
  record->clear();
  if (row < 0 || row >= std::min<int32_t>(gb_key_count(block), max_key_rows(rel->block_size)))
    return M_file_error(rel, fn, "check", key, key_length, row);
  if (with_key != 0) {
    record->assign(reinterpret_cast<const char*>(key), static_cast<size_t>(key_length));
    record->push_back(static_cast<char>(M_FM));
  }
  size_t start = record->size();
  int32_t length = ke_length(block, row);
  if (length < 1 || length > MAX_RECORD_BYTES + 1) return M_file_error(rel, fn, "check", key, key_length, length);
  record->resize(start + static_cast<size_t>(length - 1));
  int64_t copied = copy_record(rel, block, address, ke_position(block, row), length,
                               reinterpret_cast<uint8_t*>(record->data()) + start, fn);
  if (copied < 0) {
    record->resize(start + static_cast<size_t>(-1 - copied));
    return -1;
  }
  return 1;
}

int M_for_each_key(REL_TYPE* rel,
                   const std::function<int(const uint8_t*, int32_t, const uint8_t*, int32_t, uint32_t)>& visit) {
  const char* fn = "M_for_each_key";
  uint32_t b = rel->block_size;
  uint8_t buffer[MAX_BLOCK_SIZE];
  char text[64];
  for (int32_t g = 0; g < rel->modulo; ++g) {
    M_groupno = static_cast<uint32_t>(g);
    uint32_t address = M_get_head_off(rel, M_groupno);
    if (address == 0) return M_file_error(rel, fn, "M_get_head_off", nullptr, 0, g);
    for (int step = 0; address != 0; ++step) {
      bool head = step == 0;
      if (step > (1 << 20)) return M_file_error(rel, fn, "chain loop", nullptr, 0, g);
      const uint8_t* block = M_blkview(rel, address, buffer, head ? CHECK_HEAD : CHECK_CONTINUATION);
      if (block == nullptr) return M_file_error(rel, fn, nullptr, nullptr, 0, g);
      if (const char* fault = group_block_fault(block, b, head, text, sizeof text))
        return M_file_error(rel, fn, fault, nullptr, 0, g);
      int32_t count = std::min<int32_t>(gb_key_count(block), max_key_rows(b));
      int32_t floor = static_cast<int32_t>(ke_offset(count));
      KeyWalk key = key_walk(block);
      for (int32_t row = 0; row < count; ++row, key.next()) {
        if (!key.fits_above(floor)) return M_file_error(rel, fn, "key area", nullptr, 0, g);
        if (int r = visit(key.bytes(), key.length(), block, row, address); r != 0) return r;
      }
      address = gb_next(block);
    }
  }
  return 0;
}
