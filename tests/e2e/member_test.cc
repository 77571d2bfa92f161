// Members restored by REEL_INTAKE: text decoded into files of SAM and of
// directories, written in chunks, and renames kept in pgm_map and pgm_list.

#include "e2e/sandbox.h"

namespace {

namespace fs = std::filesystem;

const std::string kLine = "line of member text, with   blanks and more\n";

// 3000 lines of 45 bytes: 135,000 bytes, more than one transfer buffer.
const std::string kMembers =
    "tape t.tap\nlabel\naccount SALES\n"
    "file BIGTEXT sam\ntext repeat=3000 '" +
    kLine.substr(0, kLine.size() - 1) +
    "\\n'\n"
    "file EVEN sam\nblock data hex:8AA0C1C2\n"  // newline at offset 0, its pad, "AB"
    "file ODD sam\nblock data hex:C18AA0C2\n"   // "A", newline at offset 1, a blank, "B"
    "file $TOP sam\ntext 'top level\\n'\n"
    "file 'MY NOTE' sam\ntext 'note\\n'\n"
    "file BP dir\n"
    "sub MAIN sam\ntext 'PRINT 1\\n'\n"
    "sub $HIDDEN sam\ntext 'hidden\\n'\n"
    "sub 'MY PROG' sam\ntext 'renamed\\n'\n"
    "sub LIB dir\n"  // not a member: passed
    "end\n";

TEST(Members, TextChunksPadsDollarNamesAndRenamesOverTwoRestores) {
  Sandbox box(kMembers);
  ProgramResult r = box.reel({"ACC"});
  const std::string account = box.account("SALES");
  std::string big;
  for (int i = 0; i < 3000; ++i) big += kLine;
  EXPECT_EQ(slurp(account + "/SAM/BIGTEXT"), big) << r.output;
  EXPECT_EQ(slurp(account + "/SAM/EVEN"), "\nAB");
  EXPECT_EQ(slurp(account + "/SAM/ODD"), "A\n B");
  EXPECT_EQ(slurp(account + "/SAM/$TOP"), "top level\n");
  EXPECT_EQ(slurp(account + "/SAM/MY_NOTEa"), "note\n");
  EXPECT_EQ(slurp(account + "/BP/MAIN"), "PRINT 1\n");
  EXPECT_EQ(slurp(account + "/BP/MY_PROGa"), "renamed\n");
  for (const auto& entry : fs::recursive_directory_iterator(account))
    EXPECT_EQ(entry.path().filename().string().find("HIDDEN"), std::string::npos) << entry.path();
  EXPECT_NE(r.output.find("Loading SAM  BIGTEXT ...\n"), std::string::npos) << r.output;

  // A second restore loads into what is there: the directory member's
  // rename is found in pgm_map, a top-level one is made afresh, and a
  // member that no mapping names finds its old file in the way.
  ProgramResult again = box.reel({"-O", "SALES"});
  EXPECT_EQ(slurp(account + "/BP/MY_PROGa"), "renamed\n") << again.output;
  EXPECT_FALSE(fs::exists(account + "/BP/MY_PROGb"));
  EXPECT_EQ(slurp(account + "/BP/MAINa"), "PRINT 1\n");
  const std::string list = slurp(account + "/pgm_list");
  EXPECT_EQ(count_of(list, "'BP/MY PROG' 'MY_PROGa'\n"), 1u) << list;
  EXPECT_EQ(count_of(list, "'MY NOTE' 'MY_NOTEa'\n"), 2u) << list;
  EXPECT_EQ(count_of(list, "HIDDEN"), 0u);
  EXPECT_EQ(
      listed_records(account + "/pgm_map"),
      (std::vector<std::string>{"BP/MAIN\tMAINa", "BP/MY PROG\tMY_PROGa", "MY NOTE\tMY_NOTEa"}));
}

}  // namespace
