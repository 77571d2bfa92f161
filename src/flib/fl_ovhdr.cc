#include "flib/fl_ovhdr.h"

#include "flib/fl_coding.h"

OverflowHeader decode_overflow_header(const uint8_t* b) {
  OverflowHeader h;
  h.free_head = fl_get_u32(b, OH_FREE_HEAD);
  h.stack_count = fl_get_i16(b, OH_STACK_COUNT);
  h.stack_capacity = fl_get_i16(b, OH_STACK_CAPACITY);
  h.next_block = fl_get_u32(b, OH_NEXT_BLOCK);
  h.modulo = fl_get_u32(b, OH_MODULO);
  h.min_modulo = fl_get_u32(b, OH_MIN_MODULO);
  h.split_load = b[OH_SPLIT_LOAD];
  h.merge_load = b[OH_MERGE_LOAD];
  h.grp_free_blk = fl_get_i16(b, OH_GRP_FREE_BLK);
  h.max_flength = fl_get_i32(b, OH_MAX_FLENGTH);
  h.free_count = fl_get_u32(b, OH_FREE_COUNT);
  h.primary_parts = fl_get_u16(b, OH_PRIMARY_PARTS);
  h.overflow_parts = fl_get_u16(b, OH_OVERFLOW_PARTS);
  return h;
}

void encode_overflow_header(const OverflowHeader& h, uint8_t* b) {
  fl_put_u32(b, OH_FREE_HEAD, h.free_head);
  fl_put_i16(b, OH_STACK_COUNT, h.stack_count);
  fl_put_i16(b, OH_STACK_CAPACITY, h.stack_capacity);
  fl_put_u32(b, OH_NEXT_BLOCK, h.next_block);
  fl_put_u32(b, OH_MODULO, h.modulo);
  fl_put_u32(b, OH_MIN_MODULO, h.min_modulo);
  b[OH_SPLIT_LOAD] = h.split_load;
  b[OH_MERGE_LOAD] = h.merge_load;
  fl_put_i16(b, OH_GRP_FREE_BLK, h.grp_free_blk);
  fl_put_i32(b, OH_MAX_FLENGTH, h.max_flength);
  fl_put_u32(b, OH_FREE_COUNT, h.free_count);
  fl_put_u16(b, OH_PRIMARY_PARTS, h.primary_parts);
  fl_put_u16(b, OH_OVERFLOW_PARTS, h.overflow_parts);
}
