#include <gtest/gtest.h>

#include <vector>

#include "flib/fl_block.h"
#include "flib/fl_coding.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_ovhdr.h"

namespace {

TEST(FlFormat, FileHeaderFieldsLandAtTheirOffsets) {
  FileHeader h;
  h.modulo = 0x01020304;
  h.hashtype = 0x61;
  h.format = 3;
  h.block_code = -1;
  h.index_count = 2;
  h.rfs = 1;
  h.spread = 1;
  h.record_mark = 255;
  h.lang2 = 192;
  h.lang3 = 129;
  h.first_group = 77;
  h.max_flength = 1073741824;
  std::snprintf(h.update_trigger, sizeof h.update_trigger, "%s", "UPD.TRIGGER");
  // A full 32-byte name is stored without a terminator.
  std::snprintf(h.delete_trigger, sizeof h.delete_trigger, "%s", "DDDDDDDDDDDDDDDDDDDDDDDDDDDDDDDD");
  std::vector<uint8_t> block(1024, 0);
  encode_file_header(h, block.data());
  EXPECT_EQ(block[0], 0x04);
  EXPECT_EQ(block[3], 0x01);
  EXPECT_EQ(fl_get_i32(block.data(), 4), 0x61);
  EXPECT_EQ(fl_get_i32(block.data(), 12), 3);
  EXPECT_EQ(fl_get_u32(block.data(), 16), 0xFFFFFFFFu);
  EXPECT_EQ(fl_get_i32(block.data(), 20), 2);
  EXPECT_EQ(fl_get_i32(block.data(), 24), 1);
  EXPECT_EQ(fl_get_i32(block.data(), 48), 1);
  EXPECT_EQ(block[52], 255);
  EXPECT_EQ(block[53], 192);
  EXPECT_EQ(block[54], 129);
  EXPECT_EQ(block[55], 0);
  EXPECT_EQ(fl_get_i32(block.data(), 56), 77);
  EXPECT_EQ(fl_get_i32(block.data(), 60), 1073741824);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(&block[256])), "UPD.TRIGGER");
  EXPECT_EQ(block[288 + 31], 'D');
  EXPECT_EQ(block[320], 0);
  for (int i = 28; i < 48; ++i) EXPECT_EQ(block[i], 0) << i;

  FileHeader back = decode_file_header(block.data());
  EXPECT_EQ(back.modulo, h.modulo);
  EXPECT_EQ(back.block_code, -1);
  EXPECT_EQ(std::string(back.delete_trigger), std::string(32, 'D'));
}

TEST(FlFormat, HashTypeIsReadAsItsLow16Bits) {
  std::vector<uint8_t> block(512, 0);
  fl_put_u32(block.data(), FH_HASHTYPE, 0x00070041);
  EXPECT_EQ(decode_file_header(block.data()).hashtype, 0x41);
  fl_put_u32(block.data(), FH_HASHTYPE, 0x0000FFFF);
  EXPECT_LT(decode_file_header(block.data()).hashtype, 0);
}

TEST(FlFormat, OverflowHeaderFieldsAndZeroPartCounts) {
  OverflowHeader h;
  h.free_head = 0x80000400u;
  h.stack_count = 3;
  h.stack_capacity = static_cast<int16_t>(overflow_stack_capacity(1024));
  h.next_block = 1024;
  h.modulo = 9;
  h.min_modulo = 7;
  h.split_load = 100;
  h.merge_load = 90;
  h.grp_free_blk = 5;
  h.max_flength = 4096;
  h.free_count = 11;
  std::vector<uint8_t> block(1024, 0);
  encode_overflow_header(h, block.data());
  EXPECT_EQ(fl_get_u32(block.data(), 20), 0x80000400u);
  EXPECT_EQ(fl_get_i16(block.data(), 24), 3);
  EXPECT_EQ(fl_get_i16(block.data(), 26), 237);  // (1024-76)/4
  EXPECT_EQ(fl_get_u32(block.data(), 28), 1024u);
  EXPECT_EQ(fl_get_u32(block.data(), 32), 9u);
  EXPECT_EQ(fl_get_u32(block.data(), 36), 7u);
  EXPECT_EQ(block[40], 100);
  EXPECT_EQ(block[41], 90);
  EXPECT_EQ(fl_get_i16(block.data(), 42), 5);
  EXPECT_EQ(fl_get_i32(block.data(), 44), 4096);
  EXPECT_EQ(fl_get_u32(block.data(), 48), 11u);
  OverflowHeader back = decode_overflow_header(block.data());
  EXPECT_EQ(stored_part_count(back.primary_parts), 1);
  EXPECT_EQ(stored_part_count(back.overflow_parts), 1);
}

TEST(FlFormat, BlockSizesAndInitialDatapos) {
  EXPECT_EQ(block_size_of_code(-1), 512u);
  EXPECT_EQ(block_size_of_code(0), 1024u);
  EXPECT_EQ(block_size_of_code(15), 16384u);
  EXPECT_EQ(block_size_of_code(16), 0u);
  EXPECT_EQ(block_size_of_code(-2), 0u);
  EXPECT_EQ(code_of_block_size(512), -1);
  EXPECT_EQ(code_of_block_size(4096), 3);
  EXPECT_EQ(initial_datapos(512), 124u);
  EXPECT_EQ(initial_datapos(1024), 124u);
  EXPECT_EQ(initial_datapos(2048), 224u);
  EXPECT_EQ(initial_datapos(4096), 424u);
  EXPECT_EQ(initial_datapos(8192), 824u);
  EXPECT_EQ(initial_datapos(16384), 1624u);
}

TEST(FlFormat, AddressesAndRecordBlocks) {
  uint32_t a = make_addr(true, 3 * 2048, 4);
  EXPECT_EQ(a, 0x80000000u | 6144u | 4u);
  EXPECT_TRUE(addr_is_overflow(a));
  EXPECT_EQ(addr_offset(a), 6144u);
  EXPECT_EQ(addr_part_index(a), 4u);
  // A record at in-block offset 300 of the overflow block at 6144 of over005.
  EXPECT_EQ(record_block_address(0x80000000u | (6144 + 300), 2048, 5), a);
  // A record in the group block itself keeps part index 0.
  EXPECT_EQ(record_block_address(1024 + 200, 1024, 5), 1024u);
}

TEST(FlFormat, ForeignFormatWordsAreNamed) {
  struct Case {
    int32_t word;
    int32_t rfs;
    const char* text;
  } cases[] = {
      {1, 0, "F is low byte machine 1.6 version.\n"},
      {16777216, 0, "F is high byte machine 1.6 version.\n"},
      {2, 1, "Recoverable F is low byte machine 2.0 static version.\n"},
      {3, 0, "Nonrecoverable F is low byte machine 2.0 dynamic version.\n"},
      {33554432, 0, "Nonrecoverable F is high byte machine 2.0 static version.\n"},
      {50331648, 1, "Recoverable F is high byte machine 2.0 dynamic version.\n"},
      {7, 0, "F is not a Morvane data file.\n"},
  };
  for (const auto& c : cases) {
    testing::internal::CaptureStdout();
    report_format_word(c.word, c.rfs, "F");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              std::string("This machine is a low byte machine.\n") + c.text);
  }
}

}  // namespace
