// The static record machine in a restore: the data blocks of a tape image
// (records cut by block ends, chunks, pads, key and size limits), their
// records handed to the loader's buffers. A description block between data
// blocks starts a sub-file again. No target is open, so nothing is written.
#include <cstdint>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "reel/reel_app_tuple.h"
#include "reel/reel_current.h"
#include "reel/reel_hashed.h"
#include "reel/reel_settings.h"
#include "reel/reel_tape_format.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_setup();
  static bool buffers = false;
  if (!buffers) {
    reel_init_tuples(8);
    buffers = true;
  }
  fuzz_run([&] {
    reel_reset_settings();
    reel_current = CurrentFile{};
    int first = 1;
    for (std::vector<uint8_t>& block : fuzz_image_records(data, size)) {
      if (block.size() >= TAPE_HEADER_SIZE && tape_block_type(block.data()) != TAPE_BLOCK_DATA) {
        first = 1;
        continue;
      }
      // A block too short for its stream is passed by reading on; here
      // there is no tape to read on, so it is padded instead.
      if (block.size() < static_cast<size_t>(SUBFILE_FIRST_STREAM)) block.resize(SUBFILE_FIRST_STREAM);
      int32_t length = static_cast<int32_t>(block.size());
      if (reel_group_block(block.data(), &length, first) == 0) first = 1; else first = 0;
    }
  });
  return 0;
}
