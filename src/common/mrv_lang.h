// Message texts and the multibyte description of a language.
//
// MULTIBYTE.CONFIG, in the sys directory of the home, describes for each
// language the code sets of its characters:
//   # comment
//   JAPANESE
//   1 2 0xA1-0xFE 0xA1-0xFE      code set 1: two bytes, a range per byte
//   2 2 0x8E-0x8E 0xA1-0xDF
//   END
// A character has 1 to 4 bytes; the first byte of a character of more than
// one byte has its high bit on; the first-byte ranges ascend from code set to
// code set; and the first two bytes of a character tell which
// code set it belongs to.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

inline constexpr char MULTIBYTE_FILE[] = "MULTIBYTE.CONFIG";
inline constexpr char MESSAGE_FILE_SUFFIX[] = ".MSG";

struct ByteRange {
  int low;
  int high;
};
struct CodeSet {
  int number;
  int bytes;
  std::vector<ByteRange> ranges;  // one per byte position
};

// The code sets of `language` in the home's MULTIBYTE.CONFIG (`home` with
// its trailing separator). 0 when read (no file or no section is no error),
// -1 after a message.
int read_multibyte_config(const std::string& home, const std::string& language, std::vector<CodeSet>* sets);

// The text of a numbered message. Without message files every message has
// its number-only form, "Error msgno = %d. ".
std::string M_msg_format(int32_t message_number);
