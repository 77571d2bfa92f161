// REEL_INTAKE restoring a save written by mkreel: account set-up, the
// targets of directories with hostile names, the account's name from the
// tape. Nothing from the tape may reach a shell or leave the account.

#include "e2e/sandbox.h"

namespace {

namespace fs = std::filesystem;

const char kHostile[] =
    "tape t.tap\n"
    "label name=SAVE\n"
    "account SALES\n"
    "file \"x'; touch PWNED; '\" dir\n"
    "file '../ESCAPE' dir\n"
    "file '$(touch PWNED2)' dir\n"
    "file 'a|b&c>d' dir\n"
    "file `touch` dir\n"
    "end\n";

TEST(Restore, HostileNamesMakeCorrectTargetsAndRunNothing) {
  Sandbox box(kHostile);
  const fs::path root = box.root();
  ProgramResult r = box.reel({"ACC"});
  EXPECT_EQ(r.status, 1);
  const fs::path account = root / "run/SALES";
  ASSERT_TRUE(fs::exists(account / "VOC")) << r.output;
  EXPECT_FALSE(fs::exists(root / "run/ACC"));
  const char* made_dirs[] = {"x';_touch_PWNED;_'a", ".._ESCAPEa", "$(touch_PWNED2)a", "a|b_c>da", "`touch`"};
  for (const char* d : made_dirs) EXPECT_TRUE(fs::is_directory(account / d)) << d << "\n" << r.output;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const std::string name = entry.path().filename().string();
    EXPECT_TRUE(name.find("PWNED") == std::string::npos || name.find('\'') != std::string::npos ||
                name.find('(') != std::string::npos)
        << entry.path();
  }
  EXPECT_FALSE(fs::exists(root / "run/ESCAPE"));
  EXPECT_FALSE(fs::exists(root / "ESCAPE"));

  // The VOC keys stay the tape names and point to the names on disk.
  ProgramResult voc = run_program({.program = "mrvfile", .args = {"get", "VOC", "../ESCAPE"},
                                   .directory = account.string()});
  EXPECT_EQ(voc.output, "DIR\xFE.._ESCAPEa");
  const std::string log = slurp(account / "dispmsg");
  EXPECT_NE(log.find("Create DIR  x'; touch PWNED; ' --- 0  -----> x';_touch_PWNED;_'a\n"), std::string::npos)
      << log;
}

}  // namespace
