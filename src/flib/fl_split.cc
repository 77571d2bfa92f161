#include "flib/fl_split.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csetjmp>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "common/mrv_marks.h"
#include "flib/fl_block.h"
#include "flib/fl_create.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_free.h"
#include "flib/fl_hash.h"
#include "flib/fl_io.h"
#include "flib/fl_lock.h"
#include "flib/fl_mem.h"
#include "flib/fl_read.h"
#include "flib/fl_rel.h"
#include "flib/fl_report.h"
#include "flib/fl_write.h"
#include "flib/lrgfillib.h"

int (*M_split_routine)(REL_TYPE* rel) = M_split_group;
void (*M_merge_routine)(REL_TYPE* rel, uint8_t* block, uint32_t address) = try_merge_group;

namespace {

// Names of the file's named locks.
constexpr const char* kPartLock = "1";
constexpr const char* kSplitLock = "2";
constexpr const char* kStartLock = "3";
// A modulo that changes under a split more often than this is a fault.
constexpr int kMaxRefresh = 8;
// Room for keys and rows in a rebuilt group block: B less the fixed head
// of the block and the position word of the closing row.
constexpr int32_t kKeyRoomOverhead = 36;
// What one key takes of that room besides its bytes: its length byte and
// its KEY_ENTRY row.
constexpr int32_t kKeyCost = 1 + static_cast<int32_t>(KEY_ENTRY_SIZE);
static_assert(kKeyRoomOverhead == GB_KEY_TABLE + 4);

int32_t usable(uint32_t b) { return static_cast<int32_t>(b - BLOCK_OVERHEAD); }

int split_error(REL_TYPE* rel, const char* fn, const char* cause, const std::string* key = nullptr) {
  return M_file_error(rel, fn, cause, key != nullptr ? reinterpret_cast<const uint8_t*>(key->data()) : nullptr,
                      key != nullptr ? static_cast<int32_t>(key->size()) : 0, static_cast<int32_t>(M_groupno));
}

// A named lock of the file, released with the object.
class NamedLock {
 public:
  NamedLock(REL_TYPE* rel, const char* name, int32_t wait) : rel_(rel), name_(name) {
    held_ = M_LLM_Lock("semaphore", rel->file_id + 1, name, 0, wait, 0, -1, -1) == LLM_GRANTED;
  }
  ~NamedLock() {
    if (held_) M_LLM_Release("semaphore", rel_->file_id + 1, name_, 0, -1, -1);
  }
  NamedLock(const NamedLock&) = delete;
  NamedLock& operator=(const NamedLock&) = delete;
  bool held() const { return held_; }

 private:
  REL_TYPE* rel_;
  const char* name_;
  bool held_ = false;
};

// Keeps the recovery jump of an overflow write out of a split or merge: a
// write that finds its part too large fails there instead, and the split
// gives back what it took and leaves the file as it was.
class NoRecoveryJump {
 public:
  NoRecoveryJump() : outer_(M_overflow_recovery) { M_overflow_recovery = nullptr; }
  ~NoRecoveryJump() { M_overflow_recovery = outer_; }
  NoRecoveryJump(const NoRecoveryJump&) = delete;
  NoRecoveryJump& operator=(const NoRecoveryJump&) = delete;

 private:
  std::jmp_buf* outer_;
};

// The handle takes the modulo of the sfd row and its split base.
void refresh_modulo(REL_TYPE* rel) {
  rel->modulo = static_cast<int32_t>(rel->sfd->modulo);
  set_split_base(rel);
}

struct Item {
  std::string key;
  std::string record;  // without the closing record mark
};

// The records of a group's chain, and every overflow block the chain uses
// (continuation blocks, data blocks, long-record blocks, free lists), to be
// given back once the group has been laid out anew. The head stays.
struct GroupContents {
  std::vector<Item> items;
  std::set<uint32_t> blocks;
};

int gather_group(REL_TYPE* rel, const char* fn, uint32_t head, GroupContents* out) {
  uint32_t b = rel->block_size;
  uint8_t block[MAX_BLOCK_SIZE];
  uint8_t data[MAX_BLOCK_SIZE];
  char text[64];
  std::set<uint32_t> chain;
  for (uint32_t address = head; address != 0; address = gb_next(block)) {
    bool is_head = address == head;
    if (!chain.insert(address).second) return split_error(rel, fn, "chain loop");
    if (M_blkread(rel, address, block, is_head ? CHECK_HEAD : CHECK_CONTINUATION) != 1)
      return split_error(rel, fn, nullptr);
    if ((gb_flags(block) & FLAG_KIND_MASK) != (is_head ? FLAG_HEAD : FLAG_CONTINUATION))
      return split_error(rel, fn, "blk check");
    if (const char* fault = group_block_fault(block, b, is_head, text, sizeof text))
      return split_error(rel, fn, fault);
    if (!is_head) out->blocks.insert(address);
    int32_t count = std::clamp<int32_t>(gb_key_count(block), 0, max_key_rows(b));
    int32_t floor = static_cast<int32_t>(ke_offset(count));
    for (int32_t row = 0, walk = gb_datapos(block); row < count; ++row) {
      int32_t n = block[walk - 1];
      if (walk - 1 - n < floor) return split_error(rel, fn, "key area");
      Item item{std::string(reinterpret_cast<const char*>(block + walk - 1 - n), static_cast<size_t>(n)), {}};
      walk -= n + 1;
      if (M_catch_tuple(rel, block + walk, n, block, row, address, &item.record, 0) != 1)
        return split_error(rel, fn, nullptr, &item.key);
      uint32_t position = ke_position(block, row);
      int32_t length = ke_length(block, row);
      if (!position_in_block(position, address, b)) {
        uint32_t at = data_block_address(rel, block, position);
        int32_t blocks = length <= usable(b) ? 1 : (length + usable(b) - 1) / usable(b);
        for (int32_t i = 0; i < blocks && at != 0; ++i) {
          out->blocks.insert(at);
          if (i + 1 == blocks) break;
          if (M_blkread(rel, at, data, CHECK_NONE) != 1) return split_error(rel, fn, nullptr, &item.key);
          at = fl_get_u32(data, DB_NEXT);
        }
      }
      out->items.push_back(std::move(item));
    }
    std::set<uint32_t> listed;
    for (uint32_t at = gb_free_chain(block); at != 0; at = fl_get_u32(data, DB_NEXT)) {
      if (!listed.insert(at).second) return split_error(rel, fn, "free list loop");
      out->blocks.insert(at);
      if (M_blkread(rel, at, data, CHECK_NONE) != 1) return split_error(rel, fn, nullptr);
    }
  }
  return 0;
}

// Layout plan of one group block of a rebuilt chain.
struct RowPlan {
  size_t item = 0;
  int32_t data = -1;   // -1 the group block itself, else an index into `data`
  int32_t offset = 0;  // offset of the record in its block
};
struct DataPlan {
  int32_t used = static_cast<int32_t>(DB_DATA);  // end of the records
  int32_t blocks = 1;                            // more than one: a long record
};
struct BlockPlan {
  std::vector<RowPlan> rows;
  std::vector<DataPlan> data;
  int32_t datapos = 0;
  int32_t end = 0;  // end of the records in the group block
};

// Keys fill each group block in turn while their key bytes and rows fit;
// datapos lies just above them, never below D. A record goes to the group
// block when it fits behind the records before it, otherwise a short one to
// the first data block of that group block with room, a long one to blocks
// of its own.
std::vector<BlockPlan> plan_chain(const std::vector<Item>& items, const std::vector<size_t>& which, uint32_t b) {
  auto d = static_cast<int32_t>(initial_datapos(b));
  auto bs = static_cast<int32_t>(b);
  std::vector<BlockPlan> chain;
  size_t next = 0;
  do {
    BlockPlan plan;
    int32_t room = bs - kKeyRoomOverhead;
    while (next < which.size()) {
      int32_t need = static_cast<int32_t>(items[which[next]].key.size()) + kKeyCost;
      if (need > room) break;
      room -= need;
      plan.rows.push_back({which[next], -1, 0});
      ++next;
    }
    plan.datapos = std::max(d, bs - room);
    plan.end = plan.datapos;
    for (RowPlan& row : plan.rows) {
      auto length = static_cast<int32_t>(items[row.item].record.size()) + 1;
      if (length <= bs - plan.end) {
        row.offset = plan.end;
        plan.end += length;
        continue;
      }
      row.offset = static_cast<int32_t>(DB_DATA);
      if (length > usable(b)) {
        row.data = static_cast<int32_t>(plan.data.size());
        plan.data.push_back({0, (length + usable(b) - 1) / usable(b)});
        continue;
      }
      auto fit = std::find_if(plan.data.begin(), plan.data.end(),
                              [&](const DataPlan& p) { return p.blocks == 1 && bs - p.used >= length; });
      if (fit == plan.data.end()) fit = plan.data.insert(plan.data.end(), DataPlan{});
      row.data = static_cast<int32_t>(fit - plan.data.begin());
      row.offset = fit->used;
      fit->used += length;
    }
    chain.push_back(std::move(plan));
  } while (next < which.size());
  return chain;
}

// Copies a record and its closing mark to `out`.
void put_record(uint8_t* out, const std::string& record) {
  std::memcpy(out, record.data(), record.size());
  out[record.size()] = M_RM;
}

// Writes a long record into `blocks`, its own chain. 0 or -1.
int write_long_record(REL_TYPE* rel, const std::string& record, const std::vector<uint32_t>& blocks,
                      uint32_t group, uint8_t extra) {
  uint32_t b = rel->block_size;
  std::string stored = record;
  stored.push_back(static_cast<char>(M_RM));
  uint8_t data[MAX_BLOCK_SIZE];
  for (size_t i = 0; i < blocks.size(); ++i) {
    bool last = i + 1 == blocks.size();
    size_t from = i * static_cast<size_t>(usable(b));
    auto chunk = static_cast<int32_t>(std::min<size_t>(static_cast<size_t>(usable(b)), stored.size() - from));
    std::memset(data, 0, b);
    std::memcpy(data + DB_DATA, stored.data() + from, static_cast<size_t>(chunk));
    fl_put_u32(data, DB_NEXT, last ? 0 : blocks[i + 1]);
    gb_set_byteleft(data, static_cast<int16_t>(usable(b) - chunk));
    gb_set_flags(data, static_cast<uint8_t>((i == 0 ? FLAG_LONG_FIRST : last ? FLAG_LONG_LAST : FLAG_LONG_MIDDLE) | extra));
    gb_set_hashtype(data, static_cast<uint8_t>(rel->hashtype));
    gb_set_group(data, group);
    if (M_blkwrite(rel, blocks[i], data) != 1) return -1;
  }
  return 0;
}

// Gives blocks that an unfinished operation had taken back to their parts.
void give_back(REL_TYPE* rel, std::vector<uint32_t>* taken) {
  for (uint32_t a : *taken) M_release_to_file(rel, a);
  M_release_to_file(rel, 0);
  taken->clear();
}

// Lays the records `which` of `items` into a fresh chain of `group`, whose
// head block lies at `head_address`. The overflow blocks are reserved,
// written and committed here; the head's image is left in `head` for the
// caller to write when the order of writes allows. `taken` receives the
// overflow blocks, to be given back should the operation fail later.
// 0 or -1 (nothing taken).
int build_chain(REL_TYPE* rel, const char* fn, const std::vector<Item>& items, const std::vector<size_t>& which,
                uint32_t group, uint32_t head_address, uint8_t* head, std::vector<uint32_t>* taken) {
  uint32_t b = rel->block_size;
  std::vector<BlockPlan> chain = plan_chain(items, which, b);
  int32_t count = static_cast<int32_t>(chain.size()) - 1;
  for (const BlockPlan& plan : chain)
    for (const DataPlan& data : plan.data) count += data.blocks;
  init_group_block(rel, head, group, FLAG_HEAD);
  std::vector<uint32_t> addresses;
  if (count > 0) {
    if (M_alloc_new_blocks(rel, count, ALLOC_ANY_PART, head, 0, 0, 0) != 0) return split_error(rel, fn, nullptr);
    for (int32_t i = 0; i < count; ++i) {
      int64_t a = M_get_dest_block(rel);
      if (a < 0) {
        M_release_blocks_in_stack(rel);
        return split_error(rel, fn, nullptr);
      }
      addresses.push_back(static_cast<uint32_t>(a));
    }
  }
  auto fail = [&](const char* cause) {
    M_release_blocks_in_stack(rel);
    return split_error(rel, fn, cause);
  };
  uint8_t part = gb_over_part(head);
  size_t next_address = 0;
  std::vector<uint32_t> group_addresses{head_address};
  for (size_t k = 1; k < chain.size(); ++k) group_addresses.push_back(addresses[next_address++]);
  std::vector<std::vector<uint8_t>> images(chain.size());
  for (size_t k = 0; k < chain.size(); ++k) {
    const BlockPlan& plan = chain[k];
    uint8_t* block = head;
    if (k > 0) {
      images[k].assign(b, 0);
      block = images[k].data();
      init_group_block(rel, block, group, FLAG_CONTINUATION);
      gb_set_over_part(block, part);
    }
    gb_set_datapos(block, static_cast<int16_t>(plan.datapos));
    gb_set_byteleft(block, static_cast<int16_t>(static_cast<int32_t>(b) - plan.end));
    if (k + 1 < chain.size()) gb_set_next(block, group_addresses[k + 1]);
    uint8_t extra = k > 0 ? FLAG_FOR_CONTINUATION : 0;
    // The data blocks of this group block: short ones as images, long
    // records as runs of addresses.
    std::vector<std::vector<uint32_t>> data_addresses(plan.data.size());
    std::vector<std::vector<uint8_t>> data_images(plan.data.size());
    for (size_t j = 0; j < plan.data.size(); ++j) {
      for (int32_t i = 0; i < plan.data[j].blocks; ++i) data_addresses[j].push_back(addresses[next_address++]);
      if (plan.data[j].blocks > 1) continue;
      data_images[j].assign(b, 0);
      uint8_t* image = data_images[j].data();
      gb_set_byteleft(image, static_cast<int16_t>(static_cast<int32_t>(b) - plan.data[j].used));
      gb_set_flags(image, extra);
      gb_set_hashtype(image, static_cast<uint8_t>(rel->hashtype));
      gb_set_group(image, group);
    }
    for (const RowPlan& row : plan.rows) {
      const Item& item = items[row.item];
      auto length = static_cast<int32_t>(item.record.size()) + 1;
      uint32_t position;
      if (row.data < 0) {
        put_record(block + row.offset, item.record);
        position = (group_addresses[k] & ~ADDR_PART_MASK) + static_cast<uint32_t>(row.offset);
      } else {
        auto j = static_cast<size_t>(row.data);
        if (plan.data[j].blocks > 1) {
          if (write_long_record(rel, item.record, data_addresses[j], group, extra) != 0) return fail("write");
        } else {
          put_record(data_images[j].data() + row.offset, item.record);
        }
        position = (data_addresses[j][0] & ~ADDR_PART_MASK) + static_cast<uint32_t>(row.offset);
      }
      insert_key(block, b, reinterpret_cast<const uint8_t*>(item.key.data()), static_cast<int32_t>(item.key.size()),
                 position, length);
    }
    for (size_t j = 0; j < plan.data.size(); ++j)
      if (plan.data[j].blocks == 1 && M_blkwrite(rel, data_addresses[j][0], data_images[j].data()) != 1)
        return fail("write");
  }
  for (size_t k = 1; k < chain.size(); ++k)
    if (M_blkwrite(rel, group_addresses[k], images[k].data()) != 1) return fail("write");
  if (count > 0 && M_relink_free_blocks(rel, head, 0, 0) != 0) {
    *taken = addresses;
    give_back(rel, taken);
    return split_error(rel, fn, nullptr);
  }
  taken->insert(taken->end(), addresses.begin(), addresses.end());
  return 0;
}

// Gives the blocks of old chains back to their parts. 0 or -1.
int release_old(REL_TYPE* rel, const std::set<uint32_t>& blocks) {
  for (uint32_t a : blocks) M_push_blkoff(a);
  int result = M_release_blk_in_buffer(rel, 0);
  if (M_release_to_file(rel, 0) != 0) result = -1;
  return result;
}

// The head address of the group a split adds, making a new primary part
// when the last one is full or its partition has no room left. 0 when the
// file has all its primary parts, -1 after a failure.
int64_t head_of_new_group(REL_TYPE* rel, const char* fn, uint32_t group) {
  uint32_t units = rel->block_size / 512;
  for (int pass = 0; pass < kMaxRefresh; ++pass) {
    if (rel->primary.size() < static_cast<size_t>(std::max<int32_t>(rel->sfd->primary_count, 1)) &&
        M_open_large_file(rel) < 0)
      return split_error(rel, fn, "M_open_large_file");
    if (rel->primary.empty()) return split_error(rel, fn, "no primary part");
    size_t row = M_primary_row_of(rel, group);
    PartEntry& part = rel->primary[row];
    bool last = row + 1 == rel->primary.size();
    bool room = !last || static_cast<int64_t>(group) + 1 - part.first_group < rel->groups_per_part;
    if (room && last && part.space_cell != nullptr && *part.space_cell <= part.space_reserved + units) room = false;
    if (room) {
      if (part.space_cell != nullptr && *part.space_cell >= units) *part.space_cell -= units;
      uint32_t head = M_get_head_off(rel, group);
      return head != 0 ? static_cast<int64_t>(head) : split_error(rel, fn, "M_get_head_off");
    }
    if (rel->primary.size() >= static_cast<size_t>(MAX_PARTS)) {
      split_error(rel, fn, "file too large, cannot do split");
      return 0;
    }
    NamedLock making(rel, kPartLock, 1);
    if (create_primary_part_file(rel, 1) == -1) return split_error(rel, fn, "create_primary_part_file");
  }
  return split_error(rel, fn, "create_primary_part_file");
}

// Bytes a head block counts against the merge load: keys and rows, and in
// a KEYDATA file the records of all rows but long records in overflow.
int64_t merge_load_bytes(const REL_TYPE* rel, const uint8_t* block) {
  int32_t count = std::clamp<int32_t>(gb_key_count(block), 0, max_key_rows(rel->block_size));
  int64_t sum = gb_key_bytes(block) + static_cast<int64_t>(key_table_bytes(count));
  if (!hash_is_keydata(rel->hashtype)) return sum;
  for (int32_t row = 0; row < count; ++row) {
    int32_t length = ke_length(block, row);
    if (!addr_is_overflow(ke_position(block, row)) || length < usable(rel->block_size)) sum += length;
  }
  return sum;
}

// Cuts the last primary part back when a merge has left 3 or more unused
// blocks at its end: to its used length and one block, and dat001 never
// below its minimum modulo.
void truncate_primary(REL_TYPE* rel) {
  uint32_t number = static_cast<uint32_t>(rel->primary.size());
  if (number == 0) return;
  int fd = open_large_file(rel, number);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0) return;
  int64_t b = rel->block_size;
  int64_t groups = std::max<int64_t>(static_cast<int64_t>(rel->modulo) - rel->primary.back().first_group, 0);
  int64_t used = (groups + 1) * b;
  if (st.st_size - used < 3 * b) return;
  int64_t keep = used + b;
  if (number == 1) keep = std::max<int64_t>(keep, (static_cast<int64_t>(std::max(rel->min_modulo, 1)) + 1) * b);
  if (keep < st.st_size && ftruncate(fd, keep) != 0) split_error(rel, "M_merge_group", "_chsize");
}

// Moves the modulo by `step` in the sfd row, the handle (with its split
// base) and over001; a failed write leaves all three as they were.
int step_modulo(REL_TYPE* rel, int32_t step) {
  uint32_t before = rel->sfd->modulo;
  rel->sfd->modulo = before + static_cast<uint32_t>(step);
  refresh_modulo(rel);
  if (update_file_info(rel, 3) == 0) return 0;
  rel->sfd->modulo = before;
  refresh_modulo(rel);
  return -1;
}

}  // namespace

int M_set_split_stat(REL_TYPE* rel) { return step_modulo(rel, 1); }

int M_set_merge_stat(REL_TYPE* rel) { return step_modulo(rel, -1); }

int M_split_group(REL_TYPE* rel) {
  const char* fn = "M_split_group";
  // A key-range file keeps its groups: its keys go by the table of bounds.
  if (!rel_is_dynamic(rel) || hash_is_key_range(rel->hashtype) || rel->sfd == nullptr || M_mem_active(rel)) return 0;
  NamedLock split(rel, kSplitLock, 1);
  if (!split.held()) return split_error(rel, fn, "split lock");
  NoRecoveryJump no_jump;
  // The group the caller holds locked (the add's group) needs no lock here.
  uint32_t held = M_groupno;
  BlockLock lock(rel);
  uint32_t old_group = 0;
  uint32_t old_head = 0;
  for (int pass = 0;; ++pass) {
    if (pass == kMaxRefresh) return split_error(rel, fn, "modulo");
    refresh_modulo(rel);
    old_group = static_cast<uint32_t>(rel->modulo) - rel->split_base;
    old_head = M_get_head_off(rel, old_group);
    if (old_head == 0) return split_error(rel, fn, "M_get_head_off");
    if (old_group != held && !lock.take(old_head, LOCK_EXCLUSIVE)) return split_error(rel, fn, "M_mrvlockf");
    if (M_check_file_stat(rel) == 0) break;
    lock.release();
  }
  auto modulo = static_cast<uint32_t>(rel->modulo);
  uint32_t new_group = modulo;
  M_groupno = old_group;
  int64_t new_head = head_of_new_group(rel, fn, new_group);
  if (new_head <= 0) {
    M_groupno = held;
    return static_cast<int>(new_head);
  }
  GroupContents old;
  if (gather_group(rel, fn, old_head, &old) != 0) return -1;
  // Each record goes to the side its key hashes to under the new modulo.
  std::vector<size_t> sides[2];
  M_split_base = split_base_for(rel->hashtype, modulo + 1, static_cast<uint32_t>(rel->min_modulo));
  for (size_t i = 0; i < old.items.size(); ++i) {
    const std::string& key = old.items[i].key;
    uint32_t g = M_hash_with_modulo(reinterpret_cast<const uint8_t*>(key.data()), static_cast<int32_t>(key.size()),
                                    modulo + 1, rel->hashtype);
    if (g == old_group || g == new_group) {
      sides[g == new_group ? 1 : 0].push_back(i);
    } else {
      split_error(rel, fn, "illegal hashed key", &key);
    }
  }
  uint8_t new_block[MAX_BLOCK_SIZE];
  uint8_t old_block[MAX_BLOCK_SIZE];
  std::vector<uint32_t> taken_new;
  std::vector<uint32_t> taken_old;
  M_groupno = new_group;
  if (build_chain(rel, fn, old.items, sides[1], new_group, static_cast<uint32_t>(new_head), new_block, &taken_new) != 0)
    return -1;
  M_groupno = old_group;
  if (build_chain(rel, fn, old.items, sides[0], old_group, old_head, old_block, &taken_old) != 0) {
    give_back(rel, &taken_new);
    return -1;
  }
  // The new group is complete on disk before the modulo shows it.
  M_groupno = new_group;
  if (M_blkwrite(rel, static_cast<uint32_t>(new_head), new_block) != 1 || M_set_split_stat(rel) != 0) {
    give_back(rel, &taken_new);
    give_back(rel, &taken_old);
    M_groupno = old_group;
    return split_error(rel, fn, "write");
  }
  M_groupno = old_group;
  if (M_blkwrite(rel, old_head, old_block) != 1) {
    // The old chain still serves the old group's keys.
    give_back(rel, &taken_old);
    return split_error(rel, fn, "write");
  }
  if (release_old(rel, old.blocks) != 0) return split_error(rel, fn, "release");
  M_groupno = held;
  return 0;
}

bool below_merge_load(const REL_TYPE* rel, const uint8_t* block) {
  return merge_load_bytes(rel, block) * 100 / rel->block_size < rel->merge_load;
}

int M_merge_group(REL_TYPE* rel, uint32_t partner_address, uint32_t address, uint8_t* block) {
  const char* fn = "M_merge_group";
  uint8_t partner[MAX_BLOCK_SIZE];
  if (M_blkread(rel, partner_address, partner, CHECK_HEAD) != 1) return split_error(rel, fn, nullptr);
  if (gb_next(partner) != 0 || gb_next(block) != 0) return 0;
  if ((merge_load_bytes(rel, block) + merge_load_bytes(rel, partner)) * 100 / rel->block_size >= rel->merge_load)
    return 0;
  // The lower group keeps its head and takes the records of both.
  bool block_lower = gb_group(block) < gb_group(partner);
  uint32_t keep_group = block_lower ? gb_group(block) : gb_group(partner);
  uint32_t last_group = block_lower ? gb_group(partner) : gb_group(block);
  uint32_t keep_address = block_lower ? address : partner_address;
  uint32_t last_address = block_lower ? partner_address : address;
  GroupContents keep;
  GroupContents last;
  if (gather_group(rel, fn, keep_address, &keep) != 0 || gather_group(rel, fn, last_address, &last) != 0) return -1;
  keep.items.insert(keep.items.end(), std::make_move_iterator(last.items.begin()),
                    std::make_move_iterator(last.items.end()));
  std::vector<size_t> all(keep.items.size());
  for (size_t i = 0; i < all.size(); ++i) all[i] = i;
  uint8_t merged[MAX_BLOCK_SIZE];
  std::vector<uint32_t> taken;
  M_groupno = keep_group;
  if (build_chain(rel, fn, keep.items, all, keep_group, keep_address, merged, &taken) != 0) return -1;
  // Both groups' keys are found at the old modulo and at the new one.
  if (M_blkwrite(rel, keep_address, merged) != 1 || M_set_merge_stat(rel) != 0) {
    give_back(rel, &taken);
    return split_error(rel, fn, "write");
  }
  // The last group lies beyond the modulo now: its head is left empty.
  uint8_t empty[MAX_BLOCK_SIZE];
  M_groupno = last_group;
  init_group_block(rel, empty, last_group, FLAG_HEAD);
  int result = M_blkwrite(rel, last_address, empty) == 1 ? 2 : -1;
  keep.blocks.insert(last.blocks.begin(), last.blocks.end());
  if (release_old(rel, keep.blocks) != 0) result = -1;
  truncate_primary(rel);
  M_groupno = keep_group;
  return result == 2 ? 2 : split_error(rel, fn, "write");
}

void try_merge_group(REL_TYPE* rel, uint8_t* block, uint32_t address) {
  if (!rel_is_dynamic(rel) || rel->sfd == nullptr || rel->merge_load <= 0 || M_mem_active(rel)) return;
  if ((gb_flags(block) & FLAG_KIND_MASK) != FLAG_HEAD || gb_next(block) != 0) return;
  if (rel->sfd->split_flag != 0) return;
  refresh_modulo(rel);
  auto m = static_cast<uint32_t>(rel->modulo);
  uint32_t b = rel->split_base;
  if (m <= static_cast<uint32_t>(std::max(rel->min_modulo, 1)) || !below_merge_load(rel, block)) return;
  // The last group merges with the group it was split from; at m = b that
  // split ran under half the base.
  uint32_t group = gb_group(block);
  uint32_t half = b == m ? b / 2 : b;
  uint32_t partner;
  if (group == m - 1) {
    partner = m - 1 - half;
  } else if (group == m - 1 - half) {
    partner = m - 1;
  } else {
    return;
  }
  NamedLock merge(rel, kSplitLock, 0);
  if (!merge.held()) return;
  NoRecoveryJump no_jump;
  uint32_t partner_address = M_get_head_off(rel, partner);
  if (partner_address == 0) return;
  uint32_t saved = M_groupno;
  M_groupno = std::min(group, partner);
  BlockLock lock(rel);
  if (lock.take(partner_address, LOCK_EXCLUSIVE | LOCK_NOWAIT)) M_merge_group(rel, partner_address, address, block);
  M_groupno = saved;
}

void M_split_due(REL_TYPE* rel) {
  if (rel->sfd == nullptr) return;
  NamedLock start(rel, kStartLock, 0);
  if (!start.held()) return;
  if (M_split_routine(rel) == 0) rel->sfd->split_flag = 0;
}
