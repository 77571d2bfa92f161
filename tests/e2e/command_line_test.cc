// The command line of REEL_INTAKE, run as the real program.

#include "reel/reel_init.h"
#include "support/files.h"
#include "support/run_program.h"
#include "support/temp_dir.h"

namespace {

using CommandLine = ScratchTest;

const std::string kUsage = REEL_USAGE;
const std::string kProgram = std::string(REEL_BIN_DIR) + "/REEL_INTAKE";

ProgramResult reel(std::vector<std::string> args) {
  return run_program({.program = "REEL_INTAKE", .args = std::move(args)});
}

TEST_F(CommandLine, FaultsPrintTheirMessageThenTheUsageAndExitOne) {
  struct Case {
    std::vector<std::string> args;
    std::string message;
  } cases[] = {
      {{}, "Missing account name!\n"},
      {{"-D", "-O"}, "Missing account name!\n"},
      {{"-C", "plan"}, "Missing account name!\n"},
      {{"-A", "plan", "a", "b"}, "Too many argument in command line!\n"},
      {{"acct", "extra"}, "Too many argument in command line!\n"},
      {{"-G", "X", "acct"}, "illegal -G option [B|C]\n"},
      {{"-Gx", "acct"}, "illegal -G option [B|C]\n"},
      {{"-L", "x", "acct"}, "illegal level number! [0-9]\n"},
      {{"-M", "7", "acct"}, "illegal mode number! [0-3]\n"},
      {{"-U", "a", "acct"}, "illegal unit number! [0-9]\n"},
      {{"-Uabc", "acct"}, "illegal unit number! [0-9]\n"},
      {{"-K", "12a", "acct"}, "illegal buf_factor number!\n"},
      {{"-K", "1234567890", "acct"}, "illegal buf_factor number!\n"},
  };
  for (const auto& c : cases) {
    ProgramResult r = reel(c.args);
    EXPECT_EQ(r.status, 1) << c.message;
    EXPECT_EQ(r.output, c.message + kUsage);
  }
}

TEST_F(CommandLine, GetoptFaultsNameTheProgramAndTheLetter) {
  ProgramResult r = reel({"-F", "name"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.output, kProgram + ": illegal option -- F\nillegal options in command line!\n" + kUsage);

  r = reel({"acct", "-U"});  // options stop at the first plain word
  EXPECT_EQ(r.output, "Too many argument in command line!\n" + kUsage);

  r = reel({"-U"});
  EXPECT_EQ(r.output,
            kProgram + ": option requires an argument -- U\nillegal options in command line!\n" + kUsage);
}

TEST_F(CommandLine, BannerComesFirstThenTheFailureOfStartUp) {
  ProgramResult r = run_program({.program = "REEL_INTAKE",
                                 .args = {"-A", "plan"},
                                 .env = {{"MRV_REGISTRY", dir + "/no-registry"}},
                                 .unset = {"MRVHOME", "MRVBIN"}});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.output, std::string(REEL_BANNER) + "Cannot read MRVHOME from Registry.\n");

  r = run_program({.program = "REEL_INTAKE",
                   .args = {"-A", "plan"},
                   .env = {{"MRVHOME", dir + "/missing"}, {"MRVBIN", dir}}});
  EXPECT_EQ(r.output, std::string(REEL_BANNER) + "Can't stat " + dir + "/missing.\n");
}

TEST_F(CommandLine, AdministratorStopEndsTheRunBeforeHomeIsLookedAt) {
  std::string registry = dir + "/registry";
  spill(registry, "STOPPED=1\n");
  ProgramResult r = run_program({.program = "REEL_INTAKE",
                                 .args = {"-A", "plan"},
                                 .env = {{"MRV_REGISTRY", registry}},
                                 .unset = {"MRVHOME", "MRVBIN"}});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.output, std::string(REEL_BANNER) +
                          "An Administrator has stopped Morvane from running.\n"
                          "Use startmr to restart Morvane.\n");
}

TEST_F(CommandLine, ListsThatHoldNothingAreRefused) {
  std::string blank = dir + "/blank";
  spill(blank, "\n   \n");
  ProgramResult r = reel({"-B", blank, "acct"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.output, "Illegal blocksize filelist\n" + kUsage);
  r = reel({"-R", dir + "/missing", "acct"});
  EXPECT_EQ(r.output, "Illegal recovery filelist\n" + kUsage);
}

TEST_F(CommandLine, HugeLoadBuffersAreRefusedBeforeTheBanner) {
  ProgramResult r = reel({"-K", "999999999", "acct"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.output, "malloc failed, please check -K option \n");
}

}  // namespace
