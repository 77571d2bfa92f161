// The dynamic page decoder: pages of a primary and an overflow part taken
// apart into records, chains followed across pages, records cut by a page
// end carried as the group's tail, overflow pages kept in the file
// "overflow" and fetched again. The first byte picks the source modulo
// (1 to 16); the rest is a tape image whose records, less their block
// header, are the pages: the first half primary, the second overflow.
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "reel/reel_app_tuple.h"
#include "reel/reel_current.h"
#include "reel/reel_dynamic.h"
#include "reel/reel_get_expbuf.h"
#include "reel/reel_settings.h"
#include "reel/reel_tape_format.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_setup();
  static bool started = false;
  if (!started) {
    reel_init_levels();
    reel_init_tuples(8);
    started = true;
  }
  if (size == 0) return 0;
  const int32_t modulo = 1 + data[0] % 16;
  const std::vector<std::vector<uint8_t>> records = fuzz_image_records(data + 1, size - 1);
  fuzz_run([&] {
    reel_reset_settings();
    reel_current = CurrentFile{};
    const int32_t level = reel_push_level();
    std::vector<DynGroupState> groups(static_cast<size_t>(modulo) + 1, DynGroupState{0, 0, nullptr});
    static std::vector<unsigned char> page(DYN_PAGE_ROOM);
    reel_overflow_open();
    for (size_t i = 0; i < records.size(); ++i) {
      const std::vector<uint8_t>& r = records[i];
      const size_t skip = r.size() > static_cast<size_t>(TAPE_HEADER_SIZE) ? TAPE_HEADER_SIZE : 0;
      const size_t n = std::min(r.size() - skip, page.size());
      std::fill(page.begin(), page.end(), 0);
      std::memcpy(page.data(), r.data() + skip, n);
      const int pass = i < records.size() / 2 ? DYN_PASS_PRIMARY : DYN_PASS_OVERFLOW;
      reel_dyn_page(page.data(), static_cast<int32_t>(n), pass, groups.data(), modulo);
    }
    // Pages that waited for their group come back from "overflow".
    for (int32_t number = 1; number <= 64; ++number) {
      int32_t length = 0;
      if (reel_overflow_get(page.data(), number, &length) == 1)
        reel_dyn_page(page.data(), length, DYN_PASS_HELD, groups.data(), modulo);
    }
    reel_overflow_close();
    reel_pop_level(level);
  });
  return 0;
}
