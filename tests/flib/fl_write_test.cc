// Record writing, reading and deletion at the edges that catch faults.
#include "flib/fl_write.h"

#include "common/mrv_marks.h"
#include "fl_test_util.h"
#include "flib/fl_delete.h"
#include "flib/fl_hash.h"
#include "flib/fl_io.h"
#include "flib/fl_ovhdr.h"
#include "flib/fl_split.h"

namespace {

class FlWrite : public RecordFile {
 protected:
  // A file of one group, so that every key meets every other.
  void open_new(bool dynamic, int32_t block_code) { create(1, block_code, dynamic ? 64 : 0); }
  std::vector<uint8_t> block_at(uint32_t address) {
    std::vector<uint8_t> block(rel.block_size);
    M_groupno = 0;
    EXPECT_EQ(M_blkread(&rel, address, block.data(), CHECK_NONE), 1);
    return block;
  }
  std::vector<uint8_t> head() { return block_at(rel.block_size); }
  OverflowHeader over_header() { return decode_overflow_header(block_at(ADDR_OVERFLOW).data()); }
};

TEST_F(FlWrite, ARecordOfExactlyByteleftStaysInTheBlock) {
  open_new(false, 1);
  int32_t byteleft = gb_byteleft(head().data());
  ASSERT_EQ(put("A", std::string(static_cast<size_t>(byteleft - 1), 'x')), 1);
  auto h = head();
  EXPECT_EQ(gb_byteleft(h.data()), 0);
  EXPECT_TRUE(position_in_block(ke_position(h.data(), 0), rel.block_size, rel.block_size));
  EXPECT_EQ(h[rel.block_size - 1], M_RM);
  EXPECT_EQ(get("A"), std::string(static_cast<size_t>(byteleft - 1), 'x'));
  EXPECT_EQ(findings(), "");
}

TEST_F(FlWrite, AKeyWithoutRoomEvictsTheFirstInBlockRecordToADataBlock) {
  open_new(false, 0);
  int32_t byteleft = gb_byteleft(head().data());
  ASSERT_EQ(put("A", std::string(static_cast<size_t>(byteleft - 1), 'a')), 1);
  std::string long_key(100, 'B');
  ASSERT_EQ(put(long_key, "b"), 1);
  auto h = head();
  int row = find_key_in_block(h.data(), rel.block_size, bytes(std::string("A")), 1);
  ASSERT_GE(row, 0);
  uint32_t position = ke_position(h.data(), row);
  EXPECT_FALSE(position_in_block(position, rel.block_size, rel.block_size));
  auto data = block_at(data_block_address(&rel, h.data(), position));
  EXPECT_EQ(gb_flags(data.data()) & FLAG_GROUP_BIT, 0);
  EXPECT_EQ(get("A"), std::string(static_cast<size_t>(byteleft - 1), 'a'));
  EXPECT_EQ(get(long_key), "b");
  EXPECT_EQ(findings(), "");
}

TEST_F(FlWrite, AddModesRefuseWithoutTouchingTheDisk) {
  open_new(true, 1);
  ASSERT_EQ(put("A", "one"), 1);
  auto before = read_bytes(path + "/dat001");
  auto over_before = read_bytes(path + "/over001");
  M_add_mode = ADD_IF_EXISTS;
  EXPECT_EQ(put("B", std::string(3000, 'b')), -1);
  EXPECT_EQ(M_add_refused, ADD_IF_EXISTS);
  M_add_mode = ADD_IF_ABSENT;
  EXPECT_EQ(put("A", "two"), -1);
  EXPECT_EQ(M_add_refused, ADD_IF_ABSENT);
  EXPECT_EQ(read_bytes(path + "/dat001"), before);
  EXPECT_EQ(read_bytes(path + "/over001"), over_before);
  // A mode is spent by one call.
  EXPECT_EQ(put("A", "three"), 1);
  EXPECT_EQ(M_add_refused, 0);
  EXPECT_EQ(get("A"), "three");
}

TEST_F(FlWrite, KeysEndingInTheFieldMarkAndTooLongKeys) {
  open_new(false, 1);
  std::string marked = std::string("KEY") + static_cast<char>(M_FM);
  ASSERT_EQ(put(marked, "rec"), 1);
  EXPECT_EQ(get("KEY"), "rec");
  EXPECT_EQ(get(marked), "rec");
  EXPECT_EQ(M_read_key(&rel, bytes(std::string("KEY")), 3), 1);
  EXPECT_EQ(put(std::string(127, 'k'), "x"), -1);
  EXPECT_EQ(put(std::string(126, 'k'), "x"), 1);
  EXPECT_EQ(M_delete_tuple(&rel, bytes(marked), length(marked), nullptr), 1);
  EXPECT_EQ(M_read_key(&rel, bytes(std::string("KEY")), 3), 0);
}

TEST_F(FlWrite, PostReadRefusesAnotherSize) {
  open_new(false, 1);
  ASSERT_EQ(put("A", "hello"), 1);
  int32_t size = 0;
  ASSERT_EQ(M_pre_read(&rel, bytes(std::string("A")), 1, &size), 1);
  EXPECT_EQ(size, 5);
  int32_t wrong = 4;
  std::vector<uint8_t> buffer(16);
  EXPECT_EQ(M_post_read(&rel, bytes(std::string("A")), &wrong, buffer.data()), -1);
  // Nothing is pending after the refusal; a new pair works.
  EXPECT_EQ(M_post_read(&rel, bytes(std::string("A")), &size, buffer.data()), -1);
  ASSERT_EQ(M_pre_read(&rel, bytes(std::string("A")), 1, &size), 1);
  ASSERT_EQ(M_post_read(&rel, bytes(std::string("A")), &size, buffer.data()), 1);
  EXPECT_STREQ(reinterpret_cast<char*>(buffer.data()), "hello");
}

TEST_F(FlWrite, ALongRecordOfAnExactMultipleFreesAllItsBlocks) {
  open_new(true, 1);
  uint32_t usable = rel.block_size - 12;
  ASSERT_EQ(put("L", std::string(2 * usable - 1, 'l')), 1);  // stored 2*(B-12): no tail
  EXPECT_EQ(get("L"), std::string(2 * usable - 1, 'l'));
  EXPECT_EQ(findings(), "");
  ASSERT_EQ(M_delete_tuple(&rel, bytes(std::string("L")), 1, nullptr), 1);
  // The group keeps no overflow: both blocks went back to the part.
  auto h = head();
  EXPECT_EQ(gb_free_count(h.data()), 0);
  EXPECT_EQ(gb_over_part(h.data()), 0);
  OverflowHeader oh = over_header();
  EXPECT_EQ(oh.stack_count, 2);
  EXPECT_EQ(oh.free_count, 2u);
  EXPECT_EQ(findings(), "");
  // They serve the next long record.
  off_t size = static_cast<off_t>(read_bytes(path + "/over001").size());
  ASSERT_EQ(put("M", std::string(usable + 5, 'm')), 1);
  EXPECT_EQ(static_cast<off_t>(read_bytes(path + "/over001").size()), size);
  EXPECT_EQ(over_header().free_count, 0u);
  EXPECT_EQ(findings(), "");
}

TEST_F(FlWrite, ALongRecordIsReplacedInItsOwnChain) {
  open_new(true, 1);
  uint32_t usable = rel.block_size - 12;
  ASSERT_EQ(put("L", std::string(3 * usable - 1, '3')), 1);
  uint32_t position = ke_position(head().data(), 0);
  // Longer: the chain keeps its first block and grows by one.
  ASSERT_EQ(put("L", std::string(4 * usable - 100, '4')), 1);
  EXPECT_EQ(ke_position(head().data(), 0), position);
  EXPECT_EQ(get("L"), std::string(4 * usable - 100, '4'));
  // Shorter: the blocks it no longer needs go to the group's free list.
  ASSERT_EQ(put("L", std::string(2 * usable - 1, '2')), 1);
  EXPECT_EQ(ke_position(head().data(), 0), position);
  EXPECT_EQ(gb_free_count(head().data()), 2);
  EXPECT_EQ(get("L"), std::string(2 * usable - 1, '2'));
  EXPECT_EQ(findings(), "");
  // A short record alone in its data block becomes the first block of a
  // long one.
  ASSERT_EQ(put("S", std::string(950, 's')), 1);  // more than the head can take
  int row = find_key_in_block(head().data(), rel.block_size, bytes(std::string("S")), 1);
  ASSERT_GE(row, 0);
  position = ke_position(head().data(), row);
  ASSERT_EQ(position % rel.block_size, 12u);
  ASSERT_EQ(put("S", std::string(usable + 5, 'S')), 1);
  row = find_key_in_block(head().data(), rel.block_size, bytes(std::string("S")), 1);
  EXPECT_EQ(ke_position(head().data(), row), position);
  EXPECT_EQ(get("S"), std::string(usable + 5, 'S'));
  EXPECT_EQ(findings(), "");
}

TEST_F(FlWrite, DeletingTheOnlyKeyOfAHeadWithAChainPullsTheNextBlockUp) {
  // A split load of 100 keeps the group in one chain.
  ScopedEnv never_split("SPLIT_LOAD", "100");
  open_new(true, 0);
  // Long keys fill the head's key room; the fourth opens a continuation.
  std::vector<std::string> keys;
  for (char c = 'a'; c <= 'f'; ++c) keys.push_back(std::string(100, c));
  for (const auto& k : keys) ASSERT_EQ(put(k, "r-" + k.substr(0, 1)), 1);
  auto h = head();
  uint32_t next = gb_next(h.data());
  ASSERT_NE(next, 0u);
  // Empty the head but for one key, then delete that one.
  std::vector<std::string> in_head;
  for (const auto& k : keys)
    if (find_key_in_block(h.data(), rel.block_size, bytes(k), length(k)) >= 0) in_head.push_back(k);
  ASSERT_FALSE(in_head.empty());
  for (const auto& k : in_head) ASSERT_EQ(M_delete_tuple(&rel, bytes(k), length(k), nullptr), 1) << k;
  auto pulled = head();
  EXPECT_EQ(gb_flags(pulled.data()) & FLAG_KIND_MASK, FLAG_HEAD);
  EXPECT_GT(gb_key_count(pulled.data()), 0);
  EXPECT_NE(gb_next(pulled.data()), next);
  for (const auto& k : keys) {
    bool deleted = std::find(in_head.begin(), in_head.end(), k) != in_head.end();
    EXPECT_EQ(M_read_key(&rel, bytes(k), length(k)), deleted ? 0 : 1) << k;
    if (!deleted) {
      EXPECT_EQ(get(k), "r-" + k.substr(0, 1));
    }
  }
  EXPECT_EQ(findings(), "");
}

TEST_F(FlWrite, AnEmptiedContinuationBlockLeavesTheChainOfAStaticFile) {
  open_new(false, 0);
  std::vector<std::string> keys;
  for (char c = 'a'; c <= 'f'; ++c) keys.push_back(std::string(100, c));
  for (const auto& k : keys) ASSERT_EQ(put(k, std::string(300, k[0])), 1);
  ASSERT_NE(gb_next(head().data()), 0u);
  for (size_t i = keys.size(); i-- > 1;) ASSERT_EQ(M_delete_tuple(&rel, bytes(keys[i]), 100, nullptr), 1);
  // Whatever blocks the chain had now hang on the head's free chain.
  auto h = head();
  EXPECT_GT(gb_free_count(h.data()), 0);
  EXPECT_EQ(get(keys[0]), std::string(300, 'a'));
  EXPECT_EQ(findings(), "");
  // And they serve the group again.
  int16_t free_before = gb_free_count(h.data());
  for (size_t i = 1; i < keys.size(); ++i) ASSERT_EQ(put(keys[i], std::string(300, keys[i][0])), 1);
  EXPECT_LT(gb_free_count(head().data()), free_before);
  EXPECT_EQ(findings(), "");
}

int g_split_calls = 0;
int count_split(REL_TYPE* rel) { return ++g_split_calls > 1 ? M_split_group(rel) : -1; }

TEST_F(FlWrite, ALoadedGroupAsksForASplitUntilOneSucceeds) {
  open_new(true, 0);
  M_split_routine = count_split;
  ASSERT_EQ(put("A", "small"), 1);
  EXPECT_EQ(rel.sfd->split_flag, 0);
  EXPECT_EQ(g_split_calls, 0);
  // Over the split load (60 percent of the keys' room): the first attempt
  // fails, the flag stays set and the modulo does not change.
  int added = 0;
  while (g_split_calls == 0) ASSERT_EQ(put("K" + std::to_string(added++) + std::string(20, 'k'), "r"), 1);
  EXPECT_EQ(rel.sfd->split_flag, 1);
  EXPECT_EQ(rel.sfd->modulo, 1u);
  // The flag asks again at the next add, whatever its group's load: this
  // split succeeds and clears it.
  ASSERT_EQ(put("B", "x"), 1);
  EXPECT_EQ(g_split_calls, 2);
  EXPECT_EQ(rel.sfd->split_flag, 0);
  EXPECT_EQ(rel.sfd->modulo, 2u);
  M_split_routine = M_split_group;
  EXPECT_EQ(get("B"), "x");
  EXPECT_EQ(findings(), "");
}

TEST_F(FlWrite, DirectoryTypeFilesHoldOneFilePerRecord) {
  path = tmp.str() + "/DIR";
  ASSERT_EQ(mkdir(path.c_str(), 0777), 0);
  REL_TYPE dir;
  std::snprintf(dir.path, sizeof dir.path, "%s", path.c_str());
  dir.modulo = 0;
  ASSERT_EQ(M_append_strtuple(&dir, bytes(std::string("PROG")), 4, bytes(std::string("line\n")), 5, 0, nullptr), 1);
  EXPECT_EQ(slurp(path + "/PROG"), "line\n");
  EXPECT_EQ(M_read_key(&dir, bytes(std::string("PROG")), 4), 1);
  std::string got;
  EXPECT_EQ(M_read_tuple(&dir, bytes(std::string("PROG")), 4, &got), 1);
  EXPECT_EQ(got, "line\n");
  M_add_mode = ADD_IF_ABSENT;
  EXPECT_EQ(M_append_strtuple(&dir, bytes(std::string("PROG")), 4, bytes(std::string("x")), 1, 0, nullptr), -1);
  EXPECT_EQ(M_delete_tuple(&dir, bytes(std::string("PROG")), 4, nullptr), 1);
  EXPECT_EQ(M_delete_tuple(&dir, bytes(std::string("PROG")), 4, nullptr), 0);
  EXPECT_EQ(M_read_tuple(&dir, bytes(std::string("PROG")), 4, &got), 0);
  EXPECT_EQ(M_append_strtuple(&dir, bytes(std::string("../x")), 4, bytes(std::string("x")), 1, 0, nullptr), -1);
}

}  // namespace
