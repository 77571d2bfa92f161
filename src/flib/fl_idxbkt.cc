#include "flib/fl_idxbkt.h"

#include <cstring>
#include <vector>

#include "common/fl_errout.h"
#include "flib/fl_hash.h"
#include "flib/fl_index.h"
#include "flib/fl_lock.h"

namespace {

using Block = std::vector<uint8_t>;

uint32_t block_address(const IndexState* h, uint32_t number) { return number * h->node_size; }
uint32_t block_number(const IndexState* h, uint32_t address) { return address / h->node_size; }

int read_block(IndexState* h, uint32_t number, Block* b) {
  b->resize(h->node_size);
  return M_idx_read(h, block_address(h, number), b->data(), h->node_size) < 0 ? -1 : 1;
}
int write_block(IndexState* h, uint32_t number, const Block& b) {
  return M_idx_write(h, block_address(h, number), b.data(), h->node_size) < 0 ? -1 : 1;
}

uint16_t count_of(const Block& b) { return fl_get_u16(b.data(), BK_COUNT); }
int32_t free_of(const Block& b) { return fl_get_i32(b.data(), BK_FREE); }
uint32_t next_of(const Block& b) { return fl_get_u32(b.data(), BK_NEXT); }
uint16_t slot_of(const Block& b, uint32_t s) { return fl_get_u16(b.data(), BK_SLOTS + 2 * s); }

// The head of a bucket block must describe a layout that fits the block.
bool bucket_sound(const IndexState* h, const Block& b) {
  int64_t slots_end = BK_SLOTS + 2 * static_cast<int64_t>(count_of(b));
  return free_of(b) >= 0 && slots_end + free_of(b) <= h->node_size;
}

// Lowest text offset: texts lie between it and the block's end.
uint32_t text_floor(const Block& b) { return BK_SLOTS + 2u * count_of(b) + static_cast<uint32_t>(free_of(b)); }

// Puts `text` into block `b` if it has room; the slot used, or -1.
int place_text(Block* b, const std::string& text, bool slot_at_end) {
  uint32_t need = static_cast<uint32_t>(text.size()) + 1;
  uint16_t count = count_of(*b);
  int32_t slot = -1;
  if (!slot_at_end) {
    for (uint32_t s = 0; s < count; ++s)
      if (slot_of(*b, s) == BK_EMPTY_SLOT) {
        slot = static_cast<int32_t>(s);
        break;
      }
  }
  uint32_t cost = need + (slot < 0 ? 2u : 0u);
  if (static_cast<uint32_t>(std::max(free_of(*b), 0)) < cost) return -1;
  uint32_t floor = text_floor(*b);
  uint32_t at = floor - need;
  if (slot < 0) {
    slot = count;
    fl_put_u16(b->data(), BK_COUNT, static_cast<uint16_t>(count + 1));
  }
  std::memcpy(b->data() + at, text.data(), text.size());
  (*b)[at + text.size()] = 0;
  fl_put_u16(b->data(), BK_SLOTS + 2 * static_cast<uint32_t>(slot), static_cast<uint16_t>(at));
  fl_put_i32(b->data(), BK_FREE, free_of(*b) - static_cast<int32_t>(cost));
  return slot;
}

}  // namespace

uint32_t M_tail_bucket_block(IndexState* h, const std::string& id) {
  int32_t type = h->head.ov_hash_type == 2 ? 0 : h->head.ov_hash_type;
  uint32_t modulo = static_cast<uint32_t>(h->head.ov_modulo);
  uint32_t bucket = modulo <= 1 ? 0
                                : M_hash_with_modulo(reinterpret_cast<const uint8_t*>(id.data()),
                                                     static_cast<int32_t>(id.size()), modulo, type) % modulo;
  return bucket + BK_FIRST_TAIL_BLOCK;
}

uint32_t M_store_text(IndexState* h, uint32_t first_block, const std::string& text) {
  bool slot_at_end = first_block == BK_VIRTUAL_CHAIN;
  if (text.size() + 1 + 2 > h->node_size - BK_SLOTS) {
    M_errout(0, "Index: text of %u bytes is too long for a bucket\n", static_cast<unsigned>(text.size()));
    return 0;
  }
  Block first;
  Block b;
  uint32_t number = first_block;
  uint32_t previous = 0;
  // A chain visits each block of idx001 once at most; more is a loop.
  uint32_t blocks = h->head.end_offset / h->node_size + 1;
  for (uint32_t guard = 0; guard < blocks; ++guard) {
    IndexRangeLock lock(h, block_address(h, number), LOCK_EXCLUSIVE);
    if (read_block(h, number, &b) < 0) return 0;
    if (!bucket_sound(h, b)) {
      M_errout(0, "Index: damaged bucket block %u\n", number);
      return 0;
    }
    if (number == first_block) first = b;
    int slot = place_text(&b, text, slot_at_end);
    if (slot >= 0) {
      if (number != first_block && free_of(b) < BK_LEAVE_BELOW) {
        // Nearly full: off the chain, so later stores pass it by.
        Block prev;
        if (read_block(h, previous, &prev) < 0) return 0;
        fl_put_u32(prev.data(), BK_NEXT, next_of(b));
        fl_put_u32(b.data(), BK_NEXT, BK_OFF_CHAIN);
        fl_put_u16(b.data(), BK_BUCKET, static_cast<uint16_t>(first_block));
        if (write_block(h, number, b) < 0 || write_block(h, previous, prev) < 0) return 0;
      } else if (write_block(h, number, b) < 0) {
        return 0;
      }
      return make_link(number, static_cast<uint32_t>(slot));
    }
    if (next_of(b) == BK_END_OF_CHAIN || next_of(b) == BK_OFF_CHAIN) break;
    previous = number;
    number = block_number(h, next_of(b));
  }
  // No block of the chain has room: a new one, made off the chain.
  Block fresh(h->node_size);
  init_bucket_block(fresh.data(), h->node_size, BK_OFF_CHAIN);
  fl_put_u16(fresh.data(), BK_BUCKET, static_cast<uint16_t>(first_block));
  int slot = place_text(&fresh, text, slot_at_end);
  uint32_t address = M_get_first_part_block(h, fresh.data());
  if (address == IDX_NONE || slot < 0) return 0;
  uint32_t fresh_number = block_number(h, address);
  if (free_of(fresh) >= BK_LEAVE_BELOW) {
    IndexRangeLock lock(h, block_address(h, first_block), LOCK_EXCLUSIVE);
    if (read_block(h, first_block, &first) < 0) return 0;
    fl_put_u32(fresh.data(), BK_NEXT, next_of(first));
    fl_put_u16(fresh.data(), BK_BUCKET, 0xFFFF);
    fl_put_u32(first.data(), BK_NEXT, address);
    if (write_block(h, fresh_number, fresh) < 0 || write_block(h, first_block, first) < 0) return 0;
  }
  return make_link(fresh_number, static_cast<uint32_t>(slot));
}

int M_read_text(IndexState* h, uint32_t link, std::string* text) {
  Block b;
  uint32_t number = link_block(link);
  uint32_t slot = link_slot(link);
  if (number == 0 || read_block(h, number, &b) < 0) return -1;
  if (!bucket_sound(h, b) || slot >= count_of(b) || slot_of(b, slot) == BK_EMPTY_SLOT ||
      slot_of(b, slot) < text_floor(b) || slot_of(b, slot) >= h->node_size) {
    M_errout(0, "Index: invalid overflow link %u (block %u, slot %u)\n", link, number, slot);
    return -1;
  }
  const uint8_t* p = b.data() + slot_of(b, slot);
  const void* nul = std::memchr(p, 0, h->node_size - slot_of(b, slot));
  if (nul == nullptr) {
    M_errout(0, "Index: invalid overflow link %u (block %u, slot %u)\n", link, number, slot);
    return -1;
  }
  text->assign(reinterpret_cast<const char*>(p), static_cast<size_t>(static_cast<const uint8_t*>(nul) - p));
  return 1;
}

int M_release_text(IndexState* h, uint32_t link, bool keep_slots) {
  uint32_t number = link_block(link);
  uint32_t slot = link_slot(link);
  IndexRangeLock lock(h, block_address(h, number), LOCK_EXCLUSIVE);
  Block b;
  if (number == 0 || read_block(h, number, &b) < 0) return -1;
  uint16_t count = count_of(b);
  if (!bucket_sound(h, b) || slot >= count || slot_of(b, slot) == BK_EMPTY_SLOT || slot_of(b, slot) < text_floor(b)) {
    M_errout(0, "Index: invalid overflow link %u (block %u, slot %u)\n", link, number, slot);
    return -1;
  }
  uint32_t at = slot_of(b, slot);
  const void* nul = std::memchr(b.data() + at, 0, h->node_size - at);
  if (nul == nullptr) return -1;
  uint32_t gap = static_cast<uint32_t>(static_cast<const uint8_t*>(nul) - (b.data() + at)) + 1;
  // The texts below move up over the gap.
  uint32_t floor = text_floor(b);
  std::memmove(b.data() + floor + gap, b.data() + floor, at - floor);
  std::memset(b.data() + floor, 0, gap);
  for (uint32_t s = 0; s < count; ++s) {
    uint16_t o = slot_of(b, s);
    if (o != BK_EMPTY_SLOT && o < at) fl_put_u16(b.data(), BK_SLOTS + 2 * s, static_cast<uint16_t>(o + gap));
  }
  fl_put_u16(b.data(), BK_SLOTS + 2 * slot, BK_EMPTY_SLOT);
  int32_t free_bytes = free_of(b) + static_cast<int32_t>(gap);
  if (!keep_slots && slot + 1 == count) {
    while (count > 0 && slot_of(b, count - 1u) == BK_EMPTY_SLOT) {
      --count;
      fl_put_u16(b.data(), BK_SLOTS + 2u * count, 0);
      free_bytes += 2;
    }
    fl_put_u16(b.data(), BK_COUNT, count);
  }
  fl_put_i32(b.data(), BK_FREE, free_bytes);
  if (next_of(b) == BK_OFF_CHAIN && free_bytes >= BK_RETURN_AT) {
    uint32_t first_block = fl_get_u16(b.data(), BK_BUCKET);
    Block first;
    if (first_block == 0 || first_block == number || read_block(h, first_block, &first) < 0) return -1;
    fl_put_u32(b.data(), BK_NEXT, next_of(first));
    fl_put_u16(b.data(), BK_BUCKET, 0xFFFF);
    fl_put_u32(first.data(), BK_NEXT, block_address(h, number));
    if (write_block(h, number, b) < 0 || write_block(h, first_block, first) < 0) return -1;
    return 1;
  }
  return write_block(h, number, b);
}

int M_reset_buckets(IndexState* h) {
  // Blocks off their chain are found by a pass over idx001's blocks.
  uint32_t end = h->head.end_offset / h->node_size;
  Block b;
  uint32_t chains = BK_FIRST_TAIL_BLOCK + static_cast<uint32_t>(h->head.ov_modulo);
  for (uint32_t n = chains; n < end; ++n) {
    if (read_block(h, n, &b) < 0) return -1;
    if (next_of(b) != BK_OFF_CHAIN) continue;
    uint32_t first_block = fl_get_u16(b.data(), BK_BUCKET);
    Block first;
    if (first_block < BK_VIRTUAL_CHAIN || first_block >= chains || read_block(h, first_block, &first) < 0) continue;
    fl_put_u32(b.data(), BK_NEXT, next_of(first));
    fl_put_u32(first.data(), BK_NEXT, block_address(h, n));
    if (write_block(h, n, b) < 0 || write_block(h, first_block, first) < 0) return -1;
  }
  for (uint32_t c = BK_FIRST_TAIL_BLOCK; c < chains; ++c) {
    uint32_t number = c;
    for (uint32_t guard = 0; guard <= end; ++guard) {
      if (read_block(h, number, &b) < 0) return -1;
      uint32_t next = next_of(b);
      init_bucket_block(b.data(), h->node_size, next);
      if (write_block(h, number, b) < 0) return -1;
      if (next == BK_END_OF_CHAIN || next == BK_OFF_CHAIN) break;
      number = block_number(h, next);
    }
  }
  return 1;
}

namespace {

// The first block of a run. A bucket block at the end of its chain also
// starts with six 0xFF bytes, but its free count at 8 is never -1.
bool is_run(const Block& b) {
  for (uint32_t i = 0; i < RUN_BLOCKS; ++i)
    if (b[i] != 0xFF) return false;
  return fl_get_u16(b.data(), 8) == 0xFFFF && fl_get_u16(b.data(), 10) == 0xFFFF &&
         fl_get_u16(b.data(), 12) == RUN_TEXT;
}

}  // namespace

uint32_t M_store_expression(IndexState* h, const std::string& text) {
  if (text.find('\0') != std::string::npos) {
    M_errout(0, "Index: an expression may not hold a NUL byte\n");
    return 0;
  }
  if (text.size() + 1 + 2 <= h->node_size - BK_SLOTS) return M_store_text(h, BK_VIRTUAL_CHAIN, text);
  if (h->head.large_flag) {
    M_errout(0, "Index: an expression of %u bytes is too long for a large index\n", static_cast<unsigned>(text.size()));
    return 0;
  }
  uint32_t blocks = static_cast<uint32_t>((text.size() + h->node_size + 14) / h->node_size);
  std::vector<uint8_t> run(static_cast<size_t>(blocks) * h->node_size, 0);
  std::memset(run.data(), 0xFF, RUN_BLOCKS);
  fl_put_u16(run.data(), RUN_BLOCKS, static_cast<uint16_t>(blocks));
  fl_put_u16(run.data(), 8, 0xFFFF);
  fl_put_u16(run.data(), 10, 0xFFFF);
  fl_put_u16(run.data(), 12, static_cast<uint16_t>(RUN_TEXT));
  std::memcpy(run.data() + RUN_TEXT, text.data(), text.size());
  uint32_t address = M_take_run(h, run.data(), blocks);
  return address == IDX_NONE ? 0 : make_link(block_number(h, address), 0);
}

int M_read_expression(IndexState* h, uint32_t link, std::string* text) {
  Block b;
  uint32_t number = link_block(link);
  if (number == 0 || read_block(h, number, &b) < 0) return -1;
  if (!is_run(b)) return M_read_text(h, link, text);
  uint32_t blocks = fl_get_u16(b.data(), RUN_BLOCKS);
  if (blocks == 0 || (number + blocks) * static_cast<uint64_t>(h->node_size) > h->head.end_offset) {
    M_errout(0, "Index: invalid expression run at block %u\n", number);
    return -1;
  }
  std::vector<uint8_t> run(static_cast<size_t>(blocks) * h->node_size);
  if (M_idx_read(h, block_address(h, number), run.data(), static_cast<uint32_t>(run.size())) < 0) return -1;
  const void* nul = std::memchr(run.data() + RUN_TEXT, 0, run.size() - RUN_TEXT);
  if (nul == nullptr) {
    M_errout(0, "Index: invalid expression run at block %u\n", number);
    return -1;
  }
  text->assign(reinterpret_cast<const char*>(run.data() + RUN_TEXT),
               static_cast<size_t>(static_cast<const uint8_t*>(nul) - (run.data() + RUN_TEXT)));
  return 1;
}

int M_release_expression(IndexState* h, uint32_t link) {
  Block b;
  uint32_t number = link_block(link);
  if (number == 0 || read_block(h, number, &b) < 0) return -1;
  if (!is_run(b)) return M_release_text(h, link, true);
  uint32_t blocks = fl_get_u16(b.data(), RUN_BLOCKS);
  for (uint32_t i = 0; i < blocks; ++i)
    if (M_free_node(h, block_address(h, number + i)) < 0) return -1;
  return 1;
}
