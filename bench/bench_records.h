// The records of the benchmark save, made from a seed and an index alone,
// so that the save writer, the restore check and the peers' driver produce
// the same bytes without passing them through a file.
//
// Record i of n: the first half belongs to static files, the second half to
// dynamic files, each half in kBenchFiles files of consecutive indexes.
// Keys are 6 to 20 bytes and unique (their last six characters are i in
// base 36); values are 20 to 600 bytes, and 0.5% of them 4 to 64 KiB.
// Values hold printable text with field and value marks inside, never at
// their end, and never a zero byte or a record mark.
#pragma once

#include <cstdint>
#include <string>

inline constexpr int kBenchFiles = 10;

inline uint64_t bench_mix(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

inline void bench_key(uint64_t seed, uint64_t i, std::string* key) {
  static const char kDigits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  uint64_t r = bench_mix(seed ^ (i * 2 + 1));
  size_t length = 6 + r % 15;
  key->resize(length);
  for (size_t j = 0; j < length - 6; ++j) {
    r = bench_mix(r);
    (*key)[j] = kDigits[r % 36];
  }
  uint64_t v = i;
  for (size_t j = 0; j < 6; ++j) {
    (*key)[length - 1 - j] = kDigits[v % 36];
    v /= 36;
  }
}

inline void bench_value(uint64_t seed, uint64_t i, std::string* value) {
  uint64_t r = bench_mix(seed ^ (i * 2));
  size_t length = r % 1000 < 5 ? 4096 + (r >> 10) % (65536 - 4096 + 1) : 20 + (r >> 10) % 581;
  value->resize(length);
  char* out = value->data();
  uint64_t x = r;
  for (size_t j = 0; j < length; ++j) {
    if (j % 8 == 0) x = bench_mix(x);
    unsigned b = static_cast<unsigned>(x >> (8 * (j % 8))) & 0xFF;
    // About one byte in 32 is a mark; the rest printable.
    out[j] = b < 6 ? '\xFE' : b < 8 ? '\xFD' : static_cast<char>(0x20 + b % 0x5F);
  }
  out[length - 1] = static_cast<char>('A' + r % 26);
}

// The file (0 .. 2*kBenchFiles-1) of record i of n: static files first.
inline int bench_file_of(uint64_t i, uint64_t n) {
  uint64_t half = n / 2;
  uint64_t per_file = (half + kBenchFiles - 1) / kBenchFiles;
  return i < half ? static_cast<int>(i / per_file) : kBenchFiles + static_cast<int>((i - half) / per_file);
}

inline std::string bench_file_name(int file) {
  char name[8];
  name[0] = file < kBenchFiles ? 'S' : 'D';
  int k = file % kBenchFiles + 1;
  name[1] = static_cast<char>('0' + k / 10);
  name[2] = static_cast<char>('0' + k % 10);
  name[3] = '\0';
  return name;
}
