// Helpers shared by the benchmark programs under tools/; the mixer of
// repeatable pseudo-random values is the benchmark save's own.
#pragma once

#include <chrono>

#include "../bench/bench_records.h"

inline double bench_seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}
