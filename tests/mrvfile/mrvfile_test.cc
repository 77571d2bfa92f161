// The mrvfile program, run as users run it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "support/run_program.h"
#include "support/temp_dir.h"

namespace {

// Runs mrvfile with the words of `arguments` (split at spaces).
ProgramResult mrvfile(const std::string& arguments, const std::string& input = "") {
  ProgramRun run;
  run.input = input;
  run.program = "mrvfile";
  std::istringstream words(arguments);
  for (std::string word; words >> word;) run.args.push_back(word);
  return run_program(run);
}

TEST(Mrvfile, CreateInfoAndCheckOfBothKinds) {
  TempDir tmp;
  std::string dir = tmp.str();
  ASSERT_EQ(mrvfile("create --modulo 7 --block 2 --hash 1 " + dir + "/S").status, 0);
  EXPECT_EQ(std::filesystem::file_size(dir + "/S"), 8u * 2048);
  ProgramResult info = mrvfile("info " + dir + "/S");
  EXPECT_EQ(info.status, 0);
  EXPECT_NE(info.output.find("kind: static\n"), std::string::npos) << info.output;
  EXPECT_NE(info.output.find("block size: 2048 (code 1)\n"), std::string::npos);
  EXPECT_NE(info.output.find("modulo: 7\n"), std::string::npos);
  EXPECT_NE(info.output.find("hash type: 1 (function 1)\n"), std::string::npos);
  ProgramResult check = mrvfile("check " + dir + "/S");
  EXPECT_EQ(check.status, 0);
  EXPECT_EQ(check.output, dir + "/S: sound\n");

  ASSERT_EQ(mrvfile("create --dynamic --modulo 10 --spread 3 " + dir + "/D").status, 0);
  EXPECT_EQ(std::filesystem::file_size(dir + "/D/dat001"), 11u * 1024);
  EXPECT_EQ(std::filesystem::file_size(dir + "/D/over002"), 1024u);
  info = mrvfile("info " + dir + "/D");
  EXPECT_NE(info.output.find("kind: dynamic\n"), std::string::npos) << info.output;
  EXPECT_NE(info.output.find("overflow parts: 2\n"), std::string::npos);
  EXPECT_NE(info.output.find("split load: 60\n"), std::string::npos);
  EXPECT_EQ(mrvfile("check " + dir + "/D").status, 0);
}

TEST(Mrvfile, CheckReportsDamageAndFails) {
  TempDir tmp;
  std::string dir = tmp.str();
  ASSERT_EQ(mrvfile("create --modulo 3 " + dir + "/S").status, 0);
  {
    std::fstream f(dir + "/S", std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(2 * 1024 + 6);  // flags of group 1's head
    f.put(3);
  }
  ProgramResult check = mrvfile("check " + dir + "/S");
  EXPECT_EQ(check.status, 1);
  EXPECT_NE(check.output.find("group 1 block 0X800: flags 3, a head block was expected\n"), std::string::npos)
      << check.output;
  EXPECT_NE(check.output.find(dir + "/S: 1 finding\n"), std::string::npos);
}

TEST(Mrvfile, UsageAndRefusals) {
  TempDir tmp;
  std::string dir = tmp.str();
  EXPECT_EQ(mrvfile("").status, 2);
  EXPECT_EQ(mrvfile("frobnicate x").status, 2);
  EXPECT_EQ(mrvfile("create --modulo").status, 2);
  EXPECT_EQ(mrvfile("create --modulo x " + dir + "/S").status, 2);
  EXPECT_EQ(mrvfile("create --dynamic --hash 2 " + dir + "/S").status, 2);
  EXPECT_EQ(mrvfile("create --block 17 " + dir + "/S").status, 2);
  ASSERT_EQ(mrvfile("create " + dir + "/S").status, 0);
  EXPECT_EQ(mrvfile("create " + dir + "/S").status, 1);  // exists
  EXPECT_EQ(mrvfile("info " + dir + "/missing").status, 1);
  ProgramResult check = mrvfile("check " + dir + "/missing");
  EXPECT_EQ(check.status, 1);
  EXPECT_NE(check.output.find(dir + "/missing: the file does not open\n"), std::string::npos);
}

TEST(Mrvfile, RecordsGoInComeOutAndGo) {
  TempDir tmp;
  std::string f = tmp.str() + "/D";
  ASSERT_EQ(mrvfile("create --dynamic --modulo 3 " + f).status, 0);
  std::string record("line 1\nline\t2\\\xFE\x00" "end", 19);
  ASSERT_EQ(mrvfile("put " + f + " K1", record).status, 0);
  ProgramResult got = mrvfile("get " + f + " K1");
  EXPECT_EQ(got.status, 0);
  EXPECT_EQ(got.output, record);
  EXPECT_EQ(mrvfile("get " + f + " K2").status, 1);
  // load takes the text form; list gives it back.
  std::string text = "K2\tshort\nK\\\\3\ta\\tb\\x01\\\\\nK4\t\n";
  ASSERT_EQ(mrvfile("load " + f, text).status, 0);
  ProgramResult listed = mrvfile("list --records " + f);
  EXPECT_EQ(listed.status, 0);
  for (const char* line : {"K1\tline 1\\nline\\t2\\\\\\xFE\\x00end\n", "K2\tshort\n", "K\\\\3\ta\\tb\\x01\\\\\n", "K4\t\n"})
    EXPECT_NE(listed.output.find(line), std::string::npos) << line << " in\n" << listed.output;
  EXPECT_EQ(mrvfile("get " + f + " K\\3").output, std::string("a\tb\x01\\"));
  EXPECT_EQ(mrvfile("delete " + f + " K2").status, 0);
  EXPECT_EQ(mrvfile("delete " + f + " K2").status, 1);
  ProgramResult keys = mrvfile("list " + f);
  EXPECT_EQ(keys.output.find("K2\n"), std::string::npos);
  EXPECT_NE(keys.output.find("K4\n"), std::string::npos);
  EXPECT_EQ(mrvfile("check " + f).status, 0);
  // A line without a TAB, or with a bad escape, refuses the whole load.
  EXPECT_EQ(mrvfile("load " + f, "K5 no tab\n").status, 1);
  EXPECT_EQ(mrvfile("load " + f, "K5\tbad \\q\n").status, 1);
  EXPECT_EQ(mrvfile("get " + f + " K5").status, 1);
}

// Puts one by one grow a dynamic file by splits; a load through the
// memory-buffered writer does not split.
TEST(Mrvfile, PutsGrowAKeyDataFileALoadDoesNot) {
  TempDir tmp;
  std::string f = tmp.str() + "/KD";
  ASSERT_EQ(mrvfile("create --keydata " + f).status, 0);
  std::string text;
  for (int i = 0; i < 120; ++i) {
    std::string record(100, static_cast<char>('a' + i % 26));
    ASSERT_EQ(mrvfile("put " + f + " P" + std::to_string(i), record).status, 0);
    text += "L" + std::to_string(i) + "\t" + record + "\n";
  }
  ProgramResult info = mrvfile("info " + f);
  EXPECT_NE(info.output.find("hash type: 96 (function 0, KEYDATA)\n"), std::string::npos) << info.output;
  EXPECT_NE(info.output.find("split load: 95\n"), std::string::npos);
  EXPECT_EQ(info.output.find("\nmodulo: 1\n"), std::string::npos) << info.output;
  EXPECT_NE(info.output.find("primary parts: 1\n"), std::string::npos);
  EXPECT_EQ(mrvfile("check " + f).status, 0);

  std::string g = tmp.str() + "/LD";
  ASSERT_EQ(mrvfile("create --keydata " + g).status, 0);
  ASSERT_EQ(mrvfile("load " + g, text).status, 0);
  info = mrvfile("info " + g);
  EXPECT_NE(info.output.find("\nmodulo: 1\n"), std::string::npos) << info.output;
  EXPECT_EQ(mrvfile("get " + g + " L119").output, std::string(100, 'a' + 119 % 26));
  EXPECT_EQ(mrvfile("check " + g).status, 0);
}

}  // namespace
