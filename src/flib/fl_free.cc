#include "flib/fl_free.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "flib/fl_block.h"
#include "flib/fl_io.h"
#include "flib/fl_lock.h"
#include "flib/fl_ovhdr.h"
#include "flib/fl_rel.h"
#include "flib/fl_report.h"

namespace {

// Unused bytes of a FREE_LIST_BLOCK holding one entry; 4 fewer per entry.
constexpr uint32_t kFreeListReserve = 80;

struct ReleaseBuffer {
  bool active = false;
  std::vector<uint8_t> image;
};
ReleaseBuffer g_release;

uint32_t entry_of(const uint8_t* b, int32_t i) { return fl_get_u32(b, FL_ENTRIES + 4 * static_cast<uint32_t>(i)); }

void start_buffer(const REL_TYPE* rel, uint32_t address) {
  uint32_t b = rel->block_size;
  g_release.image.assign(b, 0);
  uint8_t* img = g_release.image.data();
  gb_set_flags(img, FLAG_FREE_LIST);
  gb_set_hashtype(img, static_cast<uint8_t>(rel->hashtype));
  fl_put_u32(img, FL_SPACE_LEFT, b - kFreeListReserve);
  fl_put_i16(img, FL_LAST_INDEX, 0);
  fl_put_u32(img, FL_ENTRIES, address);
  g_release.active = true;
}

// Moves the buffer's entries into the header of their part: as many as fit
// onto the free stack, the rest as a FREE_LIST_BLOCK at the address of the
// last remaining entry. 0 or -1.
int drain(REL_TYPE* rel) {
  const char* fn = "M_release_to_file";
  uint8_t* img = g_release.image.data();
  int32_t last = fl_get_i16(img, FL_LAST_INDEX);
  uint32_t header = ADDR_OVERFLOW | addr_part_index(entry_of(img, last));
  if (M_lock_block(rel, header, LOCK_EXCLUSIVE) != 0) return M_file_error(rel, fn, "M_mrvlockf", nullptr, 0, 0);
  uint8_t block[MAX_BLOCK_SIZE];
  if (M_blkread(rel, header, block, CHECK_NONE) != 1) {
    M_unlock_block(rel, header);
    return M_file_error(rel, fn, nullptr, nullptr, 0, 0);
  }
  OverflowHeader h = decode_overflow_header(block);
  int32_t capacity = overflow_stack_capacity(rel->block_size);
  int32_t count = std::clamp<int32_t>(h.stack_count, 0, capacity);
  while (last >= 0 && count < capacity) {
    fl_put_u32(block, OH_STACK + 4 * static_cast<uint32_t>(count++), entry_of(img, last--));
    ++h.free_count;
  }
  h.stack_count = static_cast<int16_t>(count);
  int result = 0;
  if (last >= 0) {
    uint32_t self = entry_of(img, last);
    fl_put_u32(img, FL_NEXT, h.free_head);
    fl_put_i16(img, FL_LAST_INDEX, static_cast<int16_t>(last));
    fl_put_u32(img, FL_SPACE_LEFT, rel->block_size - kFreeListReserve - 4 * static_cast<uint32_t>(last));
    std::memset(img + FL_ENTRIES + 4 * static_cast<uint32_t>(last + 1), 0,
                rel->block_size - FL_ENTRIES - 4 * static_cast<uint32_t>(last + 1));
    h.free_head = self;
    h.free_count += static_cast<uint32_t>(last + 1);
    if (M_blkwrite(rel, self, img) != 1) result = -1;
  }
  encode_overflow_header(h, block);
  if (result == 0 && M_blkwrite(rel, header, block) != 1) result = -1;
  M_unlock_block(rel, header);
  g_release.active = false;
  if (result != 0) M_file_error(rel, fn, nullptr, nullptr, 0, 0);
  return result;
}

bool same_part(uint32_t a, uint32_t b) {
  return (a & (ADDR_OVERFLOW | ADDR_PART_MASK)) == (b & (ADDR_OVERFLOW | ADDR_PART_MASK));
}

}  // namespace

int M_release_to_file(REL_TYPE* rel, uint32_t address) {
  if (!g_release.active) {
    if (address != 0) start_buffer(rel, address);
    return 0;
  }
  uint8_t* img = g_release.image.data();
  int32_t last = fl_get_i16(img, FL_LAST_INDEX);
  uint32_t space = fl_get_u32(img, FL_SPACE_LEFT);
  if (address != 0 && same_part(address, entry_of(img, 0)) && space > 4) {
    fl_put_u32(img, FL_ENTRIES + 4 * static_cast<uint32_t>(last + 1), address);
    fl_put_i16(img, FL_LAST_INDEX, static_cast<int16_t>(last + 1));
    fl_put_u32(img, FL_SPACE_LEFT, space - 4);
    return 0;
  }
  int result = drain(rel);
  if (address != 0) start_buffer(rel, address);
  return result;
}
