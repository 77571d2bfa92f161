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

// The initial datapos of each block size, as the layout gives it; codes
// outside -1..15 name no block size.
TEST(FlFormat, InitialDataposAndIllegalBlockCodes) {
  EXPECT_EQ(block_size_of_code(16), 0u);
  EXPECT_EQ(block_size_of_code(-2), 0u);
  EXPECT_EQ(initial_datapos(512), 124u);
  EXPECT_EQ(initial_datapos(1024), 124u);
  EXPECT_EQ(initial_datapos(2048), 224u);
  EXPECT_EQ(initial_datapos(4096), 424u);
  EXPECT_EQ(initial_datapos(8192), 824u);
  EXPECT_EQ(initial_datapos(16384), 1624u);
}

}  // namespace
