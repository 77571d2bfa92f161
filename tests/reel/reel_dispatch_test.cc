// The walk over a save: how blocks are classified by length, the name rules
// of a file, the -D, -R and -L options, and the -T moves of a finished file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "reel/reel_account.h"
#include "reel/reel_current.h"
#include "reel/reel_device.h"
#include "reel/reel_dispatch.h"
#include "reel/reel_options.h"
#include "reel/reel_settings.h"
#include "reel/reel_tape_format.h"
#include "reel/reel_tape_writer.h"
#include "reel/tape_child.h"

namespace {

using tape_test::make_tape;
using tape_test::open_unit_in;
using tape_test::read_file;
using tape_test::TapeChild;
using tape_test::unit_dir;
using tape_test::write_file;

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
                 "file D_VOC hashed\nsub '' sam\nblock data 'x'\n"
                 "file VOC hashed\n"
                 "file voc hashed\n"
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
            "[DATA|DUMP_VOC]\n"
            "[DATA|XXvoc]\n"
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
  EXPECT_EQ(read_file(dir + "/dispmsg"),
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

TEST(DispatchLevels, LevelTwoShiftsAllLengthsAndLevelZeroHasNoAccount) {
  std::string dir = unit_dir("dispatch_level2");
  make_tape(save(dir,
                 "account SYS ACCT2\n"
                 "file CUST hashed\nsub '' sam\nblock data 'x'\nsub DEEP sam ER sam\n"
                 "file PROG dam\n"));
  EXPECT_EQ(walk(dir, {"-L2"}), "[DATA|]\n[DATA|CUST]\n[DATA|CUST]\n[DAM |PROG]\n[end]\n");
  EXPECT_EQ(read_file(dir + "/dispmsg"),
            "\t\t\tACCT_NAME  ---  ACCT2\n"
            "Blkno = 5 \tGet file description error: block length error\n");

  dir = unit_dir("dispatch_level0");
  make_tape(save(dir, "account\nfile CUST hashed\nsub '' sam\nfile PROG sam\n"));
  EXPECT_EQ(walk(dir, {"-L0"}), "[DATA|]\n[DATA|CUST]\n[SAM |PROG]\n[end]\n");
  EXPECT_EQ(read_file(dir + "/dispmsg"), "");
}

TEST(DispatchOptions, DataOnlySkipsMembersAndDirectoriesUnnamed) {
  std::string dir = unit_dir("dispatch_data_only");
  make_tape(save(dir,
                 "account ACCT\n"
                 "file PROG sam\nblock data 'x'\n"
                 "file BP dir\nblock data 'x'\nsub M1 sam\nblock data 'x'\n"
                 "file D_CUST hashed\nsub '' sam\nblock data 'x'\n"
                 "file CUST 3\nsub '' sam\nblock data 'x'\n"));
  EXPECT_EQ(walk(dir, {"-D"}), "[DATA|]\n[DATA|]\n[DATA|]\n[DICT|CUST]\n[DATA|CUST]\n[end]\n");
}

TEST(DispatchOptions, RecoveryListIsMatchedAfterTheRenames) {
  std::string dir = unit_dir("dispatch_recovery");
  make_tape(save(dir,
                 "account ACCT\n"
                 "file VOC hashed\n"
                 "file voc hashed\n"
                 "file D_ORDERS hashed\nsub '' sam\nblock data 'x'\n"
                 "file D_CUST hashed\n"
                 "file BP dir\nsub M1 sam\nblock data 'x'\n"));
  write_file(dir + "/list", "VOC\nvoc\nXXvoc\nORDERS\nD_CUST\n");
  EXPECT_EQ(walk(dir, {"-R", dir + "/list"}),
            "[DATA|]\n[DATA|]\n[DATA|XXvoc]\n[DICT|ORDERS]\n[DICT|]\n[DATA|]\n[end]\n");
  // The tape's VOC is picked by the name it is restored under.
  write_file(dir + "/list", "DUMP_VOC\n");
  EXPECT_EQ(walk(dir, {"-R", dir + "/list"}),
            "[DATA|]\n[DATA|DUMP_VOC]\n[DATA|]\n[DICT|]\n[DICT|]\n[DATA|]\n[end]\n");
}

TEST(DispatchOptions, OverlayLoadsADirectoryFromTheVoc) {
  std::string dir = unit_dir("dispatch_overlay");
  make_tape(save(dir, "account ACCT\nfile BP dir\nsub M1 sam\nblock data 'x'\nfile NEXT sam\n"));
  std::string trace = walk(dir, {"-O"});
  EXPECT_EQ(trace, "[DATA|]\n[DIR |BP]\n[SAM |NEXT]\n[end]\n");
  EXPECT_EQ(read_file(dir + "/dispmsg"),
            "\t\t\tACCT_NAME  ---  ACCT\nLoading DIR  BP ...\n");
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
    std::string made;   // what the load left in the account
    std::string moved;  // where it is to be found in ../T
  } cases[] = {
      {FILE_KIND_DATA, "F", "F"},
      {FILE_KIND_DICT, "D_F", "D_F"},
      {FILE_KIND_SAM, "SAM/F", "F"},
      {FILE_KIND_DAM, "SAM/F", "F"},  // direct members too are looked for in SAM
  };
  for (const Case& c : cases) {
    std::string dir = unit_dir("dispatch_move");
    std::filesystem::create_directories(dir + "/acct/SAM");
    std::filesystem::create_directories(dir + "/T");
    write_file(dir + "/acct/" + c.made, "loaded");
    end_file_under_target(dir, c.kind, "F");
    EXPECT_EQ(read_file(dir + "/T/" + c.moved), "loaded") << c.made;
  }

  // What is left of a directory goes; a slot without a name on disk
  // touches nothing.
  std::string dir = unit_dir("dispatch_move_dir");
  std::filesystem::create_directories(dir + "/acct/BP");
  write_file(dir + "/acct/BP/left", "x");
  end_file_under_target(dir, FILE_KIND_DIR, "");
  EXPECT_TRUE(std::filesystem::exists(dir + "/acct/BP/left"));
  end_file_under_target(dir, FILE_KIND_DIR, "BP");
  EXPECT_FALSE(std::filesystem::exists(dir + "/acct/BP"));
  EXPECT_TRUE(std::filesystem::exists(dir + "/acct"));
}

}  // namespace
