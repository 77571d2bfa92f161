// The index entries of the master head: adding, finding and dropping an
// index, and the reset of all trees after the file has been cleared.
//
// Order of writes when an index is added: the entry block and slot map
// block are taken and linked first, then the root node; the entry itself is
// written last, and only then does the head's count rise. A crash in
// between leaves unused blocks, never an entry without its root.
#include <unistd.h>

#include <cstring>

#include "common/fl_errout.h"
#include "common/mrv_msgno.h"
#include "flib/fl_idxbkt.h"
#include "flib/fl_index.h"
#include "flib/fl_rel.h"

namespace {

bool same_index(const IndexEntry& a, const IndexEntry& b) {
  if (std::strncmp(a.name, b.name, IE_NAME_SIZE) == 0) return true;
  bool located = (a.field_type == 'D' || a.field_type == 'S') && (b.field_type == 'D' || b.field_type == 'S');
  return located && a.location == b.location;
}

// A chain block (entry block or slot map): next address, 4 zero bytes.
std::vector<uint8_t> chain_block(uint32_t size) {
  std::vector<uint8_t> b(size, 0);
  fl_put_u32(b.data(), 0, IDX_NONE);
  return b;
}

// Where the next entry goes: its block and offset and its ordinal. Extends
// the chain with a new entry block when it is full. 1 or -1.
int free_entry_place(IndexState* h, uint32_t* block_out, uint32_t* offset_out, uint32_t* ordinal_out) {
  std::vector<uint8_t> block(h->node_size);
  uint32_t address = 0;
  uint32_t ordinal = 0;
  for (int guard = 0; guard < 1 << 16; ++guard) {
    if (M_idx_read(h, address, block.data(), h->node_size) < 0) return -1;
    bool block0 = address == 0;
    uint32_t start = block0 ? IE_FIRST_IN_BLOCK0 : CHAIN_HEAD;
    for (uint32_t i = 0; i < entries_in_block(h->node_size, block0); ++i) {
      ++ordinal;
      if (entry_slot_is_end(block.data() + start + i * IE_SIZE)) {
        *block_out = address;
        *offset_out = start + i * IE_SIZE;
        *ordinal_out = ordinal;
        return 1;
      }
    }
    uint32_t next = block0 ? h->head.next_entry_block : fl_get_u32(block.data(), 0);
    if (next != IDX_NONE) {
      address = next;
      continue;
    }
    // The chain is full: a new entry block behind the last.
    std::vector<uint8_t> fresh = chain_block(h->node_size);
    uint32_t added = M_get_node(h, fresh.data());
    if (added == IDX_NONE) return -1;
    if (block0) {
      IndexVersionLock lock(h, 0);
      IndexHead head;
      if (!lock.held() || M_idx_read_head(h, 0, &head) < 0) return -1;
      head.next_entry_block = added;
      if (M_idx_write_head(h, 0, head) < 0) return -1;
    } else {
      fl_put_u32(block.data(), 0, added);
      if (M_idx_write(h, address, block.data(), h->node_size) < 0) return -1;
    }
    *block_out = added;
    *offset_out = CHAIN_HEAD;
    *ordinal_out = ordinal + 1;
    return 1;
  }
  return -1;
}

// Puts `ordinal` into the first empty slot of the slot map (making or
// extending the map); the slot's number, or -1.
int take_slot(IndexState* h, uint32_t ordinal) {
  std::vector<uint8_t> block(h->node_size);
  uint32_t address = h->head.slot_map;
  if (address == 0) {
    std::vector<uint8_t> fresh = chain_block(h->node_size);
    address = M_get_node(h, fresh.data());
    if (address == IDX_NONE) return -1;
    IndexVersionLock lock(h, 0);
    IndexHead head;
    if (!lock.held() || M_idx_read_head(h, 0, &head) < 0) return -1;
    head.slot_map = address;
    if (M_idx_write_head(h, 0, head) < 0) return -1;
  }
  uint32_t per_block = (h->node_size - CHAIN_HEAD) / SLOT_SIZE;
  for (uint32_t base = 0; base < ND_FREE_MARK; base += per_block) {
    if (M_idx_read(h, address, block.data(), h->node_size) < 0) return -1;
    for (uint32_t i = 0; i < per_block && base + i < ND_FREE_MARK; ++i) {
      uint32_t at = CHAIN_HEAD + i * SLOT_SIZE;
      if (fl_get_u32(block.data(), at) != 0) continue;
      fl_put_u32(block.data(), at, ordinal);
      fl_put_u32(block.data(), at + 4, 0);
      if (M_idx_write(h, address, block.data(), h->node_size) < 0) return -1;
      return static_cast<int>(base + i);
    }
    uint32_t next = fl_get_u32(block.data(), 0);
    if (next == IDX_NONE) {
      std::vector<uint8_t> fresh = chain_block(h->node_size);
      next = M_get_node(h, fresh.data());
      if (next == IDX_NONE) return -1;
      fl_put_u32(block.data(), 0, next);
      if (M_idx_write(h, address, block.data(), h->node_size) < 0) return -1;
    }
    address = next;
  }
  M_errout(0, "Index: no free index number\n");
  return -1;
}

// Clears slot `slot` of the slot map. 0 or -1.
int free_slot(IndexState* h, uint32_t slot) {
  std::vector<uint8_t> block(h->node_size);
  uint32_t per_block = (h->node_size - CHAIN_HEAD) / SLOT_SIZE;
  uint32_t address = h->head.slot_map;
  for (uint32_t n = slot / per_block; address != 0 && address != IDX_NONE; --n) {
    if (M_idx_read(h, address, block.data(), h->node_size) < 0) return -1;
    if (n == 0) {
      uint32_t at = CHAIN_HEAD + (slot % per_block) * SLOT_SIZE;
      fl_put_u32(block.data(), at, 0);
      return M_idx_write(h, address, block.data(), h->node_size) < 0 ? -1 : 0;
    }
    address = fl_get_u32(block.data(), 0);
  }
  return -1;
}

int change_count(IndexState* h, int32_t delta) {
  IndexVersionLock lock(h, 0);
  IndexHead head;
  if (!lock.held() || M_idx_read_head(h, 0, &head) < 0) return -1;
  head.index_count += delta;
  return M_idx_write_head(h, 0, head);
}

void remove_index_files(REL_TYPE* rel) {
  IndexState* h = rel->index;
  size_t parts = h->part_fds.size();
  bool dynamic = rel_is_dynamic(rel);
  uint32_t count = std::max<uint32_t>(h->head.part_count, static_cast<uint32_t>(parts));
  M_close_index(rel);
  for (uint32_t p = 0; p < count; ++p) unlink(M_index_path(rel->path, dynamic, static_cast<int>(p)).c_str());
  unlink(M_xlog_path(rel->path, dynamic).c_str());
}

}  // namespace

int M_index_row(const IndexState* h, const char* name) {
  for (size_t i = 0; i < h->rows.size(); ++i)
    if (std::strncmp(h->rows[i].entry.name, name, IE_NAME_SIZE) == 0) return static_cast<int>(i);
  return -1;
}

int M_find_entry_slot(IndexState* h, const IndexEntry& entry, uint32_t* slot_out, uint32_t* ordinal_out) {
  for (const IndexRow& r : h->rows) {
    if (same_index(r.entry, entry)) {
      *ordinal_out = r.ordinal;
      return 1;
    }
  }
  uint32_t block = 0;
  uint32_t offset = 0;
  if (free_entry_place(h, &block, &offset, slot_out) < 0) return -1;
  return 0;
}

int M_add_index(REL_TYPE* rel, const char* name, char field_type, char value_type, char key_type, uint8_t option,
                int32_t location, const char* virtual_field, bool build_later) {
  IndexState* h = rel->index;
  if (h == nullptr) {
    M_errout(0, "Index: file %s has no index file\n", rel->path);
    return -1;
  }
  IndexEntry e;
  if (name == nullptr || name[0] == '\0' || std::strlen(name) >= IE_NAME_SIZE) {
    M_errout(0, "Index: invalid index name '%s': 1 to %u characters\n", name != nullptr ? name : "",
             IE_NAME_SIZE - 1);
    return -1;
  }
  std::strncpy(e.name, name, IE_NAME_SIZE - 1);
  e.field_type = field_type;
  e.value_type = value_type;
  e.key_type = key_type;
  e.option = option;
  e.location = location;
  e.root = IDX_NONE;
  if (!index_entry_valid(e)) return -1;
  IndexHead head;
  {
    IndexVersionLock lock(h, 0);
    if (!lock.held() || M_idx_read_head(h, 0, &head) < 0) return -1;
    if (!index_head_valid(head)) return -1;
  }
  for (const IndexRow& r : h->rows)
    if (same_index(r.entry, e)) return 0;
  IndexRow row;
  if (free_entry_place(h, &row.entry_block, &row.entry_offset, &row.ordinal) < 0) {
    M_msgno_out(MRV_MSG_INDEX_NO_ENTRY_ROOM, "%d", errno);
    return -1;
  }
  int slot = take_slot(h, row.ordinal);
  if (slot < 0) return -1;
  row.idx_no = static_cast<uint16_t>(slot);
  if ((field_type == 'V' || field_type == 'I') && virtual_field != nullptr) {
    uint32_t link = M_store_expression(h, virtual_field);
    if (link == 0) return -1;
    e.location = static_cast<int32_t>(link);
  }
  if (field_type != 'S') {
    std::vector<uint8_t> root(h->node_size);
    init_empty_node(root.data(), h->node_size, row.idx_no, true, build_later ? ROOT_TO_BUILD : 0);
    e.root = M_get_node(h, root.data());
    if (e.root == IDX_NONE) return -1;
  }
  row.entry = e;
  std::vector<uint8_t> block(h->node_size);
  if (M_idx_read(h, row.entry_block, block.data(), h->node_size) < 0) return -1;
  encode_index_entry(e, block.data() + row.entry_offset);
  if (M_idx_write(h, row.entry_block, block.data(), h->node_size) < 0) {
    M_msgno_out(MRV_MSG_INDEX_ENTRY_WRITE, "%d", errno);
    return -1;
  }
  if (change_count(h, 1) < 0 || M_ndx_updhdr(rel, 1) < 0) {
    M_msgno_out(MRV_MSG_INDEX_COUNT_UPDATE, "%d", errno);
    return -1;
  }
  h->rows.push_back(row);
  return 1;
}

int M_drop_index(REL_TYPE* rel, const char* name) {
  IndexState* h = rel->index;
  if (h == nullptr) return 0;
  int row = M_index_row(h, name);
  if (row < 0) return 0;
  IndexRow r = h->rows[static_cast<size_t>(row)];
  if (r.entry.root != IDX_NONE) {
    if (M_clear_index(h, row, 2) < 0 || M_free_node(h, r.entry.root) < 0) return -1;
  }
  if ((r.entry.field_type == 'V' || r.entry.field_type == 'I') && link_block(static_cast<uint32_t>(r.entry.location)) != 0)
    M_release_expression(h, static_cast<uint32_t>(r.entry.location));
  std::vector<uint8_t> block(h->node_size);
  if (M_idx_read(h, r.entry_block, block.data(), h->node_size) < 0) return -1;
  std::memset(block.data() + r.entry_offset, 0, IE_SIZE);
  block[r.entry_offset + 1] = 1;  // deleted, not reused
  if (M_idx_write(h, r.entry_block, block.data(), h->node_size) < 0) return -1;
  if (free_slot(h, r.idx_no) < 0 || change_count(h, -1) < 0 || M_ndx_updhdr(rel, -1) < 0) return -1;
  h->rows.erase(h->rows.begin() + row);
  if (h->rows.empty()) remove_index_files(rel);
  return 1;
}

int M_clear_all_indexes(REL_TYPE* rel, int32_t* count_out) {
  *count_out = 0;
  bool dynamic = rel_is_dynamic(rel);
  unlink(M_xlog_path(rel->path, dynamic).c_str());
  if (rel->index == nullptr) {
    int r = M_open_index(rel);
    if (r <= 0) return r;
  }
  IndexState* h = rel->index;
  for (size_t row = 0; row < h->rows.size(); ++row)
    if (M_clear_index(h, static_cast<int>(row), 0) < 0) return -1;
  if (M_reset_buckets(h) < 0) return -1;
  *count_out = static_cast<int32_t>(h->rows.size());
  if (h->rows.empty()) {
    remove_index_files(rel);
    return M_ndx_sethdr(rel, 0) < 0 ? -1 : 1;
  }
  for (int fd : h->part_fds)
    if (fd >= 0) fsync(fd);
  return M_ndx_sethdr(rel, *count_out) < 0 ? -1 : 1;
}
