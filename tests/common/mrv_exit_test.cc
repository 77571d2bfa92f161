// The run's error state, the way out, and the allocation wrappers.
#include "common/mrv_exit.h"

#include <cerrno>
#include <csetjmp>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "common/fl_errout.h"
#include "common/mrv_alloc.h"
#include "common/mrv_msg.h"

namespace {

class ErrorState : public testing::Test {
 protected:
  void SetUp() override {
    error_code = 0;
    severity = 0;
  }
};

TEST_F(ErrorState, SmallCodesStandForTheSystemError) {
  testing::internal::CaptureStdout();
  errno = 2;
  M_errmsg(5, "x");
  EXPECT_EQ(error_code, 14002);
  EXPECT_EQ(severity, 1);

  error_code = 0;
  errno = 0;
  M_errmsg(5, "x");
  EXPECT_EQ(error_code, 30102);

  M_errmsg(30062, "x");
  EXPECT_EQ(error_code, 30062);
  testing::internal::GetCapturedStdout();
}

TEST_F(ErrorState, CodeZeroKeepsAnEarlierErrorOnceSomethingWasNoted) {
  testing::internal::CaptureStdout();
  M_errmsg(22005, "first\n");
  errno = 2;
  M_errmsg(0, "second\n");
  EXPECT_EQ(error_code, 22005);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "first\nsecond\n");
}

TEST_F(ErrorState, SeverityOnlyRisesAndStopsAtThree) {
  M_set_severity(3);
  M_set_severity(6);
  EXPECT_EQ(severity, 3);
  M_set_error(30000);
  EXPECT_EQ(severity, 3);

  severity = 1;
  M_set_severity(0);
  EXPECT_EQ(severity, 1);
  M_set_severity(5);
  EXPECT_EQ(severity, 5);
}

TEST_F(ErrorState, MessageNumbersMapThroughTheTable) {
  M_map_error(30062);
  EXPECT_EQ(error_code, 39203);
  // A number without a code of its own leaves a stored error alone...
  M_map_error(12345);
  EXPECT_EQ(error_code, 39203);
  // ...and otherwise records the system error.
  error_code = 0;
  errno = 13;
  M_map_error(12345);
  EXPECT_EQ(error_code, 14013);
}

TEST_F(ErrorState, BufferedMessagesCollectInsteadOfPrinting) {
  msg_output_fd = 0;
  msg_buffer_fill = 0;
  testing::internal::CaptureStdout();
  M_errmsg(0, "one %d\n", 1);
  M_errmsg(0, "two\n");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_STREQ(msg_buffer, "one 1\ntwo\n");
  msg_output_fd = -1;
  msg_buffer_fill = 0;
}

TEST_F(ErrorState, LibraryErrorsObeyTheSwitchAndNumberedOnesShowTheirNumber) {
  testing::internal::CaptureStdout();
  M_errout(30000, "%s error\n", "read");
  EXPECT_STREQ(last_message_number, "-10000000");
  V__Errout = 0;
  M_errout(30001, "silent\n");
  M_msgno_out(30062, "");
  V__Errout = 1;
  EXPECT_EQ(error_code, 30000);
  M_msgno_out(30062, "%d", 4);
  EXPECT_STREQ(last_message_number, "30062");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "read error\nError msgno = 30062. \n");
}

TEST(MrvExit, EndsTheProcessWithTheStatusAndNoText) {
  EXPECT_EXIT(mrv_exit(1, __FILE__, __LINE__), testing::ExitedWithCode(1), "^$");
  EXPECT_EXIT(mrv_exit(7, __FILE__, __LINE__), testing::ExitedWithCode(7), "^$");
}

TEST(MrvExit, InsideAProtectedRegionItJumpsBackInstead) {
  std::jmp_buf target;
  error_code = 0;
  severity = 0;
  msg_buffer_fill = 0;
  msg_buffer[0] = '\0';
  if (setjmp(target) == 0) {
    in_protected_region = 1;
    protected_region_target = &target;
    mrv_exit(3, "file.cc", 12);
  }
  in_protected_region = 0;
  protected_region_target = nullptr;
  EXPECT_EQ(error_code, 39117);
  EXPECT_EQ(severity, 5);
  EXPECT_STREQ(msg_buffer, "mrv_exit(3) called in File file.cc, Line 12\n");
  msg_buffer_fill = 0;
}

TEST(Allocation, EverythingIsZeroFilledIncludingWhatReallocAdds) {
  auto* p = static_cast<unsigned char*>(mrv_malloc(100));
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(p[i], 0);
  std::memset(p, 0xAB, 100);
  p = static_cast<unsigned char*>(mrv_realloc(p, 5000));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p[99], 0xAB);
  for (int i = 100; i < 5000; ++i) ASSERT_EQ(p[i], 0) << i;
  p = static_cast<unsigned char*>(mrv_realloc(p, 10));
  EXPECT_EQ(p[9], 0xAB);
  mrv_free(p);
  mrv_free(nullptr);

  auto* q = static_cast<int*>(mrv_calloc(10, sizeof(int)));
  EXPECT_EQ(q[9], 0);
  mrv_free(q);
  EXPECT_EQ(mrv_calloc(SIZE_MAX / 2, 4), nullptr);

  void* r = M_emalloc(0);
  EXPECT_NE(r, nullptr);
  mrv_free(r);
  void* s = mrv_realloc(nullptr, 8);
  EXPECT_NE(s, nullptr);
  mrv_free(s);
}

TEST(Allocation, EmallocEndsTheRunWhenMemoryRunsOut) {
  EXPECT_EXIT(M_emalloc(SIZE_MAX - 8), testing::ExitedWithCode(1), "");
}

}  // namespace
