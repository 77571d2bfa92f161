#include "flib/fl_io.h"

#include <cstring>

#include "fl_test_util.h"
#include "flib/fl_hash.h"
#include "flib/fl_coding.h"
#include "flib/fl_free.h"
#include "flib/fl_ovhdr.h"
#include "support/run_program.h"

namespace {

constexpr uint32_t B = 1024;

int find(const std::vector<uint8_t>& block, const char* key) {
  return find_key_in_block(block.data(), B, key_bytes(key), static_cast<int32_t>(std::strlen(key)));
}

TEST(FlIo, FindKeyWalksTheKeyAreaDownward) {
  auto block = make_group_block(B, B, 0, FLAG_HEAD, {"A", "BC", "", "BCD"});
  EXPECT_EQ(find(block, "A"), 0);
  EXPECT_EQ(find(block, "BC"), 1);
  EXPECT_EQ(find(block, ""), 2);
  EXPECT_EQ(find(block, "BCD"), 3);
  EXPECT_EQ(find(block, "B"), -1);
  EXPECT_EQ(find(make_group_block(B, B, 0, FLAG_HEAD, {}), ""), -1);
  // A length byte that reaches into the key table ends the walk.
  block[initial_datapos(B) - 1] = 120;
  EXPECT_EQ(find(block, "A"), -1);
  EXPECT_EQ(M_get_order(make_group_block(B, B, 0, FLAG_HEAD, {"A", "B"}).data(), B, B + initial_datapos(B) + 3), 1);
  EXPECT_EQ(M_get_order(make_group_block(B, B, 0, FLAG_HEAD, {"A", "B"}).data(), B, 5), -1);
}

TEST(FlIo, GroupBlockValidationInOrder) {
  char text[64];
  auto block = make_group_block(B, B, 0, FLAG_HEAD, {"A"});
  EXPECT_EQ(group_block_fault(block.data(), B, true, text, sizeof text), nullptr);
  gb_set_datapos(block.data(), 100);
  EXPECT_STREQ(group_block_fault(block.data(), B, true, text, sizeof text), "blksize=1024, datapos=100 ");
  EXPECT_STREQ(group_block_fault(block.data(), B, false, text, sizeof text), "datapos");
  gb_set_datapos(block.data(), 1025);
  EXPECT_STREQ(group_block_fault(block.data(), B, false, text, sizeof text), "datapos");
  gb_set_datapos(block.data(), 124);
  gb_set_byteleft(block.data(), static_cast<int16_t>(B - 11));
  EXPECT_STREQ(group_block_fault(block.data(), B, true, text, sizeof text), "byteleft");
  gb_set_byteleft(block.data(), -1);
  EXPECT_STREQ(group_block_fault(block.data(), B, true, text, sizeof text), "byteleft");
  gb_set_byteleft(block.data(), 901);
  EXPECT_STREQ(group_block_fault(block.data(), B, true, text, sizeof text), "datapos+byteleft");
  gb_set_byteleft(block.data(), 900);
  gb_set_key_count(block.data(), 12);  // rows would run into the key area
  EXPECT_STREQ(group_block_fault(block.data(), B, true, text, sizeof text), "key table");
}

// A static file of 3 groups of 1 KiB blocks.
class FlIoFile : public RecordFile {
 protected:
  void SetUp() override { create(3, 1, 0); }
  std::string failing(const std::function<int()>& call) {
    return stdout_of([&] { EXPECT_EQ(call(), -1); });
  }
};

TEST_F(FlIoFile, WritesBelowTheGroupOrOffAlignmentAreRefused) {
  auto block = make_group_block(B, B, 1, FLAG_HEAD, {"K"});
  M_groupno = 0;
  EXPECT_EQ(failing([&] { return M_blkwrite(&rel, 0, block.data()); }),
            "1:block offset, blkoff=0X0 error in M_blkwrite for file '" + path + "', key '', number=0\n");
  M_groupno = 1;
  EXPECT_EQ(failing([&] { return M_blkwrite(&rel, B, block.data()); }),
            "1:block offset, blkoff=0X400 error in M_blkwrite for file '" + path + "', key '', number=1\n");
  EXPECT_EQ(failing([&] { return M_blkwrite(&rel, 2 * B + 512, block.data()); }),
            "1:block offset, blkoff=0XA00 error in M_blkwrite for file '" + path + "', key '', number=1\n");
  ASSERT_EQ(M_blkwrite(&rel, 2 * B, block.data()), 1);
  auto bytes = read_bytes(path);
  ASSERT_EQ(bytes.size(), 4 * B);
  EXPECT_EQ(bytes[2 * B + GB_KEY_COUNT], 1);
}

TEST_F(FlIoFile, ReadChecksGroupAndKind) {
  uint8_t buffer[MAX_BLOCK_SIZE];
  M_groupno = 1;
  ASSERT_EQ(M_blkread(&rel, 2 * B, buffer, CHECK_HEAD), 1);
  EXPECT_EQ(gb_group(buffer), 1u);
  EXPECT_EQ(failing([&] { return M_blkread(&rel, 2 * B, buffer, CHECK_CONTINUATION); }),
            "1:check over error in M_blkread for file '" + path + "', key '', number=1\n");
  M_groupno = 2;
  EXPECT_EQ(failing([&] { return M_blkread(&rel, 2 * B, buffer, CHECK_HEAD); }),
            "1:Grpno error. blkbuf->group=1, M_groupno=2,  error in M_blkread for file '" + path +
                "', key '', number=2\n");
  EXPECT_EQ(M_blkread(&rel, 2 * B, buffer, CHECK_NONE), 1);
  EXPECT_EQ(failing([&] { return M_blkread(&rel, 2 * B + 512, buffer, CHECK_NONE); }),
            "1:block offset error in M_blkread for file '" + path + "', key '', number=2\n");
  std::string past = failing([&] { return M_blkread(&rel, 9 * B, buffer, CHECK_NONE); });
  EXPECT_NE(past.find("M_pread return error. fd="), std::string::npos);
  EXPECT_NE(past.find("blksize=1024, blkoff=9216. ret=0, errno=0. Read error in M_blkread"), std::string::npos);

  // A data block (flag bit 1 clear) passes check 0; check 2 skips the kind.
  std::vector<uint8_t> data(B, 0);
  gb_set_group(data.data(), 2);
  gb_set_flags(data.data(), FLAG_LONG_FIRST);
  ASSERT_EQ(M_blkwrite(&rel, 4 * B, data.data()), 1);
  EXPECT_EQ(M_blkread(&rel, 4 * B, buffer, CHECK_HEAD), 1);
  gb_set_flags(data.data(), FLAG_CONTINUATION);
  ASSERT_EQ(M_blkwrite(&rel, 4 * B, data.data()), 1);
  EXPECT_EQ(M_blkread(&rel, 4 * B, buffer, CHECK_GROUP_ONLY), 1);
}

TEST_F(FlIoFile, GroupScanFollowsTheChain) {
  M_groupno = 0;
  auto head = make_group_block(B, B, 0, FLAG_HEAD, {"A", "B"});
  gb_set_next(head.data(), 4 * B);
  auto cont = make_group_block(B, B, 0, FLAG_CONTINUATION, {"C", "K"});
  ASSERT_EQ(M_blkwrite(&rel, B, head.data()), 1);
  ASSERT_EQ(M_blkwrite(&rel, 4 * B, cont.data()), 1);
  uint8_t block[MAX_BLOCK_SIZE];
  uint32_t address = B, previous = 0;
  int32_t row = -1;
  ASSERT_EQ(M_read_grpblk(&rel, &address, block, key_bytes("K"), 1, &row, &previous), 1);
  EXPECT_EQ(address, 4 * B);
  EXPECT_EQ(previous, B);
  EXPECT_EQ(row, 1);
  EXPECT_EQ(M_found_position, ke_position(cont.data(), 1));
  EXPECT_EQ(M_found_length, 3);
  EXPECT_EQ(std::memcmp(M_blkbuf, cont.data(), B), 0);

  address = B;
  ASSERT_EQ(M_read_grpblk(&rel, &address, block, key_bytes("B"), 1, &row, &previous), 1);
  EXPECT_EQ(address, B);
  EXPECT_EQ(row, 1);
  address = B;
  EXPECT_EQ(M_read_grpblk(&rel, &address, block, key_bytes("Q"), 1, &row, &previous), 0);

  // A head kind in the chain is refused.
  gb_set_flags(cont.data(), FLAG_HEAD);
  ASSERT_EQ(M_blkwrite(&rel, 4 * B, cont.data()), 1);
  address = B;
  std::string out = failing([&] { return M_read_grpblk(&rel, &address, block, key_bytes("Q"), 1, &row, &previous); });
  EXPECT_NE(out.find("1:check over error in M_blkread"), std::string::npos);
  EXPECT_NE(out.find("2:check over error in M_read_grpblk for file '" + path + "', key 'Q', number=0\n"),
            std::string::npos);
  // A head whose datapos is broken is not searched.
  gb_set_datapos(head.data(), 50);
  ASSERT_EQ(M_blkwrite(&rel, B, head.data()), 1);
  address = B;
  EXPECT_EQ(failing([&] { return M_read_grpblk(&rel, &address, block, key_bytes("A"), 1, &row, &previous); }),
            "1:blksize=1024, datapos=50  error in M_read_grpblk for file '" + path + "', key 'A', number=0\n");
}

// A head block written past the size limit of its primary part opens a new
// part at offset B, with the positions of its in-block records rebased.
TEST(FlIoDynamic, FullPrimaryPartMovesTheHeadToANewPart) {
  TempDir tmp;
  std::string path = tmp.str() + "/D";
  ASSERT_EQ(M_create_hashed(path.c_str(), 3, 1, 64, 0, nullptr), 1);
  ProgramResult child = run_in_child([&] {
    REL_TYPE rel;
    // dat001 may not grow beyond its 4 blocks.
    if (int failed = open_under_size_limit(&rel, path, 4 * B)) _exit(failed);
    M_groupno = 3;  // the group a split would add
    auto head = make_group_block(B, 4 * B, 3, FLAG_HEAD, {"K", "L"});
    ke_set_position(head.data(), 1, 0x80000000u | (2 * B + 12));  // a record in overflow stays
    if (M_blkwrite(&rel, 4 * B, head.data()) != 1) _exit(12);
    if (rel.primary.size() != 2 || rel.primary[1].first_group != 3) _exit(13);
    M_closefile(&rel);
  });
  ASSERT_EQ(child.status, 0);
  EXPECT_EQ(read_bytes(path + "/dat001").size(), 4 * B);
  auto dat2 = read_bytes(path + "/dat002");
  ASSERT_EQ(dat2.size(), 2 * B);
  EXPECT_EQ(fl_get_i32(dat2.data(), 56), 3);
  const uint8_t* moved = dat2.data() + B;
  EXPECT_EQ(gb_group(moved), 3u);
  EXPECT_EQ(ke_position(moved, 0), B + initial_datapos(B));
  EXPECT_EQ(ke_position(moved, 1), 0x80000000u | (2 * B + 12));
  EXPECT_EQ(fl_get_u16(read_bytes(path + "/over001").data(), 52), 2);
}

// A data block (whose positions start at `base`) holding the records one
// after another from offset 12, and a head block whose rows point to them.
struct Arranged {
  std::vector<uint8_t> head, data;
};

Arranged records_in_block(uint32_t base, uint8_t flags, const std::vector<std::string>& records) {
  Arranged a{make_group_block(B, B, 0, FLAG_HEAD, std::vector<std::string>(records.size(), "k")),
             std::vector<uint8_t>(B, 0)};
  gb_set_flags(a.data.data(), flags);
  uint32_t at = DB_DATA;
  for (size_t i = 0; i < records.size(); ++i) {
    std::copy(records[i].begin(), records[i].end(), a.data.begin() + at);
    ke_set_position(a.head.data(), static_cast<int32_t>(i), base + at);
    ke_set_length(a.head.data(), static_cast<int32_t>(i), static_cast<int32_t>(records[i].size()));
    at += static_cast<uint32_t>(records[i].size());
  }
  gb_set_byteleft(a.data.data(), static_cast<int16_t>(B - at));
  return a;
}

TEST_F(FlIoFile, ArrangeClosesTheHoleAndMovesLaterRows) {
  M_groupno = 0;
  auto a = records_in_block(6 * B, 0, {"aaa", "bbbb", "cc"});
  ASSERT_EQ(M_arrange_block(&rel, a.head.data(), a.data.data(), 6 * B, 1, B), 1);
  EXPECT_EQ(std::string(a.data.begin() + 12, a.data.begin() + 18), std::string("aaacc\0", 6));
  EXPECT_EQ(gb_byteleft(a.data.data()), static_cast<int16_t>(B - 17));
  EXPECT_EQ(ke_position(a.head.data(), 0), 6 * B + 12);
  EXPECT_EQ(ke_position(a.head.data(), 2), 6 * B + 15);
  auto bytes = read_bytes(path);
  ASSERT_EQ(bytes.size(), 7 * B);
  EXPECT_TRUE(std::equal(a.data.begin(), a.data.end(), bytes.begin() + 6 * B));
}

TEST_F(FlIoFile, ArrangeDropsTheLongTailMarkAndFreesEmptyBlocks) {
  M_groupno = 0;
  auto tail = records_in_block(6 * B, FLAG_LONG_LAST, {"tail!", "xyz"});
  ASSERT_EQ(M_arrange_block(&rel, tail.head.data(), tail.data.data(), 6 * B, 0, B), 1);
  EXPECT_EQ(gb_flags(tail.data.data()), 0);
  EXPECT_EQ(ke_position(tail.head.data(), 1), 6 * B + 12);

  auto single = records_in_block(6 * B, 0x10, {"only"});
  gb_set_free_chain(single.head.data(), 9 * B);
  gb_set_free_count(single.head.data(), 1);
  ASSERT_EQ(M_arrange_block(&rel, single.head.data(), single.data.data(), 6 * B, 0, B), 1);
  EXPECT_EQ(gb_flags(single.data.data()), 0x10);  // bits 4-7 are kept
  EXPECT_EQ(gb_byteleft(single.data.data()), static_cast<int16_t>(B - 12));
  EXPECT_EQ(fl_get_u32(single.data.data(), DB_NEXT), 9 * B);
  EXPECT_EQ(gb_free_chain(single.head.data()), 6 * B);
  EXPECT_EQ(gb_free_count(single.head.data()), 2);
  EXPECT_EQ(single.data[12], 0);

  auto bad = records_in_block(6 * B, 0, {"abc"});
  ke_set_length(bad.head.data(), 0, 2000);
  std::string out = failing([&] { return M_arrange_block(&rel, bad.head.data(), bad.data.data(), 6 * B, 0, B); });
  EXPECT_NE(out.find("movlen error in M_arrange_block"), std::string::npos);
}

class FlIoOverflow : public RecordFile {};

TEST_F(FlIoOverflow, EmptiedBlocksGoBackToTheOverflowPart) {
  create(3, 1, 64);
  M_groupno = 0;
  // A full group free list sends the emptied block to the file.
  auto a = records_in_block(ADDR_OVERFLOW | B, 0, {"rec"});
  gb_set_free_count(a.head.data(), 5);
  ASSERT_EQ(M_arrange_block(&rel, a.head.data(), a.data.data(), ADDR_OVERFLOW | B, 0, B), 1);
  ASSERT_EQ(M_release_to_file(&rel, 0), 0);
  auto over = read_bytes(path + "/over001");
  EXPECT_EQ(fl_get_i16(over.data(), OH_STACK_COUNT), 1);
  EXPECT_EQ(fl_get_u32(over.data(), OH_STACK), ADDR_OVERFLOW | B);
  EXPECT_EQ(fl_get_u32(over.data(), OH_FREE_COUNT), 1u);

  // With the stack full, released blocks become a free-list block.
  fl_put_i16(over.data(), OH_STACK_COUNT, static_cast<int16_t>(overflow_stack_capacity(B)));
  write_bytes(path + "/over001", over);
  ASSERT_EQ(M_release_to_file(&rel, ADDR_OVERFLOW | 2 * B), 0);
  ASSERT_EQ(M_release_to_file(&rel, ADDR_OVERFLOW | 3 * B), 0);
  ASSERT_EQ(M_release_to_file(&rel, 0), 0);
  over = read_bytes(path + "/over001");
  ASSERT_EQ(over.size(), 4 * B);
  EXPECT_EQ(fl_get_u32(over.data(), OH_FREE_HEAD), ADDR_OVERFLOW | 3 * B);
  EXPECT_EQ(fl_get_u32(over.data(), OH_FREE_COUNT), 3u);
  const uint8_t* list = over.data() + 3 * B;
  EXPECT_EQ(gb_flags(list), FLAG_FREE_LIST);
  EXPECT_EQ(fl_get_i16(list, FL_LAST_INDEX), 1);
  EXPECT_EQ(fl_get_u32(list, FL_SPACE_LEFT), B - 84);
  EXPECT_EQ(fl_get_u32(list, FL_NEXT), 0u);
  EXPECT_EQ(fl_get_u32(list, FL_ENTRIES), ADDR_OVERFLOW | 2 * B);
  EXPECT_EQ(fl_get_u32(list, FL_ENTRIES + 4), ADDR_OVERFLOW | 3 * B);
}

}  // namespace
