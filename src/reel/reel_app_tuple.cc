#include "reel/reel_app_tuple.h"

#include "common/mrv_alloc.h"

LoadBuffer reel_load_buffer;
LoadBuffer reel_long_buffer;

namespace {

bool alloc_buffer(LoadBuffer& buffer, size_t size) {
  buffer.data = static_cast<unsigned char*>(mrv_malloc(size));
  buffer.size = buffer.data != nullptr ? size : 0;
  buffer.used = 0;
  return buffer.data != nullptr;
}

}  // namespace

int reel_alloc_load_buffers(int32_t buffer_factor) {
  size_t kib = buffer_factor > 0 ? static_cast<size_t>(buffer_factor) : 0;
  return alloc_buffer(reel_load_buffer, kib * 1024) && alloc_buffer(reel_long_buffer, kib / 4 * 1024)
             ? 1
             : 0;
}
