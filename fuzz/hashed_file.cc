// A hashed file as it lies on disk, mutated: opened, checked, walked key by
// key, and each key read back by its own path.
#include <cstdint>
#include <string>
#include <vector>

#include "flib/fl_check.h"
#include "flib/fl_mempool.h"
#include "flib/fl_open.h"
#include "flib/fl_read.h"
#include "flib/fl_rel.h"
#include "flib/parttbl.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_setup();
  static bool library = false;
  if (!library) {
    M_init_pools();
    M_load_part_table();
    library = true;
  }
  fuzz_write_file("F", data, size);
  fuzz_run([&] {
    std::vector<std::string> findings;
    M_check_file("F", &findings);
    REL_TYPE rel;
    if (M_openfile(&rel, "F", OpenMode::Read) != 1) return;
    std::vector<std::string> keys;
    M_for_each_key(&rel, [&keys](const uint8_t* key, int32_t length, const uint8_t*, int32_t, uint32_t) {
      keys.emplace_back(reinterpret_cast<const char*>(key), static_cast<size_t>(length));
      return keys.size() < 4096 ? 0 : 1;
    });
    std::string record;
    for (const std::string& key : keys)
      M_read_tuple(&rel, reinterpret_cast<const uint8_t*>(key.data()), static_cast<int32_t>(key.size()), &record);
    M_closefile(&rel);
  });
  return 0;
}
