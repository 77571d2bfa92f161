#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "flib/fl_block.h"
#include "flib/fl_coding.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_idxfmt.h"
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

// Both forms of the block size code name the same sizes: the creation
// form 0..16, the stored form one less, an index head's code 0..15 as the
// file header's.
TEST(FlFormat, BlockSizeCodeFormsNameTheSameSizes) {
  const uint32_t sizes[] = {512,  1024,  2048,  3072,  4096,  5120,  6144,  7168, 8192,
                            9216, 10240, 11264, 12288, 13312, 14336, 15360, 16384};
  for (int32_t k = BlockSizeCode::kMin; k <= BlockSizeCode::kMax; ++k) {
    const BlockSizeCode code{k};
    const uint32_t b = sizes[k];
    EXPECT_EQ(code.bytes(), b) << k;
    EXPECT_EQ(BlockSizeCode::of_bytes(b).code, k) << k;
    EXPECT_EQ(code.stored(), k - 1) << k;
    EXPECT_EQ(block_size_of_code(code.stored()), b) << k;
    if (k >= 1) {
      EXPECT_EQ(idx_block_size(code.stored()), b) << k;
    }
  }
  // Sizes between the steps belong to the step below; below 1 KiB is 512.
  EXPECT_EQ(BlockSizeCode::of_bytes(1536).code, 1);
  EXPECT_EQ(BlockSizeCode::of_bytes(700).bytes(), 512u);
}

// A -B entry recounts the tape's modulo of 1 KiB groups so that the file
// keeps its size: 512-byte blocks double it, k KiB divide it by k.
TEST(FlFormat, BlockSizeCodeRecountsAModuloToKeepTheFileSize) {
  EXPECT_EQ(BlockSizeCode{0}.modulo_keeping_size(101), 202);
  EXPECT_EQ(BlockSizeCode{1}.modulo_keeping_size(101), 101);
  EXPECT_EQ(BlockSizeCode{4}.modulo_keeping_size(101), 25);
  EXPECT_EQ(BlockSizeCode{4}.modulo_keeping_size(11), 2);
  EXPECT_EQ(BlockSizeCode{16}.modulo_keeping_size(11), 0);
}

// The key area is read from datapos down: row 0's length byte at datapos-1
// with its key just below, row 1's below that. A key that reaches below the
// key table is not taken.
TEST(FlFormat, KeyWalkReadsTheKeysDownFromDatapos) {
  std::vector<uint8_t> block(512, 0);
  gb_set_datapos(block.data(), 100);
  block[99] = 2;
  block[97] = 'A';
  block[98] = 'B';
  block[96] = 1;
  block[95] = 'C';
  KeyWalk walk = key_walk(block.data());
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(walk.bytes()), static_cast<size_t>(walk.length())), "AB");
  walk.next();
  EXPECT_EQ(walk.end, 97);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(walk.bytes()), static_cast<size_t>(walk.length())), "C");
  EXPECT_EQ(key_walk(block.data(), 1).start(), 95);
  EXPECT_EQ(key_walk(block.data(), 2).end, 95);
  EXPECT_TRUE(walk.fits_above(95));
  EXPECT_FALSE(walk.fits_above(96));
  EXPECT_FALSE(key_walk(block.data(), 2).fits_above(95));
}

}  // namespace
