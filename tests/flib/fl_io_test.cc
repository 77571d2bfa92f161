#include "flib/fl_io.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "fl_test_util.h"
#include "flib/fl_block.h"
#include "flib/fl_create.h"
#include "flib/fl_hash.h"
#include "flib/fl_open.h"
#include "flib/fl_rel.h"
#include "flib/fl_coding.h"

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

class FlIoFile : public testing::Test {
 protected:
  TempDir tmp;
  std::string path;
  REL_TYPE rel;
  void SetUp() override {
    path = tmp.str() + "/S";
    ASSERT_EQ(M_create_hashed(path.c_str(), 3, 1, 0, 0, nullptr), 1);
    ASSERT_EQ(M_openfile(&rel, path.c_str(), 2), 1);
  }
  void TearDown() override { M_closefile(&rel); }
  std::string failing(const std::function<int()>& call) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(call(), -1);
    return testing::internal::GetCapturedStdout();
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

}  // namespace

namespace {

// A head block written past the size limit of its primary part opens a new
// part at offset B, with the positions of its in-block records rebased.
TEST(FlIoDynamic, FullPrimaryPartMovesTheHeadToANewPart) {
  TempDir tmp;
  std::string path = tmp.str() + "/D";
  ASSERT_EQ(M_create_hashed(path.c_str(), 3, 1, 64, 0, nullptr), 1);
  pid_t pid = fork();
  if (pid == 0) {
    REL_TYPE rel;
    if (M_openfile(&rel, path.c_str(), 2) != 1) _exit(10);
    // dat001 may not grow beyond its 4 blocks.
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{4 * B, 4 * B};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(11);
    M_groupno = 3;  // the group a split would add
    auto head = make_group_block(B, 4 * B, 3, FLAG_HEAD, {"K", "L"});
    ke_set_position(head.data(), 1, 0x80000000u | (2 * B + 12));  // a record in overflow stays
    if (M_blkwrite(&rel, 4 * B, head.data()) != 1) _exit(12);
    if (rel.primary.size() != 2 || rel.primary[1].first_group != 3) _exit(13);
    M_closefile(&rel);
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(WEXITSTATUS(status), 0);
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

}  // namespace
