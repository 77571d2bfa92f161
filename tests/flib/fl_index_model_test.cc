// Randomized model test of index maintenance: a dynamic file with an index
// on a single-valued field and one on a multivalued field, through
// interleaved puts, replacements and deletes, compared with the pairs an
// in-memory map of the records gives. Values are often longer than the
// key length (tails in buckets); small nodes make trees of depth three and
// more; a small MAX_FLENGTH spreads a large index over parts. The scans are
// compared at the end, after every step with IDX_MODEL_SLOW=1, and a sorted
// build must give the same scan as the maintenance did.

#include <random>

#include "common/mrv_marks.h"
#include "fl_idx_test_util.h"
#include "flib/fl_idxbuild.h"

namespace {

struct ModelConfig {
  int32_t version;
  bool large;
  uint32_t seed;
};

std::string random_value(std::mt19937& rng) {
  static const char* kStems[] = {"red", "green", "blue", "a-rather-long-colour-name-", ""};
  std::string v = kStems[rng() % 5];
  v += std::to_string(rng() % 40);
  if (rng() % 4 == 0) v += std::string(rng() % 40, static_cast<char>('a' + rng() % 3));
  return v;
}

// The pairs an index holds, from the records alone.
std::vector<Pair> expected(const std::map<std::string, std::string>& records, int field, bool multi) {
  std::set<Pair> pairs;
  for (const auto& [id, record] : records) {
    std::vector<std::string> fields{""};
    for (char c : record) {
      if (static_cast<unsigned char>(c) == M_FM) fields.emplace_back();
      else fields.back() += c;
    }
    std::string f = static_cast<size_t>(field) <= fields.size() ? fields[static_cast<size_t>(field) - 1] : "";
    if (!multi) {
      pairs.emplace(f, id);
      continue;
    }
    std::string value;
    for (char c : f + static_cast<char>(M_VM)) {
      if (static_cast<unsigned char>(c) != M_VM) {
        value += c;
        continue;
      }
      pairs.emplace(value, id);
      value.clear();
    }
  }
  return std::vector<Pair>(pairs.begin(), pairs.end());
}

class IndexModel : public IndexedFile, public testing::WithParamInterface<ModelConfig> {};

TEST_P(IndexModel, MaintenanceMatchesTheRecords) {
  const ModelConfig& config = GetParam();
  bool slow = std::getenv("IDX_MODEL_SLOW") != nullptr;
  ScopedEnv bin("MRVBIN", REEL_BIN_DIR);
  create(1, 1, 64);
  // A part of 48 KiB holds 47 nodes of 1 KiB besides its head.
  ScopedEnv flength("MAX_FLENGTH", config.large ? "49152" : "1073741824");
  IndexFileOptions o;
  o.version = config.version;
  o.block_code = 0;
  o.key_length = 16;
  o.ov_modulo = config.version == IDX_VERSION_COMPRESSED ? 3 : 1;
  o.large = config.large;
  ASSERT_EQ(M_create_index_file(&rel, o), 1);
  ASSERT_EQ(add("NAME", 1), 1);
  ASSERT_EQ(add("TAGS", 2, 'M'), 1);

  std::mt19937 rng(config.seed);
  std::map<std::string, std::string> model;
  int max_depth = 0;
  uint8_t most_parts = 1;
  auto compare = [&](int step) {
    ASSERT_EQ(scan("NAME"), expected(model, 1, false)) << "seed " << config.seed << " step " << step;
    ASSERT_EQ(scan("TAGS"), expected(model, 2, true)) << "seed " << config.seed << " step " << step;
  };
  const int steps = 5000;
  for (int step = 0; step < steps; ++step) {
    // Grow for the first half, then shrink, so that nodes both split and
    // merge and trees both deepen and lose levels.
    int pool = step < steps / 2 ? 1500 : 300;
    std::string id = "k" + std::to_string(rng() % pool);
    bool remove_now = step >= steps / 2 ? rng() % 3 != 0 : rng() % 6 == 0;
    if (remove_now) {
      auto it = model.lower_bound(id);
      if (it == model.end()) continue;
      ASSERT_EQ(del(it->first), 1);
      model.erase(it);
    } else {
      std::string record = random_value(rng) + static_cast<char>(M_FM);
      for (int n = static_cast<int>(rng() % 5); n > 0; --n)
        record += random_value(rng) + (n > 1 ? std::string(1, static_cast<char>(M_VM)) : "");
      record += static_cast<char>(M_FM) + std::string(rng() % 200, 'x');
      ASSERT_EQ(put(id, record), 1);
      model[id] = record;
    }
    if (step % 250 == 0) {
      max_depth = std::max({max_depth, depth("NAME"), depth("TAGS")});
      IndexHead head;
      ASSERT_EQ(M_idx_read_head(h(), 0, &head), 0);
      most_parts = std::max(most_parts, head.part_count);
    }
    if (slow) compare(step);
  }
  compare(steps);
  EXPECT_EQ(check(), "");
  EXPECT_EQ(findings(), "");
  EXPECT_GE(max_depth, 3);
  if (config.large) {
    EXPECT_GT(most_parts, 1);
  }

  // A sorted build of the same records gives the same scan.
  std::vector<Pair> kept = scan("TAGS");
  ASSERT_EQ(M_build_index(&rel, row("TAGS")), 1);
  EXPECT_EQ(scan("TAGS"), kept);
  EXPECT_EQ(check(), "");
}

INSTANTIATE_TEST_SUITE_P(Kinds, IndexModel,
                         testing::Values(ModelConfig{IDX_VERSION_PLAIN, false, 11},
                                         ModelConfig{IDX_VERSION_COMPRESSED, false, 12},
                                         ModelConfig{IDX_VERSION_PLAIN, true, 13}));

}  // namespace
