// Memory pools of the file library.
//
// A pool is a table of 48 growable buffers that can be let go of as a whole.
// Slot 0 of every pool is permanent: it is made with the pool, holds
// avg_tuple_size bytes, and survives M_reset_pool. Pool 0 is the process's
// own and lives as long as the process. This build has no shared memory:
// buffers come from the heap in multiples of 512 bytes, and sizes are
// reckoned in units of block_unit (1024) bytes.
#pragma once

#include <cstdint>

struct MEM_DESC {
  uint8_t in_use = 0;
  uint8_t flags = 0;
  uint8_t segment = 0;  // 0: the heap
  uint32_t size = 0;    // bytes available
  uint32_t used = 0;    // bytes of data
  char* data = nullptr;
};

inline constexpr int32_t POOL_SLOTS = 48;
inline constexpr int32_t POOL_COUNT = 9;

struct MemSizes {
  uint32_t block_unit = 1024;
  uint32_t avg_tuple_size = 0;
  uint32_t expand_block_size = 0;
};
extern MemSizes M_mem_sizes;

// Start-up: sizes, then pool 0 with its slot 0.
void M_init_pools();
// Sets the unit figures from AVG_TUPLE_LEN and EXPBLKSIZE.
void M_init_mem_sizes();
void M_init_mempool();
// First free pool 1..8, selected and set up; -1 when all are taken.
int M_new_pool();
// 0..7; -1 otherwise. Saves the current buffer of the old pool.
int M_select_pool(int number);
// The buffer the current pool's work is on; cleared by M_reset_pool.
extern MEM_DESC* M_current_buffer;

// A buffer of at least `size` bytes from the current pool; the run ends
// (status 1) when the pool's 48 slots are taken or memory is short.
MEM_DESC* M_alloc_buffer(uint32_t size);
MEM_DESC* M_alloc_buffer_contig(uint32_t size);
// Misuse (a foreign or free descriptor) prints message 30147 and does nothing.
void M_free_buffer(MEM_DESC* desc);
// Makes room for `needed` bytes, keeping `used` bytes and a closing NUL.
void M_grow_buffer(MEM_DESC* desc, uint32_t needed);
void M_shrink_buffer(MEM_DESC* desc);
void M_swap_buffer(MEM_DESC* a, MEM_DESC* b);
// Frees slots 1..47; slot 0 and its contents stay.
void M_reset_pool();
void M_free_pool_memory();
// Slots of the current pool in use (tests and statistics).
int32_t M_pool_count();
