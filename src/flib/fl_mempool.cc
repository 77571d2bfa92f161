#include "flib/fl_mempool.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "common/fl_errout.h"
#include "common/mrv_alloc.h"
#include "common/mrv_exit.h"
#include "common/mrv_msg.h"
#include "common/mrv_msgno.h"
#include "common/readconf.h"

MemSizes M_mem_sizes;
MEM_DESC* M_current_buffer = nullptr;

namespace {

constexpr uint32_t kHeapGranule = 512;
constexpr uint32_t kPageSize = 65536;

struct Pool {
  MEM_DESC desc[POOL_SLOTS];
  int32_t count = 0;
  MEM_DESC* saved_current = nullptr;
  bool taken = false;
};

Pool g_pools[POOL_COUNT];
int g_current = 0;

Pool& current_pool() { return g_pools[g_current]; }

uint32_t unit_rounded(uint32_t size) {
  uint32_t unit = M_mem_sizes.block_unit;
  return unit * (size / unit + 1);
}

// Memory from the heap, in multiples of 512 bytes; a failure ends the run.
char* heap_alloc(uint32_t size) {
  uint32_t rounded = (size + kHeapGranule - 1) / kHeapGranule * kHeapGranule;
  auto* p = static_cast<char*>(mrv_malloc(rounded));
  if (p == nullptr) {
    M_errmsg(MRV_ERR_NO_MEMORY, "Malloc %d bytes failed.\n", static_cast<int>(rounded));
    MRV_EXIT(0);
  }
  return p;
}

MEM_DESC* take_slot(uint32_t size) {
  Pool& pool = current_pool();
  for (auto& d : pool.desc) {
    if (d.in_use) continue;
    d = MEM_DESC{};
    d.in_use = 1;
    d.size = unit_rounded(size);
    d.data = heap_alloc(d.size);
    ++pool.count;
    return &d;
  }
  M_msgno_out(MRV_MSG_POOL_FULL, "");
  MRV_EXIT(1);
}

bool in_current_pool(const MEM_DESC* desc) {
  const Pool& pool = current_pool();
  return desc >= pool.desc && desc < pool.desc + POOL_SLOTS;
}

void release(MEM_DESC* d) {
  mrv_free(d->data);
  *d = MEM_DESC{};
}

void set_up_pool(int number) {
  Pool& pool = g_pools[number];
  for (auto& d : pool.desc)
    if (d.data != nullptr) release(&d);
  pool.count = 0;
  pool.saved_current = nullptr;
  pool.taken = true;
  int previous = g_current;
  g_current = number;
  take_slot(M_mem_sizes.avg_tuple_size);
  g_current = previous;
}

uint32_t size_setting(const char* name) {
  uint32_t unit = M_mem_sizes.block_unit;
  int32_t v = M_cfg_memory_setting(name);
  return v > 0 ? unit * static_cast<uint32_t>(v) : unit * (kPageSize / unit / 4 + 1);
}

}  // namespace

void M_init_mem_sizes() {
  M_mem_sizes.block_unit = 1024;
  M_mem_sizes.avg_tuple_size = size_setting("AVG_TUPLE_LEN");
  M_mem_sizes.expand_block_size = size_setting("EXPBLKSIZE");
}

void M_init_mempool() {
  for (int i = 1; i < POOL_COUNT; ++i) g_pools[i].taken = false;
  set_up_pool(0);
  g_current = 0;
  M_current_buffer = nullptr;
}

void M_init_pools() {
  M_init_mem_sizes();
  M_init_mempool();
}

int M_new_pool() {
  for (int i = 1; i < POOL_COUNT; ++i) {
    if (g_pools[i].taken) continue;
    set_up_pool(i);
    M_select_pool(i);
    return i;
  }
  return -1;
}

int M_select_pool(int number) {
  if (number < 0 || number > 7) return -1;
  current_pool().saved_current = M_current_buffer;
  g_current = number;
  M_current_buffer = current_pool().saved_current;
  return 0;
}

MEM_DESC* M_alloc_buffer(uint32_t size) { return take_slot(size); }

// The heap gives every allocation in one piece.
MEM_DESC* M_alloc_buffer_contig(uint32_t size) { return take_slot(size); }

void M_free_buffer(MEM_DESC* desc) {
  if (desc == nullptr || !in_current_pool(desc) || !desc->in_use) {
    M_msgno_out(MRV_MSG_BAD_FREE, "");
    return;
  }
  if (M_current_buffer == desc) M_current_buffer = nullptr;
  release(desc);
  --current_pool().count;
}

void M_grow_buffer(MEM_DESC* desc, uint32_t needed) {
  if (needed < desc->size) return;
  uint32_t size = unit_rounded(needed);
  char* data = heap_alloc(size);
  uint32_t keep = std::min(desc->used, size - 1);
  if (desc->data != nullptr) std::memcpy(data, desc->data, keep);
  data[keep] = '\0';
  mrv_free(desc->data);
  desc->data = data;
  desc->size = size;
}

void M_shrink_buffer(MEM_DESC* desc) {
  uint32_t avg = M_mem_sizes.avg_tuple_size;
  if (desc->size <= avg || desc->size - desc->used <= M_mem_sizes.block_unit) return;
  uint32_t size = std::max(avg, desc->used + 1);
  char* data = heap_alloc(size);
  std::memcpy(data, desc->data, desc->used);
  data[desc->used] = '\0';
  mrv_free(desc->data);
  desc->data = data;
  desc->size = size;
}

void M_swap_buffer(MEM_DESC* a, MEM_DESC* b) { std::swap(*a, *b); }

void M_reset_pool() {
  Pool& pool = current_pool();
  for (int i = 1; i < POOL_SLOTS; ++i)
    if (pool.desc[i].in_use) release(&pool.desc[i]);
  pool.count = 1;
  M_current_buffer = nullptr;
}

void M_free_pool_memory() {
  Pool& pool = current_pool();
  for (auto& d : pool.desc)
    if (d.data != nullptr) release(&d);
  pool.count = 0;
  M_current_buffer = nullptr;
}

int32_t M_pool_count() { return current_pool().count; }
