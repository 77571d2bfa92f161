#include "flib/fl_mem.h"

#include <map>
#include <random>

#include "fl_test_util.h"
#include "NT/NT_fault.h"
#include "support/run_program.h"
#include "flib/fl_delete.h"
#include "flib/fl_globals.h"
#include "flib/fl_hash.h"
#include "flib/fl_io.h"

namespace {

using FlMem = ScratchTest;

using Records = std::vector<std::pair<std::string, std::string>>;

// Keys of 1..40 printable bytes; records empty, short, at the short/long
// border, and of many blocks.
Records make_records(uint32_t seed, int count, uint32_t b) {
  std::mt19937 rng(seed);
  Records out;
  for (int i = 0; i < count; ++i) {
    std::string key = "K" + std::to_string(i) + std::string(rng() % 30, static_cast<char>('a' + rng() % 26));
    size_t length;
    switch (rng() % 6) {
      case 0: length = 0; break;
      case 1: length = b - 13 + rng() % 3; break;
      case 2: length = rng() % (3 * b) + b; break;
      default: length = rng() % 200; break;
    }
    std::string record(length, '\0');
    for (auto& c : record) c = static_cast<char>(rng() % 250);
    out.push_back({key, record});
  }
  return out;
}

void expect_all_readable(const std::string& path, const Records& records) {
  REL_TYPE rel;
  ASSERT_EQ(M_openfile(&rel, path.c_str(), OpenMode::Read), 1);
  std::map<std::string, std::string> last;
  for (const auto& [k, r] : records) last[k] = r;
  for (const auto& [k, r] : last) {
    std::string got;
    ASSERT_EQ(M_read_tuple(&rel, bytes(k), length(k), &got), 1) << k;
    ASSERT_EQ(got, r) << k;
  }
  M_closefile(&rel);
}

struct LoadCounts {
  uint64_t buffered_writes = 0;
  uint64_t block_writes = 0;
};

// Loads `records` into a new file at `path`, through the buffered writer
// or one M_append_strtuple at a time, sorted by group as a restore does.
LoadCounts load(const std::string& path, bool dynamic, int32_t modulo, const Records& input, bool buffered) {
  LoadCounts counts;
  EXPECT_EQ(M_create_hashed(path.c_str(), modulo, 1, dynamic ? 64 : 0, 0, nullptr), 1);
  REL_TYPE rel;
  EXPECT_EQ(M_openfile(&rel, path.c_str(), OpenMode::ReadWrite), 1);
  Records records = input;
  std::stable_sort(records.begin(), records.end(), [&](const auto& x, const auto& y) {
    return M_hash(bytes(x.first), length(x.first), &rel) < M_hash(bytes(y.first), length(y.first), &rel);
  });
  uint64_t writes_before = M_mem_write_calls;
  uint64_t blocks_before = M_block_writes;
  if (buffered) {
    EXPECT_EQ(M_init_mem_buffers(&rel), 1);
  }
  for (const auto& [k, r] : records) {
    int result = buffered ? M_mem_add_tuple(&rel, bytes(k), length(k), bytes(r), length(r))
                          : M_append_strtuple(&rel, bytes(k), length(k), bytes(r), length(r), 0, nullptr);
    EXPECT_EQ(result, 1) << k;
  }
  if (buffered) {
    EXPECT_EQ(M_mem_force_flush(&rel, 1), 1);
  }
  counts.buffered_writes = M_mem_write_calls - writes_before;
  counts.block_writes = M_block_writes - blocks_before;
  M_closefile(&rel);
  return counts;
}

TEST_F(FlMem, BufferedAndSingleLoadsReadBackTheSame) {
  for (bool dynamic : {false, true}) {
    SCOPED_TRACE(dynamic ? "dynamic" : "static");
    Records records = make_records(dynamic ? 7 : 8, 3000, 1024);
    // Some keys come twice: the second record replaces the first.
    for (int i = 0; i < 200; i += 7) records.push_back({records[static_cast<size_t>(i)].first, "again " + std::to_string(i)});
    std::string mem_path = tmp.str() + (dynamic ? "/dm" : "/sm");
    std::string one_path = tmp.str() + (dynamic ? "/d1" : "/s1");
    LoadCounts mem = load(mem_path, dynamic, 101, records, true);
    LoadCounts one = load(one_path, dynamic, 101, records, false);
    expect_all_readable(mem_path, records);
    expect_all_readable(one_path, records);
    EXPECT_EQ(check_findings(mem_path), "");
    EXPECT_EQ(check_findings(one_path), "");
    // The buffered load reaches the disk in few large writes.
    EXPECT_EQ(mem.block_writes, 0u);
    EXPECT_LT(mem.buffered_writes * 20, one.block_writes) << mem.buffered_writes << " against " << one.block_writes;
    std::printf("%s load of %zu records: %llu buffered writes, %llu block writes one by one\n",
                dynamic ? "dynamic" : "static", records.size(), static_cast<unsigned long long>(mem.buffered_writes),
                static_cast<unsigned long long>(one.block_writes));
  }
}

TEST_F(FlMem, BlocksOfAnotherPartFlushTheOtherPartsBlocksFirst) {
  std::string path = tmp.str() + "/D";
  M_spread = 3;  // two overflow parts, groups spread over both
  ASSERT_EQ(M_create_hashed(path.c_str(), 40, 1, 64, 0, nullptr), 1);
  M_spread = 0;
  REL_TYPE rel;
  ASSERT_EQ(M_openfile(&rel, path.c_str(), OpenMode::ReadWrite), 1);
  ASSERT_EQ(rel.overflow.size(), 2u);
  Records records = make_records(11, 600, 1024);
  ASSERT_EQ(M_init_mem_buffers(&rel), 1);
  for (const auto& [k, r] : records) ASSERT_EQ(M_mem_add_tuple(&rel, bytes(k), length(k), bytes(r), length(r)), 1);
  ASSERT_EQ(M_mem_force_flush(&rel, 1), 1);
  M_closefile(&rel);
  EXPECT_GT(read_bytes(path + "/over001").size(), 1024u);
  EXPECT_GT(read_bytes(path + "/over002").size(), 1024u);
  expect_all_readable(path, records);
  EXPECT_EQ(check_findings(path), "");
}

TEST_F(FlMem, ABufferedLoadIntoAFileWrittenRecordByRecordKeepsItsBlocks) {
  for (bool dynamic : {false, true}) {
    SCOPED_TRACE(dynamic ? "dynamic" : "static");
    std::string path = tmp.str() + (dynamic ? "/D" : "/S");
    Records first = make_records(21, 400, 1024), second = make_records(22, 400, 1024);
    for (auto& [k, r] : second) k = "x" + k;
    // Half of the first set is replaced by the buffered load.
    for (size_t i = 0; i < first.size(); i += 2) second.push_back({first[i].first, "new " + std::to_string(i)});
    load(path, dynamic, 13, first, false);
    REL_TYPE rel;
    ASSERT_EQ(M_openfile(&rel, path.c_str(), OpenMode::ReadWrite), 1);
    for (size_t i = 1; i < first.size(); i += 4)
      ASSERT_EQ(M_delete_tuple(&rel, bytes(first[i].first), length(first[i].first), nullptr), 1);
    ASSERT_EQ(M_init_mem_buffers(&rel), 1);
    for (const auto& [k, r] : second) ASSERT_EQ(M_mem_add_tuple(&rel, bytes(k), length(k), bytes(r), length(r)), 1);
    ASSERT_EQ(M_mem_force_flush(&rel, 1), 1);
    M_closefile(&rel);
    Records expected;
    for (size_t i = 0; i < first.size(); ++i)
      if (i % 4 != 1) expected.push_back(first[i]);
    expected.insert(expected.end(), second.begin(), second.end());
    expect_all_readable(path, expected);
    EXPECT_EQ(check_findings(path), "");
  }
}

// The writes of a flush are made on the flush thread while the load goes
// on; one that fails there is counted and reported on the loader's thread
// at the next flush, and the load learns of it as of a flush of its own.
TEST_F(FlMem, AWriteThatFailsOnTheFlushThreadReachesTheLoad) {
  const std::string path = dir + "/S";
  ASSERT_EQ(M_create_hashed(path.c_str(), 31, 1, 0, 0, nullptr), 1);
  const auto size = static_cast<rlim_t>(read_bytes(path).size());
  ProgramResult child = run_in_child([&] {
    REL_TYPE rel;
    // The group heads may be written, no overflow block past them.
    if (int failed = open_under_size_limit(&rel, path, size)) _exit(failed);
    if (M_init_mem_buffers(&rel) != 1) _exit(12);
    const uint64_t failures = NT_write_failures;
    const std::string record(3000, 'r');
    int added = 0;
    for (int i = 0; i < 2000; ++i) {
      const std::string key = "K" + std::to_string(i);
      if (M_mem_add_tuple(&rel, bytes(key), length(key), bytes(record), length(record)) != 1) break;
      ++added;
    }
    if (added == 2000) _exit(13);  // the failure never reached the load
    if (NT_write_failures == failures || NT_last_write_errno != EFBIG) _exit(14);
    if (M_mem_force_flush(&rel, 1) != -1) _exit(15);
    _exit(0);
  });
  EXPECT_EQ(child.status, 0) << child.output;
  EXPECT_NE(child.output.find("m_write error,name="), std::string::npos) << child.output;
  EXPECT_NE(child.output.find("write last blocks error.\n"), std::string::npos) << child.output;
}

// A static file of 1 KiB blocks under the buffered writer, with groups for
// twice a pool's rows.
class FlMemPools : public RecordFile {
 protected:
  void SetUp() override {
    create(2 * static_cast<int32_t>(MEM_POOL_BYTES / 1024) + 7, 1, 0);
    ASSERT_EQ(M_init_mem_buffers(&rel), 1);
  }
  void TearDown() override {
    M_mem_force_flush(&rel, 1);
    RecordFile::TearDown();
  }
};

TEST_F(FlMemPools, PoolsFlushInRuns) {
  std::vector<uint8_t> block(1024), back(1024);
  // 100 consecutive head blocks (one run of 102400 bytes, one write) and
  // one block apart (a run of its own), read without change.
  for (uint32_t g = 0; g < 100; ++g) {
    M_groupno = g;
    ASSERT_EQ(M_blkread(&rel, 1024 * (g + 1), block.data(), CHECK_HEAD), 1);
    block[100] = static_cast<uint8_t>(g + 1);
    ASSERT_EQ(M_blkwrite(&rel, 1024 * (g + 1), block.data()), 1);
  }
  M_groupno = 150;
  ASSERT_EQ(M_blkread(&rel, 1024 * 151, block.data(), CHECK_HEAD), 1);
  uint64_t before = M_mem_write_calls;
  // Nothing reached the disk yet.
  EXPECT_EQ(read_bytes(path)[1024 * 5 + 100], 0);
  ASSERT_EQ(M_mem_force_flush(&rel, 0), 1);
  EXPECT_EQ(M_mem_write_calls - before, 2u);
  EXPECT_EQ(read_bytes(path)[1024 * 5 + 100], 5);
  // Emptied pools read from the disk again.
  M_groupno = 4;
  ASSERT_EQ(M_blkread(&rel, 1024 * 5, back.data(), CHECK_HEAD), 1);
  EXPECT_EQ(back[100], 5);
  ASSERT_EQ(M_mem_force_flush(&rel, 1), 1);
  EXPECT_FALSE(M_mem_active(&rel));
}

TEST_F(FlMemPools, AFullPoolFlushesOnTheNextMissAndRestartsWithOneRow) {
  uint32_t capacity = MEM_POOL_BYTES / 1024;
  std::vector<uint8_t> block(1024);
  // Every other group: no two blocks are adjacent, one write per block.
  for (uint32_t i = 0; i < capacity; ++i) {
    M_groupno = 2 * i;
    ASSERT_EQ(M_blkread(&rel, 1024 * (2 * i + 1), block.data(), CHECK_HEAD), 1);
  }
  uint64_t before = M_mem_write_calls;
  M_groupno = 2 * capacity;
  ASSERT_EQ(M_blkread(&rel, 1024 * (2 * capacity + 1), block.data(), CHECK_HEAD), 1);
  EXPECT_EQ(M_mem_write_calls - before, capacity);
  before = M_mem_write_calls;
  ASSERT_EQ(M_mem_force_flush(&rel, 1), 1);
  EXPECT_EQ(M_mem_write_calls - before, 1u);
}

}  // namespace
