// Scratch folders for tests: each test gets an empty folder of its own
// under the build's scratch area.
#pragma once

#include <sys/stat.h>

#include <string>

#include "NT/NT_utils.h"

inline std::string fresh_dir(const std::string& name) {
  std::string base = REEL_TEST_TMP;
  mkdir(base.c_str(), 0777);
  std::string dir = base + "/" + name;
  NT_RemoveFile(dir.c_str(), "");
  mkdir(dir.c_str(), 0777);
  return dir;
}
