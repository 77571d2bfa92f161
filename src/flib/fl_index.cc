// The trees of the index file: search, insertion with splits, removal with
// merges, walks, clearing and the structural check.
#include "flib/fl_index.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "common/fl_errout.h"
#include "common/mrv_msgno.h"
#include "flib/fl_globals.h"
#include "flib/fl_idxbkt.h"
#include "flib/fl_lock.h"
#include "flib/fl_rel.h"

int32_t M_index_dup_status = 0;

namespace {

struct Node {
  uint32_t address = IDX_NONE;
  NodeHead head;
  std::vector<KeyEntry> entries;
};

// A (key, @ID) pair being looked for; the key is whole.
struct Target {
  std::string key;
  std::string id;
};

bool compressed(const IndexState* h) { return h->head.version == IDX_VERSION_COMPRESSED; }
const IndexRow& row_of(const IndexState* h, int row) { return h->rows[static_cast<size_t>(row)]; }

int load_node(IndexState* h, int row, uint32_t address, Node* n, bool short_forms) {
  std::vector<uint8_t> buffer(h->node_size);
  if (M_idx_read(h, address, buffer.data(), h->node_size) < 0) return -1;
  n->address = address;
  n->head = decode_node_head(buffer.data());
  const IndexRow& r = row_of(h, row);
  if (!node_head_valid(n->head, address, r.entry.root, r.idx_no, h->node_size, short_forms)) return -1;
  if (!decode_node_entries(buffer.data(), h->node_size, h->head.key_length, compressed(h), &n->entries)) return -1;
  return 1;
}

int32_t used_bytes(const IndexState* h, const Node& n) {
  return encoded_entries_size(n.entries, n.head.is_leaf != 0, compressed(h));
}
int32_t free_bytes(const IndexState* h, const Node& n) {
  return static_cast<int32_t>(h->node_size - ND_KEYS) - used_bytes(h, n);
}

int store_node(IndexState* h, Node* n) {
  if (free_bytes(h, *n) < 0) {
    M_errout(0, "Index: invalid offset of node: %u\n", n->address);
    return -1;
  }
  std::vector<uint8_t> buffer(h->node_size);
  n->head.nkeys = static_cast<int32_t>(n->entries.size());
  encode_node(buffer.data(), h->node_size, n->head, n->entries, compressed(h));
  n->head = decode_node_head(buffer.data());
  return M_idx_write(h, n->address, buffer.data(), h->node_size) < 0 ? -1 : 1;
}

// A new node holding `n`'s head and entries; its address in n->address.
int place_node(IndexState* h, Node* n) {
  std::vector<uint8_t> buffer(h->node_size);
  n->head.nkeys = static_cast<int32_t>(n->entries.size());
  encode_node(buffer.data(), h->node_size, n->head, n->entries, compressed(h));
  n->head = decode_node_head(buffer.data());
  n->address = M_get_node(h, buffer.data());
  return n->address == IDX_NONE ? -1 : 1;
}

// The whole key of an entry: the node's bytes and the tail in its bucket.
int whole_key(IndexState* h, const KeyEntry& e, std::string* out) {
  *out = e.key;
  if (link_block(e.link) == 0) return 1;
  std::string tail;
  if (M_read_text(h, e.link, &tail) < 0) return -1;
  *out += tail;
  return 1;
}

// Compares the target with an entry: by key, then (with_id) by @ID.
// *result takes the sign. -1 when a tail cannot be read.
int compare_entry(IndexState* h, int row, const Target& t, const KeyEntry& e, bool with_id, int* result) {
  std::string key;
  if (whole_key(h, e, &key) < 0) return -1;
  int c = M_index_compare(row_of(h, row).entry.key_type, t.key, key);
  if (c == 0 && with_id) c = t.id.compare(e.id);
  *result = c < 0 ? -1 : (c > 0 ? 1 : 0);
  return 1;
}

// First entry of `n` not below the target (strict: above it); n.entries
// size when none. Binary search. -1 on a tail read failure.
int lower_bound_in(IndexState* h, int row, const Node& n, const Target& t, bool with_id, bool strict) {
  int lo = 0;
  int hi = static_cast<int>(n.entries.size());
  while (lo < hi) {
    int mid = lo + (hi - lo) / 2;
    int c = 0;
    if (compare_entry(h, row, t, n.entries[static_cast<size_t>(mid)], with_id, &c) < 0) return -1;
    bool go_right = strict ? c >= 0 : c > 0;
    if (go_right)
      lo = mid + 1;
    else
      hi = mid;
  }
  return lo;
}

// An entry for the target: the key cut at key_length, its tail in the
// bucket that the @ID hashes to.
int make_entry(IndexState* h, const Target& t, KeyEntry* e) {
  size_t kl = static_cast<size_t>(h->head.key_length);
  e->id = t.id;
  e->child = 0;
  e->link = 0;
  e->key = t.key.substr(0, kl);
  if (t.key.size() <= kl) return 1;
  e->link = M_store_text(h, M_tail_bucket_block(h, t.id), t.key.substr(kl));
  return e->link == 0 ? -1 : 1;
}

void release_tail(IndexState* h, const KeyEntry& e) {
  if (link_block(e.link) != 0) M_release_text(h, e.link, false);
}

// A copy of `e` that owns its own tail.
int copy_entry(IndexState* h, const KeyEntry& e, uint32_t child, KeyEntry* out) {
  *out = e;
  out->child = child;
  if (link_block(e.link) == 0) return 1;
  std::string tail;
  if (M_read_text(h, e.link, &tail) < 0) return -1;
  out->link = M_store_text(h, M_tail_bucket_block(h, e.id), tail);
  return out->link == 0 ? -1 : 1;
}

// Keys of an index are cut at their first NUL byte (tails and compressed
// leaves are NUL-terminated) and at the longest key a bucket can take.
std::string index_key(const IndexState* h, const uint8_t* key, int32_t length) {
  std::string k(reinterpret_cast<const char*>(key), static_cast<size_t>(std::max(length, 0)));
  size_t nul = k.find('\0');
  if (nul != std::string::npos) k.resize(nul);
  size_t most = static_cast<size_t>(h->head.key_length) + h->node_size - BK_SLOTS - 3;
  if (k.size() > most) k.resize(most);
  return k;
}

bool full(const IndexState* h, const Node& n) {
  int32_t f = free_bytes(h, n);
  return n.head.is_leaf ? f < leaf_full_below(h->head.key_length) : f < internal_full_below(h->head.key_length);
}

bool usable_root(const Node& root) { return root.head.next != ROOT_TO_BUILD && root.head.next != ROOT_RESET; }

// Locks the tree of index row `row` (a lock on its root for the whole
// operation) and reads the root. 1 usable, 0 none or not usable (a root
// still to be built or reset), -1 failed.
int open_tree(IndexState* h, int row, int32_t mode, std::optional<IndexRangeLock>* lock, Node* root,
              bool short_forms) {
  uint32_t address = row_of(h, row).entry.root;
  if (address == IDX_NONE) return 0;
  lock->emplace(h, address, mode);
  if (load_node(h, row, address, root, short_forms) < 0) {
    if (short_forms) M_msgno_out(MRV_MSG_INDEX_NODE_READ, "%d", errno);
    return -1;
  }
  return usable_root(*root) ? 1 : 0;
}

Target make_target(const IndexState* h, const uint8_t* key, int32_t key_length, const uint8_t* id, int32_t id_length) {
  return Target{index_key(h, key, key_length),
                std::string(reinterpret_cast<const char*>(id), static_cast<size_t>(std::max(id_length, 0)))};
}

// Splits `n` at (nkeys - 1) / 2: the left half keeps [0, s], the right the
// rest; `sep` receives a copy of the left half's last entry. A root's two
// halves both go to new nodes and the root becomes an internal node over
// them; another node keeps its left half at its address and its parent
// (written here) gets the separator before the entry at `position`.
int split(IndexState* h, Node* n, Node* parent, int position) {
  size_t s = (n->entries.size() - 1) / 2;
  Node left;
  Node right;
  left.head = n->head;
  right.head = n->head;
  left.head.is_root = right.head.is_root = 0;
  left.head.next = right.head.next = 0;
  left.entries.assign(n->entries.begin(), n->entries.begin() + static_cast<long>(s) + 1);
  right.entries.assign(n->entries.begin() + static_cast<long>(s) + 1, n->entries.end());
  ++h->splits;
  if (n->head.is_root) {
    if (place_node(h, &left) < 0 || place_node(h, &right) < 0) return -1;
    KeyEntry a;
    KeyEntry b;
    if (copy_entry(h, left.entries.back(), left.address, &a) < 0) return -1;
    if (copy_entry(h, right.entries.back(), right.address, &b) < 0) return -1;
    n->head.is_leaf = 0;
    n->entries = {a, b};
    return store_node(h, n);
  }
  if (place_node(h, &right) < 0) return -1;
  left.address = n->address;
  if (store_node(h, &left) < 0) return -1;
  KeyEntry sep;
  if (copy_entry(h, left.entries.back(), left.address, &sep) < 0) return -1;
  parent->entries[static_cast<size_t>(position)].child = right.address;
  parent->entries.insert(parent->entries.begin() + position, sep);
  return store_node(h, parent);
}

// A separator that removals have left above its child's greatest entry is
// brought down to that entry, or to the target when the target is greater,
// so that the bound holds once the target is in. 1 or -1.
int tighten_bound(IndexState* h, int row, Node* n, int i, const Node& child, const Target& t) {
  if (child.entries.empty()) return 1;
  KeyEntry& sep = n->entries[static_cast<size_t>(i)];
  const KeyEntry& greatest = child.entries.back();
  int above_target = 0;
  if (compare_entry(h, row, t, greatest, true, &above_target) < 0) return -1;
  std::string sep_key;
  std::string greatest_key;
  if (above_target > 0 || whole_key(h, sep, &sep_key) < 0 || whole_key(h, greatest, &greatest_key) < 0) return above_target > 0 ? 1 : -1;
  if (sep_key == greatest_key && sep.id == greatest.id) return 1;
  KeyEntry tight;
  if (copy_entry(h, greatest, sep.child, &tight) < 0) return -1;
  release_tail(h, sep);
  sep = tight;
  return store_node(h, n);
}

// The root's only child moves up into the root, which keeps its address.
int shrink_root(IndexState* h, int row, Node* root) {
  Node child;
  if (load_node(h, row, root->entries[0].child, &child, false) < 0) return -1;
  release_tail(h, root->entries[0]);
  root->head.is_leaf = child.head.is_leaf;
  root->entries = std::move(child.entries);
  if (store_node(h, root) < 0) return -1;
  ++h->merges;
  return M_free_node(h, child.address);
}

// Tries to merge `n` (entry `position` of `parent`) with a sibling: the
// left one first, then the right one. The merged node stays at n's
// address. 1 merged, 0 not, -1 failed.
int merge(IndexState* h, int row, Node* n, Node* parent, int* position) {
  int p = *position;
  for (int side = 0; side < 2; ++side) {
    bool with_left = side == 0;
    if (with_left ? p == 0 : p + 1 >= static_cast<int>(parent->entries.size())) continue;
    Node sibling;
    uint32_t sibling_address = parent->entries[static_cast<size_t>(with_left ? p - 1 : p + 1)].child;
    if (load_node(h, row, sibling_address, &sibling, false) < 0) return -1;
    Node& left = with_left ? sibling : *n;
    Node& right = with_left ? *n : sibling;
    if (free_bytes(h, left) <= used_bytes(h, right)) continue;
    Node merged;
    merged.head = n->head;
    merged.address = n->address;
    merged.entries = left.entries;
    merged.entries.insert(merged.entries.end(), right.entries.begin(), right.entries.end());
    if (free_bytes(h, merged) < 0) continue;
    if (store_node(h, &merged) < 0) return -1;
    // The parent loses the left node's separator; the right one's names
    // the merged node.
    int lost = with_left ? p - 1 : p;
    release_tail(h, parent->entries[static_cast<size_t>(lost)]);
    parent->entries.erase(parent->entries.begin() + lost);
    parent->entries[static_cast<size_t>(lost)].child = merged.address;
    if (store_node(h, parent) < 0) return -1;
    if (M_free_node(h, sibling.address) < 0) return -1;
    *n = std::move(merged);
    *position = lost;
    ++h->merges;
    return 1;
  }
  return 0;
}

// Every node address below `n` (not n itself), and, with `tails`, the
// release of every tail in the subtree including n's own entries.
int collect_subtree(IndexState* h, int row, const Node& n, bool tails, std::vector<uint32_t>* out, int depth) {
  if (depth > 64) {
    M_errout(0, "Index: tree deeper than 64 levels\n");
    return -1;
  }
  if (tails)
    for (const KeyEntry& e : n.entries) release_tail(h, e);
  if (n.head.is_leaf) return 1;
  for (const KeyEntry& e : n.entries) {
    Node child;
    if (load_node(h, row, e.child, &child, false) < 0) return -1;
    out->push_back(e.child);
    if (collect_subtree(h, row, child, tails, out, depth + 1) < 0) return -1;
  }
  return 1;
}

// In-order walk of the subtree of `n` from the bound; 1 go on, 0 stopped
// by the visitor, -1 failed.
int walk(IndexState* h, int row, const Node& n, const Target* from, bool strict,
         const std::function<int(const KeyEntry&, const std::string&)>& visit, int depth) {
  if (depth > 64) {
    M_errout(0, "Index: tree deeper than 64 levels\n");
    return -1;
  }
  size_t start = 0;
  if (from != nullptr) {
    int i = lower_bound_in(h, row, n, *from, false, strict && n.head.is_leaf);
    if (i < 0) return -1;
    start = static_cast<size_t>(i);
  }
  for (size_t i = start; i < n.entries.size(); ++i) {
    const KeyEntry& e = n.entries[i];
    if (n.head.is_leaf) {
      std::string key;
      if (whole_key(h, e, &key) < 0) return -1;
      if (visit(e, key) != 0) return 0;
      continue;
    }
    Node child;
    if (load_node(h, row, e.child, &child, true) < 0) {
      M_msgno_out(MRV_MSG_INDEX_NODE_READ, "%d", errno);
      return -1;
    }
    int r = walk(h, row, child, i == start ? from : nullptr, strict, visit, depth + 1);
    if (r <= 0) return r;
  }
  return 1;
}

// The last entry of the subtree of `n` below the target (inclusive: not
// above it). 1 found, 0 none, -1 failed.
int last_below(IndexState* h, int row, const Node& n, const Target& t, bool inclusive, SearchContext* out,
               int depth) {
  if (depth > 64) return -1;
  // Children up to the first bound above (or not below) the target.
  int i = lower_bound_in(h, row, n, t, false, inclusive);
  if (i < 0) return -1;
  if (n.head.is_leaf) {
    if (i == 0) return 0;
    const KeyEntry& e = n.entries[static_cast<size_t>(i - 1)];
    if (whole_key(h, e, &out->key) < 0) return -1;
    out->id = e.id;
    out->link = e.link;
    return 1;
  }
  int last = std::min(i, static_cast<int>(n.entries.size()) - 1);
  for (int j = last; j >= 0; --j) {
    Node child;
    if (load_node(h, row, n.entries[static_cast<size_t>(j)].child, &child, true) < 0) return -1;
    int r = last_below(h, row, child, t, inclusive, out, depth + 1);
    if (r != 0) return r;
  }
  return 0;
}

int check_subtree(IndexState* h, int row, const Node& n, const std::string* low, const std::string* low_id,
                  const KeyEntry* bound, int depth, std::vector<std::string>* findings, int* leaf_depth) {
  char text[256];
  auto finding = [&](const char* what) {
    std::snprintf(text, sizeof text, "index '%s': node %u: %s", row_of(h, row).entry.name, n.address, what);
    findings->push_back(text);
  };
  if (depth > 64) {
    finding("tree deeper than 64 levels");
    return -1;
  }
  std::string bound_key;
  if (bound != nullptr && whole_key(h, *bound, &bound_key) < 0) {
    finding("a separator's tail cannot be read");
    return -1;
  }
  std::string prev_key;
  std::string prev_id;
  bool have_prev = low != nullptr;
  if (have_prev) {
    prev_key = *low;
    prev_id = *low_id;
  }
  if (!n.head.is_root && n.entries.empty()) finding("empty node");
  char type = row_of(h, row).entry.key_type;
  for (size_t i = 0; i < n.entries.size(); ++i) {
    const KeyEntry& e = n.entries[i];
    std::string key;
    if (whole_key(h, e, &key) < 0) {
      finding("a tail cannot be read");
      return -1;
    }
    if (link_block(e.link) != 0 && e.key.size() != static_cast<size_t>(h->head.key_length))
      finding("an entry with a tail holds a short key");
    if (have_prev) {
      int c = M_index_compare(type, prev_key, key);
      if (c == 0) c = prev_id.compare(e.id);
      // Entries rise strictly; a child's first entry lies above the bound
      // before it.
      if (c >= 0) finding(i == 0 ? "entry not above the separator before the node" : "entries out of order");
    }
    if (bound != nullptr) {
      int c = M_index_compare(type, key, bound_key);
      if (c == 0) c = e.id.compare(bound->id);
      if (c > 0) finding("entry above its separator");
    }
    if (!n.head.is_leaf) {
      Node child;
      if (load_node(h, row, e.child, &child, false) < 0) {
        finding("child cannot be read");
        return -1;
      }
      if (child.head.is_root) finding("child marked as root");
      if (check_subtree(h, row, child, have_prev ? &prev_key : nullptr, have_prev ? &prev_id : nullptr, &e, depth + 1,
                        findings, leaf_depth) < 0)
        return -1;
    } else if (*leaf_depth < 0) {
      *leaf_depth = depth;
    } else if (*leaf_depth != depth) {
      finding("leaves at different depths");
    }
    prev_key = key;
    prev_id = e.id;
    have_prev = true;
  }
  if (n.head.is_leaf && n.entries.empty() && *leaf_depth < 0) *leaf_depth = depth;
  return 1;
}

// The neighbours of a new pair: an equal key before or after it sets the
// status 10. A failed look-up clears the status; the insert stands.
void set_dup_status(IndexState* h, int row, const Target& t) {
  Node root;
  M_Status = 0;
  if (load_node(h, row, row_of(h, row).entry.root, &root, true) < 0) {
    M_errout(0, "Index: DUP-status checking error while inserting an alternate key, errno = %d\n", errno);
    return;
  }
  int equal = 0;
  int w = walk(h, row, root, &t, false,
               [&](const KeyEntry&, const std::string& whole) {
                 if (M_index_compare(row_of(h, row).entry.key_type, whole, t.key) != 0) return 1;
                 return ++equal > 1 ? 1 : 0;
               },
               0);
  if (w < 0) {
    M_errout(0, "Index: DUP-status checking error while inserting an alternate key, errno = %d\n", errno);
    return;
  }
  if (equal > 1) M_Status = 10;
}

}  // namespace

void M_index_mark_to_build(REL_TYPE* rel) {
  IndexState* h = rel->index;
  if (h == nullptr) return;
  for (size_t row = 0; row < h->rows.size(); ++row)
    if (h->rows[row].entry.root != IDX_NONE) M_set_root_state(h, static_cast<int>(row), ROOT_TO_BUILD);
}

int M_index_compare(char key_type, const std::string& a, const std::string& b) {
  if (key_type == 'N') {
    // Numbers first, in numeric order; then other texts as bytes.
    auto number = [](const std::string& s, double* v) {
      if (s.empty()) return false;
      char* end = nullptr;
      *v = std::strtod(s.c_str(), &end);
      return end == s.c_str() + s.size() && std::isfinite(*v);
    };
    double x = 0;
    double y = 0;
    bool nx = number(a, &x);
    bool ny = number(b, &y);
    if (nx != ny) return nx ? -1 : 1;
    if (nx && x != y) return x < y ? -1 : 1;
  }
  size_t n = std::min(a.size(), b.size());
  int c = n == 0 ? 0 : std::memcmp(a.data(), b.data(), n);
  if (c != 0) return c;
  return a.size() < b.size() ? -1 : (a.size() > b.size() ? 1 : 0);
}

int M_find_key(IndexState* h, int row, int mode, const std::string& key, SearchContext* context) {
  *context = SearchContext{};
  if (mode < FIND_EQUAL || mode > FIND_AT_MOST) {
    M_msgno_out(MRV_MSG_INDEX_FIND_MODE, "%d", mode);
    return 0;
  }
  const IndexRow& r = row_of(h, row);
  std::optional<IndexRangeLock> lock;
  Node root;
  int usable = open_tree(h, row, LOCK_SHARED, &lock, &root, true);
  if (usable <= 0) return usable;
  Target t = make_target(h, reinterpret_cast<const uint8_t*>(key.data()), static_cast<int32_t>(key.size()), nullptr, 0);
  if (mode == FIND_LESS || mode == FIND_AT_MOST) {
    int found = last_below(h, row, root, t, mode == FIND_AT_MOST, context, 0);
    context->found = found == 1;
    return found;
  }
  int found = 0;
  int w = walk(h, row, root, &t, mode == FIND_GREATER,
               [&](const KeyEntry& e, const std::string& whole) {
                 int c = M_index_compare(r.entry.key_type, whole, t.key);
                 // Equal keys may fill several leaves: mode 2 passes them.
                 if (mode == FIND_GREATER && c <= 0) return 0;
                 if (mode == FIND_EQUAL && c != 0) return 1;
                 context->key = whole;
                 context->id = e.id;
                 context->link = e.link;
                 found = 1;
                 return 1;
               },
               0);
  if (w < 0) return -1;
  context->found = found;
  return found;
}

int M_index_walk(IndexState* h, int row, const std::string& from, bool all,
                 const std::function<int(const std::string& key, const std::string& id)>& visit) {
  std::optional<IndexRangeLock> lock;
  Node root;
  int usable = open_tree(h, row, LOCK_SHARED, &lock, &root, true);
  if (usable <= 0) return usable;
  Target t = make_target(h, reinterpret_cast<const uint8_t*>(from.data()), static_cast<int32_t>(from.size()), nullptr, 0);
  int w = walk(h, row, root, all ? nullptr : &t, false,
               [&](const KeyEntry& e, const std::string& whole) { return visit(whole, e.id); }, 0);
  return w < 0 ? -1 : 1;
}

int M_index_insert(IndexState* h, int row, const uint8_t* key, int32_t key_length, const uint8_t* id,
                   int32_t id_length) {
  const IndexRow& r = row_of(h, row);
  if (id_length < 0 || id_length > IDX_MAX_ID_LENGTH) {
    M_errout(0, "Index: invalid @ID length: %u\n", static_cast<uint32_t>(id_length));
    return -1;
  }
  Target t = make_target(h, key, key_length, id, id_length);
  if (t.key.empty() && (r.entry.option & IE_OPTION_SKIP_EMPTY) != 0) return 0;
  std::optional<IndexRangeLock> lock;
  Node n;
  int usable = open_tree(h, row, LOCK_EXCLUSIVE, &lock, &n, false);
  if (usable <= 0) return usable;
  Node parent;
  int position = 0;
  for (int depth = 0; depth < 64; ++depth) {
    if (full(h, n) && n.entries.size() >= 2) {
      if (n.head.is_root) {
        if (split(h, &n, nullptr, 0) < 0) return -1;
      } else {
        if (split(h, &n, &parent, position) < 0) return -1;
        // The left half kept the address; go on in the half for the target.
        int c = 0;
        if (compare_entry(h, row, t, parent.entries[static_cast<size_t>(position)], true, &c) < 0) return -1;
        if (c > 0) ++position;
        if (load_node(h, row, parent.entries[static_cast<size_t>(position)].child, &n, false) < 0) return -1;
      }
    }
    int i = lower_bound_in(h, row, n, t, true, false);
    if (i < 0) return -1;
    if (n.head.is_leaf) {
      if (i < static_cast<int>(n.entries.size())) {
        int c = 0;
        if (compare_entry(h, row, t, n.entries[static_cast<size_t>(i)], true, &c) < 0) return -1;
        if (c == 0) return 0;
      }
      KeyEntry e;
      if (make_entry(h, t, &e) < 0) return -1;
      n.entries.insert(n.entries.begin() + i, e);
      if (store_node(h, &n) < 0) return -1;
      if (M_index_dup_status != 0) set_dup_status(h, row, t);
      return 1;
    }
    if (i == static_cast<int>(n.entries.size())) {
      // Above every separator: the last one takes the new key.
      --i;
      KeyEntry e;
      if (make_entry(h, t, &e) < 0) return -1;
      e.child = n.entries[static_cast<size_t>(i)].child;
      release_tail(h, n.entries[static_cast<size_t>(i)]);
      n.entries[static_cast<size_t>(i)] = e;
      if (store_node(h, &n) < 0) return -1;
    }
    Node child;
    if (load_node(h, row, n.entries[static_cast<size_t>(i)].child, &child, false) < 0) return -1;
    if (tighten_bound(h, row, &n, i, child, t) < 0) return -1;
    parent = std::move(n);
    position = i;
    n = std::move(child);
  }
  M_errout(0, "Index: tree deeper than 64 levels\n");
  return -1;
}

int M_index_remove(IndexState* h, int row, const uint8_t* key, int32_t key_length, const uint8_t* id,
                   int32_t id_length) {
  const IndexRow& r = row_of(h, row);
  if (id_length < 0 || id_length > IDX_MAX_ID_LENGTH) return 0;
  Target t = make_target(h, key, key_length, id, id_length);
  if (t.key.empty() && (r.entry.option & IE_OPTION_SKIP_EMPTY) != 0) return 1;
  std::optional<IndexRangeLock> lock;
  Node n;
  int usable = open_tree(h, row, LOCK_EXCLUSIVE, &lock, &n, false);
  if (usable <= 0) return usable;
  // The path down, for the unlinking of nodes left empty.
  std::vector<std::pair<Node, int>> path;
  for (int depth = 0; depth < 64; ++depth) {
    if (!n.head.is_root) {
      Node& parent = path.back().first;
      int& position = path.back().second;
      int32_t area = static_cast<int32_t>(h->node_size - ND_KEYS);
      if (used_bytes(h, n) * 100 / area < 30 && merge(h, row, &n, &parent, &position) < 0) return -1;
      if (parent.head.is_root && parent.entries.size() == 1) {
        if (shrink_root(h, row, &parent) < 0) return -1;
        n = parent;
        path.pop_back();
      }
    }
    int i = lower_bound_in(h, row, n, t, true, false);
    if (i < 0) return -1;
    if (i == static_cast<int>(n.entries.size())) return 0;
    if (n.head.is_leaf) {
      int c = 0;
      if (compare_entry(h, row, t, n.entries[static_cast<size_t>(i)], true, &c) < 0) return -1;
      if (c != 0) return 0;
      release_tail(h, n.entries[static_cast<size_t>(i)]);
      n.entries.erase(n.entries.begin() + i);
      if (store_node(h, &n) < 0) return -1;
      // A node left empty leaves its parent, up the path.
      while (n.entries.empty() && !path.empty()) {
        Node& parent = path.back().first;
        int position = path.back().second;
        release_tail(h, parent.entries[static_cast<size_t>(position)]);
        parent.entries.erase(parent.entries.begin() + position);
        if (M_free_node(h, n.address) < 0) return -1;
        if (parent.head.is_root && parent.entries.empty()) parent.head.is_leaf = 1;
        if (store_node(h, &parent) < 0) return -1;
        n = parent;
        path.pop_back();
      }
      Node root;
      if (load_node(h, row, r.entry.root, &root, false) < 0) return -1;
      while (!root.head.is_leaf && root.entries.size() == 1)
        if (shrink_root(h, row, &root) < 0) return -1;
      return 1;
    }
    path.emplace_back(n, i);
    if (load_node(h, row, n.entries[static_cast<size_t>(i)].child, &n, false) < 0) return -1;
  }
  M_errout(0, "Index: tree deeper than 64 levels\n");
  return -1;
}

int M_clear_index(IndexState* h, int row, int reset_flag) {
  const IndexRow& r = row_of(h, row);
  if (r.entry.field_type == 'S' || r.entry.root == IDX_NONE) return 1;
  IndexRangeLock lock(h, r.entry.root, LOCK_EXCLUSIVE);
  Node root;
  if (load_node(h, row, r.entry.root, &root, false) < 0) return -1;
  std::vector<uint32_t> nodes;
  if (collect_subtree(h, row, root, true, &nodes, 0) < 0) return -1;
  for (uint32_t a : nodes)
    if (M_free_node(h, a) < 0) return -1;
  int32_t next = root.head.next;
  if (reset_flag == 1)
    next = ROOT_RESET;
  else if (reset_flag != 0)
    next = ROOT_TO_BUILD;
  else if (next != ROOT_TO_BUILD && next != ROOT_RESET)
    next = 0;
  std::vector<uint8_t> buffer(h->node_size);
  init_empty_node(buffer.data(), h->node_size, r.idx_no, true, next);
  return M_idx_write(h, r.entry.root, buffer.data(), h->node_size) < 0 ? -1 : 1;
}

int M_set_root_state(IndexState* h, int row, int32_t next) {
  const IndexRow& r = row_of(h, row);
  Node root;
  if (load_node(h, row, r.entry.root, &root, false) < 0) return -1;
  root.head.next = next;
  return store_node(h, &root);
}

std::vector<std::string> M_check_index(IndexState* h) {
  std::vector<std::string> findings;
  for (size_t row = 0; row < h->rows.size(); ++row) {
    const IndexRow& r = h->rows[row];
    if (r.entry.field_type == 'S' || r.entry.root == IDX_NONE) continue;
    Node root;
    if (load_node(h, static_cast<int>(row), r.entry.root, &root, false) < 0) {
      findings.push_back(std::string("index '") + r.entry.name + "': root cannot be read");
      continue;
    }
    int leaf_depth = -1;
    check_subtree(h, static_cast<int>(row), root, nullptr, nullptr, nullptr, 0, &findings, &leaf_depth);
  }
  return findings;
}

int M_index_load_sorted(IndexState* h, int row,
                        const std::function<int(std::string* key, std::string* id)>& next_descending) {
  const IndexRow& r = row_of(h, row);
  if (r.entry.root == IDX_NONE) return -1;
  IndexRangeLock lock(h, r.entry.root, LOCK_EXCLUSIVE);
  Node root;
  if (load_node(h, row, r.entry.root, &root, false) < 0) return -1;
  if (!root.entries.empty() || !root.head.is_leaf) {
    M_errout(0, "Index: index '%s' must be empty before a sorted load\n", r.entry.name);
    return -1;
  }
  // Nodes are filled from the greatest entry down, level by level; a full
  // node goes out and its greatest entry, copied, joins the level above.
  // Sizes are counted uncompressed, an upper bound of a compressed leaf.
  struct Level {
    std::vector<KeyEntry> pending;  // descending
    int32_t bytes = 0;
    uint64_t written = 0;
  };
  std::vector<Level> levels(1);
  int32_t area = static_cast<int32_t>(h->node_size - ND_KEYS);
  auto entry_bytes = [](const KeyEntry& e, bool leaf) {
    return 2 + static_cast<int32_t>(e.key.size()) + 5 + static_cast<int32_t>(e.id.size()) + (leaf ? 0 : 4);
  };
  auto limit = [&](size_t level) {
    return area - (level == 0 ? leaf_full_below(h->head.key_length) : internal_full_below(h->head.key_length));
  };
  std::function<int(size_t, KeyEntry)> add;
  auto flush = [&](size_t level) -> int {
    Level& l = levels[level];
    Node n;
    n.head = NodeHead{0, r.idx_no, 0, static_cast<uint8_t>(level == 0 ? 1 : 0), 0, 0};
    n.entries.assign(l.pending.rbegin(), l.pending.rend());
    if (place_node(h, &n) < 0) return -1;
    KeyEntry sep;
    if (copy_entry(h, n.entries.back(), n.address, &sep) < 0) return -1;
    l.pending.clear();
    l.bytes = 0;
    ++l.written;
    if (levels.size() <= level + 1) levels.emplace_back();
    return add(level + 1, std::move(sep));
  };
  add = [&](size_t level, KeyEntry e) -> int {
    if (level >= 64) return -1;
    int32_t size = entry_bytes(e, level == 0);
    if (!levels[level].pending.empty() && levels[level].bytes + size > std::max(limit(level), size)) {
      if (flush(level) < 0) return -1;
    }
    levels[level].bytes += size;
    levels[level].pending.push_back(std::move(e));
    return 1;
  };
  std::string key;
  std::string id;
  std::string last_key;
  std::string last_id;
  bool first = true;
  for (;;) {
    int got = next_descending(&key, &id);
    if (got < 0) return -1;
    if (got == 0) break;
    Target t{index_key(h, reinterpret_cast<const uint8_t*>(key.data()), static_cast<int32_t>(key.size())), id};
    if (t.key.empty() && (r.entry.option & IE_OPTION_SKIP_EMPTY) != 0) continue;
    if (!first) {
      int c = M_index_compare(r.entry.key_type, t.key, last_key);
      if (c == 0) c = t.id.compare(last_id);
      if (c == 0) continue;
      if (c > 0) {
        M_errout(0, "Index: sorted keys out of order for index '%s'\n", r.entry.name);
        return -1;
      }
    }
    first = false;
    last_key = t.key;
    last_id = t.id;
    KeyEntry e;
    if (make_entry(h, t, &e) < 0 || add(0, std::move(e)) < 0) return -1;
  }
  // The lowest level that never sent a node up holds the root's entries.
  for (size_t level = 0; level < levels.size(); ++level) {
    if (levels[level].written == 0 && level + 1 == levels.size()) {
      root.head.is_leaf = level == 0 ? 1 : 0;
      root.head.next = 0;
      root.entries.assign(levels[level].pending.rbegin(), levels[level].pending.rend());
      return store_node(h, &root);
    }
    if (!levels[level].pending.empty() && flush(level) < 0) return -1;
    if (levels.size() == level + 1) levels.emplace_back();
  }
  return -1;
}
