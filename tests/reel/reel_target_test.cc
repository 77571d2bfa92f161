// What the tool tells about a file's target, on the console and in dispmsg.
#include "reel/reel_target.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "common/readconf.h"
#include "flib/fl_open.h"
#include "flib/fl_rel.h"
#include "reel/account_child.h"
#include "reel/reel_current.h"
#include "reel/tape_child.h"
#include "support/files.h"
#include "support/run_program.h"
#include "support/temp_dir.h"

namespace {

TEST(ReelShow, MessagesGoToTheConsoleAndToDispmsg) {
  TempDir dir;
  ProgramResult r = run_in_child([&dir] {
    if (chdir(dir.str().c_str()) != 0) _exit(3);
    dispmsg = std::fopen("dispmsg", "w");
    CurrentFile& f = reel_current;
    f.file_kind = FILE_KIND_DICT;
    f.name = "LONG NAME";
    f.short_name = "LONG_NAMEa";
    f.modulo = 7;
    reel_show('C', 1);
    reel_show('O', 0);
    f.file_kind = FILE_KIND_DATA;
    f.short_name = f.name;
    reel_show('C', 1);
    reel_show('O', 0);
    reel_show('M', 0);
    reel_show('M', 1);
    f.file_kind = FILE_KIND_DIR;
    reel_show('C', 0);
    f.file_kind = 9;
    reel_show('L', 1);
  });
  const std::string expected =
      "Create DICT LONG NAME --- 7  -----> LONG_NAMEa\n"
      "LONG NAME open dict failure!\n"
      "Create DATA LONG NAME --- 7 \n"
      "LONG NAME open failure!\n"
      "Resize LONG NAME to new modulo ----- 7  failed\n"
      "Resize LONG NAME to new modulo ----- 7  \n"
      "Create DIR  LONG NAME failure!\n"
      "Loading      LONG NAME ...\n";
  EXPECT_EQ(r.output, expected);
  EXPECT_EQ(slurp(dir.path() / "dispmsg"), expected);
}

// A dynamic target takes its loads, free blocks and part size from the
// parameters that the configuration put into the environment.
TEST(ReelTarget, DynamicTargetsTakeTheExportedConfiguration) {
  std::string dir = tape_test::scratch("target_config");
  ProgramResult r = account_test::in_account(dir, [](RunSettings&) {}, [] {
    ConfigRecord c;
    config_default_record("", &c);
    c.SPLIT_LOAD = 70;
    c.MERGE_LOAD = 30;
    c.GRP_FREE_BLK = 7;
    c.MAX_FLENGTH = 100000000;
    config_export(c);
    reel_current.name = "DYN";
    reel_current.file_kind = FILE_KIND_DATA;
    reel_current.modulo = 3;
    std::printf("made %d\n", reel_create_target(1));
    std::exit(0);
  });
  ASSERT_NE(r.output.find("made 1\n"), std::string::npos) << r.output;
  REL_TYPE rel;
  ASSERT_EQ(M_openfile(&rel, (dir + "/ACC/DYN").c_str(), 0), 1);
  EXPECT_EQ(rel.split_load, 70);
  EXPECT_EQ(rel.merge_load, 30);
  EXPECT_EQ(rel.grp_free_blk, 7);
  EXPECT_EQ(rel.max_flength, 100000000);
  M_closefile(&rel);
}

}  // namespace
