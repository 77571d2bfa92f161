#include "flib/fl_heads.h"

#include <filesystem>
#include <map>
#include <optional>

#include "fl_test_util.h"
#include "flib/fl_globals.h"
#include "flib/fl_hash.h"
#include "flib/fl_mem.h"

namespace {

namespace fs = std::filesystem;

class FlHeads : public ScratchTest {
 protected:
  void SetUp() override { M_file_time_stamp = 0x5EED5EED; }
  void TearDown() override {
    M_file_time_stamp = 0;
    M_spread = 0;
    M_heads_to_loader = false;
  }
};

// Every file of a hashed file (the file itself, or the parts of a dynamic
// one) by name, with its bytes.
std::map<std::string, std::vector<uint8_t>> file_bytes(const std::string& path) {
  std::map<std::string, std::vector<uint8_t>> out;
  if (!fs::is_directory(path)) {
    out[""] = read_bytes(path);
    return out;
  }
  for (const auto& e : fs::directory_iterator(path)) out[e.path().filename().string()] = read_bytes(e.path().string());
  return out;
}

struct Layout {
  const char* name;
  int32_t modulo;
  int32_t type;
  int32_t spread;
  const char* max_flength;  // null: the setting
};

// Few records in many groups: most groups receive none, as in a sparse
// part of a restore, and some receive chains of overflow blocks.
std::vector<std::pair<std::string, std::string>> sparse_records(REL_TYPE* rel) {
  std::vector<std::pair<std::string, std::string>> records;
  for (int i = 0; i < 40; ++i)
    records.push_back({"key" + std::to_string(i * 37), std::string(i % 9 == 0 ? 3000 : 20 + i, 'a' + i % 26)});
  std::stable_sort(records.begin(), records.end(), [&](const auto& x, const auto& y) {
    return M_hash(bytes(x.first), length(x.first), rel) < M_hash(bytes(y.first), length(y.first), rel);
  });
  return records;
}

void make_and_load(const std::string& path, const Layout& l, bool heads_to_loader) {
  M_spread = l.spread;
  M_heads_to_loader = heads_to_loader;
  ASSERT_EQ(M_create_hashed(path.c_str(), l.modulo, 1, l.type, 0, nullptr), 1);
  EXPECT_FALSE(M_heads_to_loader);
  EXPECT_EQ(M_heads_pending_count(), heads_to_loader ? 1u : 0u);
  REL_TYPE rel;
  ASSERT_EQ(M_openfile(&rel, path.c_str(), OpenMode::ReadWrite), 1);
  ASSERT_EQ(M_init_mem_buffers(&rel), 1);
  for (const auto& [k, r] : sparse_records(&rel))
    ASSERT_EQ(M_mem_add_tuple(&rel, bytes(k), length(k), bytes(r), length(r)), 1);
  ASSERT_EQ(M_mem_force_flush(&rel, 1), 1);
  EXPECT_EQ(M_heads_pending_count(), 0u);
  M_closefile(&rel);
}

TEST_F(FlHeads, AFileWhoseHeadsTheWriterWroteEndsAsOneLaidOutWhole) {
  const Layout layouts[] = {
      {"static", 101, 0, 0, nullptr},
      {"dynamic over six parts", 40, 65, 0, "8192"},
      {"spread by part", 40, 64, 1, "8192"},
      {"spread over two", 23, 64, 3, nullptr},
  };
  for (const Layout& l : layouts) {
    SCOPED_TRACE(l.name);
    std::optional<ScopedEnv> length;
    if (l.max_flength != nullptr) length.emplace("MAX_FLENGTH", l.max_flength);
    const std::string whole = dir + "/W" + std::to_string(&l - layouts);
    const std::string later = dir + "/L" + std::to_string(&l - layouts);
    make_and_load(whole, l, false);
    make_and_load(later, l, true);
    auto expected = file_bytes(whole);
    auto got = file_bytes(later);
    ASSERT_EQ(got.size(), expected.size());
    for (const auto& [name, content] : expected) EXPECT_TRUE(got[name] == content) << name;
    EXPECT_EQ(check_findings(later), "");
  }
}

TEST_F(FlHeads, HeadsNobodyLoadedAreWrittenWhenTheyAreTakenUp) {
  const std::string whole = dir + "/W", later = dir + "/L";
  ASSERT_EQ(M_create_hashed(whole.c_str(), 31, 1, 0, 0, nullptr), 1);
  M_heads_to_loader = true;
  ASSERT_EQ(M_create_hashed(later.c_str(), 31, 1, 0, 0, nullptr), 1);
  // Full length at once, with a hole where the heads belong.
  auto before = read_bytes(later);
  ASSERT_EQ(before.size(), 32u * 1024);
  EXPECT_TRUE(std::all_of(before.begin() + 1024, before.end(), [](uint8_t c) { return c == 0; }));
  // The switch holds for one layout only.
  ASSERT_EQ(M_create_hashed((dir + "/N").c_str(), 31, 1, 0, 0, nullptr), 1);
  EXPECT_EQ(read_bytes(dir + "/N"), read_bytes(whole));

  ScopedFd fd(open(later.c_str(), O_RDONLY));
  PendingHeads* heads = M_heads_take(fd.get());
  ASSERT_NE(heads, nullptr);
  EXPECT_EQ(M_heads_take(ScopedFd(open(whole.c_str(), O_RDONLY)).get()), nullptr);
  ASSERT_EQ(M_heads_write_rest(heads), 0);
  EXPECT_EQ(M_heads_pending_count(), 0u);
  EXPECT_EQ(read_bytes(later), read_bytes(whole));
}

TEST_F(FlHeads, AWriterEndedForRemovalWritesNothing) {
  const std::string path = dir + "/R";
  M_heads_to_loader = true;
  ASSERT_EQ(M_create_hashed(path.c_str(), 31, 1, 0, 0, nullptr), 1);
  REL_TYPE rel;
  ASSERT_EQ(M_openfile(&rel, path.c_str(), OpenMode::ReadWrite), 1);
  ASSERT_EQ(M_init_mem_buffers(&rel), 1);
  const std::string key = "k", record(500, 'r');
  ASSERT_EQ(M_mem_add_tuple(&rel, bytes(key), length(key), bytes(record), length(record)), 1);
  M_mem_end_for_removal(&rel);
  EXPECT_FALSE(M_mem_active(&rel));
  EXPECT_EQ(M_heads_pending_count(), 0u);
  M_closefile(&rel);
  auto after = read_bytes(path);
  EXPECT_TRUE(std::all_of(after.begin() + 1024, after.end(), [](uint8_t c) { return c == 0; }));
}

}  // namespace
