#include "flib/fl_mempool.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

class FlMempool : public testing::Test {
 protected:
  void SetUp() override { M_init_pools(); }
};

TEST_F(FlMempool, SizesRoundUpToOneUnitMoreThanNeeded) {
  MEM_DESC* exact = M_alloc_buffer(1024);
  EXPECT_EQ(exact->size, 2048u);
  MEM_DESC* small = M_alloc_buffer(1);
  EXPECT_EQ(small->size, 1024u);
  EXPECT_EQ(M_pool_count(), 3);  // slot 0 is there from the start
  M_free_buffer(exact);
  M_free_buffer(small);
  EXPECT_EQ(M_pool_count(), 1);
}

TEST_F(FlMempool, MisuseOfADescriptorIsOnlyReported) {
  MEM_DESC* d = M_alloc_buffer(10);
  M_free_buffer(d);
  MEM_DESC foreign;
  testing::internal::CaptureStdout();
  M_free_buffer(d);
  M_free_buffer(&foreign);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error msgno = 30147. \nError msgno = 30147. \n");
}

TEST_F(FlMempool, ResetKeepsSlotZeroAndItsContents) {
  MEM_DESC* d = M_alloc_buffer(10);
  (void)d;
  MEM_DESC* zero = M_alloc_buffer(10) - 2;  // slots are taken in order
  std::strcpy(zero->data, "kept");
  zero->used = 4;
  M_reset_pool();
  EXPECT_EQ(M_pool_count(), 1);
  EXPECT_EQ(zero->in_use, 1);
  EXPECT_STREQ(zero->data, "kept");
  EXPECT_EQ(M_alloc_buffer(5), zero + 1);
}

TEST_F(FlMempool, GrowKeepsDataAndShrinkReturnsSlack) {
  MEM_DESC* d = M_alloc_buffer(100);
  std::memcpy(d->data, "abcdef", 6);
  d->used = 6;
  M_grow_buffer(d, 50000);
  EXPECT_EQ(d->size, 1024u * 49);
  EXPECT_EQ(std::string(d->data), "abcdef");
  M_shrink_buffer(d);
  EXPECT_EQ(d->size, M_mem_sizes.avg_tuple_size);
  // Within one unit of its size: stays.
  M_grow_buffer(d, 40000);
  d->used = d->size - 100;
  uint32_t before = d->size;
  M_shrink_buffer(d);
  EXPECT_EQ(d->size, before);
  MEM_DESC* other = M_alloc_buffer(5);
  M_swap_buffer(d, other);
  EXPECT_EQ(other->size, before);
}

TEST_F(FlMempool, TheFortyNinthBufferEndsTheRun) {
  EXPECT_EXIT(
      {
        for (int i = 0; i < POOL_SLOTS; ++i) M_alloc_buffer(1);
      },
      testing::ExitedWithCode(1), "");
}

}  // namespace
