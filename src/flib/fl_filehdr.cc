#include "flib/fl_filehdr.h"

#include <cstring>

#include "common/fl_errout.h"
#include "flib/fl_coding.h"

namespace {

void get_name(const uint8_t* block, uint32_t offset, char* out) {
  std::memcpy(out, block + offset, FH_TRIGGER_SIZE);
  out[FH_TRIGGER_SIZE] = '\0';
}

void put_name(uint8_t* block, uint32_t offset, const char* name) {
  size_t n = strnlen(name, FH_TRIGGER_SIZE);
  std::memset(block + offset, 0, FH_TRIGGER_SIZE);
  std::memcpy(block + offset, name, n);
}

}  // namespace

FileHeader decode_file_header(const uint8_t* block) {
  FileHeader h;
  h.modulo = fl_get_i32(block, FH_MODULO);
  h.hashtype = static_cast<int16_t>(fl_get_u16(block, FH_HASHTYPE));
  h.format = fl_get_i32(block, FH_FORMAT);
  h.block_code = fl_get_i32(block, FH_BLOCK_CODE);
  h.index_count = fl_get_i32(block, FH_INDEX_COUNT);
  h.rfs = fl_get_i32(block, FH_RFS);
  h.spread = fl_get_i32(block, FH_SPREAD);
  h.record_mark = block[FH_RECORD_MARK];
  h.lang2 = block[FH_LANG_2];
  h.lang3 = block[FH_LANG_3];
  h.first_group = fl_get_i32(block, FH_FIRST_GROUP);
  h.max_flength = fl_get_i32(block, FH_MAX_FLENGTH);
  get_name(block, FH_UPDATE_TRIGGER, h.update_trigger);
  get_name(block, FH_DELETE_TRIGGER, h.delete_trigger);
  return h;
}

void encode_file_header(const FileHeader& h, uint8_t* block) {
  fl_put_i32(block, FH_MODULO, h.modulo);
  fl_put_i32(block, FH_HASHTYPE, h.hashtype);
  fl_put_i32(block, FH_RESERVED_8, 0);
  fl_put_i32(block, FH_FORMAT, h.format);
  fl_put_i32(block, FH_BLOCK_CODE, h.block_code);
  fl_put_i32(block, FH_INDEX_COUNT, h.index_count);
  fl_put_i32(block, FH_RFS, h.rfs);
  fl_put_i32(block, FH_SPREAD, h.spread);
  block[FH_RECORD_MARK] = h.record_mark;
  block[FH_LANG_2] = h.lang2;
  block[FH_LANG_3] = h.lang3;
  fl_put_i32(block, FH_FIRST_GROUP, h.first_group);
  fl_put_i32(block, FH_MAX_FLENGTH, h.max_flength);
  put_name(block, FH_UPDATE_TRIGGER, h.update_trigger);
  put_name(block, FH_DELETE_TRIGGER, h.delete_trigger);
}

uint32_t block_size_of_code(int32_t code) {
  if (code < BlockSizeCode{BlockSizeCode::kMin}.stored() || code > BlockSizeCode{BlockSizeCode::kMax}.stored())
    return 0;
  return BlockSizeCode::of_stored(code).bytes();
}

void report_format_word(int32_t format, int32_t rfs, const char* name) {
  // This build writes little-endian only.
  M_errout(0, "This machine is a low byte machine.\n");
  const char* kind = rfs ? "Recoverable" : "Nonrecoverable";
  switch (format) {
    case 1:
      M_errout(0, "%s is low byte machine 1.6 version.\n", name);
      break;
    case 16777216:
      M_errout(0, "%s is high byte machine 1.6 version.\n", name);
      break;
    case 2:
      M_errout(0, "%s %s is low byte machine 2.0 static version.\n", kind, name);
      break;
    case 3:
      M_errout(0, "%s %s is low byte machine 2.0 dynamic version.\n", kind, name);
      break;
    case 33554432:
      M_errout(0, "%s %s is high byte machine 2.0 static version.\n", kind, name);
      break;
    case 50331648:
      M_errout(0, "%s %s is high byte machine 2.0 dynamic version.\n", kind, name);
      break;
    default:
      M_errout(0, "%s is not a Morvane data file.\n", name);
      break;
  }
}
