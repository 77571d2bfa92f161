#include "flib/fl_create.h"

#include "common/readconf.h"
#include "fl_test_util.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_globals.h"
#include "flib/fl_hash.h"
#include "flib/fl_io.h"
#include "flib/fl_ovhdr.h"

namespace {

constexpr int32_t kStamp = 0x5F00AA11;

// Expects every byte of [from, to) to be zero.
void expect_zero(const std::vector<uint8_t>& bytes, size_t from, size_t to, const char* what) {
  for (size_t i = from; i < to && i < bytes.size(); ++i) ASSERT_EQ(bytes[i], 0) << what << " byte " << i;
}

// Checks a header block field by field, and the reserved ranges.
void expect_file_header(const std::vector<uint8_t>& f, int32_t modulo, int32_t hashtype, int32_t format,
                        int32_t code, int32_t spread, int32_t first_group, int32_t max_flength) {
  ASSERT_GE(f.size(), 512u);
  const uint8_t* b = f.data();
  EXPECT_EQ(fl_get_i32(b, 0), modulo);
  EXPECT_EQ(fl_get_i32(b, 4), hashtype);
  EXPECT_EQ(fl_get_i32(b, 8), 0);
  EXPECT_EQ(fl_get_i32(b, 12), format);
  EXPECT_EQ(fl_get_i32(b, 16), code);
  EXPECT_EQ(fl_get_i32(b, 20), 0);
  EXPECT_EQ(fl_get_i32(b, 24), 0);
  EXPECT_EQ(fl_get_i32(b, 48), spread);
  EXPECT_EQ(b[52], 255);
  EXPECT_EQ(b[53], 192);
  EXPECT_EQ(b[54], 129);
  EXPECT_EQ(fl_get_i32(b, 56), first_group);
  EXPECT_EQ(fl_get_i32(b, 60), max_flength);
  expect_zero(f, 28, 48, "reserved 28");
  expect_zero(f, 55, 56, "reserved 55");
  expect_zero(f, 64, 256, "reserved 64");
  expect_zero(f, 256, 320, "triggers");
}

// Checks the head block of group g at `offset` of a part.
void expect_head(const std::vector<uint8_t>& f, uint32_t offset, uint32_t b, uint32_t group,
                 uint8_t hashtype, uint8_t over_part) {
  ASSERT_GE(f.size(), offset + b);
  const uint8_t* h = f.data() + offset;
  uint32_t d = initial_datapos(b);
  EXPECT_EQ(gb_free_chain(h), 0u);
  EXPECT_EQ(gb_byteleft(h), static_cast<int16_t>(b - d));
  EXPECT_EQ(gb_flags(h), FLAG_HEAD);
  EXPECT_EQ(gb_hashtype(h), hashtype);
  EXPECT_EQ(gb_group(h), group);
  EXPECT_EQ(gb_next(h), 0u);
  EXPECT_EQ(gb_time(h), static_cast<uint32_t>(kStamp));
  EXPECT_EQ(gb_key_count(h), 0);
  EXPECT_EQ(gb_key_bytes(h), 0);
  EXPECT_EQ(gb_datapos(h), static_cast<int16_t>(d));
  EXPECT_EQ(gb_free_count(h), 0);
  EXPECT_EQ(gb_over_part(h), over_part) << "group " << group;
  expect_zero(f, offset + 29, offset + b, "head block tail");
}

void expect_overflow_header(const std::vector<uint8_t>& f, uint32_t b, uint32_t next_block, uint32_t modulo,
                            uint8_t split, uint8_t merge, uint16_t primary, uint16_t overflow) {
  ASSERT_EQ(f.size(), b);
  const uint8_t* o = f.data();
  expect_zero(f, 0, 20, "reserved 0");
  EXPECT_EQ(fl_get_u32(o, 20), 0u);
  EXPECT_EQ(fl_get_i16(o, 24), 0);
  EXPECT_EQ(fl_get_i16(o, 26), static_cast<int16_t>((b - 76) / 4));
  EXPECT_EQ(fl_get_u32(o, 28), next_block);
  EXPECT_EQ(fl_get_u32(o, 32), modulo);
  EXPECT_EQ(fl_get_u32(o, 36), modulo);
  EXPECT_EQ(o[40], split);
  EXPECT_EQ(o[41], merge);
  EXPECT_EQ(fl_get_i16(o, 42), 5);
  EXPECT_EQ(fl_get_i32(o, 44), M_cfg_max_flength());
  EXPECT_EQ(fl_get_u32(o, 48), 0u);
  EXPECT_EQ(fl_get_u16(o, 52), primary);
  EXPECT_EQ(fl_get_u16(o, 54), overflow);
  expect_zero(f, 56, b, "reserved 56 and stack");
}

class FlCreate : public testing::Test {
 protected:
  TempDir tmp;
  std::string dir = tmp.str();
  void SetUp() override {
    M_file_time_stamp = kStamp;
    M_spread = 0;
  }
  void TearDown() override { M_spread = 0; }
};

TEST_F(FlCreate, StaticFilesAreByteExactForEveryBlockSize) {
  struct Case {
    int32_t create_code;
    int32_t header_code;
    uint32_t b;
  } cases[] = {{0, -1, 512}, {1, 0, 1024}, {4, 3, 4096}, {16, 15, 16384}};
  for (const auto& c : cases) {
    std::string path = dir + "/S" + std::to_string(c.b);
    ASSERT_EQ(M_create_hashed(path.c_str(), 7, c.create_code, 1, 0, nullptr), 1);
    auto f = read_bytes(path);
    ASSERT_EQ(f.size(), 8u * c.b);
    expect_file_header(f, 7, 1, 2, c.header_code, 0, 0, 1073741824);
    expect_zero(f, 320, c.b, "header tail");
    for (uint32_t g = 0; g < 7; ++g) expect_head(f, (g + 1) * c.b, c.b, g, 1, 0);

    REL_TYPE rel;
    ASSERT_EQ(M_openfile(&rel, path.c_str(), 2), 1);
    EXPECT_EQ(rel.modulo, 7);
    EXPECT_EQ(rel.block_size, c.b);
    EXPECT_EQ(rel.hashtype, 1);
    M_closefile(&rel);
  }
  // An existing name is refused.
  EXPECT_EQ(M_create_hashed((dir + "/S512").c_str(), 7, 0, 0, 0, nullptr), 0);
}

TEST_F(FlCreate, StaticFileTooLargeIsRefusedAndRemoved) {
  std::string path = dir + "/BIG";
  stdout_of([&] { EXPECT_EQ(M_create_hashed(path.c_str(), 131072, 16, 0, 0, nullptr), 0); });
  EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST_F(FlCreate, DynamicFileInOnePart) {
  std::string path = dir + "/D";
  ASSERT_EQ(M_create_hashed(path.c_str(), 5, 1, 64, 0, nullptr), 1);
  auto dat = read_bytes(path + "/dat001");
  ASSERT_EQ(dat.size(), 6u * 1024);
  expect_file_header(dat, 5, 64, 3, 0, 0, 0, 1073741824);
  for (uint32_t g = 0; g < 5; ++g) expect_head(dat, (g + 1) * 1024, 1024, g, 64, 0);
  expect_overflow_header(read_bytes(path + "/over001"), 1024, 1024, 5, 60, 40, 1, 1);
  EXPECT_NE(access((path + "/over002").c_str(), F_OK), 0);

  REL_TYPE rel;
  ASSERT_EQ(M_openfile(&rel, path.c_str(), 2), 1);
  EXPECT_EQ(rel.modulo, 5);
  EXPECT_EQ(rel.min_modulo, 5);
  EXPECT_EQ(rel.split_base, 5u);  // the minimum modulo itself
  EXPECT_EQ(rel.groups_per_part, 1048576);
  ASSERT_NE(rel.sfd, nullptr);
  EXPECT_EQ(rel.sfd->users, 1u);
  EXPECT_EQ(M_get_head_off(&rel, 4), 5u * 1024);

  // A second open of the same file shares its row.
  REL_TYPE again;
  ASSERT_EQ(M_openfile(&again, path.c_str(), 0), 1);
  EXPECT_EQ(again.sfd, rel.sfd);
  EXPECT_EQ(rel.sfd->users, 2u);
  M_closefile(&again);
  EXPECT_EQ(rel.sfd->users, 1u);
  M_closefile(&rel);
}

TEST_F(FlCreate, MoreGroupsThanOnePartHoldsStartDat002AtItsFirstGroup) {
  ScopedEnv length("MAX_FLENGTH", "8192");  // 7 groups of 1024 bytes per part
  std::string path = dir + "/D";
  ASSERT_EQ(M_create_hashed(path.c_str(), 10, 1, 65, 0, nullptr), 1);
  auto dat1 = read_bytes(path + "/dat001");
  auto dat2 = read_bytes(path + "/dat002");
  ASSERT_EQ(dat1.size(), 8u * 1024);
  ASSERT_EQ(dat2.size(), 4u * 1024);
  expect_file_header(dat1, 7, 65, 3, 0, 0, 0, 8192);
  expect_file_header(dat2, 7, 65, 3, 0, 0, 7, 8192);
  for (uint32_t g = 0; g < 7; ++g) expect_head(dat1, (g + 1) * 1024, 1024, g, 65, 0);
  for (uint32_t g = 7; g < 10; ++g) expect_head(dat2, (g - 6) * 1024, 1024, g, 65, 0);
  expect_overflow_header(read_bytes(path + "/over001"), 1024, 1024, 10, 60, 40, 2, 1);
  EXPECT_EQ(check_findings(path), "");

  REL_TYPE rel;
  ASSERT_EQ(M_openfile(&rel, path.c_str(), 2), 1);
  EXPECT_EQ(rel.modulo, 10);
  ASSERT_EQ(rel.primary.size(), 2u);
  EXPECT_EQ(rel.primary[1].first_group, 7u);
  EXPECT_EQ(M_get_head_off(&rel, 6), 7u * 1024);
  EXPECT_EQ(M_get_head_off(&rel, 7), 1024u | 1u);
  EXPECT_EQ(M_get_head_off(&rel, 9), 3u * 1024 | 1u);
  uint8_t block[MAX_BLOCK_SIZE];
  M_groupno = 9;
  ASSERT_EQ(M_blkread(&rel, M_get_head_off(&rel, 9), block, CHECK_HEAD), 1);
  EXPECT_EQ(gb_group(block), 9u);
  M_closefile(&rel);
}

TEST_F(FlCreate, SpreadLayoutsAssignOverflowParts) {
  {
    ScopedEnv length("MAX_FLENGTH", "8192");
    M_spread = 1;
    std::string path = dir + "/S1";
    ASSERT_EQ(M_create_hashed(path.c_str(), 10, 1, 64, 0, nullptr), 1);
    auto dat1 = read_bytes(path + "/dat001");
    auto dat2 = read_bytes(path + "/dat002");
    EXPECT_EQ(fl_get_i32(dat1.data(), 48), 1);
    for (uint32_t g = 0; g < 7; ++g) expect_head(dat1, (g + 1) * 1024, 1024, g, 64, 1);
    for (uint32_t g = 7; g < 10; ++g) expect_head(dat2, (g - 6) * 1024, 1024, g, 64, 2);
    expect_overflow_header(read_bytes(path + "/over001"), 1024, 1024, 10, 60, 40, 2, 2);
    expect_overflow_header(read_bytes(path + "/over002"), 1024, 1024, 10, 60, 40, 2, 2);
    REL_TYPE rel;
    ASSERT_EQ(M_openfile(&rel, path.c_str(), 2), 1);
    EXPECT_EQ(rel.overflow.size(), 2u);
    EXPECT_EQ(rel.spread, 1u);
    M_closefile(&rel);
  }
  {
    M_spread = 3;
    std::string path = dir + "/S3";
    ASSERT_EQ(M_create_hashed(path.c_str(), 10, 2, 64, 0, nullptr), 1);
    auto dat = read_bytes(path + "/dat001");
    // (g*2 - 1) div 10 + 1, truncating toward zero.
    const uint8_t parts[10] = {1, 1, 1, 1, 1, 1, 2, 2, 2, 2};
    for (uint32_t g = 0; g < 10; ++g) expect_head(dat, (g + 1) * 2048, 2048, g, 64, parts[g]);
    expect_overflow_header(read_bytes(path + "/over001"), 2048, 2048, 10, 60, 40, 1, 2);
    expect_overflow_header(read_bytes(path + "/over002"), 2048, 2048, 10, 60, 40, 1, 2);
    EXPECT_NE(access((path + "/over003").c_str(), F_OK), 0);
  }
}

TEST_F(FlCreate, LoadsComeFromTheSettingsByAccounting) {
  {
    ScopedEnv split("SPLIT_LOAD", "100");
    ScopedEnv merge("MERGE_LOAD", "95");
    ASSERT_EQ(M_create_hashed((dir + "/K").c_str(), 3, 1, 64, 0, nullptr), 1);
    auto over = read_bytes(dir + "/K/over001");
    EXPECT_EQ(over[40], 100);
    EXPECT_EQ(over[41], 90);
  }
  ASSERT_EQ(M_create_hashed((dir + "/KD").c_str(), 3, 1, 96, 0, nullptr), 1);
  auto keydata = read_bytes(dir + "/KD/over001");
  EXPECT_EQ(keydata[40], 95);
  EXPECT_EQ(keydata[41], 40);
  {
    ScopedEnv split("KEYDATA_SPLIT_LOAD", "80");
    ScopedEnv free_blocks("GRP_FREE_BLK", "9");
    ASSERT_EQ(M_create_hashed((dir + "/KD2").c_str(), 3, 1, 96, 0, nullptr), 1);
    auto over = read_bytes(dir + "/KD2/over001");
    EXPECT_EQ(over[40], 80);
    EXPECT_EQ(fl_get_i16(over.data(), 42), 9);
  }
}

TEST_F(FlCreate, InitfileTakesLoadsAndTriggersFromTheHandle) {
  std::string path = dir + "/H";
  ASSERT_EQ(mkdir(path.c_str(), 0777), 0);
  int fd = open((path + "/dat001").c_str(), O_RDWR | O_CREAT, 0666);
  REL_TYPE rel;
  std::snprintf(rel.path, sizeof rel.path, "%s", path.c_str());
  rel.modulo = 2;
  rel.hashtype = 64;
  rel.block_size = 1024;
  rel.rfs = 1;
  rel.split_load = 70;
  rel.merge_load = 20;
  std::snprintf(rel.update_trigger, sizeof rel.update_trigger, "%s", "ON.UPDATE");
  ASSERT_EQ(M_initfile(fd, &rel), 1);
  close(fd);
  auto dat = read_bytes(path + "/dat001");
  EXPECT_EQ(fl_get_i32(dat.data(), 24), 1);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&dat[256])), "ON.UPDATE");
  EXPECT_EQ(dat[288], 0);
  auto over = read_bytes(path + "/over001");
  EXPECT_EQ(over[40], 70);
  EXPECT_EQ(over[41], 20);
  EXPECT_EQ(rel.primary.size(), 1u);
  EXPECT_EQ(rel.overflow.size(), 1u);
}

TEST_F(FlCreate, LaterPartsGrowAnOpenFile) {
  std::string path = dir + "/G";
  ASSERT_EQ(M_create_hashed(path.c_str(), 4, 1, 64, 0, nullptr), 1);
  REL_TYPE rel;
  ASSERT_EQ(M_openfile(&rel, path.c_str(), 2), 1);
  ASSERT_EQ(create_overflow_part_file(&rel, 0), 0);
  ASSERT_EQ(create_primary_part_file(&rel, 0), 0);
  auto over2 = read_bytes(path + "/over002");
  ASSERT_EQ(over2.size(), 1024u);
  EXPECT_EQ(fl_get_u32(over2.data(), 28), 1024u | 1u);  // next block with the part index
  EXPECT_EQ(fl_get_u32(over2.data(), 32), 4u);
  EXPECT_EQ(fl_get_i16(over2.data(), 26), 237);
  EXPECT_EQ(fl_get_u16(over2.data(), 54), 2);
  auto dat2 = read_bytes(path + "/dat002");
  ASSERT_EQ(dat2.size(), 1024u);
  EXPECT_EQ(fl_get_i32(dat2.data(), 0), 4);   // minimum modulo
  EXPECT_EQ(fl_get_i32(dat2.data(), 4), 64);
  EXPECT_EQ(fl_get_i32(dat2.data(), 12), 0);  // only dat001's format word is read
  EXPECT_EQ(fl_get_i32(dat2.data(), 56), 4);  // first group: the modulo now
  auto over1 = read_bytes(path + "/over001");
  EXPECT_EQ(fl_get_u16(over1.data(), 52), 2);
  EXPECT_EQ(fl_get_u16(over1.data(), 54), 2);
  M_closefile(&rel);

  REL_TYPE again;
  ASSERT_EQ(M_openfile(&again, path.c_str(), 2), 1);
  ASSERT_EQ(again.primary.size(), 2u);
  EXPECT_EQ(again.overflow.size(), 2u);
  EXPECT_EQ(again.primary[1].first_group, 4u);
  M_closefile(&again);
}

}  // namespace
