// tapeinfo: finding the unit's line, the three printed lines and the
// failures.

#include "support/console.h"
#include "reel/tape_child.h"

namespace {

using tape_test::scratch;
using tape_test::TapeChild;

class Tapeinfo : public testing::Test {
 protected:
  std::string home(const std::string& name, const std::string& table) {
    std::string dir = scratch("tapeinfo_" + name);
    std::filesystem::create_directories(dir + "/sys");
    spill(dir + "/sys/tapeinfo", table);
    setenv("MRVHOME", dir.c_str(), 1);
    return dir;
  }
  std::string messages() const { return console_.text(); }
  ConsoleCapture console_;
};

TEST_F(Tapeinfo, BlockSizeLimitAndTenLinesSearched) {
  std::string ten, long_line = std::string(100, 'x') + "\n";
  for (int i = 0; i < 10; ++i) ten += "1 a ra 8192\n";
  for (int i = 0; i < 8; ++i) long_line += "1 a ra 8192\n";
  const std::string shown = "non rewind device name = nst0\nrewind device name = st0\nBlock size = ";
  const std::string not_found = "Unit is not mounted, check your tapeinfo file\n";
  struct Case {
    const char* name;
    std::string table;
    int result;
    std::string messages;
  } cases[] = {
      {"5120", "0 nst0 st0 5120\n", 1, shown + "5120\n"},
      {"5119", "0 nst0 st0 5119\n", 0, shown + "5119\nBlock size is too small (less than 5120)\n"},
      {"eleventh", ten + "0 b rb 8192\n", 0, not_found},
      {"long", long_line + "0 b rb 8192\n", 0, not_found},  // 100 characters read as two lines
  };
  for (const Case& c : cases) {
    console_.clear();
    home(c.name, c.table);
    EXPECT_EQ(reel_read_tapeinfo('0'), c.result) << c.name;
    EXPECT_EQ(messages(), c.messages) << c.name;
  }
}

TEST_F(Tapeinfo, OnlyTheFirstCharacterAndTheFirstLineCount) {
  home("first", "07 tape0 tape1 8192\n7 seven rseven 9000\n0 later rlater 6000\n");
  EXPECT_EQ(reel_read_tapeinfo('0'), 1);
  EXPECT_EQ(non_rewind_device, "tape0");
  EXPECT_EQ(rewind_device, "tape1");
  EXPECT_EQ(tape_block_size, 8192);
  EXPECT_EQ(reel_read_tapeinfo('7'), 1);
  EXPECT_EQ(non_rewind_device, "seven");
}

TEST_F(Tapeinfo, MissingTableAndMissingHome) {
  std::string dir = home("missing", "");
  std::filesystem::remove(dir + "/sys/tapeinfo");
  EXPECT_EQ(reel_read_tapeinfo('0'), 0);
  EXPECT_EQ(messages(), "can't open tapeinfo\n");

  // Without MRVHOME the home comes from the first word of include/path.
  std::string other = home("path", "0 found rfound 6000\n");
  std::filesystem::create_directories(dir + "/include");
  spill(dir + "/include/path", other + " trailing words\n");
  unsetenv("MRVHOME");
  setenv("MRV_REGISTRY", (dir + "/registry").c_str(), 1);
  spill(dir + "/registry", "MRVHOME=" + dir + "\n");
  EXPECT_EQ(reel_read_tapeinfo('0'), 1);
  EXPECT_EQ(non_rewind_device, "found");

  console_.clear();
  std::filesystem::remove(dir + "/include/path");
  EXPECT_EQ(reel_read_tapeinfo('0'), 0);
  EXPECT_EQ(messages(), "Please setenv MRVHOME!\n");
  unsetenv("MRV_REGISTRY");
}

TEST(ReelOpenUnit, TapeinfoFailureEndsTheRun) {
  std::string dir = scratch("open_unit");
  TapeChild child([dir] {
    setenv("MRVHOME", dir.c_str(), 1);
    reel_open_unit('0');
  });
  EXPECT_EQ(child.finish(), 1);
  EXPECT_EQ(child.output().rfind("can't open tapeinfo\nget tapeinfo error\n\nUsage: REEL_INTAKE", 0), 0u)
      << child.output();
}

}  // namespace
