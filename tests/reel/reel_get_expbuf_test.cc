// Selection lists and the level arena.
#include "reel/reel_get_expbuf.h"

#include <cstdint>
#include <cstring>
#include <deque>
#include <fstream>

#include "support/temp_dir.h"

namespace {

class Lists : public testing::Test {
 protected:
  void SetUp() override { reel_clear_lists(); }
  void TearDown() override { reel_clear_lists(); }
  const char* file(const std::string& text) {
    paths_.push_back(dir_.str() + "/list" + std::to_string(paths_.size()));
    std::ofstream(paths_.back()) << text;
    return paths_.back().c_str();
  }
  TempDir dir_;
  std::deque<std::string> paths_;
};

TEST_F(Lists, BlockListFieldsAndTheNewestEntryWins) {
  ASSERT_EQ(reel_load_block_list(file("  CUSTOMERS 4\n\nORDERS,,97\nBAD x 12a\nCUSTOMERS, 2 ,7\n"
                                      "ONLY\n")),
            1);
  int32_t factor, modulo;
  EXPECT_EQ(reel_find_block_entry("CUSTOMERS", &factor, &modulo), 1);
  EXPECT_EQ(factor, 2);
  EXPECT_EQ(modulo, 7);
  EXPECT_EQ(reel_find_block_entry("ORDERS", &factor, &modulo), 1);
  EXPECT_EQ(factor, 97);  // empty fields vanish between separators
  EXPECT_EQ(modulo, -1);
  EXPECT_EQ(reel_find_block_entry("BAD", &factor, &modulo), 1);
  EXPECT_EQ(factor, -1);
  EXPECT_EQ(modulo, -1);
  EXPECT_EQ(reel_find_block_entry("customers", &factor, &modulo), 0);  // case counts
  EXPECT_EQ(factor, -1);
  EXPECT_EQ(reel_find_block_entry("CUSTOMER", &factor, &modulo), 0);
}

TEST_F(Lists, BlockListModuloRules) {
  ASSERT_EQ(reel_load_block_list(file("CUSTOMERS 4\nDOUBLE 0\nSET 1 50\nNEG -3\n")), 1);
  EXPECT_EQ(reel_block_list_modulo("CUSTOMERS", 101), 29);  // 101 / 4 = 25 -> 29
  EXPECT_EQ(reel_block_list_modulo("DOUBLE", 10), 23);      // twice 10 -> 23
  EXPECT_EQ(reel_block_list_modulo("SET", 7), 53);          // a listed modulo is made prime
  EXPECT_EQ(reel_block_list_modulo("NEG", 8), 11);          // not a number: factor 1
  EXPECT_EQ(reel_block_list_modulo("ABSENT", 8), 11);
}

TEST_F(Lists, RefusedLists) {
  EXPECT_EQ(reel_load_block_list(file("\n   \n\n")), 0);
  EXPECT_EQ(reel_load_block_list(file("")), 0);
  EXPECT_EQ(reel_load_block_list((dir_.str() + "/missing").c_str()), 0);
  EXPECT_EQ(reel_load_block_list(file(std::string(129, 'N') + " 2\n")), 0);
  reel_clear_lists();
  EXPECT_EQ(reel_load_block_list(file(std::string(128, 'N') + " 2\n")), 1);

  // 15,360 bytes of names cannot fit beside their entries.
  reel_clear_lists();
  std::string many;
  for (int i = 0; i < 1536; ++i) many += "NAME" + std::to_string(10000 + i).substr(1) + "\n";
  EXPECT_EQ(reel_load_block_list(file(many)), 0);
}

TEST_F(Lists, RecoveryListDropsEveryBlankAndKeepsEmptyNames) {
  ASSERT_EQ(reel_load_recovery_list(file("MY FILE \n  BP\n\n")), 1);
  EXPECT_EQ(reel_in_recovery_list("MYFILE"), 1);
  EXPECT_EQ(reel_in_recovery_list("BP"), 1);
  EXPECT_EQ(reel_in_recovery_list(""), 1);
  EXPECT_EQ(reel_in_recovery_list("MY FILE"), 0);

  reel_clear_lists();
  std::string many;
  for (int i = 0; i < 1100; ++i) many += "FILE" + std::to_string(10000 + i).substr(1) + "\n";
  EXPECT_EQ(reel_load_recovery_list(file(many)), 0);  // 1100 * (9 + 4) > 10,240
}

class Arena : public testing::Test {
 protected:
  void SetUp() override { reel_init_levels(); }
};

TEST_F(Arena, LevelsLieInPagesOf200) {
  for (int i = 1; i <= 200; ++i) ASSERT_EQ(reel_push_level(), i);
  int32_t page, place;
  EXPECT_TRUE(reel_level_entry_position(200, &page, &place));
  EXPECT_EQ(page, 1);
  EXPECT_EQ(place, 0);
  EXPECT_TRUE(reel_level_entry_position(199, &page, &place));
  EXPECT_EQ(page, 0);
  EXPECT_EQ(place, 199);

  EXPECT_EQ(reel_pop_level(150), 1);  // closes everything above too
  EXPECT_EQ(reel_arena_level(), 149);
  EXPECT_FALSE(reel_level_entry_position(200, &page, &place));
  EXPECT_EQ(reel_push_level(), 150);
}

TEST_F(Arena, IllegalPops) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(reel_pop_level(0), 0);
  reel_push_level();
  EXPECT_EQ(reel_pop_level(2), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "illegal level 0, current level 0\nillegal level 2, current level 1\n");
}

TEST_F(Arena, AllocationSizesAndRegions) {
  auto* a = static_cast<unsigned char*>(reel_arena_alloc(0));
  auto* b = static_cast<unsigned char*>(reel_arena_alloc(8));
  auto* c = static_cast<unsigned char*>(reel_arena_alloc(3));
  EXPECT_EQ(b - a, 8);   // 0 takes 8 usable bytes
  EXPECT_EQ(c - b, 16);  // 8 takes 16
  std::memset(a, 1, 8);
  EXPECT_EQ(reel_arena_alloc(-1), nullptr);

  int32_t level = reel_push_level();
  void* big = reel_arena_alloc(REEL_ARENA_DEFAULT_SIZE + 100);
  ASSERT_NE(big, nullptr);
  EXPECT_EQ(reel_arena_region_size(), REEL_ARENA_DEFAULT_SIZE + 104);
  EXPECT_EQ(reel_arena_region_count(), 2);
  EXPECT_EQ(reel_pop_level(level), 1);
  EXPECT_EQ(reel_arena_region_count(), 1);  // the first region was barely used
  // Memory after a pop is handed out again from where the level began.
  EXPECT_EQ(static_cast<unsigned char*>(reel_arena_alloc(1)), c + 8);
}

TEST_F(Arena, ASpareRegionStaysWhenTheCurrentOneIsMoreThanHalfUsed) {
  reel_arena_alloc(REEL_ARENA_DEFAULT_SIZE / 2 + 64);
  int32_t level = reel_push_level();
  reel_arena_alloc(REEL_ARENA_DEFAULT_SIZE / 2);
  reel_arena_alloc(REEL_ARENA_DEFAULT_SIZE / 2);
  EXPECT_EQ(reel_arena_region_count(), 3);
  EXPECT_EQ(reel_pop_level(level), 1);
  EXPECT_EQ(reel_arena_region_count(), 2);
}

}  // namespace
