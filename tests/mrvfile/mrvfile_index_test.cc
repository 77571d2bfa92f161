// mrvfile index, run as users run it: indexes kept up to date by put and
// delete, a rebuild through mrvsort that gives the same scan, and the
// refusals in words.

#include "support/files.h"
#include "support/run_program.h"
#include "support/temp_dir.h"

namespace {

using MrvfileIndex = ScratchTest;

ProgramResult mrvfile(const std::string& arguments, const std::string& input = "",
                      const std::vector<std::pair<std::string, std::string>>& env = {{"MRVBIN", REEL_BIN_DIR}}) {
  ProgramRun run;
  run.input = input;
  run.program = "mrvfile";
  run.env = env;
  std::istringstream words(arguments);
  for (std::string word; words >> word;) run.args.push_back(word);
  return run_program(run);
}

// A record of two fields: the name, and tags as values.
std::string record(const std::string& name, const std::string& tags) {
  std::string r = name + "\xFE";
  for (char c : tags) r += c == ',' ? '\xFD' : c;
  return r;
}

TEST_F(MrvfileIndex, UpkeepAndRebuildGiveTheSameScan) {
  std::string f = tmp.str() + "/F";
  ASSERT_EQ(mrvfile("create --dynamic " + f).status, 0);
  ASSERT_EQ(mrvfile("index add " + f + " NAME 1 --key-length 8").status, 0);
  ASSERT_EQ(mrvfile("index add " + f + " TAGS 2 --multi").status, 0);
  for (int i = 0; i < 120; ++i) {
    std::string name = i % 3 == 0 ? "a long name beyond eight bytes " + std::to_string(i % 7) : "n" + std::to_string(i % 11);
    ASSERT_EQ(mrvfile("put " + f + " K" + std::to_string(i), record(name, "t" + std::to_string(i % 4) + ",x")).status, 0);
  }
  for (int i = 0; i < 120; i += 5) ASSERT_EQ(mrvfile("delete " + f + " K" + std::to_string(i)).status, 0);
  ASSERT_EQ(mrvfile("put " + f + " K1", record("renamed", "t9")).status, 0);
  ProgramResult names = mrvfile("index scan " + f + " NAME");
  ProgramResult tags = mrvfile("index scan " + f + " TAGS");
  ASSERT_EQ(names.status, 0);
  EXPECT_NE(names.output.find("renamed\tK1\n"), std::string::npos);
  EXPECT_EQ(names.output.find("K0\n"), std::string::npos) << "deleted";
  EXPECT_NE(names.output.find("a long name beyond eight bytes 3\tK3\n"), std::string::npos);
  ASSERT_EQ(mrvfile("index build " + f).status, 0);
  EXPECT_EQ(mrvfile("index scan " + f + " NAME").output, names.output);
  EXPECT_EQ(mrvfile("index scan " + f + " TAGS").output, tags.output);
  ProgramResult check = mrvfile("index check " + f);
  EXPECT_EQ(check.status, 0) << check.output;
  EXPECT_EQ(mrvfile("check " + f).status, 0);

  ProgramResult found = mrvfile("index find " + f + " TAGS t9");
  EXPECT_EQ(found.status, 0);
  EXPECT_EQ(found.output, "K1\n");
  EXPECT_EQ(mrvfile("index find " + f + " TAGS nothing").status, 1);
  ProgramResult list = mrvfile("index list " + f);
  EXPECT_EQ(list.output, "NAME\tfield 1\tsingle\ttext\tusable\nTAGS\tfield 2\tmultivalued\ttext\tusable\n");
}

TEST_F(MrvfileIndex, ALoadIsCaughtUpByABuild) {
  std::string f = tmp.str() + "/F";
  ASSERT_EQ(mrvfile("create --dynamic " + f).status, 0);
  ASSERT_EQ(mrvfile("index add " + f + " NAME 1 --later").status, 0);
  EXPECT_NE(mrvfile("index list " + f).output.find("to be built"), std::string::npos);
  ProgramResult early = mrvfile("index scan " + f + " NAME");
  EXPECT_EQ(early.status, 1);
  EXPECT_NE(early.output.find("index NAME is not built yet"), std::string::npos);
  std::string text;
  for (int i = 0; i < 300; ++i) text += "R" + std::to_string(i) + "\tv" + std::to_string(i % 10) + "\n";
  ASSERT_EQ(mrvfile("index add " + f + " ID 0").status, 0);
  EXPECT_NE(mrvfile("index list " + f).output.find("ID\tfield 0\tsingle\ttext\tusable"), std::string::npos);
  ASSERT_EQ(mrvfile("load " + f, text).status, 0);
  EXPECT_NE(mrvfile("index list " + f).output.find("ID\tfield 0\tsingle\ttext\tto be built"), std::string::npos)
      << "the buffered load keeps no index, so it leaves the trees to a build";
  ASSERT_EQ(mrvfile("index build " + f + " NAME").status, 0);
  ProgramResult found = mrvfile("index find " + f + " NAME v3");
  EXPECT_EQ(std::count(found.output.begin(), found.output.end(), '\n'), 30);
}

TEST_F(MrvfileIndex, RefusalsInWords) {
  std::string f = tmp.str() + "/S";
  ASSERT_EQ(mrvfile("create " + f).status, 0);
  EXPECT_EQ(mrvfile("index add " + f + " N x").status, 2);
  ProgramResult too_long = mrvfile("index add " + f + " N 1 --block 0 --key-length 250");
  EXPECT_EQ(too_long.status, 2);
  EXPECT_NE(too_long.output.find("key length 250 is too long for blocks of 1024 bytes"), std::string::npos);
  ASSERT_EQ(mrvfile("index add " + f + " N 1").status, 0);
  EXPECT_TRUE(std::filesystem::exists(tmp.str() + "/idxS")) << "a static file's index lies beside it";
  ProgramResult twice = mrvfile("index add " + f + " M 1");
  EXPECT_EQ(twice.status, 1);
  EXPECT_NE(twice.output.find("already has an index named M or on field 1"), std::string::npos);
  ProgramResult unknown = mrvfile("index find " + f + " Q v");
  EXPECT_EQ(unknown.status, 1);
  EXPECT_NE(unknown.output.find(f + " has no index Q"), std::string::npos);
  ProgramResult missing = mrvfile("index list " + tmp.str() + "/none");
  EXPECT_NE(missing.output.find("no such file"), std::string::npos);
  // Without mrvsort the build fails and leaves the index to be built.
  ASSERT_EQ(mrvfile("put " + f + " K", "v").status, 0);
  ProgramResult nosort = mrvfile("index build " + f, "", {{"PATH", "/nonexistent"}, {"MRVBIN", tmp.str()}});
  EXPECT_EQ(nosort.status, 1);
  EXPECT_NE(nosort.output.find("Index: mrvsort cannot be run"), std::string::npos) << nosort.output;
  EXPECT_NE(mrvfile("index list " + f).output.find("to be built"), std::string::npos);
  // A header that lost its count: the check names both numbers.
  {
    std::fstream data(f, std::ios::in | std::ios::out | std::ios::binary);
    data.seekp(20);
    data.put(0);
  }
  ProgramResult counts = mrvfile("index check " + f);
  EXPECT_EQ(counts.status, 1);
  EXPECT_NE(counts.output.find(f + ": the file header counts 0 indexes, the index file holds 1"), std::string::npos)
      << counts.output;
  // A damaged head: the file no longer opens for writes; check says so.
  {
    std::fstream idx(tmp.str() + "/idxS", std::ios::in | std::ios::out | std::ios::binary);
    idx.seekp(12);
    idx.put(7);  // auto update flag
  }
  {
    std::fstream data(f, std::ios::in | std::ios::out | std::ios::binary);
    data.seekp(20);
    data.put(1);
  }
  EXPECT_EQ(mrvfile("put " + f + " K2", "w").status, 1);
  ProgramResult check = mrvfile("index check " + f);
  EXPECT_EQ(check.status, 1);
  EXPECT_NE(check.output.find("Index: invalid auto update flag: 7"), std::string::npos);
  EXPECT_NE(check.output.find(f + ": the index file is damaged"), std::string::npos);
}

TEST_F(MrvfileIndex, DroppingTheLastIndexRemovesTheIndexFile) {
  std::string f = tmp.str() + "/D";
  ASSERT_EQ(mrvfile("create --dynamic " + f).status, 0);
  ASSERT_EQ(mrvfile("index add " + f + " A 0").status, 0);
  ASSERT_EQ(mrvfile("put " + f + " K", "v").status, 0);
  EXPECT_EQ(mrvfile("index find " + f + " A K").output, "K\n") << "field 0 is the @ID";
  EXPECT_EQ(mrvfile("index drop " + f + " B").status, 1);
  ASSERT_EQ(mrvfile("index drop " + f + " A").status, 0);
  EXPECT_FALSE(std::filesystem::exists(f + "/idx001"));
  EXPECT_EQ(mrvfile("put " + f + " K2", "v").status, 0);
  EXPECT_EQ(mrvfile("index list " + f).output, "");
}

}  // namespace
