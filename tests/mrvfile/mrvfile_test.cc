// The mrvfile program, run as users run it.
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "test_scratch.h"

namespace {

struct RunResult {
  int status;
  std::string out;
};

RunResult mrvfile(const std::string& arguments) {
  std::string command = "MRV_MSG_PAUSE_MS=0 " REEL_BIN_DIR "/mrvfile " + arguments + " 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  std::string out;
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

std::string sandbox(const std::string& name) { return fresh_dir("mrvfile_" + name); }

off_t size_of(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

TEST(Mrvfile, CreateInfoAndCheckOfBothKinds) {
  std::string dir = sandbox("kinds");
  ASSERT_EQ(mrvfile("create --modulo 7 --block 2 --hash 1 " + dir + "/S").status, 0);
  EXPECT_EQ(size_of(dir + "/S"), 8 * 2048);
  RunResult info = mrvfile("info " + dir + "/S");
  EXPECT_EQ(info.status, 0);
  EXPECT_NE(info.out.find("kind: static\n"), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("block size: 2048 (code 1)\n"), std::string::npos);
  EXPECT_NE(info.out.find("modulo: 7\n"), std::string::npos);
  EXPECT_NE(info.out.find("hash type: 1 (function 1)\n"), std::string::npos);
  RunResult check = mrvfile("check " + dir + "/S");
  EXPECT_EQ(check.status, 0);
  EXPECT_EQ(check.out, dir + "/S: sound\n");

  ASSERT_EQ(mrvfile("create --dynamic --modulo 10 --spread 3 " + dir + "/D").status, 0);
  EXPECT_EQ(size_of(dir + "/D/dat001"), 11 * 1024);
  EXPECT_EQ(size_of(dir + "/D/over002"), 1024);
  info = mrvfile("info " + dir + "/D");
  EXPECT_NE(info.out.find("kind: dynamic\n"), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("overflow parts: 2\n"), std::string::npos);
  EXPECT_NE(info.out.find("split load: 60\n"), std::string::npos);
  EXPECT_EQ(mrvfile("check " + dir + "/D").status, 0);
}

TEST(Mrvfile, CheckReportsDamageAndFails) {
  std::string dir = sandbox("damage");
  ASSERT_EQ(mrvfile("create --modulo 3 " + dir + "/S").status, 0);
  {
    std::fstream f(dir + "/S", std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(2 * 1024 + 6);  // flags of group 1's head
    f.put(3);
  }
  RunResult check = mrvfile("check " + dir + "/S");
  EXPECT_EQ(check.status, 1);
  EXPECT_NE(check.out.find("group 1 block 0X800: flags 3, a head block was expected\n"), std::string::npos)
      << check.out;
  EXPECT_NE(check.out.find(dir + "/S: 1 finding\n"), std::string::npos);
}

TEST(Mrvfile, UsageAndRefusals) {
  std::string dir = sandbox("usage");
  EXPECT_EQ(mrvfile("").status, 2);
  EXPECT_EQ(mrvfile("frobnicate x").status, 2);
  EXPECT_EQ(mrvfile("create --modulo").status, 2);
  EXPECT_EQ(mrvfile("create --modulo x " + dir + "/S").status, 2);
  EXPECT_EQ(mrvfile("create --dynamic --hash 2 " + dir + "/S").status, 2);
  EXPECT_EQ(mrvfile("create --block 17 " + dir + "/S").status, 2);
  ASSERT_EQ(mrvfile("create " + dir + "/S").status, 0);
  EXPECT_EQ(mrvfile("create " + dir + "/S").status, 1);  // exists
  EXPECT_EQ(mrvfile("info " + dir + "/missing").status, 1);
  RunResult check = mrvfile("check " + dir + "/missing");
  EXPECT_EQ(check.status, 1);
  EXPECT_NE(check.out.find(dir + "/missing: the file does not open\n"), std::string::npos);
}

}  // namespace
