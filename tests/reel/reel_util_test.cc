// Tape text and number services.
#include "reel/reel_util.h"

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/mrv_marks.h"
#include "reel/reel_tape_format.h"

namespace {

using Bytes = std::vector<unsigned char>;

std::string decode_text(const Bytes& source) {
  std::string out(reel_text_worst_case(source.size()), '\x01');
  int n = reel_text_from_tape(out.data(), source.data(), static_cast<int>(source.size()));
  EXPECT_EQ(out[static_cast<size_t>(n)], '\0');
  out.resize(static_cast<size_t>(n));
  return out;
}

TEST(NextPrime, SmallNumbersPassAndOthersRiseToAPrime) {
  EXPECT_EQ(reel_next_prime(4), 5);
  EXPECT_EQ(reel_next_prime(9), 11);
  EXPECT_EQ(reel_next_prime(25), 29);
  EXPECT_EQ(reel_next_prime(29), 29);
  EXPECT_EQ(reel_next_prime(3), 3);
  EXPECT_EQ(reel_next_prime(1), 1);
  EXPECT_EQ(reel_next_prime(0), 0);
  EXPECT_EQ(reel_next_prime(-5), -5);
  EXPECT_EQ(reel_next_prime(1000), 1009);
  EXPECT_EQ(reel_next_prime(120), 127);  // 121 = 11 * 11 needs the divisor at the root
}

TEST(NextPrime, TheSearchEndsAtItsLimitWithAMessage) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(reel_next_prime(999999999), 999999999);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Number 999999999 out of prime number table range.\n");
}

TEST(IsNumber, DigitsOnlyFewerThanTen) {
  EXPECT_EQ(reel_is_number("123456789"), 1);
  EXPECT_EQ(reel_is_number("1234567890"), 0);
  EXPECT_EQ(reel_is_number(""), 1);
  EXPECT_EQ(reel_is_number("12a"), 0);
  EXPECT_EQ(reel_is_number("-1"), 0);
}

TEST(NameFromTape, HighBitTextWithZeroFillerAndTrailingBlanks) {
  char out[16];
  const unsigned char ab[] = {0xC1, 0xC2, 0xA0, 0xA0};
  EXPECT_EQ(reel_name_from_tape(out, ab, 4), 2);
  EXPECT_STREQ(out, "AB");

  const unsigned char inner[] = {0xC1, 0xA0, 0xC2};
  EXPECT_EQ(reel_name_from_tape(out, inner, 3), 3);
  EXPECT_STREQ(out, "A B");  // blanks inside a name stay

  const unsigned char zero[] = {0xC1, 0x00, 0xC2};
  EXPECT_EQ(reel_name_from_tape(out, zero, 3), 3);
  EXPECT_EQ(std::memcmp(out, "A\0B", 4), 0);

  std::strcpy(out, "old");
  EXPECT_EQ(reel_name_from_tape(out, ab, 0), 0);
  EXPECT_STREQ(out, "");
}

TEST(MaskCopy, FlipsTheHighBitAndKeepsZeros) {
  char out[8];
  const unsigned char in[] = {0xC1, 0x41, 0x00, 0x80};
  reel_mask_copy(out, in, 4);
  EXPECT_EQ(std::memcmp(out, "A\xC1\0\0\0", 5), 0);
  std::strcpy(out, "old");
  reel_mask_copy(out, in, -1);
  EXPECT_STREQ(out, "");

  // Every byte value, at every place of the eight-byte words and behind them.
  std::vector<unsigned char> all(256 * 9 + 5);
  for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<unsigned char>(i * 9 / 8 + i / 256);
  std::vector<char> flipped(all.size() + 1);
  reel_mask_copy(flipped.data(), all.data(), static_cast<int>(all.size()));
  for (size_t i = 0; i < all.size(); ++i)
    ASSERT_EQ(static_cast<unsigned char>(flipped[i]), all[i] == 0 ? 0 : all[i] ^ 0x80) << i;
  EXPECT_EQ(flipped[all.size()], '\0');
}

TEST(TextFromTape, BlankRunsNewlinesAndFiller) {
  EXPECT_EQ(decode_text({0xC1, 0x91, 3, 0xC2}), "A   B");
  EXPECT_EQ(decode_text({0x91, 100}), std::string(100, ' '));
  // A count of 0 or above 100 is no count: the byte stands on its own.
  EXPECT_EQ(decode_text({0x91, 0, 0xC1}), std::string("\x80", 1) + "A");
  EXPECT_EQ(decode_text({0x91, 101}), std::string("\xE5", 1));
  EXPECT_EQ(decode_text({0xC1, 0x91}), "A");
  EXPECT_EQ(decode_text({0x80, 0xC1}), " A");
  // 0x8A at an even offset swallows a following 0xA0 or 0 as filler...
  EXPECT_EQ(decode_text({0x8A, 0xA0, 0xC1}), "\nA");
  EXPECT_EQ(decode_text({0x8A, 0x00, 0xC1}), "\nA");
  // ...at an odd offset the 0xA0 is a real blank.
  EXPECT_EQ(decode_text({0xC1, 0x8A, 0xA0, 0xC2}), "A\n B");
  EXPECT_EQ(decode_text({0x8A, 0xC1}), "\nA");
}

// Every byte that a form can carry comes back from its decoder: the tape
// writer's encoders and the readers' decoders flip the same bit, and each
// keeps or flips zero as its form says.
TEST(TapeText, EveryByteSurvivesEachEncoderAndItsDecoder) {
  for (int v = 0; v < 256; ++v) {
    const char c = static_cast<char>(v);
    const std::string trace = "byte " + std::to_string(v);

    // Static record: key and data flipped whole.
    Bytes record;
    tape_encode_static_record(record, std::string(1, c), std::string(3, c), CHUNK_MAX, false);
    unsigned char key = 0;
    tape_flip_copy(&key, &record[RECORD_HEADER_SIZE], 1);
    EXPECT_EQ(key, v) << trace;

    // Dynamic record: zero bytes kept, the rest flipped; 0x80 has no form.
    if (v != TAPE_FLIP) {
      Bytes page;
      tape_encode_dyn_record(page, std::string(1, c), std::string(2, c));
      char out[3];
      reel_mask_copy(out, &page[DYN_REC_HEADER + 2], 2);
      EXPECT_EQ(std::string(out, 2), std::string(2, c)) << trace;
    }

    // Name of a path entry and of a label: zero is filler there too, and
    // trailing blanks are cut.
    if (v != 0 && c != ' ' && v != TAPE_FLIP) {
      unsigned char entry[PATH_ENTRY_SIZE];
      const char name[] = {'N', c, '\0'};
      tape_encode_path_entry(entry, name, TAPE_OBJECT_HASHED);
      char back[PATH_NAME_SIZE + 1];
      EXPECT_EQ(tape_path_name(back, entry, 0), 2) << trace;
      EXPECT_STREQ(back, name) << trace;
      unsigned char label[LABEL_SIZE] = {};
      TapeLabel fields;
      std::memcpy(fields.name, name, sizeof name);
      std::memcpy(fields.date, "01-02-93", 9);
      tape_encode_label(label, fields);
      EXPECT_STREQ(tape_decode_label(label).name, name) << trace;
      EXPECT_STREQ(tape_decode_label(label).date, "01-02-93") << trace;
    }

    // Member text, for the bytes that the compressed form can carry.
    Bytes text;
    if (v != 0 && c != tape_flip(TEXT_BLANK_RUN)) {
      ASSERT_TRUE(tape_encode_text(text, std::string("A") + c + "B")) << trace;
      EXPECT_EQ(decode_text(text), std::string("A") + c + "B") << trace;
    }
  }
}

// A label's date fields flip every byte: a zero byte is not filler there
// (it reads as 0x80), while a byte that flips to zero ends its field.
TEST(TapeText, LabelDateFlipsEveryByteZeroIncluded) {
  unsigned char label[LABEL_SIZE] = {};
  TapeLabel fields;
  std::memcpy(fields.date, "11-22-93", 9);
  tape_encode_label(label, fields);
  label[LABEL_OFF_MONTH] = 0x00;
  label[LABEL_OFF_YEAR] = 0x80;
  EXPECT_STREQ(tape_decode_label(label).date, "\x80" "1-22-");
}

TEST(NextAttribute, FieldsOfTapeAndSystemMarks) {
  const unsigned char rec[] = {'A', 'B', TAPE_FM, 'C', TAPE_RM, 'D', 0};
  const unsigned char* p = rec;
  char field[REEL_ATTRIBUTE_LIMIT + 1];
  EXPECT_EQ(reel_next_attribute(&p, field, 0), 1);
  EXPECT_STREQ(field, "AB");
  EXPECT_EQ(reel_next_attribute(&p, field, 0), 1);
  EXPECT_STREQ(field, "C");
  EXPECT_EQ(reel_next_attribute(&p, field, 0), 1);
  EXPECT_STREQ(field, "D");
  EXPECT_EQ(reel_next_attribute(&p, field, 0), 1);  // at the end it stays there
  EXPECT_STREQ(field, "");
  EXPECT_EQ(*p, 0);

  unsigned char saved = M_FM;
  M_FM = '|';
  const unsigned char sys[] = {'x', '|', 'y', TAPE_FM, 'z', 0};
  p = sys;
  EXPECT_EQ(reel_next_attribute(&p, field, 1), 1);
  EXPECT_STREQ(field, "x");
  EXPECT_EQ(reel_next_attribute(&p, field, 1), 1);
  EXPECT_STREQ(field, "y\xFEz");
  M_FM = saved;
}

TEST(NextAttribute, TheLimitOf128CharactersSkipsToTheNextField) {
  std::string exact(128, 'a');
  exact += static_cast<char>(TAPE_FM);
  exact += "next";
  const auto* p = reinterpret_cast<const unsigned char*>(exact.c_str());
  char field[REEL_ATTRIBUTE_LIMIT + 1];
  EXPECT_EQ(reel_next_attribute(&p, field, 0), 1);  // exactly 128 is whole
  EXPECT_EQ(std::strlen(field), 128u);

  std::string longer(129, 'b');
  longer += static_cast<char>(TAPE_RM);  // only a field mark ends the skip
  longer += "rest";
  longer += static_cast<char>(TAPE_FM);
  longer += "after";
  p = reinterpret_cast<const unsigned char*>(longer.c_str());
  EXPECT_EQ(reel_next_attribute(&p, field, 0), 0);
  EXPECT_EQ(std::string(field), std::string(128, 'b'));
  EXPECT_EQ(reel_next_attribute(&p, field, 0), 1);
  EXPECT_STREQ(field, "after");

  std::string unended(200, 'c');
  p = reinterpret_cast<const unsigned char*>(unended.c_str());
  EXPECT_EQ(reel_next_attribute(&p, field, 0), 0);
  EXPECT_EQ(*p, 0);
}

TEST(SmallTextServices, DropPrefixCopyLimitedPrintBytes) {
  char text[] = "D_NAME";
  reel_drop_prefix(text, 2);
  EXPECT_STREQ(text, "NAME");
  reel_drop_prefix(text, 9);
  EXPECT_STREQ(text, "");

  char dest[8] = "xxxxxxx";
  reel_copy_limited(dest, "abcdefgh", 4);
  // Three characters are copied, place 3 keeps its old byte, place 4 ends it.
  EXPECT_STREQ(dest, "abcx");
  reel_copy_limited(dest, "z", 4);
  EXPECT_EQ(std::memcmp(dest, "z\0\0x\0", 5), 0);

  testing::internal::CaptureStdout();
  const unsigned char bytes[] = {0xC1, 0xA0, 0x9F, 0xFE, 7};
  reel_print_bytes(bytes, 5);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "   A     159 254 007\n\n");
}

}  // namespace
