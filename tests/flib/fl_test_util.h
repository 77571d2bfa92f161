// Scratch folders and byte helpers of the file library's tests.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "NT/NT_utils.h"

// An empty folder for one test under the build's scratch area.
inline std::string fresh_dir(const std::string& name) {
  std::string base = REEL_TEST_TMP;
  mkdir(base.c_str(), 0777);
  std::string dir = base + "/" + name;
  NT_RemoveFile(dir.c_str(), "");
  mkdir(dir.c_str(), 0777);
  return dir;
}

inline std::vector<uint8_t> read_bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

inline void write_bytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline const uint8_t* key_bytes(const char* text) { return reinterpret_cast<const uint8_t*>(text); }

// Sets an environment variable for the life of the object.
struct ScopedEnv {
  std::string name;
  ScopedEnv(const char* n, const char* value) : name(n) { setenv(n, value, 1); }
  ~ScopedEnv() { unsetenv(name.c_str()); }
};
