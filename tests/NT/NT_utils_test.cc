#include "NT/NT_utils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "support/files.h"
#include "support/run_program.h"
#include "support/temp_dir.h"

namespace {

using NTFcntl = ScratchTest;
using NTMktemp = ScratchTest;
using NTFiles = ScratchTest;

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

int try_lock(int fd, int32_t type, int32_t start, int32_t length) {
  NT_flock lock{type, 0, start, length};
  return NT_fcntl(fd, NT_SETLK, &lock);
}

TEST_F(NTFcntl, RefusalsWriteStanzasAndTheProcessGoesOn) {
  setenv("MRVBIN", dir.c_str(), 1);
  NT_flock lock{NT_WRLCK, 0, 0, 1};
  EXPECT_EQ(NT_fcntl(0, NT_SETLK, &lock), -1);
  std::string file = dir + "/f";
  spill(file, "x");
  int fd = open(file.c_str(), O_RDWR);
  NT_flock whence{NT_WRLCK, 1, 0, 1};
  EXPECT_EQ(NT_fcntl(fd, NT_SETLK, &whence), -1);
  NT_flock odd{9, 0, 0, 1};
  EXPECT_EQ(NT_fcntl(fd, NT_SETLK, &odd), 0);
  close(fd);
  unsetenv("MRVBIN");
  std::string log = slurp(dir + "/mrv.errlog");
  EXPECT_NE(log.find("NT_fcntl(): fd= 0"), std::string::npos);
  EXPECT_NE(log.find("NT_fcntl(): l_whence != 0"), std::string::npos);
  EXPECT_NE(log.find("NT_fcntl(): unsupported l_type=9\n"), std::string::npos);
}

TEST_F(NTFcntl, LocksConvertAndOthersAreRefusedWithEagain) {
  std::string file = tmp.str() + "/f";
  spill(file, "x");
  int fd = open(file.c_str(), O_RDWR);
  uint32_t writes = NT_write_lock_calls;
  ASSERT_EQ(try_lock(fd, NT_WRLCK, 100, 10), 0);
  EXPECT_EQ(NT_write_lock_calls, writes + 1);
  // Another process can take neither kind while we hold it exclusively.
  auto probe = [&](int32_t type) {
    return run_in_child([&] {
             int other = open(file.c_str(), O_RDWR);
             int r = try_lock(other, type, 100, 10);
             _exit(r == 0 ? 0 : (errno == EAGAIN ? 11 : 1));
           }).status;
  };
  EXPECT_EQ(probe(NT_RDLCK), 11);
  // Our own read lock on the range converts it to shared.
  EXPECT_EQ(try_lock(fd, NT_RDLCK, 100, 10), 0);
  EXPECT_EQ(probe(NT_RDLCK), 0);
  EXPECT_EQ(probe(NT_WRLCK), 11);
  // And back to exclusive.
  EXPECT_EQ(try_lock(fd, NT_WRLCK, 100, 10), 0);
  EXPECT_EQ(probe(NT_RDLCK), 11);
  EXPECT_EQ(try_lock(fd, NT_UNLCK, 100, 10), 0);
  EXPECT_EQ(probe(NT_WRLCK), 0);
  close(fd);
}

TEST_F(NTMktemp, DigitsOfTheThreadThenLettersUntilFree) {
  long tid = syscall(SYS_gettid);
  char digits[16];
  std::snprintf(digits, sizeof digits, "%05ld", tid % 100000);
  std::string tmpl = dir + "/tmpXXXXXX";
  std::string first(tmpl);
  ASSERT_NE(mrv_mktemp(first.data()), nullptr);
  EXPECT_EQ(first, dir + "/tmpa" + digits);
  spill(first, "x");
  std::string second(tmpl);
  ASSERT_NE(mrv_mktemp(second.data()), nullptr);
  EXPECT_EQ(second, dir + "/tmpb" + digits);
  // All 36 letters taken: the two positions behind step on.
  for (const char* c = "abcdefghijklmnopqrstuvwxyz0123456789"; *c != '\0'; ++c)
    spill(dir + "/tmp" + *c + digits, "x");
  std::string third(tmpl);
  ASSERT_NE(mrv_mktemp(third.data()), nullptr);
  EXPECT_EQ(third.substr(0, dir.size() + 5), dir + "/tmpa");
  EXPECT_NE(third.substr(dir.size() + 5), std::string(digits));
  EXPECT_EQ(third.substr(dir.size() + 7), std::string(digits).substr(2));
  EXPECT_FALSE(exists(third));
}

TEST_F(NTMktemp, TemplatesThatDoNotFit) {
  std::string five = "nameXXXXX";
  errno = 42;
  EXPECT_EQ(mrv_mktemp(five.data()), nullptr);
  EXPECT_EQ(five.find('X'), std::string::npos);  // the tail was changed
  EXPECT_EQ(errno, 42);
  std::string none = "name";
  EXPECT_EQ(mrv_mktemp(none.data()), nullptr);
  std::string three = "aXXX";
  EXPECT_EQ(mrv_mktemp(three.data()), nullptr);
}

TEST_F(NTFiles, IdentityIsStableAcrossNamesOfOneFile) {
  spill(dir + "/a", "x");
  spill(dir + "/b", "x");
  ASSERT_EQ(symlink((dir + "/a").c_str(), (dir + "/link").c_str()), 0);
  MRV_STAT a, b, link;
  ASSERT_EQ(mrv_stat((dir + "/a").c_str(), &a), 0);
  ASSERT_EQ(mrv_stat((dir + "/b").c_str(), &b), 0);
  ASSERT_EQ(mrv_stat((dir + "/link").c_str(), &link), 0);
  EXPECT_EQ(std::tie(a.dev, a.ino_high, a.ino_low), std::tie(link.dev, link.ino_high, link.ino_low));
  EXPECT_NE(std::tie(a.dev, a.ino_high, a.ino_low), std::tie(b.dev, b.ino_high, b.ino_low));
  int fd = open((dir + "/a").c_str(), O_RDONLY);
  MRV_STAT viafd;
  ASSERT_EQ(mrv_fstat(fd, &viafd), 0);
  close(fd);
  EXPECT_EQ(viafd.ino_low, a.ino_low);
  EXPECT_EQ(mrv_fstat(-1, &viafd), -1);
  EXPECT_EQ(mrv_stat((dir + "/missing").c_str(), &viafd), -1);
}

TEST_F(NTFiles, RenameReplacesAndLeavesEqualNamesAlone) {
  spill(dir + "/A", "from");
  spill(dir + "/B", "old");
  EXPECT_EQ(NT_rename((dir + "/A").c_str(), (dir + "/A").c_str(), 0), 0);
  EXPECT_TRUE(exists(dir + "/A"));
  EXPECT_EQ(NT_rename((dir + "/A").c_str(), (dir + "/B").c_str(), 0), 0);
  EXPECT_FALSE(exists(dir + "/A"));
  EXPECT_EQ(slurp(dir + "/B"), "from");
}

TEST_F(NTFiles, RemoveTreesPatternsAndMissingObjects) {
  mkdir((dir + "/t").c_str(), 0777);
  mkdir((dir + "/t/sub").c_str(), 0777);
  spill(dir + "/t/sub/f", "x");
  spill(dir + "/t/ab1", "x");
  spill(dir + "/t/ab2", "x");
  spill(dir + "/t/cd", "x");
  EXPECT_EQ(NT_RemoveFile((dir + "/t").c_str(), "ab*"), 1);
  EXPECT_FALSE(exists(dir + "/t/ab1"));
  EXPECT_FALSE(exists(dir + "/t/ab2"));
  EXPECT_TRUE(exists(dir + "/t/cd"));
  EXPECT_EQ(NT_RemoveFile((dir + "/t").c_str(), "cd"), 1);
  EXPECT_FALSE(exists(dir + "/t/cd"));
  EXPECT_EQ(NT_RemoveFile((dir + "/t").c_str(), "nothing"), 0);
  EXPECT_EQ(NT_RemoveFile((dir + "/t/").c_str(), ""), 1);
  EXPECT_FALSE(exists(dir + "/t"));
  EXPECT_EQ(NT_RemoveFile((dir + "/t").c_str(), ""), 0);
}

TEST_F(NTFiles, CopyTreeAndScan) {
  mkdir((dir + "/src").c_str(), 0777);
  mkdir((dir + "/src/in").c_str(), 0777);
  spill(dir + "/src/one", "1");
  spill(dir + "/src/in/two", "2");
  chmod((dir + "/src/one").c_str(), 0640);
  ASSERT_EQ(NT_copy_tree((dir + "/src").c_str(), (dir + "/dst").c_str()), 0);
  EXPECT_EQ(slurp(dir + "/dst/one"), "1");
  EXPECT_EQ(slurp(dir + "/dst/in/two"), "2");
  struct stat st;
  stat((dir + "/dst/one").c_str(), &st);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  EXPECT_EQ(NT_copy_tree((dir + "/none").c_str(), (dir + "/x").c_str()), -1);

  std::set<std::string> names;
  NT_DIR* scan = NT_opendir((dir + "/src").c_str());
  ASSERT_NE(scan, nullptr);
  while (NT_dirent* e = NT_readdir(scan)) {
    EXPECT_EQ(e->d_namlen, std::strlen(e->d_name));
    names.insert(e->d_name);
  }
  NT_closedir(scan);
  EXPECT_EQ(names, (std::set<std::string>{".", "..", "one", "in"}));
  EXPECT_EQ(NT_opendir((dir + "/src/one").c_str()), nullptr);
  EXPECT_EQ(errno, 20);
}

}  // namespace
