// The -B and -R list readers: the input as a list file, loaded as each
// kind, then looked up by names taken from its own lines.
#include <cstdint>
#include <string>

#include "fuzz/fuzz_support.h"
#include "reel/reel_get_expbuf.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_setup();
  fuzz_write_file("list", data, size);
  fuzz_run([&] {
    reel_clear_lists();
    reel_load_block_list("list");
    reel_load_recovery_list("list");
    const std::string text(reinterpret_cast<const char*>(data), size);
    size_t at = 0;
    for (int lines = 0; at < text.size() && lines < 256; ++lines) {
      size_t nl = text.find('\n', at);
      if (nl == std::string::npos) nl = text.size();
      std::string word = text.substr(at, std::min<size_t>(nl - at, REEL_LIST_NAME_MAX));
      word = word.substr(0, word.find_first_of(" \t"));
      int32_t factor = 0;
      int32_t modulo = 0;
      int32_t block = 0;
      reel_find_block_entry(word.c_str(), &factor, &modulo);
      reel_block_list_modulo(word.c_str(), 7, &block);
      reel_in_recovery_list(word.c_str());
      at = nl + 1;
    }
    reel_clear_lists();
  });
  return 0;
}
