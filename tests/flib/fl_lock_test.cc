#include "flib/fl_lock.h"

#include <sys/wait.h>

#include "fl_test_util.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_hash.h"

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
  EXPECT_EQ(stdout_of([&] { EXPECT_EQ(M_LLM_Release("record", kFile, first.c_str(), 0, -1, -1), -1); }),
            "M_LLM_Release error 2097154.\n");
}

// Whether another process can lock the byte at `offset` of `path`
// exclusively at once.
bool other_process_can_lock(const std::string& path, uint32_t offset) {
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(path.c_str(), O_RDWR);
    _exit(fd >= 0 && M_mrvlockf(fd, LOCK_EXCLUSIVE | LOCK_NOWAIT, offset, 1) == 0 ? 0 : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class FlFileLock : public RecordFile {};

// A read under a shared whole-file lock takes no group lock of its own: its
// unlock would otherwise open a hole in the file lock at the group's head,
// where a writer of another process could then get in. Writes of this
// process during the session read back at once.
TEST_F(FlFileLock, ReadsUnderASharedFileLockLeaveItWhole) {
  create(7, 1, 0);
  ASSERT_EQ(put("K1", "one"), 1);
  uint32_t head = M_get_head_off(&rel, M_hash(bytes(std::string("K1")), 2, &rel));
  ASSERT_EQ(M_lock_file(&rel, LOCK_SHARED), 0);
  EXPECT_FALSE(other_process_can_lock(path, head));
  EXPECT_EQ(get("K1"), "one");
  EXPECT_FALSE(other_process_can_lock(path, head));
  // Reads come from the session's mapping; blocks the file gains after the
  // lock was taken lie beyond it and are read by call.
  EXPECT_NE(rel.read_map, nullptr);
  const std::string big(5000, 'b');
  ASSERT_EQ(put("K2", big), 1);
  ASSERT_EQ(put("K1", "uno"), 1);
  EXPECT_EQ(get("K2"), big);
  EXPECT_EQ(get("K1"), "uno");
  ASSERT_EQ(M_unlock_file(&rel), 0);
  EXPECT_EQ(rel.read_map, nullptr);
  EXPECT_TRUE(other_process_can_lock(path, head));
  ASSERT_EQ(put("K1", "one"), 1);
  // Without the file lock a read locks its group and gives it back.
  EXPECT_EQ(get("K1"), "one");
  EXPECT_TRUE(other_process_can_lock(path, head));
}

// A dynamic file held shared reads each part from a mapping made at the
// part's first read; records in overflow blocks come back whole, blocks the
// parts gain afterwards are read by call, and the unlock drops every
// mapping.
TEST_F(FlFileLock, ADynamicFileHeldSharedReadsItsPartsFromMappings) {
  create(3, 1, HASH_DYNAMIC);
  const std::string big(3000, 'd');
  ASSERT_EQ(put("K1", "one"), 1);
  ASSERT_EQ(put("K2", big), 1);
  ASSERT_EQ(M_lock_file(&rel, LOCK_SHARED), 0);
  EXPECT_EQ(get("K1"), "one");
  EXPECT_EQ(get("K2"), big);
  ASSERT_FALSE(rel.primary.empty());
  ASSERT_FALSE(rel.overflow.empty());
  EXPECT_NE(rel.primary[0].read_map, nullptr);
  EXPECT_NE(rel.overflow[0].read_map, nullptr) << "the long record's blocks lie in the overflow part";
  const std::string bigger(6000, 'e');
  ASSERT_EQ(put("K3", bigger), 1);
  EXPECT_EQ(get("K3"), bigger);
  ASSERT_EQ(M_unlock_file(&rel), 0);
  EXPECT_EQ(rel.primary[0].read_map, nullptr);
  EXPECT_EQ(rel.overflow[0].read_map, nullptr);
  EXPECT_EQ(get("K2"), big);
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
  EXPECT_EQ(stdout_of([&] { EXPECT_EQ(M_idx_lockf(fd, LOCK_SHARED), -1); }),
            "M_lock lock error in M_idx_lockf.(11) \n");
}

}  // namespace
