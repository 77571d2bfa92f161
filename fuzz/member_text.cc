// Member text and tape names: every data block of a tape image through the
// text decoder (blank runs, line ends, filler) into a buffer of the worst
// case, every description's path names through the name decoder, and the
// decoded text through the field reader.
#include <cstdint>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "reel/reel_tape_format.h"
#include "reel/reel_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_setup();
  for (const std::vector<uint8_t>& block : fuzz_image_records(data, size)) {
    const int body = static_cast<int>(block.size()) - TAPE_HEADER_SIZE;
    if (body <= 0) continue;
    const uint8_t* text = block.data() + TAPE_HEADER_SIZE;
    std::vector<char> out(reel_text_worst_case(static_cast<size_t>(body)));
    const int n = reel_text_from_tape(out.data(), text, body);
    if (n < 0 || static_cast<size_t>(n) >= out.size()) __builtin_trap();
    out[static_cast<size_t>(n)] = '\0';

    const unsigned char* cursor = reinterpret_cast<const unsigned char*>(out.data());
    char field[REEL_ATTRIBUTE_LIMIT + 1];
    for (int fields = 0; *cursor != '\0' && fields < 4096; ++fields) {
      const unsigned char* before = cursor;
      reel_next_attribute(&cursor, field, fields % 2);
      if (cursor == before) break;
    }

    for (int at = 0; at + PATH_ENTRY_SIZE <= body; at += PATH_ENTRY_SIZE) {
      char name[PATH_NAME_SIZE + 1];
      reel_name_from_tape(name, text + at, PATH_NAME_SIZE);
    }
    std::vector<char> masked(static_cast<size_t>(body) + 1);
    reel_mask_copy(masked.data(), text, body);
  }
  return 0;
}
