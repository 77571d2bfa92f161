// Free block management of dynamic files: the free stack, the chain of
// FREE_LIST_BLOCKs, the release buffer, new overflow parts and the undo of
// a reservation.
#include "flib/fl_free.h"

#include "fl_test_util.h"
#include "flib/fl_delete.h"
#include "flib/fl_globals.h"
#include "flib/fl_hash.h"
#include "flib/fl_io.h"
#include "flib/fl_ovhdr.h"
#include "support/run_program.h"

namespace {

constexpr uint32_t B = 1024;
constexpr uint32_t kUsable = B - 12;

class FlFree : public RecordFile {
 protected:
  // A dynamic file of 1 KiB blocks; `max_flength` sets MAX_FLENGTH.
  void open_new(int32_t modulo, int32_t spread = 0, const char* max_flength = nullptr) {
    M_spread = spread;
    if (max_flength != nullptr) setenv("MAX_FLENGTH", max_flength, 1);
    create(modulo, 1, 64);
    unsetenv("MAX_FLENGTH");
    M_spread = 0;
  }
  // A record of exactly `blocks` blocks.
  int put_blocks(const std::string& key, uint32_t blocks) {
    return put(key, std::string(blocks * kUsable - 1, key[0]));
  }
  OverflowHeader header(uint32_t part = 1) {
    uint8_t block[B];
    EXPECT_EQ(M_blkread(&rel, make_addr(true, 0, part - 1), block, CHECK_NONE), 1);
    return decode_overflow_header(block);
  }
  size_t part_size(const char* name) { return read_bytes(path + "/" + name).size(); }
};

TEST_F(FlFree, AFullStackSpillsIntoAListBlockThatIsItselfTakenLater) {
  open_new(1);
  ASSERT_EQ(put_blocks("A", 300), 1);
  ASSERT_EQ(M_delete_tuple(&rel, bytes(std::string("A")), 1, nullptr), 1);
  OverflowHeader h = header();
  int32_t capacity = overflow_stack_capacity(B);
  EXPECT_EQ(h.stack_count, capacity);
  EXPECT_NE(h.free_head, 0u);
  EXPECT_EQ(h.free_count, 300u);
  EXPECT_EQ(findings(), "");
  // 240 blocks: the whole stack, the list block itself, two of its entries.
  size_t size = part_size("over001");
  ASSERT_EQ(put_blocks("B", 240), 1);
  EXPECT_EQ(part_size("over001"), size);
  h = header();
  EXPECT_EQ(h.free_head, 0u);
  EXPECT_EQ(h.free_count, 60u);
  EXPECT_EQ(h.stack_count, 60);
  EXPECT_EQ(findings(), "");
}

TEST_F(FlFree, AFreeCountBelowTheStackIsRepairedUnderTheHeaderLock) {
  open_new(1);
  ASSERT_EQ(put_blocks("A", 3), 1);
  ASSERT_EQ(M_delete_tuple(&rel, bytes(std::string("A")), 1, nullptr), 1);
  ASSERT_EQ(header().stack_count, 3);
  uint8_t block[B];
  ASSERT_EQ(M_blkread(&rel, ADDR_OVERFLOW, block, CHECK_NONE), 1);
  fl_put_u32(block, OH_FREE_COUNT, 0);
  ASSERT_EQ(M_blkwrite(&rel, ADDR_OVERFLOW, block), 1);
  ASSERT_EQ(put_blocks("B", 1), 1);
  EXPECT_EQ(header().stack_count, 2);
  EXPECT_EQ(header().free_count, 2u);
  EXPECT_EQ(findings(), "");
}

TEST_F(FlFree, TheNoReuseFlagLeavesTheFreeListsAlone) {
  open_new(1);
  ASSERT_EQ(put_blocks("A", 4), 1);
  ASSERT_EQ(M_delete_tuple(&rel, bytes(std::string("A")), 1, nullptr), 1);
  ASSERT_EQ(header().free_count, 4u);
  size_t size = part_size("over001");
  rel.sfd->no_reuse = 1;
  ASSERT_EQ(put_blocks("B", 3), 1);
  rel.sfd->no_reuse = 0;
  EXPECT_EQ(part_size("over001"), size + 3 * B);
  EXPECT_EQ(header().free_count, 4u);
  EXPECT_EQ(findings(), "");
}

TEST_F(FlFree, AReleaseIntoAnotherPartDrainsTheBufferFirst) {
  open_new(4, 3);
  ASSERT_EQ(rel.overflow.size(), 2u);
  std::vector<uint8_t> empty(B, 0);
  gb_set_byteleft(empty.data(), static_cast<int16_t>(kUsable));
  for (const char* name : {"over001", "over002"}) {
    auto part = read_bytes(path + "/" + name);
    part.insert(part.end(), empty.begin(), empty.end());
    write_bytes(path + "/" + name, part);
  }
  ASSERT_EQ(M_release_to_file(&rel, make_addr(true, B, 0)), 0);
  EXPECT_EQ(header(1).stack_count, 0);
  ASSERT_EQ(M_release_to_file(&rel, make_addr(true, B, 1)), 0);
  EXPECT_EQ(header(1).stack_count, 1);
  EXPECT_EQ(header(2).stack_count, 0);
  ASSERT_EQ(M_release_to_file(&rel, 0), 0);
  EXPECT_EQ(header(2).stack_count, 1);
  EXPECT_EQ(findings(), "");
}

TEST_F(FlFree, AnUndoneReservationGivesBackWhatReachedTheDisk) {
  open_new(1);
  uint8_t block[B];
  M_groupno = 0;
  ASSERT_EQ(M_blkread(&rel, B, block, CHECK_HEAD), 1);
  ASSERT_EQ(M_alloc_new_blocks(&rel, 3, ALLOC_ANY_PART, block, 0, 0, 0), 0);
  EXPECT_EQ(gb_over_part(block), 1);
  int64_t first = M_get_dest_block(&rel);
  int64_t second = M_get_dest_block(&rel);
  ASSERT_EQ(first, make_addr(true, B, 0));
  ASSERT_EQ(second, make_addr(true, 2 * B, 0));
  std::vector<uint8_t> data(B, 0);
  gb_set_byteleft(data.data(), static_cast<int16_t>(kUsable));
  ASSERT_EQ(M_blkwrite(&rel, static_cast<uint32_t>(first), data.data()), 1);
  ASSERT_EQ(M_release_blocks_in_stack(&rel), 0);
  EXPECT_FALSE(M_block_stack_open());
  OverflowHeader h = header();
  EXPECT_EQ(h.stack_count, 1);
  EXPECT_EQ(h.free_count, 1u);
  EXPECT_EQ(part_size("over001"), 2 * B);
  EXPECT_EQ(M_get_dest_block(&rel), -1);  // no stack any more
  EXPECT_EQ(findings(), "");
}

TEST_F(FlFree, AFullOverflowPartMakesANewOne) {
  open_new(2, 0, "32768");  // 32 blocks a part
  // "B" hashes to group 0, "A" to group 1 (decimal hash over 2 groups).
  ASSERT_EQ(put_blocks("B", 25), 1);
  ASSERT_EQ(put_blocks("A", 25), 1);
  EXPECT_EQ(rel.overflow.size(), 2u);
  EXPECT_EQ(part_size("over002") / B, 26u);
  EXPECT_EQ(get("A"), std::string(25 * kUsable - 1, 'A'));
  EXPECT_EQ(get("B"), std::string(25 * kUsable - 1, 'B'));
  EXPECT_EQ(findings(), "");
}

TEST_F(FlFree, AGroupWhosePartIsFullMovesItsRecordsToANewPart) {
  open_new(2, 0, "24576");  // 24 blocks a part
  // Group 1 ("A") takes 10 blocks of over001; group 0 (even letters) a
  // long record of 4 blocks and short records in blocks of their own.
  ASSERT_EQ(put_blocks("A", 10), 1);
  ASSERT_EQ(put_blocks("B", 4), 1);
  std::string shorts = "DFHJLN";
  for (char c : shorts) ASSERT_EQ(put(std::string(1, c), std::string(400, c)), 1) << c;
  ASSERT_EQ(rel.overflow.size(), 1u);
  // Eight more blocks do not fit into over001: group 0 moves to over002.
  ASSERT_EQ(put_blocks("P", 8), 1);
  ASSERT_EQ(rel.overflow.size(), 2u);
  uint8_t head[B];
  M_groupno = 0;
  ASSERT_EQ(M_blkread(&rel, B, head, CHECK_HEAD), 1);
  EXPECT_EQ(gb_over_part(head), 2);
  for (const char* k : {"A", "B", "P"}) {
    uint32_t blocks = *k == 'A' ? 10 : *k == 'B' ? 4 : 8;
    EXPECT_EQ(get(k), std::string(blocks * kUsable - 1, *k)) << k;
  }
  for (char c : shorts) EXPECT_EQ(get(std::string(1, c)), std::string(400, c)) << c;
  // The blocks left behind in over001 are free there.
  EXPECT_GT(header(1).free_count, 0u);
  EXPECT_EQ(findings(), "");
}

TEST_F(FlFree, AWriteTooLargeForItsPartJumpsBackAndTheAddGivesUpCleanly) {
  open_new(1);
  ASSERT_EQ(put_blocks("A", 3), 1);  // over001: header and three blocks
  M_closefile(&rel);
  rel.block_size = 0;
  ProgramResult run = run_in_child([&] {
    REL_TYPE child;
    // No file may grow beyond six blocks: the fifth block of "B" fails.
    if (int failed = open_under_size_limit(&child, path, 6 * B)) _exit(failed);
    std::string record(5 * kUsable - 1, 'b');
    int r = M_append_strtuple(&child, bytes(std::string("B")), 1, bytes(record), static_cast<int32_t>(record.size()), 0,
                              nullptr);
    if (r != -1) _exit(12);
    if (M_overflow_recovery != nullptr || M_block_stack_open()) _exit(13);
    std::string got;
    if (M_read_tuple(&child, bytes(std::string("A")), 1, &got) != 1 || got != std::string(3 * kUsable - 1, 'A'))
      _exit(14);
    if (M_read_key(&child, bytes(std::string("B")), 1) != 0) _exit(15);
    M_closefile(&child);
  });
  ASSERT_EQ(run.status, 0) << run.output;
  // The two blocks that reached the disk are free; nothing else changed.
  ASSERT_EQ(M_openfile(&rel, path.c_str(), 2), 1);
  EXPECT_EQ(header().free_count, 2u);
  EXPECT_EQ(findings(), "");
}

}  // namespace
