// The walk over a save: how blocks are classified by length, the name rules
// of a file, the -D, -R and -L options, and the -T moves of a finished file.

#include "reel/reel_account.h"
#include "reel/reel_dispatch.h"
#include "reel/reel_options.h"
#include "reel/reel_tape_format.h"
#include "reel/reel_tape_writer.h"
#include "reel/tape_child.h"

namespace {

using tape_test::make_tape;
using tape_test::open_unit_in;
using tape_test::TapeChild;
using tape_test::unit_dir;

// In the child: the run's settings from a command line, as the tool takes
// them.
void parse(std::vector<std::string> args) {
  std::vector<char*> argv{const_cast<char*>("REEL_INTAKE")};
  for (auto& a : args) argv.push_back(a.data());
  reel_optind = 1;
  reel_parse_options(static_cast<int>(argv.size()), argv.data());
}

// Walks the tape in `dir` with the options `args` (a restore into "acct"
// unless they say -A) and prints the current-file slot after each
// dispatched object as "[kind|name]", and "[end]" when the save ends.
std::string walk(const std::string& dir, std::vector<std::string> args) {
  TapeChild child([dir, args] {
    std::vector<unsigned char> buffer = open_unit_in(dir, {});
    std::vector<std::string> line = args;
    line.insert(line.end(), {"-K", "4", "acct"});
    parse(line);
    int32_t length = reel_next_block(buffer.data());
    while (reel_dispatch_block(buffer.data(), &length) != 0)
      std::printf("[%s|%s]\n", reel_file_kind_text(reel_current.file_kind),
                  reel_current.name.c_str());
    std::printf("[end]\n");
  });
  EXPECT_EQ(child.finish(), 0) << child.output();
  // Only the trace: the label and other messages are not what is tested.
  std::string trace;
  for (size_t at = child.output().find("\n["); at != std::string::npos;
       at = child.output().find("\n[", at + 1))
    trace += child.output().substr(at + 1, child.output().find('\n', at + 1) - at);
  return trace;
}

std::string save(const std::string& dir, const std::string& body) {
  return "tape " + dir + "/t.tap\nlabel no=1 name=ACCT\n" + body + "end\n";
}

TEST(DispatchNames, RulesOfDictionariesVocAndReservedNames) {
  std::string dir = unit_dir("dispatch_names");
  make_tape(save(dir,
                 "account ACCT\n"
                 "file D_VOC hashed\nsub '' sam\nblock data zeros:8\n"
                 "file D_D_X hashed\n"
                 "file D_voc hashed\n"
                 "file ABCDEFGHIJKLMNOPQRSTUVWXYZ012345 hashed\n"
                 "file 'LONG NAME' dir\nsub M1 sam\nblock data 'x'\n"
                 "file ENGLISHX sam\nblock data 'x'\n"
                 "file ODD 7\nblock data 'x'\nsub S sam\n"
                 "file DAMMED dam\n"));
  EXPECT_EQ(walk(dir, {}),
            "[DATA|]\n"  // the account block
            "[DICT|DUMP_VOC]\n"
            "[DICT|D_X]\n"
            "[DICT|XXvoc]\n"
            "[DATA|ABCDEFGHIJKLMNOPQRSTUVWXYZ012345]\n"
            "[DIR |LONG NAME]\n"
            "[SAM |ENGLISHX]\n"
            "[DATA|]\n"  // an unknown type leaves no name
            "[DAM |DAMMED]\n"
            "[end]\n");
  EXPECT_EQ(reel_is_reserved_name("UTILITY.MSGS"), 1);
  EXPECT_EQ(reel_is_reserved_name(""), 0);
  EXPECT_EQ(reel_is_reserved_name("english"), 0);
}

TEST(DispatchLengths, BlocksOfNoKnownLengthAreLoggedAndPassed) {
  std::string dir = unit_dir("dispatch_lengths");
  make_tape(save(dir,
                 "account ACCT\n"
                 "file A hashed\n"
                 "block description \"X\"\n"       // 8 bytes: block 3
                 "block data 'lost'\n"
                 "sub S sam\n"                      // a stray sub-file goes with it
                 "account ACCT type=2\n"            // account length, not a directory
                 "file B hashed\n"));
  EXPECT_EQ(walk(dir, {}), "[DATA|]\n[DATA|A]\n[DATA|A]\n[DATA|A]\n[DATA|B]\n[end]\n");
  EXPECT_EQ(slurp(dir + "/dispmsg"),
            "\t\t\tACCT_NAME  ---  ACCT\n"
            "Blkno = 3 \tGet file description error: block length error\n");
}

TEST(DispatchLengths, EndOfSaveInsideASkipEndsTheWalk) {
  std::string dir = unit_dir("dispatch_end");
  // The end block has the length of a sub-file, which a skip of mode 1
  // would pass; nothing behind it may be read.
  make_tape("tape " + dir + "/t.tap\nlabel\naccount ACCT\nfile PROG sam\nblock data 'x'\n"
            "block end zeros:144\nfile AFTER hashed\n");
  EXPECT_EQ(walk(dir, {}), "[DATA|]\n[SAM |PROG]\n[end]\n");
}

// Without an account set up, a hashed file is made but can't be opened
// through a VOC entry.
const std::string kCustNotOpened = "Create DATA CUST --- 1 \nCUST open failure!\nBlkno = 4 \tOpen file error\n";

TEST(DispatchLevels, LevelTwoShiftsAllLengthsAndLevelZeroHasNoAccount) {
  std::string dir = unit_dir("dispatch_level2");
  make_tape(save(dir,
                 "account SYS ACCT2\n"
                 "file CUST hashed\nsub '' sam\nblock data zeros:8\nsub DEEP sam ER sam\n"
                 "file PROG dam\n"));
  EXPECT_EQ(walk(dir, {"-L2"}), "[DATA|]\n[DATA|CUST]\n[DATA|CUST]\n[DAM |PROG]\n[end]\n");
  EXPECT_EQ(slurp(dir + "/dispmsg"),
            "\t\t\tACCT_NAME  ---  ACCT2\n" + kCustNotOpened +
                "Blkno = 5 \tGet file description error: block length error\n"
                "Loading DAM  PROG ...\n");

  dir = unit_dir("dispatch_level0");
  make_tape(save(dir, "account\nfile CUST hashed\nsub '' sam\nblock data zeros:8\nfile PROG sam\n"));
  EXPECT_EQ(walk(dir, {"-L0"}), "[DATA|]\n[DATA|CUST]\n[SAM |PROG]\n[end]\n");
  EXPECT_EQ(slurp(dir + "/dispmsg"), kCustNotOpened + "Loading SAM  PROG ...\n");
}

// One account under each option: -D passes members and directories before
// their names are read, and dictionaries; -R picks files by the names they
// have after the rules; -O finds a directory's target in the VOC.
TEST(DispatchOptions, DataOnlyRecoveryListAndOverlay) {
  std::string dir = unit_dir("dispatch_options");
  make_tape(save(dir,
                 "account ACCT\n"
                 "file VOC hashed\nfile voc hashed\n"
                 "file D_ORDERS hashed\nsub '' sam\nblock data zeros:8\n"
                 "file D_CUST hashed\n"
                 "file BP dir\nblock data 'x'\nsub M1 sam\nblock data 'x'\n"
                 "file PROG sam\nblock data 'x'\n"
                 "file CUST 3\nsub '' sam\nblock data zeros:8\n"));
  spill(dir + "/picked", "VOC\nvoc\nXXvoc\nORDERS\nD_CUST\n");
  spill(dir + "/voc", "DUMP_VOC\n");
  const std::string account = "\t\t\tACCT_NAME  ---  ACCT\n";
  struct Case {
    std::vector<std::string> args;
    const char* trace;
    std::string logged;
  } cases[] = {
      {{},
       "[DATA|DUMP_VOC]\n[DATA|XXvoc]\n[DICT|ORDERS]\n[DICT|CUST]\n[DIR |BP]\n[SAM |PROG]\n"
       "[DATA|CUST]\n",
       account + "Create DICT ORDERS --- 1 \nORDERS open dict failure!\nBlkno = 6 \tOpen file error\n" +
           "Create DIR  BP failure!\nBlkno = 8 \tCreate file error\nLoading SAM  PROG ...\n" +
           "Create DATA CUST --- 1 \nCUST open failure!\nBlkno = 16 \tOpen file error\n"},
      {{"-D"},
       "[DATA|DUMP_VOC]\n[DATA|XXvoc]\n[DICT|ORDERS]\n[DICT|CUST]\n[DATA|]\n[DATA|]\n"
       "[DATA|CUST]\n",
       account + "Loading DATA CUST ...\nCUST open failure!\nBlkno = 16 \tOpen file error\n"},
      {{"-R", dir + "/picked"},
       "[DATA|]\n[DATA|XXvoc]\n[DICT|ORDERS]\n[DICT|]\n[DATA|]\n[DATA|]\n[DATA|]\n",
       account + "Create DICT ORDERS --- 1  -----> ORDERSa\nORDERS open dict failure!\n" +
           "Blkno = 6 \tOpen file error\n"},
      {{"-R", dir + "/voc"},
       "[DATA|DUMP_VOC]\n[DATA|]\n[DICT|]\n[DICT|]\n[DATA|]\n[DATA|]\n[DATA|]\n", account},
      {{"-O"},
       "[DATA|DUMP_VOC]\n[DATA|XXvoc]\n[DICT|ORDERS]\n[DICT|CUST]\n[DIR |BP]\n[SAM |PROG]\n"
       "[DATA|CUST]\n",
       account + "Loading DICT ORDERS ...\nORDERS open dict failure!\nBlkno = 6 \tOpen file error\n" +
           "Loading DIR  BP ...\nBP open failure!\nBlkno = 8 \tOpen file error\n" +
           "Loading SAM  PROG ...\nLoading DATA CUST ...\nCUST open failure!\n" +
           "Blkno = 16 \tOpen file error\n"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(walk(dir, c.args), std::string("[DATA|]\n") + c.trace + "[end]\n")
        << testing::PrintToString(c.args);
    EXPECT_EQ(slurp(dir + "/dispmsg"), c.logged);
  }
}

// In the child: the account of `dir` holds a loaded file of `kind` named
// `name` on disk; under -T T, the next file description ends it.
void end_file_under_target(const std::string& dir, int32_t kind, const std::string& name) {
  make_tape("tape " + dir + "/t.tap\nlabel\naccount ACCT\nfile NEXT 99\nend\n");
  TapeChild child([dir, kind, name] {
    std::vector<unsigned char> buffer = open_unit_in(dir, {});
    parse({"-T", "T", "acct"});
    int32_t length = reel_next_block(buffer.data());
    reel_dispatch_block(buffer.data(), &length);  // the account
    if (chdir("acct") != 0) _exit(3);
    reel_current.file_kind = kind;
    reel_current.short_name = name;
    reel_dispatch_block(buffer.data(), &length);
  });
  EXPECT_EQ(child.finish(), 0) << child.output();
}

TEST(DispatchTarget, FinishedFilesMoveToTheTargetDirectory) {
  struct Case {
    int32_t kind;
    const char* name;   // the file's name on disk
    const char* made;   // what the load left, in the account
    const char* found;  // where it is afterwards, from the unit directory
    const char* gone;
  } cases[] = {
      {FILE_KIND_DATA, "F", "F", "T/F", "acct/F"},
      {FILE_KIND_DICT, "F", "D_F", "T/D_F", "acct/D_F"},
      {FILE_KIND_SAM, "F", "SAM/F", "T/F", "acct/SAM/F"},
      {FILE_KIND_DAM, "F", "SAM/F", "T/F", "acct/SAM/F"},  // looked for in SAM too
      {FILE_KIND_DIR, "BP", "BP/left", "acct", "acct/BP"},  // what is left of it goes
      {FILE_KIND_DIR, "", "BP/left", "acct/BP/left", ""},   // no name, nothing touched
  };
  for (const Case& c : cases) {
    std::string dir = unit_dir("dispatch_move");
    std::filesystem::create_directories(dir + "/T");
    std::filesystem::create_directories(std::filesystem::path(dir + "/acct/" + c.made).parent_path());
    spill(dir + "/acct/" + c.made, "loaded");
    end_file_under_target(dir, c.kind, c.name);
    EXPECT_TRUE(std::filesystem::exists(dir + "/" + c.found)) << c.made;
    if (*c.gone != '\0') {
      EXPECT_FALSE(std::filesystem::exists(dir + "/" + c.gone)) << c.made;
    }
  }
}

}  // namespace
