#include "flib/fl_check.h"

#include "fl_test_util.h"
#include "flib/fl_hash.h"
#include "flib/fl_ovhdr.h"

namespace {

constexpr uint32_t B = 1024;
constexpr uint32_t kModulo = 5;

std::vector<std::string> check(const std::string& path) {
  std::vector<std::string> findings;
  int count = 0;
  stdout_of([&] { count = M_check_file(path.c_str(), &findings); });
  EXPECT_EQ(count, static_cast<int>(findings.size()));
  return findings;
}

bool has(const std::vector<std::string>& findings, const std::string& text) {
  for (const auto& f : findings)
    if (f.find(text) != std::string::npos) return true;
  return false;
}

std::string joined(const std::vector<std::string>& findings) {
  std::string all;
  for (const auto& f : findings) all += f + "\n";
  return all;
}

// Replaces block `index` of a file.
void put_block(const std::string& path, uint32_t index, const std::vector<uint8_t>& block) {
  auto bytes = read_bytes(path);
  if (bytes.size() < (index + 1) * B) bytes.resize((index + 1) * B);
  std::copy(block.begin(), block.end(), bytes.begin() + index * B);
  write_bytes(path, bytes);
}

class FlCheck : public testing::Test {
 protected:
  TempDir tmp;
  std::string dir, path;
  uint32_t group_of_a = 0;
  void SetUp() override {
    dir = tmp.str();
    path = dir + "/S";
    ASSERT_EQ(M_create_hashed(path.c_str(), kModulo, 1, 0, 0, nullptr), 1);
    // Keys "A" and "F" both hash to 65 mod 5 = 0 and 70 mod 5 = 0.
    group_of_a = hash_decimal_static(key_bytes("A"), 1, kModulo);
    auto head = make_group_block(B, B * (group_of_a + 1), group_of_a, FLAG_HEAD, {"A", "F"});
    put_block(path, group_of_a + 1, head);
  }
};

TEST_F(FlCheck, KeyInTheWrongGroup) {
  auto head = make_group_block(B, B * 3, 2, FLAG_HEAD, {"A"});
  put_block(path, 3, head);
  auto findings = check(path);
  EXPECT_TRUE(has(findings, "group 2 block 0XC00: key 'A' hashes to group 0")) << joined(findings);
}

TEST_F(FlCheck, ChainsThatLoopOrLeaveTheFile) {
  auto head = make_group_block(B, B, 0, FLAG_HEAD, {"A"});
  gb_set_next(head.data(), 6 * B);
  put_block(path, 1, head);
  auto cont = make_group_block(B, 6 * B, 0, FLAG_CONTINUATION, {"F"});
  gb_set_next(cont.data(), 6 * B);
  put_block(path, 6, cont);
  EXPECT_TRUE(has(check(path), "group 0: chain loops back to 0X1800"));
  gb_set_next(cont.data(), 40 * B);
  put_block(path, 6, cont);
  EXPECT_TRUE(has(check(path), "group 0: block 0XA000 lies outside the file"));
  gb_set_next(cont.data(), 0);
  gb_set_flags(cont.data(), FLAG_HEAD);
  put_block(path, 6, cont);
  EXPECT_TRUE(has(check(path), "group 0 block 0X1800: flags 2, a continuation block was expected"));
}

TEST_F(FlCheck, BrokenFieldsOfAGroupBlock) {
  auto head = make_group_block(B, B, 0, FLAG_HEAD, {"A", "F"});
  gb_set_group(head.data(), 4);
  gb_set_hashtype(head.data(), 7);
  gb_set_key_bytes(head.data(), 9);
  ke_set_length(head.data(), 1, 900);
  put_block(path, 1, head);
  auto findings = check(path);
  EXPECT_TRUE(has(findings, "group 0 block 0X400: group field 4")) << joined(findings);
  EXPECT_TRUE(has(findings, "group 0 block 0X400: hash type byte 7"));
  EXPECT_TRUE(has(findings, "group 0 block 0X400: key bytes 9, the keys take 4"));
  EXPECT_TRUE(has(findings, "group 0 block 0X400: row 1 record lies outside the data area"));
  gb_set_datapos(head.data(), 60);
  put_block(path, 1, head);
  EXPECT_TRUE(has(check(path), "group 0 block 0X400: blksize=1024, datapos=60 "));
}

TEST_F(FlCheck, LongRecordChains) {
  auto head = make_group_block(B, B, 0, FLAG_HEAD, {"A"});
  ke_set_position(head.data(), 0, 6 * B + DB_DATA);
  ke_set_length(head.data(), 0, static_cast<int32_t>(2 * (B - 12)));  // two blocks
  put_block(path, 1, head);
  std::vector<uint8_t> first(B, 0), last(B, 0);
  gb_set_flags(first.data(), FLAG_LONG_FIRST);
  fl_put_u32(first.data(), DB_NEXT, 7 * B);
  gb_set_flags(last.data(), FLAG_LONG_LAST);
  put_block(path, 6, first);
  put_block(path, 7, last);
  EXPECT_EQ(joined(check(path)), "");
  gb_set_flags(last.data(), FLAG_LONG_MIDDLE);
  put_block(path, 7, last);
  EXPECT_TRUE(has(check(path), "group 0: long record at 0X180C: block 0X1C00 has flags 4"));
  fl_put_u32(first.data(), DB_NEXT, 0);
  put_block(path, 6, first);
  EXPECT_TRUE(has(check(path), "group 0: long record at 0X180C ends after 1 of 2 blocks"));
}

TEST_F(FlCheck, DynamicHeadersAndStrayParts) {
  std::string dyn = dir + "/D";
  ASSERT_EQ(M_create_hashed(dyn.c_str(), 4, 1, 64, 0, nullptr), 1);
  auto over = read_bytes(dyn + "/over001");
  fl_put_i16(over.data(), OH_STACK_CAPACITY, 10);
  fl_put_u32(over.data(), OH_MIN_MODULO, 9);
  write_bytes(dyn + "/over001", over);
  write_bytes(dyn + "/over002", std::vector<uint8_t>(B, 0));
  auto findings = check(dyn);
  EXPECT_TRUE(has(findings, "over001: stack capacity 10, not 237")) << joined(findings);
  EXPECT_TRUE(has(findings, "over001: modulo 4 below minimum modulo 9"));
  EXPECT_TRUE(has(findings, dyn + "/over002 exists beyond the recorded overflow parts"));
  EXPECT_EQ(check(dir + "/none"), std::vector<std::string>{dir + "/none: the file does not open"});
}

TEST_F(FlCheck, EveryOverflowBlockIsUsedOnceOrFreeAndCounted) {
  std::string dyn = dir + "/D";
  ASSERT_EQ(M_create_hashed(dyn.c_str(), 1, 1, 64, 0, nullptr), 1);
  // The head's row "A" holds a record of two blocks at 1 and 2 of over001.
  auto head = make_group_block(B, B, 0, FLAG_HEAD, {"A"});
  gb_set_hashtype(head.data(), 64);
  gb_set_over_part(head.data(), 1);
  ke_set_position(head.data(), 0, ADDR_OVERFLOW | (B + DB_DATA));
  ke_set_length(head.data(), 0, static_cast<int32_t>(2 * (B - 12)));
  auto dat = read_bytes(dyn + "/dat001");
  std::copy(head.begin(), head.end(), dat.begin() + B);
  write_bytes(dyn + "/dat001", dat);
  std::vector<uint8_t> first(B, 0), last(B, 0), spare(B, 0);
  gb_set_flags(first.data(), FLAG_LONG_FIRST);
  fl_put_u32(first.data(), DB_NEXT, ADDR_OVERFLOW | 2 * B);
  gb_set_flags(last.data(), FLAG_LONG_LAST);
  auto over = read_bytes(dyn + "/over001");
  for (const auto* block : {&first, &last, &spare}) over.insert(over.end(), block->begin(), block->end());
  write_bytes(dyn + "/over001", over);
  auto findings = check(dyn);
  EXPECT_EQ(joined(findings), "over001: block 0X80000C00 is neither used nor free\n");
  // The spare block on the free stack, but counted wrong; then the record's
  // first block on the stack too.
  fl_put_i16(over.data(), OH_STACK_COUNT, 1);
  fl_put_u32(over.data(), OH_STACK, ADDR_OVERFLOW | 3 * B);
  fl_put_u32(over.data(), OH_FREE_COUNT, 2);
  write_bytes(dyn + "/over001", over);
  EXPECT_EQ(joined(check(dyn)), "over001: free count 2, the stack and free list hold 1\n");
  fl_put_i16(over.data(), OH_STACK_COUNT, 2);
  fl_put_u32(over.data(), OH_STACK + 4, ADDR_OVERFLOW | B);
  write_bytes(dyn + "/over001", over);
  findings = check(dyn);
  EXPECT_TRUE(has(findings, "block 0X80000400 is free and a long record block")) << joined(findings);
}

}  // namespace
