#include "flib/fl_hash.h"

#include <cstring>

#include "fl_test_util.h"

namespace {

uint32_t dyn_decimal(const char* key, uint32_t b, uint32_t m) {
  M_split_base = b;
  M_hash_modulo = m;
  return hash_decimal_dynamic(key_bytes(key), static_cast<int32_t>(std::strlen(key)));
}

uint32_t dyn_bitrev(const char* key, uint32_t b, uint32_t m) {
  M_split_base = b;
  M_hash_modulo = m;
  return hash_bitrev_dynamic(key_bytes(key), static_cast<int32_t>(std::strlen(key)));
}

TEST(FlHash, DynamicDecimalRehashesOnlySplitGroups) {
  // b=4, m=6: groups 0 and 1 have been split.
  EXPECT_EQ(dyn_decimal("1", 4, 6), 1u);  // 49 mod 4 = 1, mod 8 = 1
  EXPECT_EQ(dyn_decimal("5", 4, 6), 5u);  // 53 mod 4 = 1, mod 8 = 5
  EXPECT_EQ(dyn_decimal("2", 4, 6), 2u);  // 50 mod 4 = 2: not split yet
  EXPECT_EQ(dyn_decimal("7", 4, 6), 3u);
  // m = b: no group is split, no second pass.
  EXPECT_EQ(dyn_decimal("5", 4, 4), 1u);
}

TEST(FlHash, FoldPadsShortTailsWithDistinctConstants) {
  EXPECT_EQ(hash_fold_key(key_bytes("A"), 1), 0x41AAAAAAu);
  EXPECT_EQ(hash_fold_key(key_bytes("AB"), 2), 0x4142AAAAu);
  EXPECT_EQ(hash_fold_key(key_bytes("ABC"), 3), 0x414243AAu);
  EXPECT_EQ(hash_fold_key(key_bytes("ABCD"), 4), 0x41424344u);
  EXPECT_EQ(hash_fold_key(key_bytes("ABCDE"), 5), 0x650B8B08u);
  EXPECT_EQ(hash_fold_key(key_bytes("ABCDEF"), 6), 0x65E78B08u);
  EXPECT_EQ(hash_fold_key(key_bytes("ABCDEFG"), 7), 0x65E76608u);
  EXPECT_EQ(hash_fold_key(key_bytes("ABCDEFGH"), 8), 0x65E766EAu);
}

TEST(FlHash, StaticBitrevStopsAtNulButDynamicDoesNot) {
  EXPECT_EQ(hash_bitrev_static(key_bytes("A"), 1, 13), 10u);
  EXPECT_EQ(hash_bitrev_static(key_bytes("ABCDE"), 5, 13), 3u);
  EXPECT_EQ(hash_bitrev_static(key_bytes("KEY\0X"), 5, 13), hash_bitrev_static(key_bytes("KEY"), 3, 13));
  EXPECT_NE(hash_fold_key(key_bytes("KEY\0X"), 5), hash_fold_key(key_bytes("KEY"), 3));
}

TEST(FlHash, DynamicBitrevTakesTheNextBitForSplitGroups) {
  // b=8, m=13: groups 0..4 are split into 8..12.
  EXPECT_EQ(dyn_bitrev("1", 8, 13), 3u);
  EXPECT_EQ(dyn_bitrev("2", 8, 13), 8u);
  EXPECT_EQ(dyn_bitrev("3", 8, 13), 6u);
  EXPECT_EQ(dyn_bitrev("4", 8, 13), 5u);
  EXPECT_EQ(dyn_bitrev("10", 8, 13), 9u);
  EXPECT_EQ(dyn_bitrev("4", 16, 16), 13u);
}

// The decimal hash read one byte at a time, as the format defines it.
uint32_t decimal_by_byte(const uint8_t* key, int32_t length, uint32_t modulus) {
  uint64_t h = 0;
  for (int32_t i = 0; i < length; ++i) h = (h * 10 + key[i]) % modulus;
  return static_cast<uint32_t>(h);
}

TEST(FlHash, StaticDecimalMatchesTheByteByByteDefinition) {
  // Keys of every length up to the limit, bytes up to 0xFF, and moduli up
  // to the largest 32-bit value: the eight-byte steps must agree.
  uint8_t key[127];
  uint64_t x = 1;
  for (int32_t length = 0; length <= 126; ++length) {
    for (uint32_t modulus : {1u, 7u, 1009u, 65521u, 25229u, 0x7FFFFFFFu, 0xFFFFFFFBu, 0xFFFFFFFFu}) {
      for (int32_t i = 0; i < length; ++i) {
        x = x * 6364136223846793005ull + 1442695040888963407ull;
        key[i] = length % 3 == 0 ? 0xFF : static_cast<uint8_t>(x >> 56);
      }
      ASSERT_EQ(hash_decimal_static(key, length, modulus), decimal_by_byte(key, length, modulus))
          << "length " << length << ", modulus " << modulus;
    }
  }
}

TEST(FlHash, EmptyKeyGoesToGroupZeroUnderEveryHash) {
  EXPECT_EQ(hash_decimal_static(key_bytes(""), 0, 7), 0u);
  EXPECT_EQ(hash_bitrev_static(key_bytes(""), 0, 7), 0u);
  EXPECT_EQ(dyn_decimal("", 4, 6), 0u);
  EXPECT_EQ(dyn_bitrev("", 4, 6), 0u);
}

TEST(FlHash, SplitBaseRules) {
  EXPECT_EQ(split_base_for(64, 13, 3), 12u);  // 3 doubled while 2b <= 13
  EXPECT_EQ(split_base_for(64, 13, 20), 10u); // a minimum above the modulo is halved
  EXPECT_EQ(split_base_for(64, 5, 0), 4u);    // a stored 0 counts as 1
  EXPECT_EQ(split_base_for(65, 13, 3), 8u);   // type 1 ignores the minimum
  EXPECT_EQ(split_base_for(65, 0, 0), 1u);
  EXPECT_EQ(split_base_for(66, 100, 7), 1u);  // key-range
}

TEST(FlHash, DispatchByHashWord) {
  REL_TYPE rel;
  rel.block_size = 1024;
  rel.modulo = 6;
  rel.min_modulo = 4;
  rel.hashtype = 64;
  set_split_base(&rel);
  EXPECT_EQ(M_hash(key_bytes("5"), 1, &rel), 5u);
  EXPECT_EQ(M_groupno, 5u);
  rel.hashtype = 0;
  rel.modulo = 7;
  EXPECT_EQ(M_hash(key_bytes("123"), 3, &rel), 5u);  // 5451 mod 7
  EXPECT_EQ(hash_decimal_static(key_bytes("\xff\xff"), 2, 1000), 805u);  // bytes are unsigned
  rel.hashtype = 1;
  EXPECT_EQ(M_hash(key_bytes("A"), 1, &rel), hash_bitrev_static(key_bytes("A"), 1, 7));
}

TEST(FlHash, DynamicHashFollowsTheSharedModulo) {
  SharedFileRow row;
  row.modulo = 6;
  REL_TYPE rel;
  rel.hashtype = 64;
  rel.modulo = 4;
  rel.min_modulo = 4;
  rel.sfd = &row;
  set_split_base(&rel);
  EXPECT_EQ(M_hash(key_bytes("5"), 1, &rel), 5u);
  EXPECT_EQ(rel.modulo, 6);
  EXPECT_EQ(rel.split_base, 4u);
}

TEST(FlHash, KeyRangeWordGoesToTheTableButWord98IsRefused) {
  REL_TYPE rel;
  rel.hashtype = 66;
  rel.key_ranges = {"B", "D", "F"};
  EXPECT_EQ(M_hash(key_bytes("A"), 1, &rel), 0u);
  EXPECT_EQ(M_hash(key_bytes("B"), 1, &rel), 1u);
  EXPECT_EQ(M_hash(key_bytes("C"), 1, &rel), 1u);
  EXPECT_EQ(M_hash(key_bytes("E"), 1, &rel), 2u);
  EXPECT_EQ(M_hash(key_bytes("Z"), 1, &rel), 3u);
  rel.key_ranges.clear();
  EXPECT_EQ(M_hash(key_bytes("Z"), 1, &rel), 0u);

  rel.hashtype = 98;
  rel.modulo = 5;
  EXPECT_EQ(stdout_of([&] { EXPECT_EQ(M_hash(key_bytes("Z"), 1, &rel), 0u); }), "Error msgno = 117. \n");
}

}  // namespace
