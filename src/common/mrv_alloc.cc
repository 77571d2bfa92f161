#include "common/mrv_alloc.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "common/fl_errout.h"
#include "common/mrv_exit.h"
#include "common/mrv_msgno.h"

// Each block carries its size in a 16-byte head, so that mrv_realloc knows
// which part of the new block is new and must be zeroed.
namespace {

constexpr size_t kHead = 16;

size_t& head_size(void* block) { return *static_cast<size_t*>(block); }

}  // namespace

void* mrv_malloc(size_t size) {
  if (size > SIZE_MAX - kHead) return nullptr;
  void* block = std::calloc(1, kHead + size);
  if (block == nullptr) return nullptr;
  head_size(block) = size;
  return static_cast<char*>(block) + kHead;
}

void* mrv_calloc(size_t count, size_t size) {
  if (size != 0 && count > SIZE_MAX / size) return nullptr;
  return mrv_malloc(count * size);
}

void* mrv_realloc(void* pointer, size_t size) {
  if (pointer == nullptr) return mrv_malloc(size);
  if (size > SIZE_MAX - kHead) return nullptr;
  void* block = static_cast<char*>(pointer) - kHead;
  size_t old_size = head_size(block);
  void* grown = std::realloc(block, kHead + size);
  if (grown == nullptr) return nullptr;
  head_size(grown) = size;
  char* data = static_cast<char*>(grown) + kHead;
  if (size > old_size) std::memset(data + old_size, 0, size - old_size);
  return data;
}

void mrv_free(void* pointer) {
  if (pointer != nullptr) std::free(static_cast<char*>(pointer) - kHead);
}

void* M_emalloc(size_t size) {
  if (size == 0) size = 4;
  void* p = mrv_malloc(size);
  if (p == nullptr) {
    M_msgno_out(MRV_MSG_NO_MEMORY, "%d", static_cast<int>(size));
    MRV_EXIT(1);
  }
  return p;
}
