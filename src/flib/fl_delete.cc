#include "flib/fl_delete.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "flib/fl_block.h"
#include "flib/fl_dirfile.h"
#include "flib/fl_free.h"
#include "flib/fl_hash.h"
#include "flib/fl_idxupd.h"
#include "flib/fl_io.h"
#include "flib/fl_lock.h"
#include "flib/fl_rel.h"
#include "flib/fl_report.h"
#include "flib/fl_split.h"
#include "flib/fl_write.h"

int (*M_delete_hook)(REL_TYPE*, const uint8_t*, int32_t) = nullptr;

namespace {

int del_error(REL_TYPE* rel, const char* fn, const char* cause) {
  return M_file_error(rel, fn, cause, nullptr, 0, static_cast<int32_t>(M_groupno));
}

int32_t usable(uint32_t b) { return static_cast<int32_t>(b - BLOCK_OVERHEAD); }

// Frees the blocks of a long record that starts at `first`; a tail that
// shares its last block with short records is cut out of that block.
int free_long_record(REL_TYPE* rel, uint8_t* table, uint32_t first, int32_t length) {
  const char* fn = "M_delete_record";
  uint32_t b = rel->block_size;
  int32_t chunks = length / usable(b);
  int32_t tail = length % usable(b);
  uint8_t data[MAX_BLOCK_SIZE];
  uint32_t address = first;
  for (int32_t i = 0; i < chunks + (tail > 0 ? 1 : 0); ++i) {
    if (address == 0) return del_error(rel, fn, "long tuple error");
    if (M_blkread(rel, address, data, CHECK_GROUP_ONLY) != 1) return del_error(rel, fn, nullptr);
    uint8_t kind = gb_flags(data) & FLAG_LONG_MASK;
    bool last = i + 1 == chunks + (tail > 0 ? 1 : 0);
    uint8_t want = i == 0 ? FLAG_LONG_FIRST : last ? FLAG_LONG_LAST : FLAG_LONG_MIDDLE;
    if (kind != want) return del_error(rel, fn, "block check");
    uint32_t next = fl_get_u32(data, DB_NEXT);
    if (i < chunks) {
      if (last && next != 0) return del_error(rel, fn, "long tuple error");
      if (M_release_one_block(rel, table, address, data) != 0) return del_error(rel, fn, nullptr);
    } else {
      // The tail: its block may hold short records behind it.
      fl_put_u32(data, DB_NEXT, 0);
      if (M_arrange_hole(rel, table, data, address, (address & ~ADDR_PART_MASK) + DB_DATA, tail,
                         static_cast<int32_t>(b)) != 1)
        return del_error(rel, fn, nullptr);
    }
    address = next;
  }
  return 1;
}

}  // namespace

int delete_record(REL_TYPE* rel, uint32_t address, uint8_t* block, int32_t row) {
  const char* fn = "M_delete_record";
  uint32_t b = rel->block_size;
  int32_t count = std::clamp<int32_t>(gb_key_count(block), 0, max_key_rows(b));
  if (row < 0 || row >= count) return del_error(rel, fn, "row");
  uint32_t position = ke_position(block, row);
  int32_t length = ke_length(block, row);
  // Cut the key out; the keys of later rows (below it) move up.
  int32_t datapos = gb_datapos(block);
  int32_t key_bytes = gb_key_bytes(block);
  KeyWalk walk = key_walk(block, row);
  int32_t n = walk.length();
  int32_t low = datapos - key_bytes;
  int32_t key_start = walk.start();
  if (key_start < low) return del_error(rel, fn, "key area");
  std::memmove(block + low + n + 1, block + low, static_cast<size_t>(key_start - low));
  std::memset(block + low, 0, static_cast<size_t>(n + 1));
  std::memmove(block + ke_offset(row), block + ke_offset(row + 1), KEY_ENTRY_SIZE * static_cast<size_t>(count - row - 1));
  std::memset(block + ke_offset(count - 1), 0, KEY_ENTRY_SIZE);
  gb_set_key_count(block, static_cast<int16_t>(count - 1));
  gb_set_key_bytes(block, static_cast<int16_t>(key_bytes - n - 1));
  if (position_in_block(position, address, b))
    return M_arrange_hole(rel, block, block, address, position, length, static_cast<int32_t>(b)) == 1
               ? 1
               : del_error(rel, fn, nullptr);
  uint32_t holder = data_block_address(rel, block, position);
  if (length > usable(b)) return free_long_record(rel, block, holder, length) == 1 ? 1 : del_error(rel, fn, nullptr);
  uint8_t data[MAX_BLOCK_SIZE];
  if (M_blkread(rel, holder, data, CHECK_GROUP_ONLY) != 1) return del_error(rel, fn, nullptr);
  uint8_t kind = gb_flags(data) & FLAG_LONG_MASK;
  if (kind != 0 && kind != FLAG_LONG_LAST) return del_error(rel, fn, "block check");
  if (M_arrange_hole(rel, block, data, holder, position, length, static_cast<int32_t>(b)) != 1)
    return del_error(rel, fn, nullptr);
  return 1;
}

int offchain(REL_TYPE* rel, uint32_t address, uint8_t* block, uint32_t previous) {
  const char* fn = "offchain";
  uint32_t b = rel->block_size;
  uint8_t prev[MAX_BLOCK_SIZE];
  if (M_blkread(rel, previous, prev, CHECK_GROUP_ONLY) != 1) return del_error(rel, fn, nullptr);
  if ((gb_flags(prev) & FLAG_GROUP_BIT) == 0) return del_error(rel, fn, "block check");
  gb_set_next(prev, gb_next(block));
  uint32_t list = gb_free_chain(block);
  int32_t list_count = std::max<int16_t>(gb_free_count(block), 0);
  M_clear_block(block, b);
  if (rel_is_dynamic(rel)) {
    // The block before no longer points here: write it first.
    gb_set_time(prev, M_block_time());
    if (M_blkwrite(rel, previous, prev) != 1) return del_error(rel, fn, nullptr);
    if (list != 0 && M_release_grp_free_blocks(rel, list) != 0) return del_error(rel, fn, nullptr);
    M_push_blkoff(address);
    return 1;
  }
  // A static file keeps the blocks with the group: the empty block and its
  // list join the free chain of the block before.
  uint32_t last = address;
  uint8_t data[MAX_BLOCK_SIZE];
  fl_put_u32(block, DB_NEXT, list);
  if (list != 0) {
    uint32_t at = list;
    for (int guard = 0; at != 0 && guard < (1 << 20); ++guard) {
      if (M_blkread(rel, at, data, CHECK_GROUP_ONLY) != 1) return del_error(rel, fn, nullptr);
      last = at;
      at = fl_get_u32(data, DB_NEXT);
    }
    fl_put_u32(data, DB_NEXT, gb_free_chain(prev));
    if (M_blkwrite(rel, last, data) != 1) return del_error(rel, fn, nullptr);
  } else {
    fl_put_u32(block, DB_NEXT, gb_free_chain(prev));
  }
  if (M_blkwrite(rel, address, block) != 1) return del_error(rel, fn, nullptr);
  gb_set_free_chain(prev, address);
  gb_set_free_count(prev, static_cast<int16_t>(gb_free_count(prev) + 1 + list_count));
  gb_set_time(prev, M_block_time());
  if (M_blkwrite(rel, previous, prev) != 1) return del_error(rel, fn, nullptr);
  return 1;
}

int M_delete_tuple(REL_TYPE* rel, const uint8_t* key, int32_t key_length, void* hook_data) {
  const char* fn = "M_delete_tuple";
  key_length = M_key_prologue(key, key_length);
  if (key_length < 0) return -1;
  if (M_delete_hook != nullptr && rel->delete_trigger[0] != '\0' && M_delete_hook(rel, key, key_length) != 0)
    return 0;
  if (rel->modulo == 0) return M_dir_delete(rel, key, key_length);
  IndexPrep prep;
  if (M_index_prepare(rel, key, key_length, &prep) < 0) return M_file_error(rel, fn, "index", key, key_length, 0);
  int64_t head = M_dyn_hash(rel, key, key_length, LOCK_EXCLUSIVE);
  if (head < 0) return M_file_error(rel, fn, nullptr, key, key_length, static_cast<int32_t>(M_groupno));
  BlockLock head_lock(rel);
  head_lock.adopt(static_cast<uint32_t>(head));
  uint32_t b = rel->block_size;
  uint32_t address = static_cast<uint32_t>(head);
  uint32_t previous = 0;
  int32_t row = -1;
  uint8_t block[MAX_BLOCK_SIZE];
  int result = M_read_grpblk(rel, &address, block, key, key_length, &row, &previous);
  auto finish = [&](int r) {
    if (M_release_blk_in_buffer(rel, 0) != 0 || M_release_to_file(rel, 0) != 0) r = -1;
    head_lock.release();
    if (r == 1 && M_index_commit(rel, key, key_length, prep, nullptr, 0) < 0) r = -1;
    if (r < 0) M_file_error(rel, fn, nullptr, key, key_length, static_cast<int32_t>(M_groupno));
    return r;
  };
  if (result <= 0) return result;
  if (delete_record(rel, address, block, row) != 1) return finish(-1);
  bool is_head = address == static_cast<uint32_t>(head);
  if (!is_head && gb_key_count(block) == 0) {
    if (offchain(rel, address, block, previous) != 1) return finish(-1);
    return finish(1);
  }
  if (rel_is_dynamic(rel) && is_head && gb_key_count(block) == 0 && gb_next(block) != 0) {
    // The first continuation block moves up into the head, which keeps its
    // place; its in-block records take the head's positions.
    if (gb_free_chain(block) != 0 && M_release_grp_free_blocks(rel, gb_free_chain(block)) != 0) return finish(-1);
    uint32_t next = gb_next(block);
    uint8_t moved[MAX_BLOCK_SIZE];
    if (M_blkread(rel, next, moved, CHECK_GROUP_ONLY) != 1) return finish(-1);
    if ((gb_flags(moved) & FLAG_KIND_MASK) != FLAG_CONTINUATION) return finish(M_file_error(rel, fn, "blk check", key, key_length, 0));
    int32_t rows = std::clamp<int32_t>(gb_key_count(moved), 0, max_key_rows(b));
    uint32_t from = next & ~ADDR_PART_MASK;
    uint32_t to = address & ~ADDR_PART_MASK;
    for (int32_t r = 0; r < rows; ++r) {
      uint32_t p = ke_position(moved, r);
      if (position_in_block(p, next, b)) ke_set_position(moved, r, p - from + to);
    }
    M_sort_rows(moved, b);
    gb_set_flags(moved, static_cast<uint8_t>((gb_flags(moved) & ~FLAG_KIND_MASK) | FLAG_HEAD));
    std::memcpy(block, moved, b);
    M_push_blkoff(next);
  }
  gb_set_time(block, M_block_time());
  if (rel_is_dynamic(rel)) {
    int32_t rows = std::clamp<int32_t>(gb_key_count(block), 0, max_key_rows(b));
    bool overflow_rows = rows > 0 && addr_is_overflow(ke_position(block, rows - 1));
    if (!overflow_rows && is_head && gb_free_chain(block) != 0) {
      if (M_release_grp_free_blocks(rel, gb_free_chain(block)) != 0) return finish(-1);
      gb_set_free_chain(block, 0);
      gb_set_free_count(block, 0);
    }
    if (!overflow_rows && is_head) gb_set_over_part(block, 0);
  }
  if (M_blkwrite(rel, address, block) != 1) return finish(-1);
  if (rel_is_dynamic(rel)) M_merge_routine(rel, block, address);
  return finish(1);
}
