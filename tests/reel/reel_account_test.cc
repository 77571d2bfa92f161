// Account set-up and close-down in a scratch directory.

#include "NT/NT_command.h"
#include "flib/fl_read.h"
#include "flib/fl_write.h"
#include "reel/account_child.h"
#include "reel/reel_app_tuple.h"
#include "reel/tape_child.h"

namespace {

namespace fs = std::filesystem;
using account_test::in_account;

TEST(Account, LoadingIntoWhatExistsNeedsTheAccount) {
  struct Case {
    bool make_dir;
    int32_t overlay;
    int32_t data_only;
    const char* expected;
  } cases[] = {
      {true, 1, 0, "Account is not exist!\n"},
      {false, 1, 0, "Account dir is not exist!\n"},
      {false, 0, 1, "Account dir is not exist!\n"},
      {false, 0, 0, "account open\n"},
  };
  for (const Case& c : cases) {
    std::string dir = tape_test::scratch("account_need");
    if (c.make_dir) fs::create_directories(dir + "/ACC");
    ProgramResult r = in_account(
        dir,
        [&](RunSettings& s) {
          s.overlay = c.overlay;
          s.data_only = c.data_only;
        },
        [] { std::printf("account open\n"); });
    EXPECT_TRUE(r.output.starts_with(c.expected)) << r.output;
    // newacct runs only when the run may make the account.
    EXPECT_EQ(fs::exists(dir + "/ACC/VOC"), c.overlay + c.data_only == 0);
  }
}

TEST(Account, ASecondRunKeepsFilesAndAppends) {
  std::string dir = tape_test::scratch("account_again");
  auto run = [&dir](const char* line) {
    return in_account(dir, [](RunSettings&) {}, [line] {
      std::string old;
      std::printf("pgm_map has X: %d\n",
                  M_read_tuple(&reel_pgm_map, reinterpret_cast<const uint8_t*>("X"), 1, &old));
      M_append_strtuple(&reel_pgm_map, reinterpret_cast<const uint8_t*>("X"), 1,
                        reinterpret_cast<const uint8_t*>("Y"), 1, 0, nullptr);
      NT_cmd_echo_append("pgm_list", NT_echo_word(line));
      std::fprintf(dispmsg, "%s\n", line);
      reel_close_account();
    });
  };
  EXPECT_EQ(run("one").output, "pgm_map has X: 0\n");
  EXPECT_EQ(run("two").output, "pgm_map has X: 1\n");
  EXPECT_EQ(slurp(dir + "/ACC/pgm_list"), "'one'\n'two'\n");
  EXPECT_EQ(slurp(dir + "/ACC/dispmsg"), "one\ntwo\n");
  for (const char* side : {"idx_list", "resize_list"}) EXPECT_EQ(slurp(dir + "/ACC/" + side), "");
  for (const char* work : {"SAM", "DAM", "D_SAM", "D_DAM", "pgm_map", "D_pgm_map"})
    EXPECT_TRUE(fs::exists(dir + "/ACC/" + work)) << work;
}

// Close-down gives the account the tape's name; with -T the files leave
// the staging directory first and the target takes the name.
TEST(Account, CloseDownMovesAndRenames) {
  struct Case {
    const char* target;
    const char* tape;
    std::vector<const char*> present;
    std::vector<const char*> absent;
  } cases[] = {
      {"", "", {"ACC/VOC"}, {}},
      {"", "ACC", {"ACC/VOC"}, {}},
      {"", "REAL", {"REAL/VOC", "REAL/overflow.not"}, {"ACC", "REAL/overflow"}},
      {"T", "REAL", {"REAL/VOC", "REAL/SAM", "ACC"}, {"T", "ACC/VOC"}},
      // A staging directory is moved onto a target named as the tape's account.
      {"T", "T", {"T/VOC", "T/ACC"}, {"ACC"}},
  };
  for (const Case& c : cases) {
    std::string dir = tape_test::scratch("account_close");
    ProgramResult r = in_account(
        dir, [&](RunSettings& s) { s.target_dir = c.target; },
        [&] {
          std::fclose(std::fopen("overflow", "w"));
          std::fclose(std::fopen("overflow.not", "w"));
          tape_account = c.tape;
          reel_close_account();
        });
    for (const char* p : c.present) EXPECT_TRUE(fs::exists(dir + "/" + p)) << c.target << c.tape << " " << p;
    for (const char* p : c.absent) EXPECT_FALSE(fs::exists(dir + "/" + p)) << c.target << c.tape << " " << p;
    EXPECT_EQ(r.output.find("overflowed"), std::string::npos);
    if (*c.target != '\0') {
      EXPECT_NE(r.output.find("\nLoading files from tape complete, now copying to T...\n"), std::string::npos);
    }
  }
}

}  // namespace
