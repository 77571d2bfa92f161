// Group heads of a new file, and heads left to the file's loader.
//
// A new file's primary space is one head block per group, each a fixed
// image of the layout (block size, hash type, time stamp, group number and,
// in a spread layout, its overflow part). M_initfile writes them all when it
// lays the file out. A restore then reads every one of them back and writes
// it again with its records: the whole primary space passes through the
// disk twice.
//
// A file laid out with its heads left to the loader gets only its header
// blocks and its full length (a hole where the heads belong); the layout is
// kept in a process-wide list, with descriptors of its primary parts. The
// memory-buffered writer that loads the file takes the layout over: a head
// it asks for that is not yet on disk is made in memory, and when the writer
// ends, every head it did not write is written. The bytes on disk at the end
// are those of a file laid out whole. What nobody took over is written at
// the process's exit, so no file is left with holes by a run that ends
// normally; a run killed while it loads a file leaves that file incomplete,
// as it would be with its heads in place.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "NT/NT_utils.h"

struct REL_TYPE;

// What a group's empty head block is made of.
struct HeadLayout {
  uint32_t block_size = 0;
  int16_t hashtype = 0;
  uint32_t stamp = 0;
  int32_t spread = 0;           // 0 none, 1 per part, n > 1 over n-1 parts
  int32_t groups_per_part = 1;  // groups of one primary part
  int32_t modulo = 0;
};

// The empty head block of group `g` (0-based) into `out` (block_size bytes).
void head_block(const HeadLayout& layout, int32_t g, uint8_t* out);
// Where group g's head lies: primary part index and byte offset in it.
inline uint32_t head_part(const HeadLayout& layout, int32_t g) {
  return static_cast<uint32_t>(g / layout.groups_per_part);
}
inline uint32_t head_offset(const HeadLayout& layout, int32_t g) {
  return static_cast<uint32_t>(g % layout.groups_per_part + 1) * layout.block_size;
}
// The group whose head lies at `offset` of primary part `part`, or -1 when
// no head lies there.
inline int32_t head_group(const HeadLayout& layout, uint32_t part, uint32_t offset) {
  if (offset < layout.block_size) return -1;
  const int64_t g = static_cast<int64_t>(part) * layout.groups_per_part + offset / layout.block_size - 1;
  return g < layout.modulo ? static_cast<int32_t>(g) : -1;
}
// Heads are written in runs of consecutive groups of one part, each run at
// most this many groups: the end of the run that starts at `first` when
// the groups up to `end` (exclusive) are to be written.
int32_t head_run_end(const HeadLayout& layout, int32_t first, int32_t end);
// Makes the heads of groups [first, end), all of one primary part, and
// writes them into that part (`fd`) in one call. `scratch` holds them. 0 or
// -1.
int M_write_head_run(const HeadLayout& layout, int fd, int32_t first, int32_t end, std::vector<uint8_t>* scratch);

// A laid-out file whose heads are not all on disk.
struct PendingHeads {
  HeadLayout layout;
  std::vector<ScopedFd> parts;  // primary parts, by index
  dev_t device = 0;             // of part 0: the file's identity
  ino_t inode = 0;
  pid_t owner = 0;              // the process that laid it out
  std::vector<uint8_t> done;    // per group: its head is on disk or in a writer's pool
};

// Set by a caller that loads the next data file it makes through the
// memory-buffered writer at once: M_initfile then leaves the heads of that
// file to the writer. Cleared by M_initfile.
extern bool M_heads_to_loader;

// Keeps a layout whose heads were left out; `parts` are descriptors of its
// primary parts (the list owns them).
void M_heads_pending_add(const HeadLayout& layout, std::vector<ScopedFd> parts);
// The pending layout of the file that `fd` (its part 0) belongs to, for a
// writer to take over; nullptr when it has none.
PendingHeads* M_heads_take(int fd);
// Writes every head not yet done, closes the layout's descriptors and drops
// it from the list. -1 when a write failed: the heads not written stay
// pending, for the next writer of the file or the exit.
int M_heads_write_rest(PendingHeads* pending);
// Drops a layout without writing: its file is being removed.
void M_heads_forget(PendingHeads* pending);
// Layouts still pending (tests).
size_t M_heads_pending_count();
