// What the fuzz targets share: a quiet process in a scratch directory, a
// way back from code that ends the run, and the records of a tape image.
//
// The targets run the tool's own code, which ends a run through mrv_exit.
// Inside fuzz_run that exit jumps back here (the library's protected
// region), so one input ending a run is an ordinary outcome, not the end
// of the fuzzing process. Code skipped by that jump leaks what it held;
// the fuzz script turns leak detection off for that reason.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

#include "common/mrv_exit.h"

// Once per process: no console pause, standard input on /dev/null (prompts
// meet the end of input at once), standard output too unless FUZZ_CONSOLE
// is set (to see what the tool says about an input), a scratch directory as
// the working directory, removed at exit.
inline void fuzz_setup() {
  static bool done = false;
  if (done) return;
  done = true;
  setenv("MRV_MSG_PAUSE_MS", "0", 1);
  const int null_fd = open("/dev/null", O_RDWR);
  if (null_fd >= 0) {
    dup2(null_fd, STDIN_FILENO);
    if (getenv("FUZZ_CONSOLE") == nullptr) dup2(null_fd, STDOUT_FILENO);
    close(null_fd);
  }
  const char* tmp = getenv("TMPDIR");
  std::string dir = std::string(tmp != nullptr ? tmp : "/tmp") + "/reel_fuzz_XXXXXX";
  if (mkdtemp(dir.data()) == nullptr || chdir(dir.c_str()) != 0) std::abort();
  static std::string scratch;
  scratch = dir;
  std::atexit([] {
    std::error_code ec;
    std::filesystem::remove_all(scratch, ec);
  });
}

// Runs `body`; an mrv_exit inside it returns here.
inline void fuzz_run(const std::function<void()>& body) {
  static std::jmp_buf target;
  in_protected_region = 1;
  protected_region_target = &target;
  if (setjmp(target) == 0) body();
  in_protected_region = 0;
  protected_region_target = nullptr;
  error_code = 0;
  severity = 0;
}

inline void fuzz_write_file(const char* path, const uint8_t* data, size_t size) {
  FILE* f = std::fopen(path, "wb");
  if (f == nullptr) std::abort();
  if (size > 0) std::fwrite(data, 1, size, f);
  std::fclose(f);
}

// The records of a tape image (4-byte little-endian length, the bytes, a
// pad byte when odd, the length again; 0 a tape mark, 0xFFFFFFFF the end).
// Input that is no image is one record of all its bytes.
inline std::vector<std::vector<uint8_t>> fuzz_image_records(const uint8_t* data, size_t size) {
  std::vector<std::vector<uint8_t>> records;
  size_t at = 0;
  auto word = [&](size_t p) {
    return static_cast<uint32_t>(data[p]) | static_cast<uint32_t>(data[p + 1]) << 8 |
           static_cast<uint32_t>(data[p + 2]) << 16 | static_cast<uint32_t>(data[p + 3]) << 24;
  };
  while (at + 4 <= size) {
    const uint32_t n = word(at);
    if (n == 0) {
      at += 4;
      continue;
    }
    const size_t next = at + 4 + n + (n % 2) + 4;
    if (n == 0xFFFFFFFFu || next > size || word(next - 4) != n) break;
    records.emplace_back(data + at + 4, data + at + 4 + n);
    at = next;
  }
  if (records.empty() && size > 0) records.emplace_back(data, data + size);
  return records;
}
