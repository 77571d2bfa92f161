// The -M conversions, the label's tape form and the mkreel program.

#include <cstring>

#include "reel/reel_convert.h"
#include "reel/reel_tape_format.h"
#include "reel/reel_util.h"
#include "reel/tape_child.h"

namespace {

using tape_test::scratch;

std::vector<unsigned char> bytes(std::initializer_list<int> values) {
  std::vector<unsigned char> out;
  for (int v : values) out.push_back(static_cast<unsigned char>(v));
  return out;
}

TEST(ReelConvert, EbcdicTableKeepsMarksAndMapsUnknownsToQuestionMark) {
  auto b = bytes({0xC1, 0x81, 0xF0, 0x40, 0x4B, 0x6F, 0xB0, 0xFA, 0xFB, 0xFC, 0xFD, 0xFE, 0xFF, 0x25});
  reel_convert_bytes(b.data(), '1', static_cast<int32_t>(b.size()), REEL_CONVERT_READ);
  EXPECT_EQ(b, bytes({'A', 'a', '0', ' ', '.', '?', '?', '?', 0xFB, 0xFC, 0xFD, 0xFE, 0xFF, '\n'}));
}

TEST(ReelConvert, WritingThenReadingGivesTheBytesBack) {
  std::string text = "Hello, World! {x} [y] 0123456789 ~|_\\";
  for (char mode : {'1', '2', '3'}) {
    std::vector<unsigned char> b(text.begin(), text.end());
    b.push_back(0);  // room for mode 3's odd count
    const auto n = static_cast<int32_t>(text.size());
    EXPECT_EQ(reel_convert_bytes(b.data(), mode, n, REEL_CONVERT_WRITE), 0) << mode;
    EXPECT_NE(std::string(b.begin(), b.begin() + n), text) << mode;
    reel_convert_bytes(b.data(), mode, n, REEL_CONVERT_READ);
    EXPECT_EQ(std::string(b.begin(), b.begin() + n), text) << mode;
  }
  // Tape text has its high bits set, which EBCDIC cannot carry.
  auto high = bytes({0xC1, 0x41});
  EXPECT_EQ(reel_convert_bytes(high.data(), '1', 2, REEL_CONVERT_WRITE), 1);
}

TEST(ReelConvert, SwapOfAnOddCountStaysInsideTheBuffer) {
  reel_reset_settings();
  reel_settings.convert_mode = '3';
  auto b = bytes({1, 2, 3, 9});
  reel_convert_read(b.data(), 3, 4);  // the byte behind the count is there
  EXPECT_EQ(b, bytes({2, 1, 9, 3}));
  b = bytes({1, 2, 3});
  reel_convert_read(b.data(), 3, 3);  // it is not: the last byte stays
  EXPECT_EQ(b, bytes({2, 1, 3}));
  reel_reset_settings();
}

std::string run_mkreel(const std::string& dir, const std::string& script, int* status) {
  spill(dir + "/script", script);
  ProgramResult r = run_program({.program = "mkreel", .args = {"script"}, .directory = dir});
  *status = r.status;
  return r.output;
}

TEST(Mkreel, WritesTheImageByteForByte) {
  std::string dir = scratch("mkreel");
  int status = 0;
  std::string out = run_mkreel(dir,
                               "# one reel\n"
                               "tape a.tap\n"
                               "label no=1 name=ACCT date=03-17-92 rev=2\n"
                               "block data 'hi'   # two bytes\n"
                               "end\n",
                               &status);
  ASSERT_EQ(status, 0) << out;
  const auto expect = bytes({
      24, 0, 0, 0,  // label record
      0, 0, 0, 12, 0, 4, 0xA0, 0, 0xB0, 0xB3, 0xB1, 0xB7, 0xB9, 0xB2, 0, 0, 0, 1,
      0xC1, 0xC3, 0xC3, 0xD4, 0xA0, 0xA0, 24, 0, 0, 0,
      0, 0, 0, 0,  // mark
      8, 0, 0, 0, 0, 1, 0, 4, 0, 1, 'h', 'i', 8, 0, 0, 0,
      6, 0, 0, 0, 0, 2, 0, 3, 0, 5, 6, 0, 0, 0,
      0, 0, 0, 0,  // mark at close
  });
  std::string image = slurp(dir + "/a.tap");
  EXPECT_EQ(std::vector<unsigned char>(image.begin(), image.end()), expect);
}

// The records of a tape image, tape marks left out.
std::vector<std::string> image_records(const std::string& image) {
  std::vector<std::string> records;
  size_t at = 0;
  while (at + 4 <= image.size()) {
    uint32_t n = 0;
    std::memcpy(&n, image.data() + at, 4);
    at += 4;
    if (n == 0) continue;
    records.push_back(image.substr(at, n));
    at += n + (n & 1) + 4;
  }
  return records;
}

TEST(Mkreel, DescriptionsArePathsOfEntriesBelowTheAccount) {
  std::string dir = scratch("mkreel_paths");
  int status = 0;
  std::string out = run_mkreel(dir,
                               "tape a.tap\nlabel\n"
                               "account SYS ACCT type=5\n"
                               "file 'D_X Y' hashed\n"
                               "sub S1 dam DEEP 9\n"
                               "file Z 3\n",
                               &status);
  ASSERT_EQ(status, 0) << out;
  std::vector<std::string> r = image_records(slurp(dir + "/a.tap"));
  ASSERT_EQ(r.size(), 5u);  // label, account, file, deeper path, file
  const auto* account = reinterpret_cast<const unsigned char*>(r[1].data());
  EXPECT_EQ(r[1].size(), 102u);
  EXPECT_EQ(tape_block_length(account), 102);
  EXPECT_EQ(tape_block_type(account), TAPE_BLOCK_DESCRIPTION);
  // The first entry byte for byte: "SYS" in tape text, blank padded, type 4.
  std::string first(38, '\0');
  first[2] = static_cast<char>(0xD3);
  first[3] = static_cast<char>(0xD9);
  first[4] = static_cast<char>(0xD3);
  for (int i = 5; i < 34; ++i) first[i] = static_cast<char>(0xA0);
  EXPECT_EQ(r[1].substr(6, 38), first);
  EXPECT_EQ(r[1].substr(44, 10), std::string(1, '\0') + '\x04' + std::string(8, '\0'));

  struct Entry {
    size_t record;
    int32_t at;
    const char* name;
    int type;
  } entries[] = {{1, 54, "ACCT", 5},  {2, 6, "SYS", 4},   {2, 102, "D_X Y", 2},
                 {3, 102, "D_X Y", 2}, {3, 150, "S1", 1}, {3, 198, "DEEP", 9},
                 {4, 102, "Z", 3}};
  for (const Entry& e : entries) {
    const auto* block = reinterpret_cast<const unsigned char*>(r[e.record].data());
    char name[PATH_NAME_SIZE + 1];
    tape_path_name(name, block, e.at);
    EXPECT_STREQ(name, e.name);
    EXPECT_EQ(tape_path_type(block, e.at), e.type) << e.name;
  }
  EXPECT_EQ(r[3].size(), 246u);
  EXPECT_EQ(r[4].size(), 150u);
}

TEST(Mkreel, NamesTheFaultyLine) {
  std::string dir = scratch("mkreel_bad");
  int status = 0;
  std::string out = run_mkreel(dir, "tape a.tap\nlabel\nblock data bogus\n", &status);
  EXPECT_NE(status, 0);
  EXPECT_EQ(out, "mkreel: line 3: unknown item 'bogus'\n");
  out = run_mkreel(dir, "record 8192\ntape plain.dat\nlabel\n", &status);
  EXPECT_EQ(out, "mkreel: line 3: plain.dat: a plain file cannot carry a label\n");
  out = run_mkreel(dir, "tape a.tap\naccount ACCT\nsub X\n", &status);
  EXPECT_EQ(out, "mkreel: line 3: 'sub' takes pairs of name and type\n");
  out = run_mkreel(dir, "tape a.tap\nfile ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456 dir\n", &status);
  EXPECT_EQ(out,
            "mkreel: line 2: a.tap: the name 'ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456' is longer than 32 "
            "characters\n");
  out = run_mkreel(dir, "tape a.tap\ntext 'a\\x11b'\n", &status);
  EXPECT_EQ(out, "mkreel: line 2: a.tap: the text holds a byte the tape form cannot carry\n");
  out = run_mkreel(dir, "tape a.tap\nlarge K x\n", &status);
  EXPECT_EQ(out, "mkreel: line 2: 'large' stands below a 'dynfile' line\n");
  out = run_mkreel(dir, "tape a.tap\ndynfile order=sideways\n", &status);
  EXPECT_EQ(out, "mkreel: line 2: order is chain or reversed\n");
  // A dynamic file is written when its lines end: the fault names that line.
  out = run_mkreel(dir, "tape a.tap\naccount A\nfile F hashed\ndynfile\nitem K '\\x80'\nend\n", &status);
  EXPECT_EQ(out, "mkreel: line 6: a.tap: a dynamic record cannot carry the byte 0x80\n");
}

// Member text through its tape form and back: blank runs (also longer than
// one run can say), newlines with their pads, and the decoder's own rule
// for a newline at an odd offset.
TEST(MemberText, EncodedTextDecodesToItself) {
  const std::string texts[] = {"", "a\n", "\n\n\nx", "ab\nc\n", "   ", "x" + std::string(250, ' ') + "y\n",
                               "  two blanks stay\n"};
  for (const std::string& text : texts) {
    std::vector<unsigned char> coded;
    ASSERT_TRUE(tape_encode_text(coded, text));
    std::vector<char> out(reel_text_worst_case(coded.size()));
    int n = reel_text_from_tape(out.data(), coded.data(), static_cast<int>(coded.size()));
    EXPECT_EQ(std::string(out.data(), static_cast<size_t>(n)), text);
  }
  std::vector<unsigned char> coded;
  EXPECT_FALSE(tape_encode_text(coded, std::string("a\0b", 3)));
  EXPECT_TRUE(coded.empty());
}

}  // namespace
