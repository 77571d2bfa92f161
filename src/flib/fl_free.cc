#include "flib/fl_free.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <vector>

#include "common/readconf.h"
#include "flib/fl_block.h"
#include "flib/fl_create.h"
#include "flib/fl_hash.h"
#include "flib/fl_io.h"
#include "flib/fl_lock.h"
#include "flib/fl_mem.h"
#include "flib/fl_open.h"
#include "flib/fl_ovhdr.h"
#include "flib/fl_rel.h"
#include "flib/fl_report.h"
#include "flib/fl_write.h"
#include "flib/lrgfillib.h"

namespace {

// Unused bytes of a FREE_LIST_BLOCK holding one entry; 4 fewer per entry.
constexpr uint32_t kFreeListReserve = 80;

struct ReleaseBuffer {
  bool active = false;
  std::vector<uint8_t> image;
};
ReleaseBuffer g_release;

// No header lock is held.
constexpr int64_t kNoHeaderLock = -3;
// Address of the held header lock (a part's block 0, or a static file's
// byte 0 for its end-of-file lock).
int64_t g_header_lock = kNoHeaderLock;

void start_buffer(const REL_TYPE* rel, uint32_t address) {
  uint32_t b = rel->block_size;
  g_release.image.assign(b, 0);
  uint8_t* img = g_release.image.data();
  gb_set_flags(img, FLAG_FREE_LIST);
  gb_set_hashtype(img, static_cast<uint8_t>(rel->hashtype));
  fl_put_u32(img, FL_SPACE_LEFT, b - kFreeListReserve);
  fl_put_i16(img, FL_LAST_INDEX, 0);
  free_list_set_entry(img, 0, address);
  g_release.active = true;
}

// Moves the buffer's entries into the header of their part: as many as fit
// onto the free stack, the rest as a FREE_LIST_BLOCK at the address of the
// last remaining entry. 0 or -1.
int drain(REL_TYPE* rel) {
  const char* fn = "M_release_to_file";
  uint8_t* img = g_release.image.data();
  int32_t last = fl_get_i16(img, FL_LAST_INDEX);
  uint32_t header = ADDR_OVERFLOW | addr_part_index(free_list_entry(img, last));
  // The header lock is taken here unless the running operation holds it.
  BlockLock lock(rel);
  if (g_header_lock != static_cast<int64_t>(header) && !lock.take(header, LOCK_EXCLUSIVE))
    return M_file_error(rel, fn, "M_mrvlockf", nullptr, 0, 0);
  uint8_t block[MAX_BLOCK_SIZE];
  if (M_blkread(rel, header, block, CHECK_NONE) != 1) {
    lock.release();
    return M_file_error(rel, fn, nullptr, nullptr, 0, 0);
  }
  OverflowHeader h = decode_overflow_header(block);
  int32_t capacity = overflow_stack_capacity(rel->block_size);
  int32_t count = std::clamp<int32_t>(h.stack_count, 0, capacity);
  while (last >= 0 && count < capacity) {
    oh_set_stack_entry(block, count++, free_list_entry(img, last--));
    ++h.free_count;
  }
  h.stack_count = static_cast<int16_t>(count);
  int result = 0;
  if (last >= 0) {
    uint32_t self = free_list_entry(img, last);
    fl_put_u32(img, FL_NEXT, h.free_head);
    fl_put_i16(img, FL_LAST_INDEX, static_cast<int16_t>(last));
    fl_put_u32(img, FL_SPACE_LEFT, rel->block_size - kFreeListReserve - FL_ENTRY_SIZE * static_cast<uint32_t>(last));
    std::memset(img + free_list_entry_offset(last + 1), 0, rel->block_size - free_list_entry_offset(last + 1));
    h.free_head = self;
    h.free_count += static_cast<uint32_t>(last + 1);
    if (M_blkwrite(rel, self, img) != 1) result = -1;
  }
  encode_overflow_header(h, block);
  if (result == 0 && M_blkwrite(rel, header, block) != 1) result = -1;
  lock.release();
  g_release.active = false;
  if (result != 0) M_file_error(rel, fn, nullptr, nullptr, 0, 0);
  return result;
}

bool same_part(uint32_t a, uint32_t b) {
  return (a & (ADDR_OVERFLOW | ADDR_PART_MASK)) == (b & (ADDR_OVERFLOW | ADDR_PART_MASK));
}

}  // namespace

int M_release_to_file(REL_TYPE* rel, uint32_t address) {
  if (!g_release.active) {
    if (address != 0) start_buffer(rel, address);
    return 0;
  }
  uint8_t* img = g_release.image.data();
  int32_t last = fl_get_i16(img, FL_LAST_INDEX);
  uint32_t space = fl_get_u32(img, FL_SPACE_LEFT);
  if (address != 0 && same_part(address, free_list_entry(img, 0)) && space > FL_ENTRY_SIZE) {
    free_list_set_entry(img, last + 1, address);
    fl_put_i16(img, FL_LAST_INDEX, static_cast<int16_t>(last + 1));
    fl_put_u32(img, FL_SPACE_LEFT, space - FL_ENTRY_SIZE);
    return 0;
  }
  int result = drain(rel);
  if (address != 0) start_buffer(rel, address);
  return result;
}

namespace {

// The block stack of the running operation.
struct BlockStack {
  bool open = false;
  bool is_static = false;
  bool mem = false;  // the memory-buffered writer: no reservation at all
  uint8_t mem_part = 0;  // its group's overflow part
  uint32_t first_new = 0, next_new = 0, end_new = 0;  // run at the part's end
  std::vector<uint32_t> entries;                      // taken from the header
  size_t top = 0;                                      // entries not yet handed out: [0, top)
  std::vector<uint32_t> handed;                        // entries handed out
  uint32_t group_reserved = 0;                         // blocks reserved on the group list
  uint32_t list_head = 0;                              // the group free list in the cells
  int32_t list_count = 0;
  uint32_t static_next = 0;  // static file under its end-of-file lock: next new offset
};
BlockStack g_stack;

// Blocks to give back once the group block that released them is written.
std::vector<uint32_t> g_push;
struct GroupListRow {
  uint32_t head_address = 0;
  uint32_t list_head = 0;
  int32_t count = 0;
};
std::vector<GroupListRow> g_group_lists;

uint32_t bsize(const REL_TYPE* rel) { return rel->block_size; }

int alloc_error(REL_TYPE* rel, const char* fn, const char* cause) {
  return M_file_error(rel, fn, cause, nullptr, 0, static_cast<int32_t>(M_groupno));
}

// End of an open part (or static file), cut to a multiple of B; -1 on failure.
int64_t part_end(REL_TYPE* rel, uint32_t address) {
  int fd = M_get_fd(rel, address);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0) return -1;
  return st.st_size - st.st_size % bsize(rel);
}

uint32_t header_address(const REL_TYPE* rel) { return ADDR_OVERFLOW | (static_cast<uint32_t>(rel->over_current) - 1); }

// Moves the group free list of `block` into the cells; a list already there
// goes to the push buffer first.
void set_group_free_block_list(REL_TYPE* rel, uint8_t* block) {
  if (g_stack.list_head != 0) M_release_grp_free_blocks(rel, g_stack.list_head);
  g_stack.list_head = gb_free_chain(block);
  g_stack.list_count = std::max<int16_t>(gb_free_count(block), 0);
  gb_set_free_chain(block, 0);
  gb_set_free_count(block, 0);
}

// Takes the next list of the group list stack into the cells. 0 or -1.
int get_one_group_blokcs(REL_TYPE* rel) {
  if (g_group_lists.empty()) return alloc_error(rel, "get_one_group_blokcs", "group stack empty");
  GroupListRow row = g_group_lists.back();
  g_group_lists.pop_back();
  if (row.list_head == 0) return alloc_error(rel, "get_one_group_blokcs", "group stack error");
  g_stack.list_head = row.list_head;
  g_stack.list_count = row.count;
  return 0;
}

// Takes the head of the group list in the cells. The address or -1.
int64_t take_from_group_list(REL_TYPE* rel, const char* fn, bool must_be_empty) {
  if (g_stack.list_head == 0 && get_one_group_blokcs(rel) != 0) return alloc_error(rel, fn, "stack empty");
  uint8_t block[MAX_BLOCK_SIZE];
  uint32_t address = g_stack.list_head;
  if (M_blkread(rel, address, block, CHECK_NONE) != 1) return M_file_error(rel, fn, nullptr, nullptr, 0, 0);
  if (must_be_empty && gb_byteleft(block) != static_cast<int16_t>(bsize(rel) - BLOCK_OVERHEAD))
    return alloc_error(rel, fn, "blk check");
  g_stack.list_head = fl_get_u32(block, DB_NEXT);
  if (g_stack.list_count > 0) --g_stack.list_count;
  return address;
}

// The blocks that the records of rows outside the group block at `address`
// take: one for each block of short records, every block of a long one.
// -1 after a report.
int32_t data_blocks_of(REL_TYPE* rel, const uint8_t* block, uint32_t address) {
  uint32_t b = bsize(rel);
  std::set<uint32_t> holders;
  int32_t count = 0;
  int32_t rows = std::clamp<int32_t>(gb_key_count(block), 0, max_key_rows(b));
  for (int32_t row = 0; row < rows; ++row) {
    uint32_t position = ke_position(block, row);
    int32_t length = ke_length(block, row);
    if (!addr_is_overflow(position) || position_in_block(position, address, b)) continue;
    if (length > static_cast<int32_t>(b - BLOCK_OVERHEAD))
      count += (length + static_cast<int32_t>(b - BLOCK_OVERHEAD) - 1) / static_cast<int32_t>(b - BLOCK_OVERHEAD);
    else if (holders.insert(data_block_address(rel, block, position)).second)
      ++count;
  }
  return count;
}

}  // namespace

int M_move_block(REL_TYPE* rel, uint32_t first, std::map<uint32_t, uint32_t>* moved) {
  const char* fn = "M_move_block";
  uint8_t data[MAX_BLOCK_SIZE];
  // The chain: a block of short records alone, or every block of a long one.
  std::vector<uint32_t> chain;
  // The longest chain: the largest record in blocks of 512 bytes.
  constexpr size_t kMaxChain = MAX_RECORD_BYTES / (512 - BLOCK_OVERHEAD) + 1;
  for (uint32_t at = first; at != 0 && chain.size() <= kMaxChain;) {
    if (M_blkread(rel, at, data, CHECK_GROUP_ONLY) != 1) return M_file_error(rel, fn, nullptr, nullptr, 0, 0);
    uint8_t kind = gb_flags(data) & FLAG_LONG_MASK;
    if ((gb_flags(data) & FLAG_GROUP_BIT) != 0) return alloc_error(rel, fn, "check block flag");
    if (chain.empty() ? false : (kind != FLAG_LONG_MIDDLE && kind != FLAG_LONG_LAST))
      return alloc_error(rel, fn, "check long record");
    chain.push_back(at);
    at = (kind == FLAG_LONG_FIRST || kind == FLAG_LONG_MIDDLE) ? fl_get_u32(data, DB_NEXT) : 0;
  }
  // New homes first, so that each copy can name the next one.
  std::vector<uint32_t> fresh_ones;
  for (uint32_t old : chain) {
    if (moved->count(old) != 0) continue;
    int64_t fresh = M_get_dest_block(rel);
    if (fresh < 0) return M_file_error(rel, fn, nullptr, nullptr, 0, 0);
    (*moved)[old] = static_cast<uint32_t>(fresh);
    fresh_ones.push_back(old);
  }
  for (uint32_t old : fresh_ones) {
    if (M_blkread(rel, old, data, CHECK_GROUP_ONLY) != 1) return M_file_error(rel, fn, nullptr, nullptr, 0, 0);
    uint8_t kind = gb_flags(data) & FLAG_LONG_MASK;
    if (kind == FLAG_LONG_FIRST || kind == FLAG_LONG_MIDDLE) {
      auto it = moved->find(fl_get_u32(data, DB_NEXT));
      if (it == moved->end()) return alloc_error(rel, fn, "end block check");
      fl_put_u32(data, DB_NEXT, it->second);
    }
    gb_set_group(data, M_groupno);
    if (M_blkwrite(rel, (*moved)[old], data) != 1) return M_file_error(rel, fn, nullptr, nullptr, 0, 0);
    M_push_blkoff(old);
  }
  return 0;
}

int M_move_group_data(REL_TYPE* rel, uint8_t* block, uint32_t address, uint8_t old_part) {
  const char* fn = "M_move_group_data";
  uint32_t b = bsize(rel);
  if (gb_over_part(block) != old_part) return alloc_error(rel, fn, "part");
  std::map<uint32_t, uint32_t> moved;
  std::vector<std::pair<int32_t, uint32_t>> rebased;  // row, new position
  int32_t rows = std::clamp<int32_t>(gb_key_count(block), 0, max_key_rows(b));
  for (int32_t row = 0; row < rows; ++row) {
    uint32_t position = ke_position(block, row);
    if (!addr_is_overflow(position) || position_in_block(position, address, b)) continue;
    uint32_t holder = data_block_address(rel, block, position);
    if (M_move_block(rel, holder, &moved) != 0) return M_file_error(rel, fn, nullptr, nullptr, 0, 0);
    uint32_t in_block = (position & 0x7FFFFFFFu) % b;
    rebased.push_back({row, (moved[holder] & ~ADDR_PART_MASK) + in_block});
  }
  for (const auto& [row, position] : rebased) ke_set_position(block, row, position);
  M_sort_rows(block, b);
  return 0;
}

bool M_block_stack_open() { return g_stack.open; }

void next_free_blocks(uint32_t block_size, uint8_t* header, const uint8_t* list_block) {
  int32_t last = fl_get_i16(list_block, FL_LAST_INDEX);
  int32_t capacity = overflow_stack_capacity(block_size);
  last = std::clamp<int32_t>(last, 0, free_list_capacity(block_size) - 1);
  int32_t count = std::clamp<int32_t>(fl_get_i16(header, OH_STACK_COUNT), 0, capacity);
  // Entries 0..last-1 are free blocks; entry `last` is the list block itself.
  for (int32_t i = 0; i < last && count < capacity; ++i)
    oh_set_stack_entry(header, count++, free_list_entry(list_block, i));
  fl_put_i16(header, OH_STACK_COUNT, static_cast<int16_t>(count));
  fl_put_u32(header, OH_FREE_HEAD, fl_get_u32(list_block, FL_NEXT));
}

namespace {

// Reserves `need` blocks of the overflow part `part_index`, header at `header`:
// from its free stack and chain, the rest from the end of the part. The
// header lock is kept for M_check_file_lock when the whole need is served
// and ends here otherwise, before the caller reports. 0, FREE_NO_ROOM, or
// -1 with the cause in *cause (null when the failing routine said it).
int reserve_in_part(REL_TYPE* rel, uint32_t part_index, uint32_t header, uint32_t need, int charge,
                    const char** cause) {
  uint32_t b = bsize(rel);
  BlockLock lock(rel);
  // A part whose header cannot be locked has no room for this operation.
  if (!lock.take(header, LOCK_EXCLUSIVE)) return FREE_NO_ROOM;
  uint8_t hb[MAX_BLOCK_SIZE];
  if (M_blkread(rel, header, hb, CHECK_NONE) != 1) return -1;
  OverflowHeader h = decode_overflow_header(hb);
  int32_t capacity = overflow_stack_capacity(b);
  h.stack_count = static_cast<int16_t>(std::clamp<int32_t>(h.stack_count, 0, capacity));
  // Repair a free count that the stack and chain contradict.
  uint32_t floor = static_cast<uint32_t>(h.stack_count) + (h.free_head != 0 ? 1 : 0);
  if (h.free_count < floor) h.free_count = floor;
  bool reuse = rel->sfd == nullptr || rel->sfd->no_reuse == 0;
  encode_overflow_header(h, hb);
  // Take from the stack and the chain, into a copy of the header that is
  // written only when the whole need can be served.
  std::vector<uint32_t> taken;
  while (reuse && taken.size() < need) {
    int16_t top = fl_get_i16(hb, OH_STACK_COUNT);
    if (top > 0) {
      taken.push_back(oh_stack_entry(hb, top - 1));
      oh_set_stack_entry(hb, top - 1, 0);
      fl_put_i16(hb, OH_STACK_COUNT, static_cast<int16_t>(top - 1));
    } else {
      uint32_t list = fl_get_u32(hb, OH_FREE_HEAD);
      if (list == 0) break;
      uint8_t lb[MAX_BLOCK_SIZE];
      if (addr_part_index(list) != part_index || M_blkread(rel, list, lb, CHECK_NONE) != 1) {
        *cause = "free list";
        return -1;
      }
      next_free_blocks(b, hb, lb);
      taken.push_back(list);
    }
    uint32_t fc = fl_get_u32(hb, OH_FREE_COUNT);
    fl_put_u32(hb, OH_FREE_COUNT, fc > 0 ? fc - 1 : 0);
  }
  uint32_t rest = need - static_cast<uint32_t>(taken.size());
  if (rest > 0) {
    int64_t end = part_end(rel, header);
    int64_t limit = h.max_flength != 0 ? h.max_flength : M_cfg_max_flength();
    if (end < 0 || end + static_cast<int64_t>(rest) * b > limit ||
        end + static_cast<int64_t>(rest) * b > static_cast<int64_t>(ADDR_OFFSET_MASK))
      return FREE_NO_ROOM;
    if (charge != 0 && rel->space_cell != nullptr) {
      uint32_t units = static_cast<uint32_t>((static_cast<uint64_t>(rest) * b) / 512);
      if (*rel->space_cell <= rel->space_reserved + units) return FREE_NO_ROOM;
      *rel->space_cell -= units;
    }
    g_stack.first_new = make_addr(true, static_cast<uint32_t>(end), part_index);
    g_stack.next_new = g_stack.first_new;
    g_stack.end_new = g_stack.first_new + rest * b;
  }
  if (!taken.empty() && M_blkwrite(rel, header, hb) != 1) return -1;
  g_stack.entries = std::move(taken);
  g_stack.top = g_stack.entries.size();
  lock.keep();
  g_header_lock = header;
  return 0;
}

}  // namespace

int get_free_blocks(REL_TYPE* rel, int32_t count, int charge) {
  g_stack.entries.clear();
  g_stack.top = 0;
  g_stack.first_new = g_stack.next_new = g_stack.end_new = 0;
  // The group list serves first when it lies in this part.
  uint32_t part_index = static_cast<uint32_t>(rel->over_current) - 1;
  uint32_t need = static_cast<uint32_t>(std::max(count, 0));
  g_stack.group_reserved = 0;
  if (g_stack.list_head != 0 && addr_part_index(g_stack.list_head) == part_index) {
    g_stack.group_reserved = std::min<uint32_t>(need, static_cast<uint32_t>(g_stack.list_count));
    need -= g_stack.group_reserved;
  }
  if (need == 0) return 0;
  const char* cause = nullptr;
  int r = reserve_in_part(rel, part_index, header_address(rel), need, charge, &cause);
  if (r < 0) return alloc_error(rel, "get_free_blocks", cause);
  return r;
}

int search_avail_part_file(REL_TYPE* rel, int32_t count, uint8_t* block, int32_t own_count) {
  const char* fn = "search_avail_part_file";
  for (int pass = 0; pass < 4; ++pass) {
    if (rel->sfd != nullptr && rel->sfd->overflow_count > rel->overflow.size() && M_open_large_file(rel) < 0)
      return M_file_error(rel, fn, nullptr, nullptr, 0, 0);
    for (uint32_t p = 1; p <= rel->overflow.size(); ++p) {
      int32_t need = p == gb_over_part(block) ? own_count : count;
      if (M_set_over_fd(rel, static_cast<int32_t>(p)) != 0) return M_file_error(rel, fn, nullptr, nullptr, 0, 0);
      int r = get_free_blocks(rel, need, 1);
      if (r == 0) return 0;
      if (r < 0) return -1;
    }
    if (rel->overflow.size() >= static_cast<size_t>(MAX_PARTS))
      return alloc_error(rel, fn, "Reach the file number limit (255)");
    int r = create_overflow_part_file(rel, 1);
    if (r == -2) continue;
    if (r < 0) return M_file_error(rel, fn, nullptr, nullptr, 0, 0);
    if (get_free_blocks(rel, count, 0) == 0) return 0;
    return alloc_error(rel, fn, "file too large/MAX_FLENGTH too small");
  }
  return alloc_error(rel, fn, "no part");
}

int M_alloc_new_blocks(REL_TYPE* rel, int32_t count, int32_t mode, uint8_t* block, int32_t extra1,
                       int32_t extra2, int32_t extra3) {
  const char* fn = "M_alloc_new_blocks";
  if (g_stack.open) {
    // A retry after a recovery point: what the failed attempt took goes back.
    if (mode == ALLOC_OWN_PART) return alloc_error(rel, fn, "stack in use");
    M_release_blocks_in_stack(rel);
  }
  g_stack = BlockStack{};
  g_stack.open = true;
  if (M_mem_active(rel)) {
    g_stack.mem = true;
    set_group_free_block_list(rel, block);
    if (rel_is_dynamic(rel) && gb_over_part(block) == 0) gb_set_over_part(block, 1);
    g_stack.mem_part = gb_over_part(block);
    return 0;
  }
  if (!rel_is_dynamic(rel)) {
    g_stack.is_static = true;
    set_group_free_block_list(rel, block);
    return 0;
  }
  set_group_free_block_list(rel, block);
  uint8_t part = gb_over_part(block);
  if (part == 0 && g_stack.list_head != 0) part = 1;
  int r;
  // The blocks the group block's records take in its part, should they
  // have to follow it to another one.
  int32_t own = extra1 != 0 ? data_blocks_of(rel, block, static_cast<uint32_t>(extra2)) : 0;
  if (own < 0) r = -1;
  else if (part != 0) {
    if (M_set_over_fd(rel, part) != 0) r = -1;
    else r = get_free_blocks(rel, count, 1);
    if (r == FREE_NO_ROOM && mode == ALLOC_OWN_PART) r = -1;
    else if (r == FREE_NO_ROOM) r = search_avail_part_file(rel, count + own, block, count);
  } else {
    r = search_avail_part_file(rel, count, block, count);
  }
  if (r == 0 && part != 0 && part != rel->over_current) {
    // The group's free list stays behind in the old part.
    if (g_stack.list_head != 0 && M_release_grp_free_blocks(rel, g_stack.list_head) != 0) r = -1;
    g_stack.list_head = 0;
    g_stack.list_count = 0;
    g_stack.group_reserved = 0;
    if (r == 0 && own > 0) {
      if (extra1 == 0) r = alloc_error(rel, fn, "group data in another part");
      else if (M_move_group_data(rel, block, static_cast<uint32_t>(extra2), part) != 0) r = -1;
    }
  }
  if (r != 0) {
    M_release_blocks_in_stack(rel);
    gb_set_free_chain(block, g_stack.list_head);
    gb_set_free_count(block, static_cast<int16_t>(g_stack.list_count));
    g_stack = BlockStack{};
    return M_file_error(rel, fn, nullptr, nullptr, 0, static_cast<int32_t>(M_groupno));
  }
  gb_set_over_part(block, rel->over_current);
  return 0;
}

int64_t M_get_dest_block(REL_TYPE* rel) {
  const char* fn = "M_get_dest_block";
  uint32_t b = bsize(rel);
  if (!g_stack.open) return alloc_error(rel, fn, "block stack is empty");
  if (g_stack.mem) {
    if (g_stack.list_head != 0) return take_from_group_list(rel, fn, true);
    return M_mem_get_blk(rel, g_stack.mem_part);
  }
  if (g_stack.is_static) {
    if (g_stack.static_next != 0) {
      uint32_t a = g_stack.static_next;
      g_stack.static_next += b;
      return a;
    }
    if (g_stack.list_head != 0) return take_from_group_list(rel, fn, false);
    if (M_lock_block(rel, 0, LOCK_EXCLUSIVE) != 0) return alloc_error(rel, fn, "M_mrvlockf");
    g_header_lock = 0;
    int64_t end = part_end(rel, 0);
    if (end < 0 || end + b > static_cast<int64_t>(MAX_STATIC_KBLOCKS) * 1024 || end + b > 0x7FFFFFFF)
      return alloc_error(rel, fn, "new block's offset is over the limit");
    g_stack.static_next = static_cast<uint32_t>(end) + b;
    return end;
  }
  if (g_stack.next_new != 0 && g_stack.next_new < g_stack.end_new) {
    uint32_t a = g_stack.next_new;
    g_stack.next_new += b;
    return a;
  }
  if (g_stack.top > 0) {
    uint32_t a = g_stack.entries[--g_stack.top];
    g_stack.handed.push_back(a);
    return a;
  }
  if (g_stack.group_reserved > 0) {
    --g_stack.group_reserved;
    return take_from_group_list(rel, fn, false);
  }
  M_release_blocks_in_stack(rel);
  return alloc_error(rel, fn, "stack empty");
}

int M_check_file_lock(REL_TYPE* rel) {
  if (g_header_lock == kNoHeaderLock) return 0;
  int r = M_unlock_block(rel, static_cast<uint32_t>(g_header_lock));
  g_header_lock = kNoHeaderLock;
  return r == 0 ? 0 : -1;
}

void M_release_block_stack(REL_TYPE* rel) {
  M_check_file_lock(rel);
  g_stack = BlockStack{};
}

int M_relink_free_blocks(REL_TYPE* rel, uint8_t* block, uint32_t address, int release) {
  const char* fn = "M_relink_free_blocks";
  int result = 0;
  if (g_stack.open) {
    // What was reserved and not used goes back to the part.
    if (!g_stack.mem && !g_stack.is_static) {
      for (size_t i = g_stack.top; i-- > 0;)
        if (M_release_to_file(rel, g_stack.entries[i]) != 0) result = -1;
    }
    gb_set_free_chain(block, g_stack.list_head);
    gb_set_free_count(block, static_cast<int16_t>(g_stack.list_count));
    g_stack.list_head = 0;
    if (address != 0 && M_blkwrite(rel, address, block) != 1) result = -1;
    M_release_block_stack(rel);
  } else if (address != 0 && M_blkwrite(rel, address, block) != 1) {
    result = -1;
  }
  // Blocks that the block no longer refers to wait, unless it was written.
  if (release != 0 && M_release_free_block_in_group(rel) != 0) result = -1;
  if (M_release_to_file(rel, 0) != 0) result = -1;
  if (result != 0) M_file_error(rel, fn, nullptr, nullptr, 0, static_cast<int32_t>(M_groupno));
  return result;
}

int M_release_blocks_in_stack(REL_TYPE* rel) {
  if (!g_stack.open) return 0;
  int result = 0;
  if (!g_stack.mem && !g_stack.is_static) {
    uint32_t b = bsize(rel);
    if (g_stack.first_new != 0) {
      // Only the blocks of the run that reached the disk exist.
      int64_t end = part_end(rel, g_stack.first_new);
      uint32_t used = g_stack.next_new;
      if (end >= 0) used = std::min<uint32_t>(used, (g_stack.first_new & ~ADDR_OFFSET_MASK) | static_cast<uint32_t>(end));
      for (uint32_t a = used; a > g_stack.first_new;) {
        a -= b;
        if (M_release_to_file(rel, a) != 0) result = -1;
      }
    }
    for (size_t i = g_stack.handed.size(); i-- > 0;)
      if (M_release_to_file(rel, g_stack.handed[i]) != 0) result = -1;
    for (size_t i = g_stack.top; i-- > 0;)
      if (M_release_to_file(rel, g_stack.entries[i]) != 0) result = -1;
  }
  bool had_list = g_stack.list_head != 0;
  uint32_t list = g_stack.list_head;
  int32_t list_count = g_stack.list_count;
  M_check_file_lock(rel);
  if (M_release_to_file(rel, 0) != 0) result = -1;
  g_stack = BlockStack{};
  // The cells keep the group list for the caller's block to take back.
  if (had_list) {
    g_stack.list_head = list;
    g_stack.list_count = list_count;
  }
  return result;
}

void M_clear_block(uint8_t* block, uint32_t block_size) {
  std::memset(block + DB_DATA, 0, block_size - DB_DATA);
  gb_set_byteleft(block, static_cast<int16_t>(block_size - BLOCK_OVERHEAD));
  gb_set_flags(block, static_cast<uint8_t>(gb_flags(block) & ~FLAG_LOW_BITS));
}

int M_release_one_block(REL_TYPE* rel, uint8_t* head, uint32_t address, uint8_t* block) {
  bool for_continuation = (gb_flags(block) & FLAG_FOR_CONTINUATION) != 0;
  M_clear_block(block, bsize(rel));
  if (rel_is_dynamic(rel) && (gb_free_count(head) >= rel->grp_free_blk || for_continuation)) {
    M_push_blkoff(address);
    return 0;
  }
  fl_put_u32(block, DB_NEXT, gb_free_chain(head));
  gb_set_free_chain(head, address);
  gb_set_free_count(head, static_cast<int16_t>(gb_free_count(head) + 1));
  if (M_blkwrite(rel, address, block) != 1)
    return M_file_error(rel, "M_release_one_block", nullptr, nullptr, 0, static_cast<int32_t>(M_groupno));
  return 0;
}

void M_push_blkoff(uint32_t address) {
  if (g_push.capacity() == 0) g_push.reserve(MAX_BLOCK_SIZE / 4);
  g_push.push_back(address);
}

int M_release_grp_free_blocks(REL_TYPE* rel, uint32_t address) {
  uint8_t block[MAX_BLOCK_SIZE];
  for (int guard = 0; address != 0 && guard < (1 << 20); ++guard) {
    if (M_blkread(rel, address, block, CHECK_NONE) != 1)
      return M_file_error(rel, "M_release_grp_free_blocks", nullptr, nullptr, 0, 0);
    M_push_blkoff(address);
    address = fl_get_u32(block, DB_NEXT);
  }
  return 0;
}

int M_release_blk_in_buffer(REL_TYPE* rel, int discard) {
  std::vector<uint32_t> pushed;
  pushed.swap(g_push);
  if (discard != 0) return 0;
  int result = 0;
  for (uint32_t a : pushed)
    if (M_release_to_file(rel, a) != 0) result = -1;
  return result;
}

void M_push_group_free_block_list(REL_TYPE* rel, uint32_t head_address, uint8_t* head) {
  if (gb_free_chain(head) == 0) return;
  if (g_group_lists.capacity() == 0) g_group_lists.reserve(10);
  g_group_lists.push_back({head_address, gb_free_chain(head), gb_free_count(head)});
  gb_set_free_chain(head, 0);
  gb_set_free_count(head, 0);
}

int M_release_free_block_in_group(REL_TYPE* rel) {
  int result = 0;
  while (!g_group_lists.empty()) {
    GroupListRow row = g_group_lists.back();
    g_group_lists.pop_back();
    if (M_release_grp_free_blocks(rel, row.list_head) != 0) result = -1;
  }
  if (M_release_blk_in_buffer(rel, 0) != 0) result = -1;
  return result;
}
