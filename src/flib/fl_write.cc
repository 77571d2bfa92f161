#include "flib/fl_write.h"

#include <algorithm>
#include <cassert>
#include <csetjmp>
#include <cstring>
#include <ctime>
#include <vector>

#include "common/fl_errout.h"
#include "common/mrv_marks.h"
#include "common/mrv_msgno.h"
#include "common/readconf.h"
#include "flib/fl_block.h"
#include "flib/fl_delete.h"
#include "flib/fl_dirfile.h"
#include "flib/fl_free.h"
#include "flib/fl_globals.h"
#include "flib/fl_hash.h"
#include "flib/fl_idxupd.h"
#include "flib/fl_io.h"
#include "flib/fl_lock.h"
#include "flib/fl_mem.h"
#include "flib/fl_rel.h"
#include "flib/fl_report.h"
#include "flib/fl_split.h"

int32_t M_add_mode = 0;
int32_t M_add_refused = 0;
int (*M_update_hook)(REL_TYPE*, const uint8_t*, int32_t, const uint8_t*, int32_t) = nullptr;

namespace {

// A retry of a group scan more often than this is a fault.
constexpr int kMaxRetries = 8;

int32_t usable(uint32_t b) { return static_cast<int32_t>(b - BLOCK_OVERHEAD); }

int wr_error(REL_TYPE* rel, const char* fn, const char* cause, const uint8_t* key = nullptr, int32_t klen = 0) {
  return M_file_error(rel, fn, cause, key, klen, static_cast<int32_t>(M_groupno));
}

// Copies `count` bytes from offset `from` of a record's stored form (its
// bytes and the closing record mark) to `out`. Nothing is allocated, since
// a write on this path may leave by the recovery jump.
void copy_stored(uint8_t* out, const uint8_t* record, int32_t stored_length, int32_t from, int32_t count) {
  int32_t data = std::clamp(stored_length - 1 - from, 0, count);
  if (data > 0) std::memcpy(out, record + from, static_cast<size_t>(data));
  if (data < count) out[data] = M_RM;
}

// The recovery point of an add: M_blkwrite jumps to `buffer` when an
// overflow part is full; the block is restored from the copy taken here and
// the allocation retried, at most twice. The point takes itself out of
// M_overflow_recovery when the retries are spent.
struct RecoveryPoint {
  std::vector<uint8_t> saved;
  std::jmp_buf buffer;
  std::jmp_buf* outer = M_overflow_recovery;
  volatile int attempts = 0;

  // The copy is taken only where a jump can come: M_blkwrite of a dynamic
  // file that writes to the disk itself (the buffered writer never jumps).
  RecoveryPoint(const REL_TYPE* rel, const uint8_t* block, uint32_t b) {
    if (rel_is_dynamic(rel) && !M_mem_active(rel)) saved.assign(block, block + b);
  }
  // After a jump: false when the add must give up.
  bool resume(REL_TYPE* rel, uint8_t* block) {
    assert(saved.size() == rel->block_size);
    std::memcpy(block, saved.data(), saved.size());
    attempts = attempts + 1;
    if (attempts <= 2) return true;
    M_overflow_recovery = outer;
    M_release_blocks_in_stack(rel);
    return false;
  }
};

int32_t rows_of(const uint8_t* block, uint32_t b) { return std::clamp<int32_t>(gb_key_count(block), 0, max_key_rows(b)); }

}  // namespace

uint32_t M_block_time() { return static_cast<uint32_t>(std::time(nullptr)); }

bool position_in_block(uint32_t position, uint32_t address, uint32_t block_size) {
  uint32_t in_block = (position & 0x7FFFFFFFu) % block_size;
  return position - in_block == (address & ~ADDR_PART_MASK);
}

uint32_t data_block_address(const REL_TYPE* rel, const uint8_t* block, uint32_t position) {
  return record_block_address(position, rel->block_size, rel_is_dynamic(rel) ? gb_over_part(block) : 0);
}

// Puts the rows of a group block (and their keys) back in ascending order
// of position, after positions have been rebased.
void M_sort_rows(uint8_t* block, uint32_t b) {
  struct Row {
    uint32_t position;
    int32_t length;
    std::vector<uint8_t> key;
  };
  int32_t count = std::clamp<int32_t>(gb_key_count(block), 0, max_key_rows(b));
  int32_t datapos = gb_datapos(block);
  std::vector<Row> rows;
  KeyWalk key = key_walk(block);
  for (int32_t r = 0; r < count; ++r, key.next())
    rows.push_back({ke_position(block, r), ke_length(block, r),
                    std::vector<uint8_t>(key.bytes(), key.bytes() + key.length())});
  std::stable_sort(rows.begin(), rows.end(), [](const Row& x, const Row& y) { return x.position < y.position; });
  int32_t walk = datapos;
  for (int32_t r = 0; r < count; ++r) {
    const Row& row = rows[static_cast<size_t>(r)];
    ke_set_position(block, r, row.position);
    ke_set_length(block, r, row.length);
    int32_t n = static_cast<int32_t>(row.key.size());
    block[walk - 1] = static_cast<uint8_t>(n);
    std::memcpy(block + walk - 1 - n, row.key.data(), row.key.size());
    walk -= n + 1;
  }
}

int32_t M_key_prologue(const uint8_t* key, int32_t key_length) {
  if (key_length > MAX_KEY_LENGTH || key_length < 0) {
    M_msgno_out(MRV_MSG_BAD_KEY_LENGTH, "%d %.*s", key_length, std::max(key_length, 0), reinterpret_cast<const char*>(key));
    return -1;
  }
  if (key_length > 0 && key[key_length - 1] == M_FM) --key_length;
  return key_length;
}

void init_group_block(REL_TYPE* rel, uint8_t* block, uint32_t group, uint8_t flags) {
  uint32_t b = rel->block_size;
  uint32_t d = initial_datapos(b);
  std::memset(block, 0, b);
  gb_set_byteleft(block, static_cast<int16_t>(b - d));
  gb_set_datapos(block, static_cast<int16_t>(d));
  gb_set_flags(block, flags);
  gb_set_hashtype(block, static_cast<uint8_t>(rel->hashtype));
  gb_set_group(block, group);
  gb_set_time(block, M_block_time());
}

void insert_key(uint8_t* block, uint32_t b, const uint8_t* key, int32_t key_length, uint32_t position,
                int32_t stored_length) {
  int32_t count = rows_of(block, b);
  int32_t datapos = gb_datapos(block);
  int32_t key_bytes = gb_key_bytes(block);
  int32_t row = 0;
  while (row < count && ke_position(block, row) <= position) ++row;
  // Key bytes of rows before `row` lie just below datapos.
  int32_t above = datapos - key_walk(block, row).end;
  int32_t low = datapos - key_bytes;
  // The new key's bytes and its length byte stay above the rows and the
  // closing row's position word.
  assert(static_cast<int32_t>(ke_offset(count + 1)) + 4 <= low - key_length - 1);
  int32_t moving = key_bytes - above;
  std::memmove(block + low - key_length - 1, block + low, static_cast<size_t>(moving));
  int32_t slot = datapos - above;  // the new key's length byte is at slot-1
  block[slot - 1] = static_cast<uint8_t>(key_length);
  // An empty key (one that was only a field mark) may come without bytes.
  if (key_length > 0) std::memcpy(block + slot - 1 - key_length, key, static_cast<size_t>(key_length));
  std::memmove(block + ke_offset(row + 1), block + ke_offset(row), KEY_ENTRY_SIZE * static_cast<size_t>(count - row));
  ke_set_position(block, row, position);
  ke_set_length(block, row, stored_length);
  gb_set_key_count(block, static_cast<int16_t>(count + 1));
  gb_set_key_bytes(block, static_cast<int16_t>(key_bytes + key_length + 1));
  fl_put_u32(block, ke_offset(count + 1), 0);
}

void slide_key_area(REL_TYPE* rel, uint8_t* block, int32_t new_datapos) {
  int32_t b = static_cast<int32_t>(rel->block_size);
  int32_t byteleft = gb_byteleft(block);
  if (new_datapos != b && new_datapos == b - byteleft) {
    new_datapos = b;
    gb_set_byteleft(block, 0);
  }
  int32_t datapos = gb_datapos(block);
  int32_t key_bytes = gb_key_bytes(block);
  int32_t shift = new_datapos - datapos;
  std::memmove(block + datapos - key_bytes + shift, block + datapos - key_bytes, static_cast<size_t>(key_bytes));
  std::memset(block + datapos - key_bytes, 0, static_cast<size_t>(std::min(shift, new_datapos - datapos)));
  gb_set_datapos(block, static_cast<int16_t>(new_datapos));
}

uint32_t find_block_space(REL_TYPE* rel, const uint8_t* block, uint32_t address, int32_t stored_length) {
  uint32_t b = rel->block_size;
  if (stored_length >= usable(b)) return 0;
  int32_t count = rows_of(block, b);
  std::vector<int32_t> tails;
  std::vector<std::pair<int32_t, uint32_t>> candidates;  // tail, first block
  for (int32_t row = 0; row < count;) {
    uint32_t position = ke_position(block, row);
    int32_t length = ke_length(block, row);
    if (length <= 0 || static_cast<int64_t>(length) * 2 > 3 * static_cast<int64_t>(b) ||
        position_in_block(position, address, b)) {
      ++row;
      continue;
    }
    uint32_t holder = data_block_address(rel, block, position);
    if (length <= usable(b)) {
      int32_t offset = static_cast<int32_t>((position & 0x7FFFFFFFu) % b);
      int64_t used = offset + length;
      int32_t next = row + 1;
      while (next < count && data_block_address(rel, block, ke_position(block, next)) == holder &&
             !position_in_block(ke_position(block, next), address, b)) {
        used += ke_length(block, next);
        ++next;
      }
      if (offset > static_cast<int32_t>(DB_DATA)) tails.push_back(offset - static_cast<int32_t>(DB_DATA));
      if (static_cast<int64_t>(b) - used >= stored_length) return holder;
      row = next;
      continue;
    }
    int32_t tail = length % usable(b);
    if (tail > 0 && tail <= static_cast<int32_t>(b - b / 4) && usable(b) - tail >= stored_length &&
        std::find(tails.begin(), tails.end(), tail) == tails.end())
      candidates.push_back({tail, holder});
    ++row;
  }
  for (const auto& [tail, first] : candidates)
    if (std::find(tails.begin(), tails.end(), tail) == tails.end()) return first;
  return 0;
}

uint32_t write_record(REL_TYPE* rel, const uint8_t* block, uint32_t address, const uint8_t* record,
                      int32_t stored_length, int in_continuation) {
  const char* fn = "write_record";
  uint32_t b = rel->block_size;
  uint8_t data[MAX_BLOCK_SIZE];
  uint8_t extra = in_continuation != 0 ? FLAG_FOR_CONTINUATION : 0;
  if (stored_length > usable(b) || address == 0) {
    int32_t blocks = (stored_length + usable(b) - 1) / usable(b);
    int64_t current = M_get_dest_block(rel);
    if (current < 0) return wr_error(rel, fn, nullptr), 0;
    uint32_t first = static_cast<uint32_t>(current);
    int32_t done = 0;
    for (int32_t i = 0; i < blocks; ++i) {
      int64_t next = 0;
      if (i + 1 < blocks && (next = M_get_dest_block(rel)) < 0) return wr_error(rel, fn, nullptr), 0;
      std::memset(data, 0, b);
      int32_t chunk = std::min(usable(b), stored_length - done);
      copy_stored(data + DB_DATA, record, stored_length, done, chunk);
      done += chunk;
      fl_put_u32(data, DB_NEXT, static_cast<uint32_t>(next));
      gb_set_byteleft(data, static_cast<int16_t>(usable(b) - chunk));
      uint8_t kind = blocks == 1 ? 0 : i == 0 ? FLAG_LONG_FIRST : i + 1 == blocks ? FLAG_LONG_LAST : FLAG_LONG_MIDDLE;
      gb_set_flags(data, static_cast<uint8_t>(kind | extra));
      gb_set_hashtype(data, static_cast<uint8_t>(rel->hashtype));
      gb_set_group(data, M_groupno);
      if (M_blkwrite(rel, static_cast<uint32_t>(current), data) != 1) {
        if (errno == EFBIG || errno == ENOSPC) return wr_error(rel, fn, "write"), 1;
        return wr_error(rel, fn, "write"), 0;
      }
      current = next;
    }
    return (first & ~ADDR_PART_MASK) + DB_DATA;
  }
  // Space in a block that already holds records of this group block.
  if (M_blkread(rel, address, data, CHECK_GROUP_ONLY) != 1) return wr_error(rel, fn, nullptr), 0;
  if (gb_byteleft(data) < stored_length) {
    if ((gb_flags(data) & FLAG_LONG_MASK) != FLAG_LONG_FIRST) return wr_error(rel, fn, "long record check"), 0;
    for (int guard = 0;; ++guard) {
      uint32_t next = fl_get_u32(data, DB_NEXT);
      if (next == 0 || guard > (1 << 16)) return wr_error(rel, fn, "long record check"), 0;
      address = next;
      if (M_blkread(rel, address, data, CHECK_GROUP_ONLY) != 1) return wr_error(rel, fn, nullptr), 0;
      uint8_t kind = gb_flags(data) & FLAG_LONG_MASK;
      if (kind != FLAG_LONG_MIDDLE && kind != FLAG_LONG_LAST) return wr_error(rel, fn, "long record check"), 0;
      if (kind == FLAG_LONG_LAST) {
        if (gb_byteleft(data) < stored_length) return wr_error(rel, fn, "long record check"), 0;
        break;
      }
    }
  } else if ((gb_flags(data) & FLAG_LONG_MASK) != 0 && (gb_flags(data) & FLAG_LONG_MASK) != FLAG_LONG_LAST) {
    return wr_error(rel, fn, "long record check"), 0;
  }
  int32_t byteleft = gb_byteleft(data);
  uint32_t at = b - static_cast<uint32_t>(byteleft);
  copy_stored(data + at, record, stored_length, 0, stored_length);
  gb_set_byteleft(data, static_cast<int16_t>(byteleft - stored_length));
  gb_set_flags(data, static_cast<uint8_t>(gb_flags(data) | extra));
  if (M_blkwrite(rel, address, data) != 1) {
    if (errno == EFBIG || errno == ENOSPC) return wr_error(rel, fn, "write"), 1;
    return wr_error(rel, fn, "write"), 0;
  }
  return (address & ~ADDR_PART_MASK) + at;
}

int64_t M_add_record(REL_TYPE* rel, uint8_t* block, uint32_t address, const uint8_t* key, int32_t key_length,
                     const uint8_t* record, int32_t stored_length, int write_now, int in_continuation) {
  const char* fn = "M_add_record";
  uint32_t b = rel->block_size;
  int32_t byteleft = gb_byteleft(block);
  if (stored_length <= byteleft) {
    uint32_t at = b - static_cast<uint32_t>(byteleft);
    copy_stored(block + at, record, stored_length, 0, stored_length);
    gb_set_byteleft(block, static_cast<int16_t>(byteleft - stored_length));
    insert_key(block, b, key, key_length, (address & ~ADDR_PART_MASK) + at, stored_length);
    if (write_now != 0 && M_blkwrite(rel, address, block) != 1) return wr_error(rel, fn, nullptr, key, key_length);
    return address;
  }
  uint32_t home = 0;
  volatile bool own_stack = false;
  if (!M_block_stack_open()) home = find_block_space(rel, block, address, stored_length);
  // A write to a full overflow part comes back here with the block as it
  // was, and the allocation is retried in another part.
  RecoveryPoint point(rel, block, b);
  if (setjmp(point.buffer) != 0 && !point.resume(rel, block)) return wr_error(rel, fn, "write", key, key_length);
  M_overflow_recovery = &point.buffer;
  if (home == 0 && (point.attempts > 0 || !M_block_stack_open())) {
    int32_t blocks = (stored_length + usable(b) - 1) / usable(b);
    int r = M_alloc_new_blocks(rel, blocks, ALLOC_ANY_PART, block, 1, static_cast<int32_t>(address), 0);
    if (r == ADD_RETRY) {
      M_overflow_recovery = point.outer;
      M_release_blocks_in_stack(rel);
      return ADD_RETRY;
    }
    if (r != 0) {
      M_overflow_recovery = point.outer;
      return wr_error(rel, fn, nullptr, key, key_length);
    }
    own_stack = true;
  }
  uint32_t position = write_record(rel, block, home, record, stored_length, in_continuation);
  M_overflow_recovery = point.outer;
  if (position <= 1) {
    M_release_blocks_in_stack(rel);
    return wr_error(rel, fn, nullptr, key, key_length);
  }
  insert_key(block, b, key, key_length, position, stored_length);
  if (own_stack || !M_block_stack_open()) {
    if (M_relink_free_blocks(rel, block, write_now != 0 ? address : 0, write_now) != 0)
      return wr_error(rel, fn, nullptr, key, key_length);
  } else if (write_now != 0 && M_blkwrite(rel, address, block) != 1) {
    return wr_error(rel, fn, nullptr, key, key_length);
  }
  return address;
}

int64_t make_keyspace(REL_TYPE* rel, uint8_t* block, uint32_t address, int32_t key_length, int in_continuation) {
  const char* fn = "make_keyspace";
  int32_t b = static_cast<int32_t>(rel->block_size);
  auto room = [&] {
    int32_t need = gb_key_bytes(block) + key_length + 37;
    return need + key_table_bytes(gb_key_count(block) + 1) <= gb_datapos(block);
  };
  if (room()) return address;
  if (gb_key_count(block) == 0) {
    gb_set_datapos(block, static_cast<int16_t>(gb_datapos(block) + key_length));
    gb_set_byteleft(block, static_cast<int16_t>(gb_byteleft(block) - key_length));
    return address;
  }
  for (int guard = 0; !room(); ++guard) {
    if (guard > b) return wr_error(rel, fn, "key room");
    int32_t datapos = gb_datapos(block);
    if (gb_byteleft(block) == b - datapos) {
      slide_key_area(rel, block, b);
      gb_set_byteleft(block, 0);
      break;
    }
    int32_t count = rows_of(block, rel->block_size);
    int32_t victim = -1;
    for (int32_t row = 0; row < count && victim < 0; ++row)
      if (position_in_block(ke_position(block, row), address, rel->block_size)) victim = row;
    if (victim < 0) return wr_error(rel, fn, "key room");
    // The victim's record and key, copied out.
    uint32_t start = (ke_position(block, victim) & 0x7FFFFFFFu) % rel->block_size;
    int32_t length = ke_length(block, victim);
    std::vector<uint8_t> record(block + start, block + start + length - 1);
    KeyWalk key = key_walk(block, victim);
    int32_t walk = key.end, above = datapos - walk;
    int32_t vlen = key.length();
    std::vector<uint8_t> vkey(key.bytes(), key.bytes() + vlen);
    // Cut the key: the keys of earlier rows move down over it.
    std::memmove(block + walk - 1 - vlen, block + walk, static_cast<size_t>(above));
    int32_t new_datapos = datapos - vlen - 1;
    gb_set_datapos(block, static_cast<int16_t>(new_datapos));
    gb_set_key_bytes(block, static_cast<int16_t>(gb_key_bytes(block) - vlen - 1));
    // The key area moves up over the record's bytes.
    slide_key_area(rel, block, new_datapos + vlen + 1 + length);
    std::memmove(block + ke_offset(victim), block + ke_offset(victim + 1),
                 KEY_ENTRY_SIZE * static_cast<size_t>(count - victim - 1));
    std::memset(block + ke_offset(count - 1), 0, KEY_ENTRY_SIZE);
    gb_set_key_count(block, static_cast<int16_t>(count - 1));
    int64_t r = M_add_record(rel, block, address, vkey.data(), vlen, record.data(), length, 0, in_continuation);
    if (r < 0 || r == ADD_RETRY) return r < 0 ? wr_error(rel, fn, nullptr) : r;
  }
  return address;
}

int make_new_group(REL_TYPE* rel, uint8_t* block, uint32_t address, const uint8_t* key, int32_t key_length,
                   const uint8_t* record, int32_t stored_length) {
  const char* fn = "make_new_group";
  uint32_t b = rel->block_size;
  uint8_t fresh[MAX_BLOCK_SIZE];
  init_group_block(rel, fresh, M_groupno, FLAG_CONTINUATION);
  if (key_length + 45 > gb_datapos(fresh)) {
    gb_set_datapos(fresh, static_cast<int16_t>(gb_datapos(fresh) + key_length));
    gb_set_byteleft(fresh, static_cast<int16_t>(gb_byteleft(fresh) - key_length));
  }
  bool fits = stored_length <= gb_byteleft(fresh);
  int32_t need = fits ? 1 : (stored_length + usable(b) - 1) / usable(b) + 1;
  RecoveryPoint point(rel, block, b);
  if (setjmp(point.buffer) != 0 && !point.resume(rel, block)) return wr_error(rel, fn, "write", key, key_length);
  if (rel_is_dynamic(rel)) M_overflow_recovery = &point.buffer;
  if (M_alloc_new_blocks(rel, need, ALLOC_ANY_PART, block, 1, static_cast<int32_t>(address), 0) != 0) {
    M_overflow_recovery = point.outer;
    return wr_error(rel, fn, nullptr, key, key_length);
  }
  int64_t dest = M_get_dest_block(rel);
  if (dest < 0) {
    M_overflow_recovery = point.outer;
    M_release_blocks_in_stack(rel);
    return wr_error(rel, fn, nullptr, key, key_length);
  }
  uint32_t new_address = static_cast<uint32_t>(dest);
  if (rel_is_dynamic(rel)) gb_set_over_part(fresh, static_cast<uint8_t>(addr_part_index(new_address) + 1));
  gb_set_next(block, new_address);
  if (!fits) {
    if (M_add_record(rel, fresh, new_address, key, key_length, record, stored_length, 1, 1) < 0) {
      M_overflow_recovery = point.outer;
      M_release_blocks_in_stack(rel);
      gb_set_next(block, 0);
      return wr_error(rel, fn, nullptr, key, key_length);
    }
  } else {
    int32_t datapos = gb_datapos(fresh);
    copy_stored(fresh + datapos, record, stored_length, 0, stored_length);
    fresh[datapos - 1] = static_cast<uint8_t>(key_length);
    std::memcpy(fresh + datapos - 1 - key_length, key, static_cast<size_t>(key_length));
    gb_set_key_count(fresh, 1);
    gb_set_key_bytes(fresh, static_cast<int16_t>(key_length + 1));
    ke_set_position(fresh, 0, (new_address & ~ADDR_PART_MASK) + static_cast<uint32_t>(datapos));
    ke_set_length(fresh, 0, stored_length);
    gb_set_byteleft(fresh, static_cast<int16_t>(gb_byteleft(fresh) - stored_length));
  }
  M_overflow_recovery = point.outer;
  // The old block takes back its free list; the new block is written first.
  if (M_block_stack_open() && M_relink_free_blocks(rel, block, 0, 0) != 0)
    return wr_error(rel, fn, nullptr, key, key_length);
  gb_set_time(fresh, M_block_time());
  if (M_blkwrite(rel, new_address, fresh) != 1) return wr_error(rel, fn, nullptr, key, key_length);
  return 1;
}

int check_group(REL_TYPE* rel, uint8_t* block, const uint8_t* key, int32_t key_length, uint32_t* address,
                int32_t* row, int32_t* skip) {
  const char* fn = "check_group";
  uint32_t b = rel->block_size;
  char text[64];
  auto has_room = [&](const uint8_t* blk) {
    return gb_key_bytes(blk) + key_length + 5 + key_table_bytes(gb_key_count(blk)) + 40 < static_cast<int32_t>(b);
  };
  if (const char* fault = group_block_fault(block, b, true, text, sizeof text))
    return wr_error(rel, fn, fault, key, key_length);
  int found = find_key_in_block(block, b, key, key_length);
  if (found >= 0) {
    *row = found;
    return 1;
  }
  if (gb_next(block) == 0) return has_room(block) ? 2 : 0;
  std::vector<uint8_t> room_block;
  uint32_t room_address = 0;
  if (has_room(block)) {
    room_block.assign(block, block + b);
    room_address = *address;
  }
  uint8_t current[MAX_BLOCK_SIZE];
  uint32_t at = gb_next(block);
  uint32_t last = *address;
  std::memcpy(current, block, b);
  for (int guard = 0; at != 0; ++guard) {
    if (guard > (1 << 20)) return wr_error(rel, fn, "chain loop", key, key_length);
    if (M_blkread(rel, at, current, CHECK_CONTINUATION) != 1) return wr_error(rel, fn, nullptr, key, key_length);
    if ((gb_flags(current) & FLAG_KIND_MASK) != FLAG_CONTINUATION) return wr_error(rel, fn, "blk check", key, key_length);
    if (const char* fault = group_block_fault(current, b, false, text, sizeof text))
      return wr_error(rel, fn, fault, key, key_length);
    if (rel_is_dynamic(rel) && M_set_over_fd(rel, gb_over_part(current)) != 0)
      return wr_error(rel, fn, nullptr, key, key_length);
    found = find_key_in_block(current, b, key, key_length);
    if (found >= 0) {
      std::memcpy(block, current, b);
      *address = at;
      *row = found;
      return 1;
    }
    if (room_block.empty() && has_room(current)) {
      room_block.assign(current, current + b);
      room_address = at;
    }
    last = at;
    at = gb_next(current);
  }
  if (!room_block.empty()) {
    std::memcpy(block, room_block.data(), b);
    *address = room_address;
    return 2;
  }
  std::memcpy(block, current, b);
  *address = last;
  (void)skip;
  return 0;
}

int need_split(REL_TYPE* rel, const uint8_t* block, int32_t key_length, int32_t stored_length) {
  int64_t b = rel->block_size;
  int64_t keys = gb_key_bytes(block) + static_cast<int64_t>(key_table_bytes(gb_key_count(block)));
  if (!hash_is_keydata(rel->hashtype)) return (key_length + keys + 9) * 100 / b > rel->split_load;
  int64_t sum = 0;
  int32_t count = rows_of(block, rel->block_size);
  int32_t datapos = gb_datapos(block);
  for (int32_t row = 0; row < count; ++row) {
    int32_t length = ke_length(block, row);
    if (!addr_is_overflow(ke_position(block, row))) {
      sum += length;
    } else if (length < usable(rel->block_size)) {
      if (datapos > 36 && keys * 100 / (datapos - 36) >= 50) return 1;
      sum += length;
    }
  }
  return (key_length + keys + sum + 9 + stored_length + 1) * 100 / b > rel->split_load;
}

int writeshort(REL_TYPE* rel, uint8_t* block, uint32_t table_address, int32_t row, uint8_t* data_block,
               uint32_t data_address, int32_t stored_length, const uint8_t* record) {
  const char* fn = "writeshort";
  int32_t b = static_cast<int32_t>(rel->block_size);
  uint32_t position = ke_position(block, row);
  int32_t old_length = ke_length(block, row);
  int32_t delta = stored_length - old_length;
  int32_t start = static_cast<int32_t>((position & 0x7FFFFFFFu) % rel->block_size);
  int32_t end = start + old_length;
  int32_t byteleft = gb_byteleft(data_block);
  int32_t used_end = b - byteleft;
  if (end + delta < 0 || used_end + delta > b || end > used_end) return wr_error(rel, fn, "movelen < 0 or > blksize");
  if (used_end > end) {
    int32_t next = M_get_order(block, rel->block_size, position + static_cast<uint32_t>(old_length));
    if (next < 0) return wr_error(rel, fn, "block error");
    std::memmove(data_block + end + delta, data_block + end, static_cast<size_t>(used_end - end));
    int32_t count = rows_of(block, rel->block_size);
    for (int32_t r = next; r < count && position_in_block(ke_position(block, r), data_address, rel->block_size); ++r)
      ke_set_position(block, r, ke_position(block, r) + static_cast<uint32_t>(delta));
  }
  copy_stored(data_block + start, record, stored_length, 0, stored_length);
  if (delta < 0) std::memset(data_block + used_end + delta, 0, static_cast<size_t>(-delta));
  gb_set_byteleft(data_block, static_cast<int16_t>(byteleft - delta));
  ke_set_length(block, row, stored_length);
  if (data_block != block) {
    if (M_blkwrite(rel, data_address, data_block) != 1) return wr_error(rel, fn, nullptr);
    if (M_blkwrite(rel, table_address, block) != 1) return wr_error(rel, fn, nullptr);
  }
  return 1;
}

namespace {

// Replaces a record by a long one in the old record's own blocks: the new
// bytes overwrite the chain from offset 12 block by block, more blocks come
// from the group's free list and the reserve, and blocks the new record
// does not need go back to the group. The old record is long, or short and
// alone at offset 12 of its data block, which then becomes the first block
// of the long record; its last block holds nothing but its tail. 1 done,
// 0 not such a record, -1 failure.
int overwrite_long_record(REL_TYPE* rel, uint8_t* block, uint32_t address, int32_t row, const uint8_t* record,
                          int32_t stored_length) {
  const char* fn = "modify_record";
  uint32_t b = rel->block_size;
  int32_t u = usable(b);
  int32_t old_length = ke_length(block, row);
  int32_t old_blocks = (old_length + u - 1) / u;
  int32_t new_blocks = (stored_length + u - 1) / u;
  uint8_t data[MAX_BLOCK_SIZE];
  // The old chain, checked before anything changes.
  auto read_chain = [&](std::vector<uint32_t>* chain) {
    uint32_t at = data_block_address(rel, block, ke_position(block, row));
    for (int32_t i = 0; i < old_blocks; ++i) {
      if (at == 0 || M_blkread(rel, at, data, CHECK_GROUP_ONLY) != 1) return -1;
      uint8_t want = old_blocks == 1 ? 0 : i == 0 ? FLAG_LONG_FIRST : i + 1 == old_blocks ? FLAG_LONG_LAST : FLAG_LONG_MIDDLE;
      if ((gb_flags(data) & FLAG_LONG_MASK) != want) return -1;
      chain->push_back(at);
      at = fl_get_u32(data, DB_NEXT);
    }
    int32_t tail = old_length - (old_blocks - 1) * u;
    return gb_byteleft(data) == u - tail ? 1 : 0;
  };
  std::vector<uint32_t> chain;
  int r = read_chain(&chain);
  if (r <= 0) return r < 0 ? wr_error(rel, fn, "block check") : 0;
  uint8_t extra = 0;
  if (M_blkread(rel, chain[0], data, CHECK_GROUP_ONLY) != 1) return wr_error(rel, fn, nullptr);
  extra = gb_flags(data) & FLAG_FOR_CONTINUATION;
  if (new_blocks > old_blocks) {
    // The reserve may move the group's records to another part: the chain
    // is read again from the row afterwards.
    if (M_alloc_new_blocks(rel, new_blocks - old_blocks, ALLOC_ANY_PART, block, 1, static_cast<int32_t>(address), 0) != 0)
      return wr_error(rel, fn, nullptr);
    chain.clear();
    if (read_chain(&chain) != 1) {
      M_release_blocks_in_stack(rel);
      return wr_error(rel, fn, "block check");
    }
    while (static_cast<int32_t>(chain.size()) < new_blocks) {
      int64_t more = M_get_dest_block(rel);
      if (more < 0) return wr_error(rel, fn, nullptr);
      chain.push_back(static_cast<uint32_t>(more));
    }
  }
  for (int32_t i = 0; i < new_blocks; ++i) {
    bool last = i + 1 == new_blocks;
    int32_t chunk = last ? stored_length - i * u : u;
    std::memset(data, 0, b);
    copy_stored(data + DB_DATA, record, stored_length, i * u, chunk);
    fl_put_u32(data, DB_NEXT, last ? 0 : chain[static_cast<size_t>(i + 1)]);
    gb_set_byteleft(data, static_cast<int16_t>(u - chunk));
    gb_set_flags(data, static_cast<uint8_t>((i == 0 ? FLAG_LONG_FIRST : last ? FLAG_LONG_LAST : FLAG_LONG_MIDDLE) | extra));
    gb_set_hashtype(data, static_cast<uint8_t>(rel->hashtype));
    gb_set_group(data, M_groupno);
    if (M_blkwrite(rel, chain[static_cast<size_t>(i)], data) != 1) return wr_error(rel, fn, nullptr);
  }
  for (size_t i = static_cast<size_t>(new_blocks); i < chain.size(); ++i) {
    if (M_blkread(rel, chain[i], data, CHECK_GROUP_ONLY) != 1 ||
        M_release_one_block(rel, block, chain[i], data) != 0)
      return wr_error(rel, fn, nullptr);
  }
  ke_set_length(block, row, stored_length);
  if (M_block_stack_open() && M_relink_free_blocks(rel, block, 0, 0) != 0) return wr_error(rel, fn, nullptr);
  return 1;
}

}  // namespace

int modify_record(REL_TYPE* rel, uint8_t* block, const uint8_t* key, int32_t key_length, const uint8_t* record,
                  int32_t stored_length, int32_t row, uint32_t address, int in_continuation) {
  const char* fn = "modify_record";
  uint32_t b = rel->block_size;
  uint32_t position = ke_position(block, row);
  int32_t old_length = ke_length(block, row);
  int32_t delta = stored_length - old_length;
  if (old_length <= usable(b) && stored_length <= usable(b)) {
    uint8_t data[MAX_BLOCK_SIZE];
    uint8_t* data_block = block;
    uint32_t data_address = address;
    if (!position_in_block(position, address, b)) {
      data_address = data_block_address(rel, block, position);
      if (M_blkread(rel, data_address, data, CHECK_GROUP_ONLY) != 1) return wr_error(rel, fn, nullptr, key, key_length);
      uint8_t kind = gb_flags(data) & FLAG_LONG_MASK;
      if (kind != 0 && kind != FLAG_LONG_LAST) return wr_error(rel, fn, "block check", key, key_length);
      data_block = data;
    }
    if (delta <= 0 || delta <= gb_byteleft(data_block)) {
      if (writeshort(rel, block, address, row, data_block, data_address, stored_length, record) != 1)
        return wr_error(rel, fn, nullptr, key, key_length);
      gb_set_time(block, M_block_time());
      if (M_blkwrite(rel, address, block) != 1) return wr_error(rel, fn, nullptr, key, key_length);
      return 1;
    }
  }
  bool alone_at_start = old_length <= usable(b) && !position_in_block(position, address, b) &&
                        (position & 0x7FFFFFFFu) % b == DB_DATA;
  if (stored_length > usable(b) && (old_length > usable(b) || alone_at_start)) {
    int r = overwrite_long_record(rel, block, address, row, record, stored_length);
    if (r < 0) return wr_error(rel, fn, nullptr, key, key_length);
    if (r == 1) {
      gb_set_time(block, M_block_time());
      if (M_blkwrite(rel, address, block) != 1) return wr_error(rel, fn, nullptr, key, key_length);
      if (M_release_blk_in_buffer(rel, 0) != 0 || M_release_to_file(rel, 0) != 0)
        return wr_error(rel, fn, nullptr, key, key_length);
      return 1;
    }
  }
  // Otherwise the old record goes and the new one is added in its place.
  if (delete_record(rel, address, block, row) != 1) return wr_error(rel, fn, nullptr, key, key_length);
  if (make_keyspace(rel, block, address, key_length, in_continuation) < 0) return wr_error(rel, fn, nullptr, key, key_length);
  gb_set_time(block, M_block_time());
  int64_t r = M_add_record(rel, block, address, key, key_length, record, stored_length, 1, in_continuation);
  if (r < 0) return wr_error(rel, fn, nullptr, key, key_length);
  if (M_release_blk_in_buffer(rel, 0) != 0 || M_release_to_file(rel, 0) != 0) return wr_error(rel, fn, nullptr, key, key_length);
  return 1;
}

int add_to_group(REL_TYPE* rel, uint32_t head, const uint8_t* key, int32_t key_length, const uint8_t* record,
                 int32_t stored_length, void* hook_data, void* index_data) {
  const char* fn = "add_to_group";
  uint8_t block[MAX_BLOCK_SIZE];
  if (M_blkread(rel, head, block, CHECK_HEAD) != 1) return wr_error(rel, fn, nullptr, key, key_length);
  if ((gb_flags(block) & FLAG_KIND_MASK) != FLAG_HEAD) return wr_error(rel, fn, "blk check", key, key_length);
  if (rel_is_dynamic(rel) && M_set_over_fd(rel, gb_over_part(block)) != 0) return wr_error(rel, fn, nullptr, key, key_length);
  int32_t mode = M_add_mode;
  M_add_mode = 0;
  uint8_t head_copy[MAX_BLOCK_SIZE];
  std::memcpy(head_copy, block, rel->block_size);
  for (int retry = 0;; ++retry) {
    if (retry > kMaxRetries) return wr_error(rel, fn, "retry", key, key_length);
    if (retry > 0) std::memcpy(block, head_copy, rel->block_size);
    uint32_t address = head;
    int32_t row = -1, skip = retry;
    int found = check_group(rel, block, key, key_length, &address, &row, &skip);
    if (found < 0) return wr_error(rel, fn, nullptr, key, key_length);
    if ((mode == ADD_IF_ABSENT && found == 1) || (mode == ADD_IF_EXISTS && found != 1)) {
      M_add_refused = mode;
      return -1;
    }
    int in_continuation = address != head ? 1 : 0;
    if (found == 1) {
      if (modify_record(rel, block, key, key_length, record, stored_length, row, address, in_continuation) != 1)
        return wr_error(rel, fn, nullptr, key, key_length);
      return 1;
    }
    if (found == 0) {
      if (make_new_group(rel, block, address, key, key_length, record, stored_length) != 1)
        return wr_error(rel, fn, nullptr, key, key_length);
    } else {
      if (make_keyspace(rel, block, address, key_length, in_continuation) < 0)
        return wr_error(rel, fn, nullptr, key, key_length);
      int64_t r = M_add_record(rel, block, address, key, key_length, record, stored_length, 0, in_continuation);
      if (r == ADD_RETRY) continue;
      if (r < 0) return wr_error(rel, fn, nullptr, key, key_length);
    }
    // The one write that publishes the key.
    gb_set_time(block, M_block_time());
    gb_set_group(block, M_groupno);
    if (M_blkwrite(rel, address, block) != 1) return wr_error(rel, fn, nullptr, key, key_length);
    if (M_release_blk_in_buffer(rel, 0) != 0 || M_release_to_file(rel, 0) != 0)
      return wr_error(rel, fn, nullptr, key, key_length);
    if (M_mem_active(rel) || !rel_is_dynamic(rel) || rel->split_load >= 100 || rel->sfd == nullptr) return 1;
    if (rel->sfd->split_flag == 0 && gb_next(block) == 0 && address == head &&
        need_split(rel, block, key_length, stored_length) == 0)
      return 1;
    rel->sfd->split_flag = 1;
    M_split_due(rel);
    return 1;
  }
}

int M_append_strtuple(REL_TYPE* rel, const uint8_t* key, int32_t key_length, const uint8_t* record,
                      int32_t record_length, int32_t reserved, void* index_data) {
  const char* fn = "M_append_strtuple";
  M_add_refused = 0;
  key_length = M_key_prologue(key, key_length);
  if (key_length < 0) {
    M_add_mode = 0;
    return -1;
  }
  if (key_length == 0 && M_env_param("MRV_OPTION81", 0) == 1) {
    M_add_mode = 0;
    M_errout(0, "MRV.OPTION 81 ON, disallow NULL key.\n");
    return -1;
  }
  if (record_length < 0 || record_length >= MAX_RECORD_BYTES) {
    M_add_mode = 0;
    return wr_error(rel, fn, "record length", key, key_length);
  }
  if (M_update_hook != nullptr && rel->update_trigger[0] != '\0' &&
      M_update_hook(rel, key, key_length, record, record_length) != 0) {
    M_add_mode = 0;
    return 0;
  }
  if (rel->modulo == 0) {
    int32_t mode = M_add_mode;
    M_add_mode = 0;
    return M_dir_write(rel, key, key_length, record, record_length, mode);
  }
  IndexPrep prep;
  if (M_index_prepare(rel, key, key_length, &prep) < 0) {
    M_add_mode = 0;
    return wr_error(rel, fn, "index", key, key_length);
  }
  int64_t head = M_dyn_hash(rel, key, key_length, LOCK_EXCLUSIVE);
  if (head < 0) {
    M_add_mode = 0;
    return wr_error(rel, fn, nullptr, key, key_length);
  }
  BlockLock head_lock(rel);
  head_lock.adopt(static_cast<uint32_t>(head));
  int r = add_to_group(rel, static_cast<uint32_t>(head), key, key_length, record, record_length + 1, nullptr, index_data);
  head_lock.release();
  if (r == 1 && M_index_commit(rel, key, key_length, prep, record, record_length) < 0) return -1;
  return r == 1 ? 1 : -1;
}
