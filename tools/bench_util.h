// Helpers shared by the benchmark programs under tools/.
#pragma once

#include <chrono>
#include <cstdint>

// A 64-bit mixer (splitmix64): repeatable pseudo-random values from a count.
inline uint64_t bench_mix(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

inline double bench_seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}
