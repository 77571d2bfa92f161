// The mrvfile program, run as users run it.

#include <algorithm>
#include <fstream>
#include <sstream>

#include "flib/fl_filehdr.h"
#include "support/run_program.h"
#include "support/temp_dir.h"

namespace {

using Mrvfile = ScratchTest;

// Runs mrvfile with the words of `arguments` (split at spaces).
ProgramResult mrvfile(const std::string& arguments, const std::string& input = "") {
  ProgramRun run;
  run.input = input;
  run.program = "mrvfile";
  std::istringstream words(arguments);
  for (std::string word; words >> word;) run.args.push_back(word);
  return run_program(run);
}

TEST_F(Mrvfile, CreateInfoAndCheckOfBothKinds) {
  ASSERT_EQ(mrvfile("create --modulo 7 --block 2 --hash 1 " + dir + "/S").status, 0);
  EXPECT_EQ(std::filesystem::file_size(dir + "/S"), 8u * 2048);
  ProgramResult info = mrvfile("info " + dir + "/S");
  EXPECT_EQ(info.status, 0);
  EXPECT_NE(info.output.find("kind: static\n"), std::string::npos) << info.output;
  // The code in the form create takes: the file can be made alike.
  EXPECT_NE(info.output.find("block size: 2048 (code 2)\n"), std::string::npos);
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

TEST_F(Mrvfile, CheckReportsDamageAndFails) {
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

TEST_F(Mrvfile, UsageAndRefusals) {
  EXPECT_EQ(mrvfile("").status, 2);
  EXPECT_EQ(mrvfile("frobnicate x").status, 2);
  EXPECT_EQ(mrvfile("create --modulo").status, 2);
  EXPECT_EQ(mrvfile("create --modulo x " + dir + "/S").status, 2);
  EXPECT_EQ(mrvfile("create --dynamic --hash 2 " + dir + "/S").status, 2);
  EXPECT_EQ(mrvfile("create --block 17 " + dir + "/S").status, 2);
  ASSERT_EQ(mrvfile("create " + dir + "/S").status, 0);
  EXPECT_EQ(mrvfile("create " + dir + "/S").status, 1);  // exists
}

// Each command that opens a file names it and says in words what is wrong,
// with no message number of the library.
TEST_F(Mrvfile, FailuresNameTheFileAndTheFault) {
  std::filesystem::create_directory(dir + "/plain_dir");
  std::ofstream(dir + "/text") << "not a hashed file at all, but long enough to be read as a header? no.\n";
  struct Case {
    std::string command;
    std::string message;
  };
  const Case cases[] = {
      {"info " + dir + "/missing", "mrvfile: " + dir + "/missing: no such file\n"},
      {"check " + dir + "/missing", "mrvfile: " + dir + "/missing: no such file\n"},
      {"list " + dir + "/missing", "mrvfile: " + dir + "/missing: no such file\n"},
      {"get " + dir + "/plain_dir K", "mrvfile: " + dir + "/plain_dir: not a hashed file (a directory without dat001)\n"},
      {"info " + dir + "/text", "mrvfile: " + dir + "/text: too short to hold a file header (library message 682)\n"},
      {"load " + dir + "/text " + dir + "/none", "mrvfile: " + dir + "/none: no such file\n"},
      {"verify " + dir + "/plain_dir",
       "mrvfile: " + dir + "/plain_dir/VOC: no such file\n" + dir + "/plain_dir: not an account that can be verified\n"},
  };
  for (const Case& c : cases) {
    ProgramResult r = mrvfile(c.command);
    EXPECT_EQ(r.status, 1) << c.command;
    EXPECT_EQ(r.output, c.message) << c.command;
  }
  for (int code : {0, 1, 4}) {
    const std::string f = dir + "/B" + std::to_string(code);
    ASSERT_EQ(mrvfile("create --block " + std::to_string(code) + " " + f).status, 0);
    EXPECT_NE(mrvfile("info " + f).output.find("(code " + std::to_string(code) + ")\n"), std::string::npos) << code;
  }
}

// 600 records with keys and data of every length up to a few blocks.
std::string many_records() {
  std::string text;
  for (int i = 0; i < 600; ++i)
    text += "K" + std::to_string(i) + "\t" + std::string(static_cast<size_t>(i * 7 % 3000), static_cast<char>('a' + i % 26)) + "\n";
  return text;
}

std::string sorted_listing(const std::string& path) {
  ProgramResult r = mrvfile("list --records " + path);
  EXPECT_EQ(r.status, 0) << r.output;
  std::vector<std::string> lines;
  std::istringstream in(r.output);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  std::string joined;
  for (const auto& line : lines) joined += line + "\n";
  return joined;
}

TEST_F(Mrvfile, ResizeKeepsEveryRecordAtTheNewModulo) {
  for (const char* kind : {"", "--dynamic "}) {
    const std::string f = tmp.str() + (*kind != '\0' ? "/D" : "/S");
    ASSERT_EQ(mrvfile("create " + std::string(kind) + "--modulo 2 --block 1 " + f).status, 0);
    ASSERT_EQ(mrvfile("load " + f, many_records()).status, 0);
    const std::string before = sorted_listing(f);
    // A part placed in another partition stands there behind a link of its
    // name; it goes with the old layout.
    const std::string elsewhere = tmp.str() + "/partition/over001";
    if (*kind != '\0') {
      std::filesystem::create_directories(tmp.str() + "/partition");
      std::filesystem::rename(f + "/over001", elsewhere);
      std::filesystem::create_symlink(elsewhere, f + "/over001");
      ASSERT_EQ(sorted_listing(f), before);
    }
    ProgramResult r = mrvfile("resize " + f + " 37");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(r.output, f + ": modulo 2 -> 37, 600 records\n");
    ProgramResult info = mrvfile("info " + f);
    EXPECT_NE(info.output.find("modulo: 37\n"), std::string::npos) << info.output;
    EXPECT_NE(info.output.find("(code 1)\n"), std::string::npos) << info.output;
    EXPECT_EQ(info.output.find("kind: dynamic") != std::string::npos, *kind != '\0');
    EXPECT_EQ(sorted_listing(f), before);
    EXPECT_EQ(mrvfile("check " + f).status, 0);
    // Nothing of the work is left beside the file.
    for (const char* suffix : {".resize", ".resize-old", ".resize-records"})
      EXPECT_FALSE(std::filesystem::exists(f + suffix)) << suffix;
    EXPECT_FALSE(std::filesystem::exists(elsewhere));
  }
}

TEST_F(Mrvfile, ResizeRefusesAndLeavesTheFileAsItWas) {
  const std::string f = tmp.str() + "/S";
  ASSERT_EQ(mrvfile("create --modulo 3 " + f).status, 0);
  ASSERT_EQ(mrvfile("load " + f, "A\t1\nB\t2\n").status, 0);
  EXPECT_EQ(mrvfile("resize " + f).status, 2);
  EXPECT_EQ(mrvfile("resize " + f + " x").status, 2);
  EXPECT_EQ(mrvfile("resize " + f + " 0").output, "mrvfile: " + f + ": the modulo must be 1 or more\n");
  EXPECT_EQ(mrvfile("resize " + tmp.str() + "/none 5").output, "mrvfile: " + tmp.str() + "/none: no such file\n");
  // A file whose header counts indexes is refused: they would be lost.
  {
    std::fstream h(f, std::ios::in | std::ios::out | std::ios::binary);
    h.seekp(FH_INDEX_COUNT);
    h.put(1);
  }
  ProgramResult indexed = mrvfile("resize " + f + " 5");
  EXPECT_EQ(indexed.status, 1);
  EXPECT_NE(indexed.output.find("has 1 alternate key index(es)"), std::string::npos) << indexed.output;
  {
    std::fstream h(f, std::ios::in | std::ios::out | std::ios::binary);
    h.seekp(FH_INDEX_COUNT);
    h.put(0);
  }
  // The trace of a resize that broke off stops the next one until removed.
  std::filesystem::create_directory(f + ".resize-old");
  ProgramResult r = mrvfile("resize " + f + " 5");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("a resize was left half done"), std::string::npos) << r.output;
  EXPECT_NE(mrvfile("info " + f).output.find("modulo: 3\n"), std::string::npos);
  EXPECT_EQ(sorted_listing(f), "A\t1\nB\t2\n");
}

TEST_F(Mrvfile, RecordsGoInComeOutAndGo) {
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
TEST_F(Mrvfile, PutsGrowAKeyDataFileALoadDoesNot) {
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
