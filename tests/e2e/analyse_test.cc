// REEL_INTAKE -A over tapes written by mkreel: the walk over a save of two
// accounts, and the plan it leaves.

#include "reel/reel_init.h"
#include "e2e/sandbox.h"

namespace {

namespace fs = std::filesystem;

// Two accounts; the first has files of every object type, sub-files,
// members, a deeper path inside a directory and an object of unknown type.
const char kTwoAccounts[] =
    "tape t.tap\n"
    "label no=1 name=SAVE date=03-17-92\n"
    "account SALES\n"
    "file CUSTOMERS hashed\n"
    "subfile modulo=3\n"
    "item C1 'Smith\\xFEJohn'\n"
    "item C22 Jones\n"
    "subfile\n"
    "item C333\n"
    "file D_CUSTOMERS hashed\n"
    "subfile modulo=1\n"
    "item NAME 'D\\xFE1'\n"
    "file ORDERS 3\n"  // a dynamic source: its first sub-file is direct
    "dynfile modulo=2\n"
    "item O1 first\n"
    "item O22 second\n"
    "large O333 repeat=1000 abc\n"
    "file VOC hashed\n"
    "file BP dir\n"
    "block data 'directory data'\n"
    "sub MAIN sam\n"
    "block data \"PRINT 1\"\n"
    "sub SUBDIR dir DEEP sam\n"  // block 22
    "block data \"X\"\n"
    "sub OTHER dam\n"
    "file PROGS 5\n"
    "sub M1 sam\n"
    "file NOTES sam\n"
    "block data \"some text\"\n"
    "file TABLE dam\n"
    "block data \"x\"\n"
    "file ODD 9\n"
    "block data 'x'\n"
    "account STOCK\n"
    "file PARTS hashed\n"
    "end\n";

TEST(Analyse, WalksTheFirstAccountToTheEndAndPlansEachFileInTapeOrder) {
  Sandbox box(kTwoAccounts);
  ProgramResult r = box.reel({"-A", "plan"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("\nLOGICAL TAPE NUMBER: 1\n"
                          "TAPE NAME:           SAVE\n"
                          "DATE(MM-DD-YY):      03-17-92\n"
                          "REV NO:              0\n\n"
                          "\t\t\tACCT_NAME  ---  SALES\n" +
                          std::string(REEL_FINISHED)),
            std::string::npos)
      << r.output;
  // The next account's block ends the analysis; the walk never runs off
  // the end of the reel.
  EXPECT_EQ(count_of(r.output, "ACCT_NAME"), 1u) << r.output;
  EXPECT_TRUE(r.output.ends_with(REEL_FINISHED)) << r.output;
  EXPECT_EQ(r.output.find("Get EOF mark"), std::string::npos);

  EXPECT_EQ(slurp(box.run() + "/plan"),
            "DATA, CUSTOMERS, 3, 3, 9, 15, 3\n"
            "DICT, CUSTOMERS, 1, 1, 4, 3, 1\n"
            "DATA, ORDERS, 5, 5, 9, 3011, 3\n"
            "DATA, DUMP_VOC, 1, 0, 0, 0, 0\n"
            " DIR, BP, 0, 0, 0, 0, 0\n"
            " DIR, PROGS, 0, 0, 0, 0, 0\n"
            " SAM, NOTES, 0, 0, 0, 0, 0\n"
            " DAM, TABLE, 0, 0, 0, 0, 0\n");
  // An analysis passes directories whole, so the deeper path inside one
  // arrives at the top as a block of no known length.
  EXPECT_EQ(slurp(box.run() + "/dispmsg"),
            "\t\t\tACCT_NAME  ---  SALES\n"
            "Blkno = 22 \tGet file description error: block length error\n");
}

TEST(Analyse, WithAnAccountWordTheWalkTouchesNoFileData) {
  // Data blocks that no decoder would take: bare headers, a run of blanks
  // without its count, marks where text should be.
  Sandbox box(
      "tape t.tap\nlabel\n"
      "account SALES\n"
      "file CUSTOMERS hashed\nblock data\nblock data 'ab'\n"
      "file BP dir\nblock data\nsub MAIN sam\nblock data hex:91\n"
      "file NOTES sam\nblock data hex:FFFF\n"
      "file ODD 9\nblock data\n"
      "end\n");
  ProgramResult r = box.reel({"-A", "plan", "SALESDIR"});
  EXPECT_EQ(r.status, 1);
  // The end-of-save block ends the walk.
  EXPECT_TRUE(r.output.ends_with(REEL_FINISHED)) << r.output;
  EXPECT_EQ(r.output.find("Get EOF mark"), std::string::npos);
  EXPECT_EQ(slurp(box.run() + "/dispmsg"), "\t\t\tACCT_NAME  ---  SALES\n");
  EXPECT_EQ(slurp(box.run() + "/plan"),
            "DATA, CUSTOMERS, 1, 0, 0, 0, 0\n"
            " DIR, BP, 0, 0, 0, 0, 0\n"
            " SAM, NOTES, 0, 0, 0, 0, 0\n");
  EXPECT_FALSE(fs::exists(box.run() + "/SALESDIR"));
}

TEST(Analyse, APlanThatCannotBeMadeEndsTheRunAtTheFirstFile) {
  Sandbox box(kTwoAccounts);
  ProgramResult r = box.reel({"-A", "no-such-dir/plan"});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(r.output.ends_with("\t\t\tACCT_NAME  ---  SALES\n"
                                 "Can't open alanyze file\n\n" +
                                 std::string(REEL_USAGE)))
      << r.output;
}

}  // namespace
