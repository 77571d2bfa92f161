// idxbench: loads records into a new dynamic file, builds an alternate key
// index over them through mrvsort, looks values up, and times record
// writes that keep the index, printing the rates and the peak memory.
//
//   idxbench [--records N] [--lookups N] [--updates N] DIR
//
// DIR must exist; DIR/IDXBENCH is made anew and removed at the end. mrvsort
// is found in MRVBIN, else beside this program.
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "../bench_util.h"
#include "NT/NT_utils.h"
#include "common/mrv_marks.h"
#include "flib/fl_create.h"
#include "flib/fl_idxbuild.h"
#include "flib/fl_index.h"
#include "flib/fl_mem.h"
#include "flib/fl_mempool.h"
#include "flib/fl_open.h"
#include "flib/fl_rel.h"
#include "flib/fl_write.h"
#include "flib/parttbl.h"

namespace {

// About ten records share a name.
std::string name_of(uint64_t i, long records) { return "CUSTOMER " + std::to_string(bench_mix(i) % (records / 10 + 1)); }
std::string record_of(uint64_t i, long records) {
  return name_of(i, records) + static_cast<char>(M_FM) + "street " + std::to_string(i % 997) + static_cast<char>(M_FM) +
         std::string(40, 'x');
}

int usage() {
  std::fputs("usage: idxbench [--records N] [--lookups N] [--updates N] DIR\n", stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  long records = 1000000, lookups = 100000, updates = 10000;
  std::string dir;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if ((a == "--records" || a == "--lookups" || a == "--updates") && i + 1 < argc) {
      long v = std::strtol(argv[++i], nullptr, 10);
      (a == "--records" ? records : a == "--lookups" ? lookups : updates) = v;
    } else if (dir.empty() && a[0] != '-') {
      dir = a;
    } else {
      return usage();
    }
  }
  if (dir.empty() || records < 10 || lookups < 0 || updates < 0) return usage();
  if (std::getenv("MRVBIN") == nullptr)
    setenv("MRVBIN", std::filesystem::absolute(argv[0]).parent_path().c_str(), 1);
  M_init_pools();
  if (M_load_part_table() < 0) return 1;
  std::string path = dir + "/IDXBENCH";
  NT_RemoveFile(path.c_str(), "");
  int32_t modulo = static_cast<int32_t>(std::max<long>(1, records / 40));
  if (M_create_hashed(path.c_str(), modulo, 4, 64, 0, nullptr) != 1) {
    std::fprintf(stderr, "idxbench: cannot create %s\n", path.c_str());
    return 1;
  }
  REL_TYPE rel;
  if (M_openfile(&rel, path.c_str(), OpenMode::ReadWrite) != 1 || M_init_mem_buffers(&rel) != 1) return 1;
  auto start = std::chrono::steady_clock::now();
  for (long i = 0; i < records; ++i) {
    std::string k = "R" + std::to_string(i), r = record_of(static_cast<uint64_t>(i), records);
    if (M_mem_add_tuple(&rel, reinterpret_cast<const uint8_t*>(k.data()), static_cast<int32_t>(k.size()),
                        reinterpret_cast<const uint8_t*>(r.data()), static_cast<int32_t>(r.size())) != 1)
      return 1;
  }
  if (M_mem_force_flush(&rel, 1) != 1) return 1;
  double load = bench_seconds_since(start);

  IndexFileOptions o;
  o.block_code = 3;
  o.key_length = 32;
  if (M_create_index_file(&rel, o) != 1 || M_add_index(&rel, "NAME", 'D', 'S', 'T', 0, 1, nullptr, true) != 1) return 1;
  start = std::chrono::steady_clock::now();
  if (M_build_index(&rel, 0) != 1) return 1;
  double build = bench_seconds_since(start);

  start = std::chrono::steady_clock::now();
  long hits = 0;
  for (long i = 0; i < lookups; ++i) {
    SearchContext c;
    std::string v = name_of(bench_mix(static_cast<uint64_t>(i)) % static_cast<uint64_t>(records), records);
    if (M_find_key(rel.index, 0, FIND_EQUAL, v, &c) == 1) ++hits;
  }
  double look = bench_seconds_since(start);
  if (hits != lookups) {
    std::fprintf(stderr, "idxbench: %ld of %ld lookups found their value\n", hits, lookups);
    return 1;
  }

  start = std::chrono::steady_clock::now();
  for (long i = 0; i < updates; ++i) {
    std::string k = "R" + std::to_string(bench_mix(static_cast<uint64_t>(i) + 7) % static_cast<uint64_t>(records));
    std::string r = record_of(static_cast<uint64_t>(i) + static_cast<uint64_t>(records), records);
    if (M_append_strtuple(&rel, reinterpret_cast<const uint8_t*>(k.data()), static_cast<int32_t>(k.size()),
                          reinterpret_cast<const uint8_t*>(r.data()), static_cast<int32_t>(r.size()), 0, nullptr) != 1)
      return 1;
  }
  double update = bench_seconds_since(start);
  uintmax_t index_bytes = std::filesystem::file_size(path + "/idx001");
  M_closefile(&rel);
  NT_RemoveFile(path.c_str(), "");

  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  std::printf("%ld records, index of %.1f MB (block 4096, key length 32)\n", records, index_bytes / 1e6);
  std::printf("buffered load: %.2f s\n", load);
  std::printf("sorted build: %.2f s, %.0f keys/s\n", build, records / build);
  std::printf("lookups: %ld in %.2f s, %.0f lookups/s\n", lookups, look, lookups / look);
  std::printf("replacements keeping the index: %ld in %.2f s, %.0f writes/s\n", updates, update, updates / update);
  std::printf("peak memory: %ld KiB\n", usage.ru_maxrss);
  return 0;
}
