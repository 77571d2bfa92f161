#include "flib/fl_lock.h"

#include <gtest/gtest.h>

#include <string>

#include "fl_test_util.h"

namespace {

const uint32_t kFile[2] = {1234, 56};

TEST(FlLock, NamedLocksAreGrantedAtOnceAndCutAt127) {
  std::string key(200, 'k');
  key[150] = 'x';
  uint32_t locks = M_lock_stats.lock_calls;
  EXPECT_EQ(M_LLM_Lock("record", kFile, key.c_str(), 1, 1, 0, -1, -1), LLM_GRANTED);
  EXPECT_EQ(M_lock_stats.lock_calls, locks + 1);
  std::string first(127, 'k');
  EXPECT_TRUE(M_LLM_held("record", kFile, first.c_str(), -1, -1));
  EXPECT_FALSE(M_LLM_held("record", kFile, key.substr(0, 126).c_str(), -1, -1));
  // A lone process may take the same name again.
  EXPECT_EQ(M_LLM_Lock("record", kFile, first.c_str(), 1, 0, 0, -1, -1), LLM_GRANTED);
  EXPECT_EQ(M_LLM_Release("record", kFile, first.c_str(), 0, -1, -1), 0);
  EXPECT_TRUE(M_LLM_held("record", kFile, first.c_str(), -1, -1));
  EXPECT_EQ(M_LLM_Release("record", kFile, key.c_str(), 0, -1, -1), 0);
  EXPECT_FALSE(M_LLM_held("record", kFile, first.c_str(), -1, -1));
  testing::internal::CaptureStdout();
  EXPECT_EQ(M_LLM_Release("record", kFile, first.c_str(), 0, -1, -1), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "M_LLM_Release error 2097154.\n");
}

TEST(FlLock, LockFifoOnlyForExactlyOne) {
  for (const char* value : {"0", "1", "2"}) {
    ScopedEnv fifo("LOCKFIFO", value);
    M_check_lock_config();
    EXPECT_EQ(M_lock_fifo, std::string(value) == "1" ? 1 : 0) << value;
  }
}

TEST(FlLock, IndexVersionLockReportsFailure) {
  TempDir tmp;
  std::string path = tmp.str() + "/idx001";
  write_bytes(path, std::vector<uint8_t>(16, 0));
  int fd = open(path.c_str(), O_RDWR);
  EXPECT_EQ(M_idx_lockf(fd, LOCK_EXCLUSIVE), 0);
  EXPECT_EQ(M_idx_lockf(fd, 0), 0);
  close(fd);
  testing::internal::CaptureStdout();
  EXPECT_EQ(M_idx_lockf(fd, LOCK_SHARED), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "M_lock lock error in M_idx_lockf.(11) \n");
}

}  // namespace
