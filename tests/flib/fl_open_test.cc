#include "flib/fl_open.h"

#include "fl_test_util.h"
#include "flib/fl_coding.h"
#include "flib/fl_globals.h"
#include "flib/fl_hash.h"
#include "flib/fl_io.h"
#include "flib/fl_lock.h"
#include "flib/lrgfillib.h"
#include "support/run_program.h"

namespace {

// Opens `path` and returns what the open printed; `result` gets the result.
std::string open_output(const std::string& path, int* result) {
  REL_TYPE rel;
  std::string out = stdout_of([&] { *result = M_openfile(&rel, path.c_str(), 2); });
  if (*result == 1) M_closefile(&rel);
  return out;
}

void patch_i32(const std::string& path, uint32_t offset, int32_t value) {
  auto bytes = read_bytes(path);
  fl_put_i32(bytes.data(), offset, value);
  write_bytes(path, bytes);
}

class FlOpen : public testing::Test {
 protected:
  TempDir tmp;
  std::string dir;
  std::string path;
  void SetUp() override {
    dir = tmp.str();
    path = dir + "/S";
    ASSERT_EQ(M_create_hashed(path.c_str(), 3, 1, 0, 0, nullptr), 1);
  }
};

TEST_F(FlOpen, DamagedStaticFilesAreRefusedWithTheirMessages) {
  auto resize = [&](size_t size) {
    auto bytes = read_bytes(path);
    bytes.resize(size);
    write_bytes(path, bytes);
  };
  struct Case {
    std::function<void()> damage;
    std::string message;
    int result;
  } cases[] = {
      {[&] { resize(4 * 1024 + 100); },
       "File size (4196) is not a multiple of block size(1024).\nError msgno = 75. \n", -1},
      {[&] { resize(3 * 1024); },
       "File size(3072) is < minimum hash file size, blocksize(1024) * (modulo(3) + 1).\nError msgno = 75. \n", -1},
      {[&] { patch_i32(path, 24, 2); },
       "The 7th integer location in file header(RFS flag) should be 0 or 1, it is (2).\nError msgno = 75. \n", -1},
      {[&] { patch_i32(path, 24, 1); }, "", 1},
      {[&] { patch_i32(path, 4, 3); }, "Error msgno = 117. \n", -1},
      {[&] { patch_i32(path, 4, 0x8000); }, "Error msgno = 117. \n", -1},  // negative as a 16-bit word
  };
  for (const auto& c : cases) {
    std::filesystem::remove(path);
    ASSERT_EQ(M_create_hashed(path.c_str(), 3, 1, 0, 0, nullptr), 1);
    c.damage();
    int result = 0;
    EXPECT_EQ(open_output(path, &result), c.message);
    EXPECT_EQ(result, c.result) << c.message;
  }
}

TEST_F(FlOpen, ForeignFormatWordsAreReported) {
  const std::string machine = "This machine is a low byte machine.\n";
  struct Case {
    int32_t word;
    std::string text;
  } cases[] = {
      {1, path + " is low byte machine 1.6 version.\n"},
      {16777216, path + " is high byte machine 1.6 version.\n"},
      {3, "Nonrecoverable " + path + " is low byte machine 2.0 dynamic version.\n"},
      {33554432, "Nonrecoverable " + path + " is high byte machine 2.0 static version.\n"},
      {50331648, "Nonrecoverable " + path + " is high byte machine 2.0 dynamic version.\n"},
      {4, path + " is not a Morvane data file.\n"},
      {0, path + " is not a Morvane data file.\n"},
  };
  for (const auto& c : cases) {
    patch_i32(path, 12, c.word);
    int result = 0;
    EXPECT_EQ(open_output(path, &result), machine + c.text) << c.word;
    EXPECT_EQ(result, -1);
  }
  // A dynamic file whose word says static.
  std::string dyn = dir + "/D";
  ASSERT_EQ(M_create_hashed(dyn.c_str(), 3, 1, 64, 0, nullptr), 1);
  patch_i32(dyn + "/dat001", 12, 2);
  patch_i32(dyn + "/dat001", 24, 1);
  int result = 0;
  EXPECT_EQ(open_output(dyn, &result), machine + "Recoverable " + dyn + " is low byte machine 2.0 static version.\n");
  EXPECT_EQ(result, -1);
  // The right word, but a static hash type in a directory.
  patch_i32(dyn + "/dat001", 12, 3);
  patch_i32(dyn + "/dat001", 4, 0);
  EXPECT_EQ(open_output(dyn, &result), "Error msgno = 30372. \n");
  EXPECT_EQ(result, -1);
}

TEST_F(FlOpen, LanguageBytesMustMatchTheRunningGroup) {
  int result = 0;
  auto bytes = read_bytes(path);
  bytes[52] = 0;
  bytes[53] = 0;
  write_bytes(path, bytes);
  open_output(path, &result);
  EXPECT_EQ(result, 1);  // zeros pass while the running values are the defaults
  M_langgrp[1] = 200;
  EXPECT_EQ(open_output(path, &result), "Error msgno = 30411. \n");
  EXPECT_EQ(result, -1);
  M_langgrp[1] = 192;
  bytes[52] = 254;
  write_bytes(path, bytes);
  EXPECT_EQ(open_output(path, &result), "Error msgno = 30411. \n");
}

TEST_F(FlOpen, MissingFilesAndZeroMaxFlength) {
  int result = 0;
  std::string out = open_output(dir + "/none", &result);
  EXPECT_EQ(result, -1);
  EXPECT_EQ(out.rfind("Error msgno = 427. \n", 0), 0u);

  std::string dyn = dir + "/D";
  ASSERT_EQ(M_create_hashed(dyn.c_str(), 3, 1, 64, 0, nullptr), 1);
  patch_i32(dyn + "/dat001", 60, 0);
  ScopedEnv length("MAX_FLENGTH", "4096");
  REL_TYPE rel;
  ASSERT_EQ(M_openfile(&rel, dyn.c_str(), 2), 1);
  EXPECT_EQ(rel.groups_per_part, 4);
  M_closefile(&rel);
}

// A dynamic file of 4 primary and 4 overflow parts (3 groups a part).
std::string make_many_parts(const std::string& dir) {
  ScopedEnv length("MAX_FLENGTH", "4096");
  M_spread = 1;
  std::string path = dir + "/M";
  EXPECT_EQ(M_create_hashed(path.c_str(), 12, 1, 64, 0, nullptr), 1);
  M_spread = 0;
  return path;
}

TEST_F(FlOpen, DescriptorsAreEvictedOldestFirstButNotWhileLocked) {
  std::string many = make_many_parts(dir);
  ScopedEnv nfiles("NFILES", "25");  // 5 descriptors for parts
  REL_TYPE rel;
  ASSERT_EQ(M_openfile(&rel, many.c_str(), 2), 1);
  ASSERT_EQ(rel.primary.size(), 4u);
  ASSERT_EQ(rel.overflow.size(), 4u);
  EXPECT_LE(M_open_part_count(), 5);
  uint8_t block[MAX_BLOCK_SIZE];
  uint32_t head0 = M_get_head_off(&rel, 0);
  ASSERT_EQ(M_lock_block(&rel, head0, LOCK_EXCLUSIVE), 0);
  for (int round = 0; round < 2; ++round) {
    for (uint32_t g = 0; g < 12; ++g) {
      M_groupno = g;
      ASSERT_EQ(M_blkread(&rel, M_get_head_off(&rel, g), block, CHECK_HEAD), 1);
      EXPECT_EQ(gb_group(block), g);
      EXPECT_LE(M_open_part_count(), 5);
    }
    for (int32_t p = 1; p <= 4; ++p) ASSERT_EQ(M_set_over_fd(&rel, p), 0);
  }
  // The locked part kept its descriptor throughout.
  EXPECT_EQ(rel.primary[0].closed, 0);
  EXPECT_GE(rel.primary[0].fd, 0);
  EXPECT_EQ(rel.primary[0].lock_count, 1);
  EXPECT_EQ(M_unlock_block(&rel, head0), 0);
  EXPECT_EQ(rel.primary[0].lock_count, 0);
  M_closefile(&rel);
  EXPECT_EQ(M_open_part_count(), 0);
}

TEST_F(FlOpen, AFullLargeFileTableRefusesWithoutHarmingEarlierRows) {
  std::string dyn = dir + "/D";
  ASSERT_EQ(M_create_hashed(dyn.c_str(), 3, 1, 64, 0, nullptr), 1);
  std::string many = make_many_parts(dir);
  REL_TYPE first;
  ASSERT_EQ(M_openfile(&first, dyn.c_str(), 2), 1);
  int32_t saved = M_large_file_limit;
  M_set_large_file_limit(5);
  REL_TYPE rel;
  std::string out = stdout_of([&] { EXPECT_EQ(M_openfile(&rel, many.c_str(), 2), -1); });
  M_set_large_file_limit(saved);
  EXPECT_NE(out.find("Too many dynamic part files (5) are opened.\n"), std::string::npos);
  uint8_t block[MAX_BLOCK_SIZE];
  M_groupno = 2;
  EXPECT_EQ(M_blkread(&first, M_get_head_off(&first, 2), block, CHECK_HEAD), 1);
  EXPECT_EQ(M_set_over_fd(&first, 1), 0);
  M_closefile(&first);
}

TEST_F(FlOpen, DynHashReturnsTheLockedHeadOfTheKeysGroup) {
  std::string dyn = dir + "/D";
  ASSERT_EQ(M_create_hashed(dyn.c_str(), 7, 1, 64, 0, nullptr), 1);
  REL_TYPE rel;
  ASSERT_EQ(M_openfile(&rel, dyn.c_str(), 2), 1);
  int64_t head = M_dyn_hash(&rel, key_bytes("ABC"), 3, LOCK_EXCLUSIVE);
  uint32_t group = M_hash(key_bytes("ABC"), 3, &rel);
  ASSERT_EQ(head, static_cast<int64_t>(M_get_head_off(&rel, group)));
  ProgramResult other = run_in_child([&] {
    int fd = open((dyn + "/dat001").c_str(), O_RDWR);
    _exit(M_mrvlockf(fd, LOCK_SHARED | LOCK_NOWAIT, static_cast<uint32_t>(head), 1) == 0 ? 0 : 11);
  });
  EXPECT_EQ(other.status, 11);
  EXPECT_EQ(M_unlock_block(&rel, static_cast<uint32_t>(head)), 0);
  M_closefile(&rel);
}

}  // namespace
