// Locks of the file library.
//
// Byte-range locks guard blocks and groups between processes; they are
// fcntl record locks through NT_fcntl. A block lock is the one byte at the
// block's offset in its part file, so the locks of different blocks never
// overlap whatever the block size. Note that a process loses every record
// lock it holds on a file when it closes any descriptor of that file; that is
// why a part with locks is never closed to free a descriptor.
//
// Named locks (M_LLM_Lock) and the process-level group lock (UPL) belong to
// a lock manager shared by all processes. This build runs one process at a
// time, so the manager grants every request at once; it still keeps the
// names held, so that a release of a name not held is reported.
#pragma once

#include <cstdint>
#include <string>

struct REL_TYPE;

// No lock: the memory-buffered writer holds the whole file; to
// M_idx_lockf, the release of the lock.
inline constexpr int32_t LOCK_NONE = 0;
inline constexpr int32_t LOCK_SHARED = 1;
inline constexpr int32_t LOCK_EXCLUSIVE = 2;
// OR-ed into a mode: fail at once instead of waiting.
inline constexpr int32_t LOCK_NOWAIT = 0x100;

// Byte-range lock of `length` bytes at `start`; 0 or -1 with errno.
int M_mrvlockf(int fd, int32_t mode, uint32_t start, uint32_t length);
int M_mrvunlock(int fd, uint32_t start, uint32_t length);

// Lock of one block (BLOCK_ADDRESS) of an open file; the part's lock count
// keeps its descriptor from being closed meanwhile. 0 or -1.
int M_lock_block(REL_TYPE* rel, uint32_t address, int32_t mode);
int M_unlock_block(REL_TYPE* rel, uint32_t address);
// The whole-file lock: the static file, or dat001, from byte 0 to the end.
// Block locks of this process inside it are merged into it, so none are
// taken while it is held: M_lock_block of a mode the file lock covers, and
// every M_unlock_block, do nothing then. A reader that holds the file
// shared reads without a lock call per record. 0 or -1.
int M_lock_file(REL_TYPE* rel, int32_t mode);
int M_unlock_file(REL_TYPE* rel);

// The lock of one block, held from take() to release() or to the end of the
// scope, whichever comes first. A function that must end the lock before a
// later step (an error report that closes the file's descriptors, say)
// calls release() there; one that hands the lock on to a later call calls
// keep(). Not copyable: the lock must end exactly once.
class BlockLock {
 public:
  explicit BlockLock(REL_TYPE* rel) : rel_(rel) {}
  ~BlockLock() { release(); }
  BlockLock(const BlockLock&) = delete;
  BlockLock& operator=(const BlockLock&) = delete;
  // M_lock_block; false, with nothing held, when it fails.
  // REQUIRES: no lock is held by this guard.
  bool take(uint32_t address, int32_t mode);
  // M_unlock_block of the lock held: its result, or 0 when none is held.
  int release();
  // The lock outlives the guard; whoever was told of it ends it.
  void keep() { held_ = false; }
  bool held() const { return held_; }

 private:
  REL_TYPE* rel_;
  uint32_t address_ = 0;
  bool held_ = false;
};

// Results of the lock manager.
inline constexpr int32_t LLM_GRANTED = 0;
inline constexpr int32_t LLM_DEADLOCK = 2;
inline constexpr int32_t LLM_HELD = 0x200000;
inline constexpr int32_t LLM_SYSTEM_FAILURE = 0x200002;
inline constexpr size_t LLM_TEXT_LIMIT = 127;

struct LockStatistics {
  uint32_t lock_calls = 0;
  uint32_t release_calls = 0;
  uint32_t semaphore_locks = 0;
  uint32_t semaphore_releases = 0;
};
extern LockStatistics M_lock_stats;
// 1 when LOCKFIFO asked for first-come-first-served granting.
extern int32_t M_lock_fifo;

// A named lock: resource text `kind` (such as "semaphore") and a key text,
// both cut at 127 characters, on the file of `file_id` (inode, device).
// 0 granted, 1 held by another owner.
int M_LLM_Lock(const char* kind, const uint32_t file_id[2], const char* key, int32_t function,
               int32_t wait, int32_t owner, int32_t kind_length, int32_t key_length);
// 0 released; -1 with "M_LLM_Release error %d.\n" when the name is not held.
int M_LLM_Release(const char* kind, const uint32_t file_id[2], const char* key, int32_t owner,
                  int32_t kind_length, int32_t key_length);
// Whether this process holds the name (statistics and tests).
bool M_LLM_held(const char* kind, const uint32_t file_id[2], const char* key, int32_t kind_length,
                int32_t key_length);

// The process-level lock of a dynamic file's group.
int M_upl_lock(const REL_TYPE* rel, uint32_t group, int32_t mode);
int M_upl_unlock(const REL_TYPE* rel, uint32_t group);

// Reads LOCKFIFO: exactly 1 sets M_lock_fifo.
void M_check_lock_config();

// Lock of an index file's version word, at offset 0 of the index part.
int M_idx_lockf(int fd, int32_t mode);
