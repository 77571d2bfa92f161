// Record loading: buffers, flushes, the resize before the first write, the
// end of a file, and the spill of the long buffer.

#include "common/mrv_marks.h"
#include "flib/fl_test_util.h"
#include "flib/fl_hash.h"
#include "flib/fl_mem.h"
#include "reel/account_child.h"
#include "reel/reel_app_tuple.h"
#include "reel/reel_target.h"
#include "reel/tape_child.h"

namespace {

using account_test::in_account;
using tape_test::count_of;

std::string key_of(int i) { return "K" + std::to_string(i); }

// Loads `records` records of `data_bytes` bytes into the DATA file CUST
// made with the tape's `modulo`, through buffers of `k` KiB, as a decoder
// does: the slot counts each record as it is read. Prints the records
// restored after the adds and the modulo the file ends with.
void load(int32_t modulo, int records, int data_bytes, const char* name = "CUST", int dynamic = 0) {
  CurrentFile& f = reel_current;
  f = CurrentFile{};
  f.name = name;
  f.modulo = modulo;
  if (reel_create_target(dynamic, true) != 1 || reel_open_target() != 1) return;
  const std::string data(static_cast<size_t>(data_bytes), 'd');
  for (int i = 0; i < records; ++i) {
    std::string key = key_of(i);
    ++f.record_count;
    f.key_bytes += static_cast<int64_t>(key.size());
    f.data_bytes += data_bytes;
    reel_add_tuple(key.c_str(), static_cast<int32_t>(key.size()), data.c_str(), data_bytes);
  }
  std::printf("before finish: %d\n", reel_records_restored);
  int32_t final_modulo = f.rel->modulo;
  reel_finish_file(f.rel.get());
  std::printf("modulo %d\n", final_modulo);
}

TEST(Loader, FlushesResizesAndEnds) {
  struct Case {
    int32_t k;
    int32_t modulo;
    int records;
    int data_bytes;
    bool fits;         // one flush, at the end
    int resizes;       // "Resize" lines
    bool resize_list;  // a line in resize_list
    int dynamic = 0;
  } cases[] = {
      {64, 7, 50, 10, true, 0, false},
      {64, 1, 1000, 10, true, 1, false},     // far too small: resized before the first write
      {64, 1, 1000, 10, true, 1, false, 1},  // a dynamic file stays dynamic
      {64, 1, 2000, 10, false, 1, false},    // judged when the buffer first filled
      {8, 1, 3000, 10, false, 1, true},      // judged at the first of many flushes only
      {64, 7, 0, 10, true, 0, false},        // nothing: no flush, no line
  };
  for (const Case& c : cases) {
    std::string dir = tape_test::scratch("loader");
    ProgramResult r = in_account(
        dir, [&](RunSettings& s) { reel_init_tuples(s.buffer_factor = c.k); },
        [&] {
          load(c.modulo, c.records, c.data_bytes, "CUST", c.dynamic);
          reel_close_account();
        });
    const std::string trace = std::to_string(c.k) + "/" + std::to_string(c.modulo) + "/" +
                              std::to_string(c.records) + "\n" + r.output;
    const std::string log = slurp(dir + "/ACC/dispmsg");
    EXPECT_NE(log.find(std::to_string(c.records) + " records restored\n"), std::string::npos) << trace;
    EXPECT_EQ(count_of(log, "Resize CUST to new modulo ----- "), static_cast<size_t>(c.resizes)) << trace;
    EXPECT_EQ(r.output.find("before finish: 0\n") != std::string::npos, c.fits) << trace;
    const std::string list = slurp(dir + "/ACC/resize_list");
    EXPECT_EQ(list.starts_with("'\tCUST \t\t"), c.resize_list) << trace << list;
    EXPECT_EQ(r.output.find("files overflowed, Check resize_list") != std::string::npos, c.resize_list);
    EXPECT_EQ(check_findings(dir + "/ACC/CUST"), "") << trace;
    REL_TYPE rel;
    ASSERT_EQ(M_openfile(&rel, (dir + "/ACC/CUST").c_str(), OpenMode::Read), 1);
    int found = 0;
    for (int i = 0; i < c.records; ++i) {
      std::string key = key_of(i);
      found += M_read_key(&rel, reinterpret_cast<const uint8_t*>(key.data()), static_cast<int32_t>(key.size()));
    }
    M_closefile(&rel);
    EXPECT_EQ(found, c.records) << trace;
    EXPECT_EQ(std::filesystem::is_directory(dir + "/ACC/CUST"), c.dynamic == 1) << trace;
    for (const auto& e : std::filesystem::directory_iterator(dir + "/ACC"))
      EXPECT_FALSE(e.path().filename().string().starts_with("resz__")) << trace;
  }
}

// The end of a load judges the key table alone: a key costs its row and
// its length byte, 9 bytes beside its text, in what a block leaves after
// its 32-byte head and one average key. A key more than fits one block per
// group makes a resize_list line, whose modulo counts the whole records.
TEST(Loader, TheEndOfALoadJudgesTheKeyTableAlone) {
  struct Case {
    uint32_t block_size;
    int32_t modulo;
    int32_t records;  // of one-byte keys: 10 bytes each in the key table
    int64_t data_bytes;
    int32_t proposed;  // 0: no resize_list line
  } cases[] = {
      {1024, 1, 0, 0, 0},    {1024, 1, 99, 0, 0},     {1024, 1, 100, 0, 2},
      {1024, 2, 100, 0, 0},  {512, 1, 47, 0, 0},      {512, 1, 48, 0, 2},
      {1024, 1, 100, 9000, 11},  // the proposal counts the data: (9000 + 1100) / 992 + 1
  };
  for (const Case& c : cases) {
    CurrentFile& f = reel_current;
    f = CurrentFile{};
    f.record_count = c.records;
    f.key_bytes = c.records;
    f.data_bytes = c.data_bytes;
    REL_TYPE rel;
    rel.block_size = c.block_size;
    rel.modulo = c.modulo;
    EXPECT_EQ(reel_overfull_modulo(&rel), c.proposed) << c.block_size << "/" << c.modulo << "/" << c.records;
  }
  reel_current = CurrentFile{};
}

// Records land in the file in group order, and within a group latest
// first (the descriptors grow down from the top of the buffer, and the
// sort keeps their order): the keys of the loaded file, walked block by
// block, are those of a file written directly in that order.
TEST(Loader, RecordsOfAGroupGoInLatestFirst) {
  const int records = 60;
  std::string dir = tape_test::scratch("loader-order");
  ProgramResult r = in_account(
      dir, [&](RunSettings& s) { reel_init_tuples(s.buffer_factor = 64); },
      [&] {
        load(5, records, 3);
        reel_close_account();
      });
  auto keys_of = [](const std::string& path) {
    std::string keys;
    REL_TYPE rel;
    if (M_openfile(&rel, path.c_str(), OpenMode::Read) != 1) return keys;
    M_for_each_key(&rel, [&](const uint8_t* key, int32_t length, const uint8_t*, int32_t, uint32_t) {
      keys.append(reinterpret_cast<const char*>(key), static_cast<size_t>(length)).push_back(' ');
      return 0;
    });
    M_closefile(&rel);
    return keys;
  };
  const std::string loaded = keys_of(dir + "/ACC/CUST");

  std::string direct = dir + "/DIRECT";
  ASSERT_EQ(M_create_hashed(direct.c_str(), 5, 1, 0, 0, nullptr), 1);
  REL_TYPE rel;
  ASSERT_EQ(M_openfile(&rel, direct.c_str(), OpenMode::ReadWrite), 1);
  ASSERT_EQ(M_init_mem_buffers(&rel), 1);
  const std::string data = "ddd";
  for (uint32_t group = 0; group < 5; ++group) {
    for (int i = records - 1; i >= 0; --i) {
      std::string key = key_of(i);
      auto k = reinterpret_cast<const uint8_t*>(key.data());
      if (M_hash(k, static_cast<int32_t>(key.size()), &rel) != group) continue;
      ASSERT_EQ(M_mem_add_tuple(&rel, k, static_cast<int32_t>(key.size()),
                                reinterpret_cast<const uint8_t*>(data.data()), 3), 1);
    }
  }
  ASSERT_EQ(M_mem_force_flush(&rel, 1), 1);
  M_closefile(&rel);
  EXPECT_EQ(loaded, keys_of(direct)) << r.output;
  EXPECT_EQ(std::count(loaded.begin(), loaded.end(), ' '), records);
}

// The tape's marks become those in force, only when the record mark
// differs; a key carries record and field marks only.
TEST(Loader, MarkTranslation) {
  const unsigned char saved[] = {M_RM, M_FM, M_VM, M_SM, M_TM};
  struct Case {
    unsigned char rm;
    bool all;
    const char* expected;
  } cases[] = {
      {0xFF, true, "\xFF\xFE\xFD\xFC\xFBx"},
      {0x7F, false, "\x7F\x7E\xFD\xFC\xFBx"},
      {0x7F, true, "\x7F\x7E\x7D\x7C\x7Bx"},
  };
  for (const Case& c : cases) {
    M_RM = c.rm;
    M_FM = 0x7E;
    M_VM = 0x7D;
    M_SM = 0x7C;
    M_TM = 0x7B;
    char text[] = "\xFF\xFE\xFD\xFC\xFBx";
    reel_translate_marks(text, 6, c.all);
    EXPECT_STREQ(text, c.expected);
  }
  M_RM = saved[0], M_FM = saved[1], M_VM = saved[2], M_SM = saved[3], M_TM = saved[4];
}

// A hostile name reaches resize_list as text, and its file is made under a
// cleaned name; nothing runs.
TEST(Loader, HostileNameInResizeList) {
  std::string dir = tape_test::scratch("loader_hostile");
  const char* name = "x'; touch PWNED; '";
  ProgramResult r = in_account(
      dir, [](RunSettings& s) { reel_init_tuples(s.buffer_factor = 8); },
      [&] {
        load(1, 3000, 10, name);
        reel_close_account();
      });
  EXPECT_TRUE(slurp(dir + "/ACC/resize_list").starts_with("'\tx'; touch PWNED; ' \t\t")) << r.output;
  EXPECT_EQ(check_findings(dir + "/ACC/x';_touch_PWNED;_'a"), "") << r.output;
  EXPECT_FALSE(std::filesystem::exists(dir + "/ACC/PWNED"));
  EXPECT_FALSE(std::filesystem::exists(dir + "/PWNED"));
}

// The long buffer spills to large__file as often as it fills, and every
// large record reaches the write exactly once: with no overflow pages held
// here, each is reported lost once by its key and none counts as restored.
TEST(Loader, SpillKeepsEveryLargeRecordOnce) {
  std::string dir = tape_test::scratch("loader_spill");
  constexpr int kRecords = 100;
  ProgramResult r = in_account(
      dir, [](RunSettings& s) { reel_init_tuples(s.buffer_factor = 4); },
      [] {
        CurrentFile& f = reel_current;
        f.name = "BIG";
        f.modulo = 5;
        if (reel_create_target(1, true) != 1 || reel_open_target() != 1) return;
        for (int i = 0; i < kRecords; ++i) {
          std::string key = key_of(i);
          reel_add_ltuple(key.c_str(), static_cast<int32_t>(key.size()), 5000, 7);
        }
        reel_flush_ltuples();
        std::printf("restored %d\n", reel_records_restored);
        reel_close_account();
      });
  EXPECT_NE(r.output.find("restored 0\n"), std::string::npos) << r.output;
  const std::string log = slurp(dir + "/ACC/dispmsg");
  for (int i = 0; i < kRecords; ++i)
    EXPECT_EQ(count_of(log, "Record error: " + key_of(i) + "\n"), 1u) << key_of(i);
  EXPECT_GT(std::filesystem::file_size(dir + "/ACC/large__file"), 4u * 256 * 2);
}

}  // namespace
