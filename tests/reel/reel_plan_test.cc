// Analysis plans: the proposed modulo (the plan lines are the end-to-end
// analysis tests').
#include "reel/reel_plan.h"

#include <gtest/gtest.h>

#include "reel/reel_current.h"

namespace {

TEST(SuggestModulo, EmptyFilesKeepTheTapeModuloButNeverBelowOne) {
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DATA, 0, 0, 0, 7), 7);
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DICT, 0, 0, 0, 0), 1);
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DIR, 100, 5000, 30, 0), 0);
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_SAM, 100, 5000, 30, 4), 4);
}

TEST(SuggestModulo, SizeFromTheDataBoundedByRecordsThenRaisedToTheTape) {
  // k = 10000, d = 1,000,000, r = 1000: a = 9, n = 1,020,000 / 983 = 1037,
  // t = 1 + 1140 = 1141, more groups than records: bounded by next_prime(1000) = 1009.
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DATA, 10000, 1000000, 1000, 1), 1009);
  // r = 5000: t = 1141 stays.
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DATA, 10000, 1000000, 5000, 1),
            reel_suggest_modulo(FILE_KIND_DATA, 10000, 1000000, 5000, 0));
  // n = (1,000,000 + 50,000 + 10,000) / (992 - 1) = 1069, t = 1 + 1175 = 1176 -> 1181.
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DATA, 10000, 1000000, 5000, 1), 1181);
  // One record of 2,000 bytes: bounded by next_prime(1) = 1, then the tape's 13 wins.
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DATA, 6, 2000, 1, 13), 13);
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DATA, 6, 2000, 1, 0), 1);
  // The tape modulo is made prime when it wins.
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DICT, 6, 200, 3, 8), 11);
}

}  // namespace
