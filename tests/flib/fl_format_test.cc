#include <gtest/gtest.h>

#include <vector>

#include "flib/fl_block.h"
#include "flib/fl_coding.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_ovhdr.h"

namespace {

TEST(FlFormat, HashTypeIsReadAsItsLow16BitsAndZeroPartCountsAsOne) {
  std::vector<uint8_t> block(512, 0);
  fl_put_u32(block.data(), FH_HASHTYPE, 0x00070041);
  EXPECT_EQ(decode_file_header(block.data()).hashtype, 0x41);
  fl_put_u32(block.data(), FH_HASHTYPE, 0x0000FFFF);
  EXPECT_LT(decode_file_header(block.data()).hashtype, 0);
  OverflowHeader over = decode_overflow_header(block.data());
  EXPECT_EQ(stored_part_count(over.primary_parts), 1);
  EXPECT_EQ(stored_part_count(over.overflow_parts), 1);
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
