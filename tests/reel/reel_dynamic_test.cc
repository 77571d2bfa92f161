// The parts of the dynamic-file decoder that a well-formed tape never
// reaches: the limits of a page record and the lines they leave, the
// plausibility test used to resynchronise inside a page, the page store
// "overflow", and a record cut over pages that grows past the limit.
#include "reel/reel_dynamic.h"

#include <cstdio>
#include <vector>

#include "reel/reel_app_tuple.h"
#include "reel/reel_current.h"
#include "reel/reel_get_expbuf.h"
#include "reel/reel_settings.h"
#include "reel/reel_tape_format.h"
#include "support/files.h"
#include "support/temp_dir.h"

namespace {

std::vector<unsigned char> record(const std::string& key, const std::string& data, int32_t data_len = -1,
                                  int32_t first_page = 0) {
  std::vector<unsigned char> out;
  tape_encode_dyn_record(out, key, data, data_len, first_page);
  out.resize(out.size() + DYN_REC_HEADER, 0);  // room for the checks to look on
  return out;
}

// A page of one unit: its head, then `body` from offset 22.
std::vector<unsigned char> page_of(const DynPageHead& head, const std::vector<unsigned char>& body) {
  std::vector<unsigned char> page(DYN_PAGE_ROOM, 0);
  tape_encode_dyn_head(page.data(), head);
  std::copy(body.begin(), body.end(), page.begin() + DYN_PAGE_HEAD);
  return page;
}

// Runs in a scratch directory with dispmsg captured and a fresh slot.
class DynDecoder : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(getcwd(cwd_, sizeof cwd_), nullptr);
    ASSERT_EQ(chdir(dir_.str().c_str()), 0);
    dispmsg = std::fopen("dispmsg", "w+");
    reel_current.record_count = 0;
    reel_current.key_bytes = 0;
    reel_current.data_bytes = 0;
    reel_current.name = "DYN";
    reel_init_tuples(64);
    reel_init_levels();
    level_ = reel_push_level();
    ASSERT_EQ(reel_overflow_open(), 1);
  }
  void TearDown() override {
    reel_overflow_close();
    reel_pop_level(level_);
    std::fclose(dispmsg);
    dispmsg = nullptr;
    ASSERT_EQ(chdir(cwd_), 0);
  }
  std::string log() {
    std::fflush(dispmsg);
    return slurp(dir_.path() / "dispmsg");
  }

  TempDir dir_;
  char cwd_[4096];
  int32_t level_ = 0;
};

TEST_F(DynDecoder, RecordLimitsAndTheirLines) {
  const std::string k130(130, 'k');
  EXPECT_EQ(reel_dyn_record(record(k130, "x").data()), 1);
  EXPECT_EQ(reel_dyn_record(record(std::string(200, 'z'), "x").data()), 1);
  EXPECT_EQ(reel_current.record_count, 0) << "refused keys are not counted";
  EXPECT_EQ(reel_dyn_record(record("IN", std::string(DYN_INLINE_LIMIT, 'd')).data()), -1);
  EXPECT_EQ(reel_dyn_record(record("BIG", "", DYN_LARGE_LIMIT, 9).data()), 1);
  EXPECT_EQ(reel_dyn_record(record("OK", "", DYN_LARGE_LIMIT - 1, 9).data()), 1);
  EXPECT_EQ(reel_long_tuples.count, 1);
  EXPECT_EQ(reel_current.record_count, 3);
  EXPECT_EQ(log(), "Blkno = 0 \tRecord error: incompatible key length [130  " + k130 +
                       "]\n"
                       "Blkno = 0 \tRecord error: invalid key length [200] \n"
                       "Blkno = 0 \tRecord error: illegal tuple length [16384 IN]\n"
                       "Blkno = 0 \tRecord error: illegal ltuple length [523264 BIG]\n");

  // A size that does not even cover the key: the record is shown and the
  // page given up.
  std::vector<unsigned char> short_one = record("SHORTKEY", "data");
  tape_put_u16(short_one.data() + DYN_REC_OFF_SIZE, (DYN_REC_HEADER + 4) / 2);
  testing::internal::CaptureStdout();
  EXPECT_EQ(reel_dyn_record(short_one.data()), -1);
  std::fflush(stdout);
  EXPECT_TRUE(testing::internal::GetCapturedStdout().ends_with("\n\n"));
}

TEST_F(DynDecoder, PlausibleRecordsForResynchronising) {
  EXPECT_EQ(reel_dyn_check_record(std::vector<unsigned char>{DYN_MARK, DYN_MARK_END, 0, 0}.data()), 2);
  EXPECT_EQ(reel_dyn_check_record(std::vector<unsigned char>{DYN_MARK, DYN_MARK_SKIP, 0, 0}.data()), 1);
  EXPECT_EQ(reel_dyn_check_record(record("KEY", "in line").data()), 1);
  EXPECT_EQ(reel_dyn_check_record(record("KEY", "", 70000, 5).data()), 1);
  EXPECT_EQ(reel_dyn_check_record(record(std::string(129, 'k'), "x").data()), 0);
  EXPECT_EQ(reel_dyn_check_record(record(std::string(128, 'k'), "x").data()), 1);
  std::vector<unsigned char> wrong = record("KEY", "in line");
  tape_put_u24(wrong.data() + DYN_REC_OFF_DATA_LEN, 3);
  EXPECT_EQ(reel_dyn_check_record(wrong.data()), 0);
}

TEST_F(DynDecoder, TheStoreGivesEachPageBackOnceWithAllItsUnits) {
  std::vector<unsigned char> two(2 * DYN_PAGE_UNIT);
  for (size_t i = 0; i < two.size(); ++i) two[i] = static_cast<unsigned char>(i * 7);
  tape_encode_dyn_head(two.data(), {.units = 2, .number = 40});
  reel_overflow_put(two.data(), static_cast<int32_t>(two.size()));
  reel_overflow_put(two.data(), DYN_PAGE_HEAD - 1);  // too short to keep

  std::vector<unsigned char> back(DYN_PAGE_ROOM);
  int32_t length = 0;
  EXPECT_EQ(reel_overflow_get(back.data(), 40, &length), 1);
  EXPECT_EQ(length, 2 * DYN_PAGE_UNIT);
  EXPECT_TRUE(std::equal(two.begin(), two.end(), back.begin()));
  EXPECT_EQ(reel_overflow_get(back.data(), 40, &length), 0) << "fetched once";
  EXPECT_EQ(reel_overflow_get(back.data(), 0, &length), 1) << "the second unit is filed under 0";

  std::vector<unsigned char> odd = page_of({.units = 5, .number = 41}, {});
  reel_overflow_put(odd.data(), DYN_PAGE_UNIT);
  EXPECT_EQ(reel_overflow_get(back.data(), 41, &length), 0) << "a size byte over 4";
}

// The end of a page's records: the first 0xFF 0xFE from the given offset,
// a 0xFF that opens it standing behind another 0xFF, and none when the
// page's last byte is a lone 0xFF.
TEST_F(DynDecoder, TheEndMarkIsTheFirstPairWithinThePage) {
  std::vector<unsigned char> p(64, 0x41);
  EXPECT_EQ(dyn_find_end_mark(p.data(), DYN_PAGE_HEAD, 64), 64);
  p[63] = DYN_MARK;
  EXPECT_EQ(dyn_find_end_mark(p.data(), DYN_PAGE_HEAD, 64), 64);
  p[40] = DYN_MARK;
  p[41] = DYN_MARK;
  p[42] = DYN_MARK_END;
  p[50] = DYN_MARK;
  p[51] = DYN_MARK_END;
  EXPECT_EQ(dyn_find_end_mark(p.data(), DYN_PAGE_HEAD, 64), 41);
  EXPECT_EQ(dyn_find_end_mark(p.data(), 42, 64), 50);
  EXPECT_EQ(dyn_find_end_mark(p.data(), DYN_PAGE_HEAD, 42), 42) << "the pair must end inside the length";
}

// Many pages: the store writes them in batches and reads them back from
// the file or from the batch not yet written, in any order, also while
// more pages keep arriving.
TEST_F(DynDecoder, TheStoreKeepsManyPagesWrittenOrWaiting) {
  constexpr int32_t kPages = 700;
  auto page = [](int32_t n) {
    std::vector<unsigned char> p(DYN_PAGE_UNIT, static_cast<unsigned char>(n * 31));
    tape_encode_dyn_head(p.data(), {.number = n});
    return p;
  };
  std::vector<unsigned char> back(DYN_PAGE_ROOM);
  int32_t length = 0;
  for (int32_t n = 1; n <= kPages; ++n) {
    reel_overflow_put(page(n).data(), DYN_PAGE_UNIT);
    if (n % 150 == 0) {
      ASSERT_EQ(reel_overflow_get(back.data(), n - 140, &length), 1) << n;
      EXPECT_TRUE(std::equal(back.begin(), back.begin() + DYN_PAGE_UNIT, page(n - 140).begin())) << n;
      ASSERT_EQ(reel_overflow_get(back.data(), n, &length), 1) << "the newest page, not yet written " << n;
      EXPECT_TRUE(std::equal(back.begin(), back.begin() + DYN_PAGE_UNIT, page(n).begin())) << n;
    }
  }
  for (int32_t n = kPages; n >= 1; --n) {
    const bool fetched = n % 150 == 0 || (n + 140 <= kPages && (n + 140) % 150 == 0);
    ASSERT_EQ(reel_overflow_get(back.data(), n, &length), fetched ? 0 : 1) << n;
    if (!fetched) {
      EXPECT_TRUE(std::equal(back.begin(), back.begin() + DYN_PAGE_UNIT, page(n).begin())) << n;
    }
  }
}

// Pages of the overflow part that their group has not reached wait in the
// store; fetched again afterwards they are not stored a second time; free
// pages are never kept.
TEST_F(DynDecoder, OutOfOrderPagesWaitOnceAndFreePagesAreDropped) {
  std::vector<DynGroupState> groups(2, DynGroupState{0, 0, nullptr});
  std::vector<unsigned char> early = page_of({.number = 7, .group_page = true, .group = 0}, {DYN_MARK, DYN_MARK_END});
  std::vector<unsigned char> free_page = page_of({.number = 8, .kind = DYN_KIND_FREE}, {});
  EXPECT_EQ(reel_dyn_page(early.data(), DYN_PAGE_UNIT, DYN_PASS_OVERFLOW, groups.data(), 1), 1);
  EXPECT_EQ(reel_dyn_page(free_page.data(), DYN_PAGE_UNIT, DYN_PASS_OVERFLOW, groups.data(), 1), 1);
  std::vector<unsigned char> back(DYN_PAGE_ROOM);
  int32_t length = 0;
  EXPECT_EQ(reel_overflow_get(back.data(), 8, &length), 0);
  ASSERT_EQ(reel_overflow_get(back.data(), 7, &length), 1);
  EXPECT_EQ(reel_dyn_page(back.data(), length, DYN_PASS_HELD, groups.data(), 1), 1);
  EXPECT_EQ(reel_overflow_get(back.data(), 7, &length), 0);
}

// An in-line record that claims more than a page record may hold runs
// over pages until the gathered bytes pass the limit; the rest of that
// page is lost and the chain ends there.
TEST_F(DynDecoder, ARecordCutOverPagesStopsAtTheLimit) {
  std::vector<unsigned char> stream;
  tape_encode_dyn_record(stream, "HUGE", std::string(20000, 'h'));
  std::vector<DynGroupState> groups(2, DynGroupState{0, 0, nullptr});
  const size_t body = DYN_PAGE_UNIT - DYN_PAGE_HEAD;
  testing::internal::CaptureStdout();
  for (int32_t p = 0; p * body < stream.size(); ++p) {
    const size_t at = static_cast<size_t>(p) * body;
    std::vector<unsigned char> bytes(stream.begin() + static_cast<long>(at),
                                     stream.begin() + static_cast<long>(std::min(stream.size(), at + body)));
    std::vector<unsigned char> page = page_of({.number = p + 1, .group_page = true, .next = p + 2}, bytes);
    EXPECT_EQ(reel_dyn_page(page.data(), DYN_PAGE_UNIT, p == 0 ? DYN_PASS_PRIMARY : DYN_PASS_OVERFLOW,
                            groups.data(), 1),
              1);
  }
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "DYN big record is too long\n");
  EXPECT_EQ(groups[0].next_page, 0);
  EXPECT_EQ(reel_small_tuples.count, 0);
}

}  // namespace
