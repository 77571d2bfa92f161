// What the tool tells about a file's target, on the console and in dispmsg.
#include "reel/reel_target.h"

#include "reel/tape_child.h"
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

}  // namespace
