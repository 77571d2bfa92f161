// The status line's text: where the run is, and its rate once there is
// time enough to tell one.
#include "reel/reel_progress.h"

#include <gtest/gtest.h>

namespace {

TEST(ProgressLine, TellsWhereTheRunIsAndHowFastItGoes) {
  ProgressState s{.account = "SALES", .file = "ORDERS", .file_records = 1200, .file_written = 800,
                  .total_records = 5000, .tape_bytes = 3 * 1024 * 1024 + 512 * 1024, .seconds = 0.1};
  EXPECT_EQ(reel_progress_line(s), "SALES ORDERS: 1200 records, 800 written; 5000 in all, 3.5 MB read");
  s.seconds = 2;
  EXPECT_EQ(reel_progress_line(s),
            "SALES ORDERS: 1200 records, 800 written; 5000 in all, 3.5 MB read, 2500 records/s, 1.8 MB/s");
}

}  // namespace
