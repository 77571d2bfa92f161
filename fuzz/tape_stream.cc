// The tape block stream: a medium in the scratch directory read as an
// analysis reads it, through labels, block numbers, reel ends, the four
// transports and the four byte conversions, into the dispatcher and the
// static record machine. The first byte picks the reading: bits 0-1 the
// transport (image, -G B, -G C, unit 9 stream), bits 2-3 the -M mode,
// bit 4 the -L level (1, or 0); the rest is the medium.
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "reel/reel_account.h"
#include "reel/reel_current.h"
#include "reel/reel_device.h"
#include "reel/reel_get_expbuf.h"
#include "reel/reel_init.h"
#include "reel/reel_settings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_setup();
  static bool started = false;
  if (!started) {
    reel_init_levels();  // as the run's start-up does: dynamic files take their memory there
    started = true;
  }
  if (size == 0) return 0;
  const uint8_t how = data[0];
  const int transport = how & 3;
  // The image reader keeps its place per name within the process: a
  // fresh name each time starts each input at its beginning.
  static int serial = 0;
  const std::string medium = (transport == 0 ? "t" : "s") + std::to_string(++serial % 2) +
                             (transport == 0 ? ".tap" : ".dat");
  fuzz_write_file(medium.c_str(), data + 1, size - 1);

  fuzz_run([&] {
    reel_reset_settings();
    reel_reset_device_state();
    RunSettings& s = reel_settings;
    s.analyse_mode = 1;
    s.analyse_file = "plan";
    s.transport_b = transport == 1;
    s.transport_c = transport == 2;
    s.convert_mode = static_cast<char>('0' + ((how >> 2) & 3));
    const int level = (how & 16) != 0 ? 0 : 1;
    s.level_base = reel_level_length(level);
    s.level_file = reel_level_length(level + 1);
    s.level_sub = reel_level_length(level + 2);
    tape_is_stream = transport == 3;
    tape_block_size = 8192;
    non_rewind_device = medium;
    rewind_device = "r" + medium;
    tape_account.clear();
    reel_current = CurrentFile{};
    dispmsg = std::fopen("dispmsg", "w");
    reel_open_device(medium.c_str());
    // The run ends by a jump out of the loop: the buffer outlives it.
    static std::vector<unsigned char> buffer;
    buffer.assign(static_cast<size_t>(tape_block_size), 0);
    reel_block_loop(buffer.data());
  });
  if (dispmsg != nullptr) std::fclose(dispmsg);
  dispmsg = nullptr;
  reel_close_device();
  return 0;
}
