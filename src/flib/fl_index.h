// Alternate key indexes of a hashed file.
//
// All indexes of a file share its index file (fl_idxfmt.h): a master head,
// index entries, bucket chains for the tails of long keys, and one B-tree
// per index whose entries are (key, @ID) pairs in ascending order of the key
// and then of the @ID. A key compares as bytes ('T') or, for key type 'N',
// as a number when it reads as one (numbers first, then other texts as
// bytes).
//
// Invariants of a tree:
//  1. An internal entry's key is an upper bound of its child's subtree and
//     lies below every entry of the next child. A split makes the bound the
//     left half's greatest entry, an insert above every bound raises the
//     last one to the new key, and a removal may leave a bound loose (a
//     search never minds) until an insert passing through brings it down to
//     the child's greatest entry again.
//  2. Changes go from the root down: a full node is split before the
//     descent enters it, a thin node merged with a sibling, so that no split
//     climbs back up. The root never moves; when it splits both halves go to
//     new nodes, and when it is left with one child the child moves up.
//  3. Every entry that keeps a long key's tail in a bucket owns that tail: a
//     separator copied from an entry stores its own copy, and whoever drops
//     an entry releases its tail.
// Head, entry blocks and free lists change under the version lock of their
// part (4 bytes at offset 0 of block 0).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "flib/fl_idxfmt.h"

struct REL_TYPE;

// The open index file of a hashed file (REL_TYPE::index).
struct IndexRow {
  IndexEntry entry;
  uint32_t entry_block = 0;   // block that holds the entry
  uint32_t entry_offset = 0;  // its offset in that block
  uint32_t ordinal = 0;       // 1-based place in the entry list
  uint16_t idx_no = 0;        // slot of the slot map, carried by its nodes
};

// The open index of a hashed file; it owns the descriptors of its parts,
// which close with it. Not copyable: a copy would close them twice.
struct IndexState {
  IndexState() = default;
  ~IndexState();
  IndexState(const IndexState&) = delete;
  IndexState& operator=(const IndexState&) = delete;

  std::string data_path;          // the hashed file
  std::vector<int> part_fds;      // part n of a large index; [0] is idx001
  IndexHead head;                 // block 0 of idx001 as last read
  uint32_t node_size = 0;
  std::vector<IndexRow> rows;     // live entries in list order
  bool writable = false;
  // Build statistics of the process.
  uint64_t splits = 0;
  uint64_t merges = 0;
  uint64_t nodes_taken = 0;
  uint64_t nodes_freed = 0;
  uint64_t reads = 0;
  uint64_t writes = 0;
};

// Settings of a new index file.
struct IndexFileOptions {
  int32_t version = IDX_VERSION_PLAIN;
  int32_t block_code = 3;  // (n+1) KiB
  int32_t key_length = 64;
  int32_t ov_modulo = 1;
  int32_t ov_hash_type = 0;
  bool large = false;
};

// Names of the index files: part n (0 = idx001) and the update log.
// Dynamic file DIR: DIR/idx001, DIR/idx002, ..., DIR/xlog001. Static file
// D/NAME: D/idxNAME, D/idxNAME002, ..., D/xlogNAME.
std::string M_index_path(const std::string& data_path, bool dynamic, int part);
std::string M_xlog_path(const std::string& data_path, bool dynamic);

// Opens the index file of an open hashed file into rel->index. 1 opened,
// 0 there is none, -1 damaged or unreadable (reported).
int M_open_index(REL_TYPE* rel);
void M_close_index(REL_TYPE* rel);
// Makes a new, empty index file for `rel` and opens it. 1 or -1.
int M_create_index_file(REL_TYPE* rel, const IndexFileOptions& options);
// Adds `delta` to the index count of the hashed file's header, under the
// lock of its block 0. 0 or -1.
int M_ndx_updhdr(REL_TYPE* rel, int32_t delta);
// Sets the index count of the hashed file's header. 0 or -1.
int M_ndx_sethdr(REL_TYPE* rel, int32_t count);
// The index count of the hashed file's header, or -1.
int32_t M_ndx_gethdr(REL_TYPE* rel);

// The version lock of a part (4 bytes at offset 0 of its block 0), held
// for the life of the guard; a failure is reported and held() is false.
class IndexVersionLock {
 public:
  IndexVersionLock(IndexState* h, uint32_t part);
  ~IndexVersionLock();
  IndexVersionLock(const IndexVersionLock&) = delete;
  IndexVersionLock& operator=(const IndexVersionLock&) = delete;
  bool held() const { return fd_ >= 0; }

 private:
  int fd_;
};
// A lock on the 4 bytes at `address` (a node or block of any part), held
// for the life of the guard; a failure is reported (message 110084) and
// leaves nothing to release.
class IndexRangeLock {
 public:
  IndexRangeLock(IndexState* h, uint32_t address, int32_t mode);
  ~IndexRangeLock();
  IndexRangeLock(const IndexRangeLock&) = delete;
  IndexRangeLock& operator=(const IndexRangeLock&) = delete;

 private:
  int fd_ = -1;
  uint32_t offset_ = 0;
};
// The master head of a part: read (idx001's copy in h->head is refreshed)
// and written. 0 or -1.
int M_idx_read_head(IndexState* h, uint32_t part, IndexHead* head);
int M_idx_write_head(IndexState* h, uint32_t part, const IndexHead& head);

// Adds an index entry (and, unless the type is 'S', an empty root: a root
// to be built later when `build_later`). `virtual_field` is the compiled
// text of a 'V' or 'I' field, kept in the bucket chain of block 1.
// 1 added, 0 already there, -1 failed.
int M_add_index(REL_TYPE* rel, const char* name, char field_type, char value_type, char key_type, uint8_t option,
                int32_t location, const char* virtual_field, bool build_later);
// Looks for an entry equal to `entry` (same name, or 'D'/'S' with the same
// location) and the first free entry slot. 1 found (its ordinal in
// *ordinal_out), 0 not found; *slot_out is the free slot's ordinal.
int M_find_entry_slot(IndexState* h, const IndexEntry& entry, uint32_t* slot_out, uint32_t* ordinal_out);
// Removes an index: its tree's nodes are freed and its entry marked
// deleted. 1 dropped, 0 no such index, -1 failed.
int M_drop_index(REL_TYPE* rel, const char* name);
// Row of the index called `name`, or -1.
int M_index_row(const IndexState* h, const char* name);

// The search modes.
inline constexpr int FIND_EQUAL = 1;
inline constexpr int FIND_GREATER = 2;
inline constexpr int FIND_AT_LEAST = 3;
inline constexpr int FIND_LESS = 4;
inline constexpr int FIND_AT_MOST = 5;

struct SearchContext {
  int found = 0;
  std::string key;  // the whole key, tail included
  std::string id;
  uint32_t link = 0;
};
// Searches index row `row` for `key` in `mode`. 1 found (the entry in
// *context), 0 none or the index is not usable (a root still to be built),
// -1 failed.
int M_find_key(IndexState* h, int row, int mode, const std::string& key, SearchContext* context);

// Adds (key, id) to index row `row`. 1 added, 0 not indexed (an empty key
// with option bit 0, an index to be built, or the pair already there), -1
// failed.
int M_index_insert(IndexState* h, int row, const uint8_t* key, int32_t key_length, const uint8_t* id,
                   int32_t id_length);
// Removes (key, id). 1 removed, 0 absent, -1 failed.
int M_index_remove(IndexState* h, int row, const uint8_t* key, int32_t key_length, const uint8_t* id,
                   int32_t id_length);
// Calls `visit` with each entry of index row `row` in order, starting at
// the first key not below `from` (all with an empty `from` and `all`). A
// non-zero result of `visit` ends the walk. 1 walked, 0 the index is not
// usable, -1 failed.
int M_index_walk(IndexState* h, int row, const std::string& from, bool all,
                 const std::function<int(const std::string& key, const std::string& id)>& visit);

// Empties one tree: all nodes below the root go to the free list and the
// root becomes an empty leaf. reset_flag 1 marks it reset (next -2), 2
// marks it to be built (-1); 0 keeps a -1 or -2 and sets anything else to
// 0. 1 or -1.
int M_clear_index(IndexState* h, int row, int reset_flag);
// Fills the empty tree of index row `row` from pairs that
// `next_descending` gives in descending order (1 a pair, 0 the end, -1
// failed); repeats are dropped. The root keeps its address and becomes
// usable. 1 or -1.
int M_index_load_sorted(IndexState* h, int row,
                        const std::function<int(std::string* key, std::string* id)>& next_descending);
// Sets the `next` word of a root: 0 usable, -1 to be built, -2 reset.
int M_set_root_state(IndexState* h, int row, int32_t next);
// Marks every tree of the file's index (if open) to be built: a writer
// that bypasses the index (the memory-buffered load) calls this first, so
// that no search answers from a tree the load has left behind.
void M_index_mark_to_build(REL_TYPE* rel);
// When set, an insert sets M_Status to 10 if the index already held an
// equal key (with another @ID), and to 0 otherwise.
extern int32_t M_index_dup_status;
// Resets the index files of a hashed file that has just been cleared:
// xlog001 goes, every tree is emptied (staying usable), the buckets are
// reset, and the file header's index count is set to the live indexes
// again (the clear rewrote the header). `rel` is the cleared file, open;
// its index need not be open. *count_out receives the number of indexes.
// 1 done, 0 the file has no index file, -1 failed.
int M_clear_all_indexes(REL_TYPE* rel, int32_t* count_out);

// Takes a node, writes `buffer` into it; its address or IDX_NONE.
uint32_t M_get_node(IndexState* h, const uint8_t* buffer);
// Returns a node to its part's free list. 0 or -1.
int M_free_node(IndexState* h, uint32_t address);

// Block access of the index file; the count of bytes or -1.
int M_idx_read(IndexState* h, uint32_t address, uint8_t* buffer, uint32_t length);
int M_idx_write(IndexState* h, uint32_t address, const uint8_t* buffer, uint32_t length);

// Structural check of every tree: node heads, entry order, bounds of the
// separators, and that each tail can be read. The findings, one a line;
// empty when sound.
std::vector<std::string> M_check_index(IndexState* h);

// Key order of an index: negative, 0 or positive, as for memcmp.
int M_index_compare(char key_type, const std::string& a, const std::string& b);
