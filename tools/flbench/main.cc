// flbench: loads records of mixed sizes into a new hashed file through the
// memory-buffered writer, reads every one back by key, and prints the
// rates, the write calls of the load and the peak memory.
//
//   flbench [--records N] [--static] [--block CODE] [--modulo N] [--single] DIR
//
// --single loads one record at a time through M_append_strtuple instead, to
// compare the count of writes.
//
//   flbench --grow [--records N] [--block CODE] [--keydata] [--hash 0|1] DIR
//
// --grow puts N records one by one into a dynamic file of modulo 1, so that
// it grows by splits alone, reads them back, deletes them one by one in the
// same order, and prints the modulo reached and the rates of each phase.
//
// DIR must exist; the file DIR/BENCH is made anew and removed at the end.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "../bench_util.h"
#include "NT/NT_utils.h"
#include "flib/fl_create.h"
#include "flib/fl_delete.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_hash.h"
#include "flib/fl_io.h"
#include "flib/fl_mem.h"
#include "flib/fl_mempool.h"
#include "flib/fl_open.h"
#include "flib/fl_read.h"
#include "flib/fl_rel.h"
#include "flib/fl_write.h"
#include "flib/parttbl.h"

namespace {

std::string key_of(uint64_t i) { return "R" + std::to_string(i * 7919 % 100000007); }

// Record i: mostly short, some of a few blocks, a few of many blocks.
std::string record_of(uint64_t i) {
  uint64_t r = bench_mix(i);
  unsigned pick = static_cast<unsigned>(r % 100);
  size_t length = pick < 75 ? 8 + (r >> 8) % 113 : pick < 95 ? 120 + (r >> 8) % 881
                : pick < 99 ? 1000 + (r >> 8) % 3001 : 4000 + (r >> 8) % 12001;
  std::string out(length, '\0');
  uint64_t x = r;
  for (size_t j = 0; j < length; ++j) {
    if (j % 8 == 0) x = bench_mix(x);
    out[j] = static_cast<char>(0x20 + (x >> (8 * (j % 8))) % 0x5F);
  }
  return out;
}

int usage() {
  std::fputs("usage: flbench [--records N] [--static] [--block CODE] [--modulo N] [--single] DIR\n"
             "       flbench --grow [--records N] [--block CODE] [--keydata] [--hash 0|1] DIR\n",
             stderr);
  return 2;
}

const uint8_t* bytes_of(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }
int32_t length_of(const std::string& s) { return static_cast<int32_t>(s.size()); }

// Growth by splits and shrinking by merges under single writes.
int run_grow(const std::string& path, long records, long block, int32_t type) {
  if (M_create_hashed(path.c_str(), 1, static_cast<int32_t>(block), type, 0, nullptr) != 1) {
    std::fprintf(stderr, "flbench: cannot create %s\n", path.c_str());
    return 1;
  }
  REL_TYPE rel;
  if (M_openfile(&rel, path.c_str(), OpenMode::ReadWrite) != 1) return 1;
  auto phase = [&](const char* what, auto&& step) {
    auto start = std::chrono::steady_clock::now();
    for (uint32_t i = 0; i < static_cast<uint32_t>(records); ++i)
      if (!step(i)) {
        std::fprintf(stderr, "flbench: %s of record %u failed\n", what, i);
        return -1.0;
      }
    double took = bench_seconds_since(start);
    std::printf("%s: %.2f s, %.0f records/s, modulo %d, split base %u, %zu primary and %zu overflow parts\n", what,
                took, records / took, rel.modulo, rel.split_base, rel.primary.size(), rel.overflow.size());
    return took;
  };
  std::printf("%ld records one by one into a dynamic %s file of modulo 1, hash %d, block %u\n", records,
              (type & HASH_KEYDATA) != 0 ? "KEYDATA" : "KEYONLY", type & 1, rel.block_size);
  std::string got;
  bool ok = phase("put", [&](uint32_t i) {
              std::string k = key_of(i), r = record_of(i);
              return M_append_strtuple(&rel, bytes_of(k), length_of(k), bytes_of(r), length_of(r), 0, nullptr) == 1;
            }) >= 0 &&
            phase("read", [&](uint32_t i) {
              std::string k = key_of(i);
              return M_read_tuple(&rel, bytes_of(k), length_of(k), &got) == 1 && got == record_of(i);
            }) >= 0 &&
            phase("delete", [&](uint32_t i) {
              std::string k = key_of(i);
              return M_delete_tuple(&rel, bytes_of(k), length_of(k), nullptr) == 1;
            }) >= 0;
  M_closefile(&rel);
  NT_RemoveFile(path.c_str(), "");
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  long records = 1000000, block = 4, modulo = 0, hash = 0;
  bool dynamic = true, single = false, grow = false, keydata = false;
  std::string dir;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--static") {
      dynamic = false;
    } else if (a == "--single") {
      single = true;
    } else if (a == "--grow") {
      grow = true;
    } else if (a == "--keydata") {
      keydata = true;
    } else if ((a == "--records" || a == "--block" || a == "--modulo" || a == "--hash") && i + 1 < argc) {
      long v = std::strtol(argv[++i], nullptr, 10);
      (a == "--records" ? records : a == "--block" ? block : a == "--hash" ? hash : modulo) = v;
    } else if (dir.empty() && a[0] != '-') {
      dir = a;
    } else {
      return usage();
    }
  }
  if (dir.empty() || records < 1 || block < BlockSizeCode::kMin || block > BlockSizeCode::kMax || hash < 0 || hash > 1) return usage();
  M_init_pools();
  if (M_load_part_table() < 0) return 1;
  if (grow) {
    std::string path = dir + "/BENCH";
    NT_RemoveFile(path.c_str(), "");
    return run_grow(path, records, block,
                    HASH_DYNAMIC | (keydata ? HASH_KEYDATA : 0) | static_cast<int32_t>(hash));
  }
  uint32_t b = BlockSizeCode{static_cast<int32_t>(block)}.bytes();
  // About two thirds of a block of short records per group.
  if (modulo == 0) modulo = std::max<long>(1, records * 200 / (b * 2 / 3));
  std::string path = dir + "/BENCH";
  NT_RemoveFile(path.c_str(), "");
  if (M_create_hashed(path.c_str(), static_cast<int32_t>(modulo), static_cast<int32_t>(block), dynamic ? 64 : 0, 0,
                      nullptr) != 1) {
    std::fprintf(stderr, "flbench: cannot create %s\n", path.c_str());
    return 1;
  }
  REL_TYPE rel;
  if (M_openfile(&rel, path.c_str(), OpenMode::ReadWrite) != 1) return 1;
  // A restore hands records over in group order.
  std::vector<std::pair<uint32_t, uint32_t>> order(static_cast<size_t>(records));
  for (uint32_t i = 0; i < order.size(); ++i) {
    std::string k = key_of(i);
    order[i] = {M_hash(reinterpret_cast<const uint8_t*>(k.data()), static_cast<int32_t>(k.size()), &rel), i};
  }
  std::sort(order.begin(), order.end());

  auto start = std::chrono::steady_clock::now();
  uint64_t bytes = 0, writes_before = M_mem_write_calls + M_block_writes;
  if (!single && M_init_mem_buffers(&rel) != 1) return 1;
  for (const auto& [group, i] : order) {
    std::string k = key_of(i), r = record_of(i);
    bytes += k.size() + r.size();
    auto kp = reinterpret_cast<const uint8_t*>(k.data());
    auto rp = reinterpret_cast<const uint8_t*>(r.data());
    auto kl = static_cast<int32_t>(k.size());
    auto rl = static_cast<int32_t>(r.size());
    if ((single ? M_append_strtuple(&rel, kp, kl, rp, rl, 0, nullptr) : M_mem_add_tuple(&rel, kp, kl, rp, rl)) != 1) {
      std::fprintf(stderr, "flbench: record %u not loaded\n", i);
      return 1;
    }
  }
  if (!single && M_mem_force_flush(&rel, 1) != 1) return 1;
  double load = bench_seconds_since(start);
  uint64_t writes = M_mem_write_calls + M_block_writes - writes_before;

  start = std::chrono::steady_clock::now();
  std::string got;
  for (uint32_t i = 0; i < static_cast<uint32_t>(records); ++i) {
    std::string k = key_of(i);
    if (M_read_tuple(&rel, reinterpret_cast<const uint8_t*>(k.data()), static_cast<int32_t>(k.size()), &got) != 1 ||
        got != record_of(i)) {
      std::fprintf(stderr, "flbench: record %u reads back wrong\n", i);
      return 1;
    }
  }
  double read = bench_seconds_since(start);
  M_closefile(&rel);
  NT_RemoveFile(path.c_str(), "");

  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  double mb = static_cast<double>(bytes) / 1e6;
  std::printf("%ld records, %.1f MB of keys and records, %s file, block %u, modulo %ld\n", records, mb,
              dynamic ? "dynamic" : "static", b, modulo);
  std::printf("%s load: %.2f s, %.0f records/s, %.1f MB/s, %llu write calls\n", single ? "single" : "buffered", load,
              records / load, mb / load, static_cast<unsigned long long>(writes));
  std::printf("read: %.2f s, %.0f records/s, %.1f MB/s\n", read, records / read, mb / read);
  std::printf("peak memory: %ld KiB\n", usage.ru_maxrss);
  return 0;
}
