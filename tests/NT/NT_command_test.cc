// Commands, programs and the native housekeeping lines.
#include "NT/NT_command.h"

#include <sys/stat.h>

#include "support/files.h"
#include "support/run_program.h"
#include "support/temp_dir.h"

namespace fs = std::filesystem;

namespace {

TEST(IsCommand, FirstWordByItsLastPathPartAnyCaseWithOrWithoutExtension) {
  EXPECT_TRUE(is_command("mrvsort -u -r -o a b", "mrvsort"));
  EXPECT_TRUE(is_command("  /opt/bin/MRVSORT.exe x", "mrvsort"));
  EXPECT_TRUE(is_command("c:\\bin\\MrvSort -u", "/usr/bin/mrvsort.exe"));
  EXPECT_TRUE(is_command("CMD.EXE /c dir", "cmd.exe"));
  EXPECT_TRUE(is_command("CMD.EXE /c dir", "cmd"));
  EXPECT_FALSE(is_command("mrvsorter", "mrvsort"));
  EXPECT_FALSE(is_command("echo mrvsort", "mrvsort"));
  EXPECT_FALSE(is_command("", "mrvsort"));
}

TEST(System, RunsThroughTheShellWithTheProcessHandlesAndReportsZero) {
  ProgramResult r = run_in_child([] {
    std::printf("%d|", NT_system("echo one; echo two >&2; exit 3"));
  });
  EXPECT_EQ(r.output, "one\ntwo\n0|");
}

TEST(Programs, FoundInMrvbinBeforePathAndRunWithoutAShell) {
  TempDir dir;
  fs::create_directories(dir.path() / "bin1");
  fs::create_directories(dir.path() / "bin2");
  auto write_script = [](const fs::path& p, const std::string& body) {
    std::ofstream(p) << "#!/bin/sh\n" << body;
    chmod(p.c_str(), 0755);
  };
  write_script(dir.path() / "bin1" / "tool", "printf 'bin1:%s|' \"$@\"\nexit 4\n");
  write_script(dir.path() / "bin2" / "tool", "echo bin2\n");
  std::string bin1 = (dir.path() / "bin1").string();
  std::string bin2 = (dir.path() / "bin2").string();
  ProgramResult r = run_in_child([&] {
    setenv("MRVBIN", bin1.c_str(), 1);
    setenv("PATH", (bin2 + ":/usr/bin:/bin").c_str(), 1);
    int status = NT_run_program("tool", {"a b", "x'; touch pwned; '"});
    std::printf("%d|", status);
    unsetenv("MRVBIN");
    std::printf("%s", NT_find_program("tool") == bin2 + "/tool" ? "path" : "?");
  });
  EXPECT_EQ(r.output, "bin1:a b|bin1:x'; touch pwned; '|4|path");
  EXPECT_FALSE(fs::exists("pwned"));
  EXPECT_EQ(NT_find_program("no-such-program-here"), "");
}

TEST(Housekeeping, MkdirMoveCatAndEchoActNativelyOnHostileNames) {
  TempDir dir;
  const std::string hostile = dir.str() + "/x'; rm -rf ~; '";
  ASSERT_EQ(NT_cmd_mkdir(hostile.c_str()), 0);
  EXPECT_TRUE(fs::is_directory(hostile));

  std::ofstream(dir.path() / "prog") << "text";
  ASSERT_EQ(NT_cmd_move((dir.path() / "prog").c_str(), hostile.c_str()), 0);  // into the directory
  EXPECT_EQ(slurp(fs::path(hostile) / "prog"), "text");
  ASSERT_EQ(NT_cmd_move((fs::path(hostile) / "prog").c_str(), (dir.path() / "$(id)").c_str()), 0);
  EXPECT_EQ(slurp(dir.path() / "$(id)"), "text");

  std::string list = (dir.path() / "pgm_list").string();
  ASSERT_EQ(NT_cmd_echo_append(list.c_str(), NT_echo_word("BP/x;`id`") + " " + NT_echo_word("x_a")), 0);
  ASSERT_EQ(NT_cmd_echo_append(list.c_str(), "\tFILE \t\t7  ------->  11"), 0);
  EXPECT_EQ(slurp(list), "'BP/x;`id`' 'x_a'\n\tFILE \t\t7  ------->  11\n");

  ProgramResult r = run_in_child([&] {
    NT_cmd_cat(list.c_str());
    NT_cmd_mkdir(hostile.c_str());
  });
  EXPECT_EQ(r.output, "'BP/x;`id`' 'x_a'\n\tFILE \t\t7  ------->  11\n"
                      "mkdir: cannot create directory '" + hostile + "': File exists\n");
}

}  // namespace
