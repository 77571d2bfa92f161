// The installation around a run: homes laid out by mrvhome, mrvconfig
// written and checked by mrvconf, its parameters and language group taking
// effect in a restore of static and dynamic files.

#include "e2e/sandbox.h"

namespace {

namespace fs = std::filesystem;

// A static and a dynamic file, their fields and values in the tape's marks.
const char kSave[] =
    "tape t.tap\n"
    "label name=CONFIG\n"
    "account SALES\n"
    "file CUSTOMERS hashed\n"
    "subfile modulo=3\n"
    "item C1 'Smith\\xFEJohn\\xFDJr'\n"
    "item C2 'Jones\\xFEMary'\n"
    "file ORDERS hashed\n"
    "dynfile modulo=2\n"
    "item O1 'C1\\xFE3\\xFD4'\n"
    "item O2 'C2\\xFE1'\n"
    "end\n";

// The configuration file with `name`'s line set to `value`.
void set_parameter(const std::string& path, const std::string& name, const std::string& value) {
  std::string text = slurp(path);
  size_t at = text.find("\n" + name + "=");
  ASSERT_NE(at, std::string::npos) << name;
  size_t end = text.find('\n', at + 1);
  text.replace(at + 1, end - at - 1, name + "=" + value);
  spill(path, text);
}

// The value that `mrvfile info` gives for `field`.
std::string info_field(const ProgramResult& info, const std::string& field) {
  size_t at = info.output.find(field + ": ");
  if (at == std::string::npos) return "<none>";
  at += field.size() + 2;
  return info.output.substr(at, info.output.find('\n', at) - at);
}

TEST(Mrvconf, CheckAcceptsWhatWriteWritesAndReportsNBig) {
  Sandbox box;
  const std::string path = box.run() + "/written";
  ProgramResult w = box.program("mrvconf", {"write", path});
  ASSERT_EQ(w.status, 0) << w.output;
  EXPECT_EQ(w.output, path + " written\n");
  ProgramResult c = box.program("mrvconf", {"check", path});
  EXPECT_EQ(c.status, 0) << c.output;
  EXPECT_NE(c.output.find(path + ": no errors\n"), std::string::npos) << c.output;

  set_parameter(path, "N_BIG", "100");
  c = box.program("mrvconf", {"check", path});
  EXPECT_EQ(c.status, 1);
  EXPECT_NE(c.output.find("N_BIG should be a prime and in range [320,512].\nRecommended to be 401\n"),
            std::string::npos)
      << c.output;

  spill(path, "NFILES = 60 the rest is a remark\n");  // the loader's defaults fill in, but a run refuses it
  c = box.program("mrvconf", {"check", path});
  EXPECT_EQ(c.status, 1);
  EXPECT_NE(c.output.find("mrvconfig parameter LOCKFIFO is missed.\n"), std::string::npos) << c.output;
  EXPECT_EQ(c.output.find("parameter NFILES"), std::string::npos) << c.output;

  spill(path, "NFILES 60\n");
  c = box.program("mrvconf", {"check", path});
  EXPECT_EQ(c.status, 1);
  EXPECT_NE(c.output.find("Invalid item in \"" + path + "\", line 1\n"), std::string::npos) << c.output;
}

TEST(Mrvhome, InitLaysOutAHomeThatChecksClean) {
  TempDir dir;
  const std::string home = dir.str() + "/home";
  ProgramResult r = run_program({.program = "mrvhome", .args = {"init", home}});
  ASSERT_EQ(r.status, 0) << r.output;
  for (const char* d : {"include", "sys", "Temp"}) EXPECT_TRUE(fs::is_directory(home + "/" + d)) << d;
  EXPECT_EQ(slurp(home + "/sys/tapeinfo"), "# unit device rewind-device block-size (e.g. 0 /dev/nst0 /dev/st0 8192)\n");
  EXPECT_EQ(fs::status(home + "/include/mrvconfig").permissions() & fs::perms::others_write, fs::perms::none);

  const std::vector<std::pair<std::string, std::string>> env = {
      {"MRVHOME", home}, {"MRVBIN", dir.str()}, {"MRV_REGISTRY", dir.str() + "/none"}};
  r = run_program({.program = "mrvhome", .args = {"check"}, .env = env});
  EXPECT_EQ(r.status, 0) << r.output;
  EXPECT_EQ(r.output, home + "/: no problems\n");

  // A second init keeps what stands.
  spill(home + "/sys/tapeinfo", "0 /no/such/tape r/no/such/tape 8192\n1 " + std::string(80, 'd') + "\n");
  r = run_program({.program = "mrvhome", .args = {"init", home}});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.output.find(home + "/sys/tapeinfo kept\n"), std::string::npos) << r.output;
  fs::remove_all(home + "/Temp");
  r = run_program({.program = "mrvhome", .args = {"check"}, .env = env});
  EXPECT_EQ(r.status, 1);
  const std::string tapeinfo = home + "/sys/tapeinfo";
  EXPECT_NE(r.output.find(home + "/Temp: missing directory\n"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find(tapeinfo + ", line 1: device /no/such/tape is not there"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find(tapeinfo + ", line 2: longer than 79 characters"), std::string::npos) << r.output;
}

TEST(ConfiguredRestore, FilesCarryTheConfiguredValuesAndTheRunIsQuiet) {
  Sandbox box(kSave);
  set_parameter(box.config_path(), "MAX_FLENGTH", "100000000");
  set_parameter(box.config_path(), "SPLIT_LOAD", "70");
  set_parameter(box.config_path(), "MERGE_LOAD", "30");
  set_parameter(box.config_path(), "GRP_FREE_BLK", "7");
  ProgramResult r = box.reel({"-U", "0", "SALES"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.output.find("mrvconfig"), std::string::npos) << r.output;  // it loaded without a word
  ProgramResult info = box.program("mrvfile", {"info", box.account("SALES") + "/CUSTOMERS"});
  ASSERT_EQ(info.status, 0) << info.output;
  EXPECT_EQ(info_field(info, "largest part"), "100000000");
  EXPECT_EQ(info_field(info, "language group"), "255/192/129");

  // The dynamic file from tape takes the loads and the part size.
  info = box.program("mrvfile", {"info", box.account("SALES") + "/ORDERS"});
  ASSERT_EQ(info.status, 0) << info.output << r.output;
  EXPECT_EQ(info_field(info, "kind"), "dynamic");
  EXPECT_EQ(info_field(info, "split load"), "70");
  EXPECT_EQ(info_field(info, "merge load"), "30");
  EXPECT_EQ(info_field(info, "group free blocks"), "7");
  EXPECT_EQ(info_field(info, "largest part"), "100000000");

  // So does one that mrvfile makes in that home.
  ProgramResult made = box.program("mrvfile", {"create", "--dynamic", box.run() + "/DYN"});
  ASSERT_EQ(made.status, 0) << made.output;
  info = box.program("mrvfile", {"info", box.run() + "/DYN"});
  EXPECT_EQ(info_field(info, "split load"), "70");
  EXPECT_EQ(info_field(info, "merge load"), "30");
  EXPECT_EQ(info_field(info, "blocks per part"), std::to_string(100000000 / 1024));
}

TEST(ConfiguredRestore, ALanguageGroupSetsTheMarksOfRecordsAndHeaders) {
  Sandbox box(kSave);
  set_parameter(box.config_path(), "MRV_LANGGRP", "254/192/129");
  spill(box.home_dir() + "/sys/LANGGRP", "255/192/129\nENGLISH C\nEND\n254/192/129\nENGLISH C POSIX\nEND\n");
  ProgramResult r = box.reel({"-U", "0", "SALES"});
  EXPECT_EQ(r.status, 1);
  const std::string file = box.account("SALES") + "/CUSTOMERS";
  ProgramResult info = box.program("mrvfile", {"info", file});
  ASSERT_EQ(info.status, 0) << info.output << r.output;
  EXPECT_EQ(info_field(info, "language group"), "254/192/129");
  ProgramResult get = box.program("mrvfile", {"get", file, "C1"});
  EXPECT_EQ(get.output, "Smith\xFDJohn\xFCJr");  // field and value marks one below the tape's
  info = box.program("mrvfile", {"info", box.account("SALES") + "/VOC"});
  EXPECT_EQ(info_field(info, "language group"), "254/192/129");
  const std::string orders = box.account("SALES") + "/ORDERS";
  info = box.program("mrvfile", {"info", orders});
  EXPECT_EQ(info_field(info, "language group"), "254/192/129");
  EXPECT_EQ(box.program("mrvfile", {"get", orders, "O1"}).output, "C1\xFD" "3\xFC" "4");

  // The library with the default group refuses those files.
  ProgramResult plain = run_program({.program = "mrvfile", .args = {"get", file, "C1"}});
  EXPECT_EQ(plain.status, 1);
  EXPECT_NE(plain.output.find("made under another language group than this installation's (the marks differ) "
                              "(library message 30411)"),
            std::string::npos)
      << plain.output;
}

TEST(ConfiguredRestore, AGroupThatLanggrpLacksIsSetBackToTheDefault) {
  Sandbox box(kSave);
  set_parameter(box.config_path(), "MRV_LANGGRP", "254/192/129");
  ProgramResult r = box.reel({"-U", "0", "SALES"});
  EXPECT_NE(r.output.find("Set language group id to 255/192/129.\n"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("Missing or invalid MRV_LANGGRP in " + box.home_dir() + "/include/mrvconfig\n"),
            std::string::npos)
      << r.output;
}

}  // namespace
