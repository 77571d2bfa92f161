#include "flib/fl_idxfmt.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "common/fl_errout.h"

IndexHead decode_index_head(const uint8_t* b) {
  IndexHead h;
  h.version = fl_get_i32(b, IH_VERSION);
  h.next_entry_block = fl_get_u32(b, IH_NEXT_ENTRY_BLOCK);
  h.index_count = fl_get_i32(b, IH_INDEX_COUNT);
  h.auto_update = fl_get_i32(b, IH_AUTO_UPDATE);
  h.block_code = fl_get_i32(b, IH_BLOCK_CODE);
  h.free_block = fl_get_u32(b, IH_FREE_BLOCK);
  h.node_code = fl_get_i32(b, IH_NODE_CODE);
  h.free_node = fl_get_u32(b, IH_FREE_NODE);
  h.key_length = fl_get_i32(b, IH_KEY_LENGTH);
  h.ov_modulo = fl_get_i32(b, IH_OV_MODULO);
  h.ov_hash_type = fl_get_i32(b, IH_OV_HASH_TYPE);
  h.large_flag = b[IH_LARGE_FLAG];
  h.part_no = b[IH_PART_NO];
  h.active_part = b[IH_ACTIVE_PART];
  h.part_count = b[IH_PART_COUNT];
  h.part_size_limit = fl_get_u32(b, IH_PART_SIZE_LIMIT);
  h.free_count = fl_get_u32(b, IH_FREE_COUNT);
  h.end_offset = fl_get_u32(b, IH_END_OFFSET);
  h.slot_map = fl_get_u32(b, IH_SLOT_MAP);
  return h;
}

void encode_index_head(const IndexHead& h, uint8_t* b) {
  std::memset(b, 0, IH_SIZE);
  fl_put_i32(b, IH_VERSION, h.version);
  fl_put_u32(b, IH_NEXT_ENTRY_BLOCK, h.next_entry_block);
  fl_put_i32(b, IH_INDEX_COUNT, h.index_count);
  fl_put_i32(b, IH_AUTO_UPDATE, h.auto_update);
  fl_put_i32(b, IH_BLOCK_CODE, h.block_code);
  fl_put_u32(b, IH_FREE_BLOCK, h.free_block);
  fl_put_i32(b, IH_NODE_CODE, h.node_code);
  fl_put_u32(b, IH_FREE_NODE, h.free_node);
  fl_put_i32(b, IH_KEY_LENGTH, h.key_length);
  fl_put_i32(b, IH_OV_MODULO, h.ov_modulo);
  fl_put_i32(b, IH_OV_HASH_TYPE, h.ov_hash_type);
  b[IH_LARGE_FLAG] = h.large_flag;
  b[IH_PART_NO] = h.part_no;
  b[IH_ACTIVE_PART] = h.active_part;
  b[IH_PART_COUNT] = h.part_count;
  fl_put_u32(b, IH_PART_SIZE_LIMIT, h.part_size_limit);
  fl_put_u32(b, IH_FREE_COUNT, h.free_count);
  fl_put_u32(b, IH_END_OFFSET, h.end_offset);
  fl_put_u32(b, IH_SLOT_MAP, h.slot_map);
}

IndexEntry decode_index_entry(const uint8_t* p) {
  IndexEntry e;
  std::memcpy(e.name, p + IE_NAME, IE_NAME_SIZE);
  e.name[IE_NAME_SIZE - 1] = '\0';
  e.field_type = static_cast<char>(p[IE_FIELD_TYPE]);
  e.value_type = static_cast<char>(p[IE_VALUE_TYPE]);
  e.key_type = static_cast<char>(p[IE_KEY_TYPE]);
  e.option = p[IE_OPTION];
  e.location = fl_get_i32(p, IE_LOCATION);
  e.root = fl_get_u32(p, IE_ROOT);
  return e;
}

void encode_index_entry(const IndexEntry& e, uint8_t* p) {
  std::memset(p, 0, IE_SIZE);
  std::memcpy(p + IE_NAME, e.name, IE_NAME_SIZE);
  p[IE_NAME + IE_NAME_SIZE - 1] = 0;
  p[IE_FIELD_TYPE] = static_cast<uint8_t>(e.field_type);
  p[IE_VALUE_TYPE] = static_cast<uint8_t>(e.value_type);
  p[IE_KEY_TYPE] = static_cast<uint8_t>(e.key_type);
  p[IE_OPTION] = e.option;
  fl_put_i32(p, IE_LOCATION, e.location);
  fl_put_u32(p, IE_ROOT, e.root);
}

bool index_head_valid(const IndexHead& h) {
  if (h.version != IDX_VERSION_COMPRESSED && h.version != IDX_VERSION_PLAIN) {
    M_errout(0, "Index: invalid index version: 0x%0X\n", static_cast<unsigned>(h.version));
    return false;
  }
  if (h.auto_update != 0 && h.auto_update != 1) {
    M_errout(0, "Index: invalid auto update flag: %d\n", h.auto_update);
    return false;
  }
  if (h.block_code != h.node_code) {
    M_errout(0, "Index: block size (%d) != node size (%d)\n", h.block_code, h.node_code);
    return false;
  }
  if (h.free_block != IDX_NONE) {
    M_errout(0, "Index: invalid free block address: %u\n", h.free_block);
    return false;
  }
  if (h.node_code < 0 || h.node_code > IDX_MAX_BLOCK_CODE) {
    M_errout(0, "Index: invalid node size: %d\n", h.node_code);
    return false;
  }
  uint32_t node_size = idx_block_size(h.node_code);
  if (h.next_entry_block == IDX_NONE &&
      (h.index_count < 0 || static_cast<uint32_t>(h.index_count) > (node_size - IH_SIZE) / IE_SIZE)) {
    M_errout(0, "Index: invalid # of indices: %d\n", h.index_count);
    return false;
  }
  if (h.key_length < 1 || h.key_length > IDX_MAX_KEY_LENGTH) {
    M_errout(0, "Index: invalid textual key length: %d, valid range is [1,%d]\n", h.key_length, IDX_MAX_KEY_LENGTH);
    return false;
  }
  if (h.version == IDX_VERSION_PLAIN && h.ov_modulo != 1) {
    M_errout(0, "Index: invalid OV modulo: %d\n", h.ov_modulo);
    return false;
  }
  if (h.ov_hash_type < 0 || h.ov_hash_type > 2) {
    M_errout(0, "Index: invalid OV hash type: %d\n", h.ov_hash_type);
    return false;
  }
  if (h.large_flag > 1) {
    M_errout(0, "Index: invalid large index flag: %d\n", h.large_flag);
    return false;
  }
  if (h.free_node != IDX_NONE && (h.free_node & 0x7FFFFF00u) == 0) {
    M_errout(0, "Index: invalid free node address: %d\n", static_cast<int32_t>(h.free_node));
    return false;
  }
  if (h.large_flag == 1) {
    if (h.part_no != 0) {
      M_errout(0, "Index: invalid part file no.: %d\n", h.part_no);
      return false;
    }
    if (h.part_count < h.active_part) {
      M_errout(0, "Index: invalid file count.: %d\n", h.part_count);
      return false;
    }
  } else if (h.free_node != IDX_NONE && h.free_node % node_size != 0) {
    M_errout(0, "Index: invalid free node address: %d\n", static_cast<int32_t>(h.free_node));
    return false;
  }
  if (h.ov_modulo < 1) {
    // Bucket chains are counted from block 2; without one no long key could
    // be kept.
    M_errout(0, "Index: invalid OV modulo: %d\n", h.ov_modulo);
    return false;
  }
  return true;
}

bool index_entry_valid(const IndexEntry& e) {
  if (std::strchr("DIVS", e.field_type) == nullptr || e.field_type == '\0') {
    M_errout(0, "Index: invalid field type for index '%s': %c\n", e.name, e.field_type);
    return false;
  }
  if (e.value_type != 'S' && e.value_type != 'M') {
    M_errout(0, "Index: invalid value type for index '%s': %c\n", e.name, e.value_type);
    return false;
  }
  if (e.key_type != 'T' && e.key_type != 'N') {
    M_errout(0, "Index: invalid key type for index '%s': %c\n", e.name, e.key_type);
    return false;
  }
  return true;
}

bool node_head_valid(const NodeHead& n, uint32_t address, uint32_t root, uint16_t idx_no, uint32_t node_size,
                     bool short_forms) {
  int32_t a = static_cast<int32_t>(address);
  bool is_root_address = address == root;
  bool next_ok = is_root_address ? (n.next == 0 || n.next == ROOT_TO_BUILD || n.next == ROOT_RESET) : n.next == 0;
  if (!next_ok) {
    if (short_forms)
      M_errout(0, "Index: invalid value in 'next' = %u\n", static_cast<uint32_t>(n.next));
    else
      M_errout(0, "Index: invalid 'next' (%d) of node %d.\n", n.next, a);
    return false;
  }
  if (n.idx_no != idx_no) {
    if (short_forms)
      M_errout(0, "Index: index entry number not match (is %d, should be %d)\n", n.idx_no, idx_no);
    else
      M_errout(0, "Index: invalid 'idx_no' (%d) of node %d (should be %d).\n", n.idx_no, a, idx_no);
    return false;
  }
  if (is_root_address && n.is_root == 0) {
    M_errout(0, "Index: root node %d is marked as non-root node.\n", a);
    return false;
  }
  if (!is_root_address && n.is_root != 0) {
    M_errout(0, "Index: non-root node %d is marked as root node.\n", a);
    return false;
  }
  int32_t area = static_cast<int32_t>(node_size - ND_KEYS);
  int32_t most = area / (n.is_leaf != 0 ? MIN_LEAF_ENTRY : MIN_INTERNAL_ENTRY);
  if (n.nkeys < 0 || n.nkeys > most) {
    if (short_forms)
      M_errout(0, "Index: invalid value in 'nkeys' = %u\n", static_cast<uint32_t>(n.nkeys));
    else
      M_errout(0, "Index: invalid 'nkeys' (%d) of node %d.\n", n.nkeys, a);
    return false;
  }
  if (n.nb_left < 0 || n.nb_left > area) {
    M_errout(0, "Index: invalid 'nb_left' (%d) of node %d, valid range is [0,%d].\n", n.nb_left, a, area);
    return false;
  }
  return true;
}

bool decode_node_entries(const uint8_t* node, uint32_t node_size, int32_t key_length, bool compressed,
                         std::vector<KeyEntry>* out) {
  out->clear();
  NodeHead h = decode_node_head(node);
  bool leaf = h.is_leaf != 0;
  bool packed = compressed && leaf;
  uint32_t end = node_size - static_cast<uint32_t>(std::clamp<int32_t>(h.nb_left, 0, static_cast<int32_t>(node_size)));
  uint32_t at = ND_KEYS;
  auto bad_offset = [&]() {
    M_errout(0, "Index: invalid offset of node: %u\n", at);
    return false;
  };
  std::string previous;
  out->reserve(static_cast<size_t>(std::max(h.nkeys, 0)));
  for (int32_t i = 0; i < h.nkeys; ++i) {
    KeyEntry e;
    if (packed) {
      if (at + 1 > end) return bad_offset();
      uint32_t prefix = node[at++];
      if (static_cast<int32_t>(prefix) > key_length || prefix > previous.size()) {
        M_errout(0, "Index: invalid compression count: %u\n", prefix);
        return false;
      }
      const void* nul = std::memchr(node + at, 0, end - at);
      if (nul == nullptr) return bad_offset();
      uint32_t suffix = static_cast<uint32_t>(static_cast<const uint8_t*>(nul) - (node + at));
      if (static_cast<int32_t>(prefix + suffix) > key_length) {
        M_errout(0, "Index: invalid alternate key length: %u\n", prefix + suffix);
        return false;
      }
      e.key.assign(previous, 0, prefix);
      e.key.append(reinterpret_cast<const char*>(node + at), suffix);
      at += suffix + 1;
    } else {
      if (at + 2 > end) return bad_offset();
      int32_t n = fl_get_i16(node, at);
      if (n < 0 || n > key_length) {
        M_errout(0, "Index: invalid alternate key length: %u\n", static_cast<uint32_t>(static_cast<uint16_t>(n)));
        return false;
      }
      at += 2;
      if (at + static_cast<uint32_t>(n) > end) return bad_offset();
      e.key.assign(reinterpret_cast<const char*>(node + at), static_cast<size_t>(n));
      at += static_cast<uint32_t>(n);
    }
    if (at + 5 > end) return bad_offset();
    e.link = fl_get_u32(node, at);
    at += 4;
    uint32_t id_len = node[at++];
    if (id_len > static_cast<uint32_t>(IDX_MAX_ID_LENGTH)) {
      M_errout(0, "Index: invalid @ID length: %u\n", id_len);
      return false;
    }
    if (at + id_len > end) return bad_offset();
    e.id.assign(reinterpret_cast<const char*>(node + at), id_len);
    at += id_len;
    if (!leaf) {
      if (at + 4 > end) return bad_offset();
      e.child = fl_get_u32(node, at);
      at += 4;
    }
    previous = e.key;
    out->push_back(std::move(e));
  }
  if (at != end) return bad_offset();
  return true;
}

namespace {

size_t common_prefix(const std::string& a, const std::string& b, size_t limit) {
  size_t n = std::min({a.size(), b.size(), limit});
  size_t i = 0;
  while (i < n && a[i] == b[i]) ++i;
  return i;
}

// The prefix count of a compressed entry is one byte.
constexpr size_t kMaxPrefix = 255;

}  // namespace

int32_t encoded_entries_size(const std::vector<KeyEntry>& entries, bool leaf, bool compressed) {
  int32_t total = 0;
  const std::string* previous = nullptr;
  for (const KeyEntry& e : entries) {
    int32_t id = static_cast<int32_t>(e.id.size());
    if (compressed && leaf) {
      size_t prefix = previous != nullptr ? common_prefix(*previous, e.key, kMaxPrefix) : 0;
      total += 1 + static_cast<int32_t>(e.key.size() - prefix) + 1 + 4 + 1 + id;
      previous = &e.key;
    } else {
      total += 2 + static_cast<int32_t>(e.key.size()) + 4 + 1 + id + (leaf ? 0 : 4);
    }
  }
  return total;
}

void encode_node(uint8_t* node, uint32_t node_size, const NodeHead& head, const std::vector<KeyEntry>& entries,
                 bool compressed) {
  bool leaf = head.is_leaf != 0;
  assert(encoded_entries_size(entries, leaf, compressed) <= static_cast<int32_t>(node_size - ND_KEYS));
  std::memset(node, 0, node_size);
  uint32_t at = ND_KEYS;
  const std::string* previous = nullptr;
  for (const KeyEntry& e : entries) {
    if (compressed && leaf) {
      size_t prefix = previous != nullptr ? common_prefix(*previous, e.key, kMaxPrefix) : 0;
      node[at++] = static_cast<uint8_t>(prefix);
      std::memcpy(node + at, e.key.data() + prefix, e.key.size() - prefix);
      at += static_cast<uint32_t>(e.key.size() - prefix);
      node[at++] = 0;
      previous = &e.key;
    } else {
      fl_put_i16(node, at, static_cast<int16_t>(e.key.size()));
      at += 2;
      std::memcpy(node + at, e.key.data(), e.key.size());
      at += static_cast<uint32_t>(e.key.size());
    }
    fl_put_u32(node, at, e.link);
    at += 4;
    node[at++] = static_cast<uint8_t>(e.id.size());
    std::memcpy(node + at, e.id.data(), e.id.size());
    at += static_cast<uint32_t>(e.id.size());
    if (!leaf) {
      fl_put_u32(node, at, e.child);
      at += 4;
    }
  }
  fl_put_i32(node, ND_NEXT, head.next);
  fl_put_u16(node, ND_IDX_NO, head.idx_no);
  node[ND_IS_ROOT] = head.is_root;
  node[ND_IS_LEAF] = head.is_leaf;
  fl_put_i32(node, ND_NKEYS, static_cast<int32_t>(entries.size()));
  fl_put_i32(node, ND_NB_LEFT, static_cast<int32_t>(node_size - at));
}

void init_empty_node(uint8_t* node, uint32_t node_size, uint16_t idx_no, bool root, int32_t next) {
  NodeHead h{next, idx_no, static_cast<uint8_t>(root ? 1 : 0), 1, 0, 0};
  encode_node(node, node_size, h, {}, false);
}

void init_free_node(uint8_t* node, uint32_t node_size, uint32_t next) {
  std::memset(node, 0, node_size);
  fl_put_u32(node, ND_NEXT, next);
  fl_put_u16(node, ND_IDX_NO, ND_FREE_MARK);
}

void init_bucket_block(uint8_t* block, uint32_t block_size, uint32_t next) {
  std::memset(block, 0, block_size);
  fl_put_u32(block, BK_NEXT, next);
  fl_put_u16(block, BK_BUCKET, 0xFFFF);
  fl_put_u16(block, BK_COUNT, 0);
  fl_put_i32(block, BK_FREE, static_cast<int32_t>(block_size - BK_SLOTS));
}
