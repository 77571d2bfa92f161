#include "flib/parttbl.h"

#include "common/readroot.h"
#include "fl_test_util.h"
#include "flib/fl_io.h"

namespace {

using PartTable = ScratchTest;

std::string step(const char* from) {
  char p[3] = {from[0], from[1], '\0'};
  next_prefix(p);
  return p;
}

TEST_F(PartTable, PrefixesRunThroughCapitalsThenLowerCase) {
  EXPECT_EQ(step("AA"), "AB");
  EXPECT_EQ(step("AY"), "AZ");
  EXPECT_EQ(step("AZ"), "Aa");
  EXPECT_EQ(step("Ay"), "Az");
  EXPECT_EQ(step("Az"), "BA");
  EXPECT_EQ(step("Yz"), "ZA");
  EXPECT_EQ(step("Zz"), "aA");
  EXPECT_EQ(step("zz"), "AA");
}

TEST_F(PartTable, PrefixTableGivesEachFileNameItsOwnPrefix) {
  std::string partition = tmp.str();
  char target[512];
  ASSERT_EQ(form_relative_dirname(target, sizeof target, partition.c_str(), "/acct/CUSTOMERS"), 0);
  EXPECT_EQ(std::string(target), partition + "/AACUSTOMERS");
  ASSERT_EQ(form_relative_dirname(target, sizeof target, partition.c_str(), "/other/ORDERS/"), 0);
  EXPECT_EQ(std::string(target), partition + "/ABORDERS");
  ASSERT_EQ(form_relative_dirname(target, sizeof target, partition.c_str(), "/acct/CUSTOMERS"), 0);
  EXPECT_EQ(std::string(target), partition + "/AACUSTOMERS");
  EXPECT_EQ(slurp(partition + "/.fil_prefix_tbl"), "AA:CUSTOMERS\nAB:ORDERS\n");
  // The walk goes on from the last line.
  std::ofstream(partition + "/.fil_prefix_tbl", std::ios::app) << "AZ:X\n";
  ASSERT_EQ(form_relative_dirname(target, sizeof target, partition.c_str(), "/a/NEXT"), 0);
  EXPECT_EQ(std::string(target), partition + "/AaNEXT");
}

TEST_F(PartTable, TableFileRowsFollowTheDefaultRow) {
  std::string home = tmp.str();
  std::ofstream(home + "/parttbl") << "# partitions\n/data/p1 2000 1\n\n/data/p2 10 2 # second\n";
  setenv("MRVHOME", (home + "/").c_str(), 1);
  setenv("MRVBIN", (home + "/").c_str(), 1);
  mkdir((home + "/Temp").c_str(), 0777);
  reset_root_for_tests();
  read_root();
  ASSERT_EQ(M_load_part_table(), 0);
  ASSERT_EQ(M_part_table.size(), 3u);
  EXPECT_STREQ(M_part_table[0].path, ".");
  EXPECT_EQ(M_part_table[0].reserve, 1000u);
  EXPECT_EQ(M_part_table[0].id, 0u);
  EXPECT_STREQ(M_part_table[2].path, "/data/p2");
  EXPECT_EQ(M_part_table[2].reserve, 10u);
  std::ofstream(home + "/parttbl") << "/data/p1 many 1\n";
  stdout_of([&] { EXPECT_EQ(M_load_part_table(), -1); });
  unsetenv("MRVHOME");
  unsetenv("MRVBIN");
  reset_root_for_tests();
  EXPECT_EQ(M_load_part_table(), 0);
  EXPECT_EQ(M_part_table.size(), 1u);
}

TEST_F(PartTable, SpaceCheckUsesTheReserve) {
  M_load_part_table();
  uint32_t cell = 3000;
  PartTableRow row;
  std::snprintf(row.path, sizeof row.path, "/nowhere");
  row.reserve = 1000;
  row.id = 7;
  row.space_cell = &cell;
  M_part_table.push_back(row);
  EXPECT_EQ(M_check_partition_space(7, "/nowhere", 1000 * 512), 1);
  EXPECT_EQ(M_check_partition_space(7, "/nowhere", 2000 * 512), 0);
  // An unknown id falls back to the default row, which asks the disk.
  EXPECT_EQ(M_check_partition_space(99, REEL_TEST_TMP, 512), 1);
  M_load_part_table();
}

TEST_F(PartTable, PartsGoToAnotherPartitionThroughALink) {
  struct stat shm, build;
  if (stat("/dev/shm", &shm) != 0 || stat(REEL_TEST_TMP, &build) != 0 || shm.st_dev == build.st_dev ||
      access("/dev/shm", W_OK) != 0)
    GTEST_SKIP() << "no second file system to place parts on";
  std::string partition = "/dev/shm/mrv_parttbl_" + std::to_string(getpid());
  NT_RemoveFile(partition.c_str(), "");
  mkdir(partition.c_str(), 0777);
  M_load_part_table();
  M_part_table[0].reserve = 0x7FFFFFFF;  // the file's own disk is "full"
  PartTableRow row;
  std::snprintf(row.path, sizeof row.path, "%s", partition.c_str());
  row.id = 1;
  M_part_table.push_back(row);

  std::string path = dir + "/FAR";
  ASSERT_EQ(M_create_hashed(path.c_str(), 3, 1, 64, 0, nullptr), 1);
  char link[512];
  ssize_t n = readlink((path + "/dat001").c_str(), link, sizeof link - 1);
  ASSERT_GT(n, 0);
  link[n] = '\0';
  EXPECT_EQ(std::string(link), partition + "/AAFAR/dat001");
  n = readlink((path + "/over001").c_str(), link, sizeof link - 1);
  ASSERT_GT(n, 0);
  link[n] = '\0';
  EXPECT_EQ(std::string(link), partition + "/AAFAR/over001");
  EXPECT_EQ(read_bytes(partition + "/AAFAR/dat001").size(), 4u * 1024);

  REL_TYPE rel;
  ASSERT_EQ(M_openfile(&rel, path.c_str(), 2), 1);
  EXPECT_EQ(rel.modulo, 3);
  M_closefile(&rel);
  M_load_part_table();
  NT_RemoveFile(partition.c_str(), "");
}

TEST_F(PartTable, IllegalPartNames) {
  REL_TYPE rel;
  rel.block_size = 1024;
  uint32_t device = 0;
  testing::internal::CaptureStdout();
  EXPECT_EQ(M_create_part_file(&rel, "dat001", &device, 1024, 0), -1);
  EXPECT_EQ(M_create_part_file(&rel, "/tmp/x/notes", &device, 1024, 0), -1);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out, "filename (dat001) is illegal.\nfilename (/tmp/x/notes) is illegal.\n");
  std::ofstream(dir + "/dat001") << "x";
  EXPECT_EQ(stdout_of([&] { EXPECT_EQ(M_create_part_file(&rel, (dir + "/dat001").c_str(), &device, 1024, 0), -1); }),
            "File (" + dir + "/dat001) is existed.\n");
}

}  // namespace
