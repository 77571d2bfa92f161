// Byte helpers, group-block builders and the record-file fixture of the
// file library's tests.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "NT/NT_utils.h"
#include "support/console.h"
#include "support/files.h"
#include "support/temp_dir.h"
#include "flib/fl_block.h"
#include "flib/fl_check.h"
#include "flib/fl_create.h"
#include "flib/fl_open.h"
#include "flib/fl_read.h"
#include "flib/fl_rel.h"
#include "flib/fl_write.h"

inline std::vector<uint8_t> read_bytes(const std::string& path) {
  std::string text = slurp(path);
  return std::vector<uint8_t>(text.begin(), text.end());
}

inline void write_bytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  spill(path, std::string(bytes.begin(), bytes.end()));
}

inline const uint8_t* key_bytes(const char* text) { return reinterpret_cast<const uint8_t*>(text); }
inline const uint8_t* bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }
inline int32_t length(const std::string& s) { return static_cast<int32_t>(s.size()); }

// Sets an environment variable for the life of the object.
struct ScopedEnv {
  std::string name;
  ScopedEnv(const char* n, const char* value) : name(n) { setenv(n, value, 1); }
  ~ScopedEnv() { unsetenv(name.c_str()); }
};

// A group block of size `b` that lies at byte offset `offset` of its file,
// holding `keys` laid out as the format says: row 0's key ends at datapos
// with its length byte on top, each next key below; each key's record (3
// bytes) stands in the block's own data area.
inline std::vector<uint8_t> make_group_block(uint32_t b, uint32_t offset, uint32_t group, uint8_t flags,
                                             const std::vector<std::string>& keys) {
  std::vector<uint8_t> block(b, 0);
  uint32_t d = initial_datapos(b);
  gb_set_flags(block.data(), flags);
  gb_set_group(block.data(), group);
  gb_set_datapos(block.data(), static_cast<int16_t>(d));
  uint32_t walk = d;
  int16_t key_bytes = 0;
  uint32_t data = d;
  for (size_t row = 0; row < keys.size(); ++row) {
    const std::string& k = keys[row];
    block[walk - 1] = static_cast<uint8_t>(k.size());
    std::copy(k.begin(), k.end(), block.begin() + (walk - 1 - k.size()));
    walk -= 1 + static_cast<uint32_t>(k.size());
    key_bytes = static_cast<int16_t>(key_bytes + k.size() + 1);
    ke_set_position(block.data(), static_cast<int32_t>(row), offset + data);
    ke_set_length(block.data(), static_cast<int32_t>(row), 3);
    data += 3;
  }
  gb_set_key_count(block.data(), static_cast<int16_t>(keys.size()));
  gb_set_key_bytes(block.data(), key_bytes);
  gb_set_byteleft(block.data(), static_cast<int16_t>(b - data));
  return block;
}

// In a child process: opens the file at `path` for update and forbids any
// file to grow beyond `limit` bytes, so that a write past it fails with
// EFBIG. 0, or the exit status naming the step that failed (10 the open,
// 11 the limit).
inline int open_under_size_limit(REL_TYPE* rel, const std::string& path, rlim_t limit) {
  if (M_openfile(rel, path.c_str(), 2) != 1) return 10;
  signal(SIGXFSZ, SIG_IGN);
  rlimit r{limit, limit};
  return setrlimit(RLIMIT_FSIZE, &r) != 0 ? 11 : 0;
}

// The findings of the structural check of a file, one a line ("" when sound).
inline std::string check_findings(const std::string& path) {
  std::vector<std::string> found;
  M_check_file(path.c_str(), &found);
  std::string all;
  for (const auto& f : found) all += f + "\n";
  return all;
}

// A hashed file made afresh in a scratch directory and open for update,
// with records put and got by key.
class RecordFile : public testing::Test {
 protected:
  TempDir tmp;
  std::string path;
  REL_TYPE rel;

  void create(int32_t modulo, int32_t block_code, int32_t hashtype) {
    path = tmp.str() + "/F";
    ASSERT_EQ(M_create_hashed(path.c_str(), modulo, block_code, hashtype, 0, nullptr), 1);
    ASSERT_EQ(M_openfile(&rel, path.c_str(), 2), 1);
  }
  void TearDown() override {
    if (rel.block_size != 0) M_closefile(&rel);
  }
  int put(const std::string& key, const std::string& record) {
    return M_append_strtuple(&rel, bytes(key), length(key), bytes(record), length(record), 0, nullptr);
  }
  std::string get(const std::string& key) {
    std::string record;
    EXPECT_EQ(M_read_tuple(&rel, bytes(key), length(key), &record), 1) << key;
    return record;
  }
  std::string findings() { return check_findings(path); }
};
