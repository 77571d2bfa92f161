// The mrvconfig line reader: the input as the file, read into the line
// table, then every parameter of the table looked up by its kind.
#include <cstdint>

#include "common/init_params.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_setup();
  fuzz_write_file("mrvconfig", data, size);
  fuzz_run([&] {
    config_set_path("mrvconfig");
    if (config_read_file() < 0) return;
    for (int i = 0; i < config_line_count(); ++i) config_line(i);
    for (const ConfigParam& p : config_params()) {
      if (p.kind == ParamKind::Comment) continue;
      config_find_line(p.text);
      if (p.kind == ParamKind::String)
        config_get_string(p.text, "");
      else if (p.kind == ParamKind::Ulong)
        config_get_ulong(p.text, 0);
      else
        config_get_uint_nonneg(p.text, 0);
    }
  });
  return 0;
}
