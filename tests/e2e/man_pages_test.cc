// The manual: every program that is installed has its page, and every page
// renders without a warning, so that `man` shows what was written.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "support/run_program.h"

namespace {

namespace fs = std::filesystem;

const fs::path kManual = fs::path(REEL_SOURCE_DIR) / "man";

// Runs a line through the shell with the output of both streams.
ProgramResult shell(const std::string& line) {
  return run_program({.program = "/bin/sh", .args = {"-c", line}, .env = {{"LC_ALL", "C"}, {"MANWIDTH", "80"}}});
}

TEST(ManPages, EveryInstalledProgramAndFormatHasOne) {
  std::set<std::string> pages;
  for (const auto& e : fs::recursive_directory_iterator(kManual)) pages.insert(e.path().filename().string());
  for (const auto& e : fs::directory_iterator(REEL_BIN_DIR)) {
    const std::string name = e.path().filename().string();
    if (name.ends_with("_tests") || name.find("bench") != std::string::npos || name.starts_with("fuzz_")) continue;
    EXPECT_TRUE(pages.contains(name + ".1")) << name << " has no page in man/man1";
  }
  for (const char* format : {"tapeinfo.5", "mrvconfig.5", "reelplan.5"}) EXPECT_TRUE(pages.contains(format)) << format;
}

TEST(ManPages, RenderWithoutWarnings) {
  int pages = 0;
  for (const auto& e : fs::recursive_directory_iterator(kManual)) {
    if (!e.is_regular_file()) continue;
    ++pages;
    const std::string page = e.path().string();
    ProgramResult groff = shell("groff -man -ww -z '" + page + "' 2>&1");
    EXPECT_EQ(groff.status, 0) << page;
    EXPECT_EQ(groff.output, "") << page;
    ProgramResult man = shell("man -l '" + page + "' 2>&1 >/dev/null");
    EXPECT_EQ(man.status, 0) << page;
    EXPECT_EQ(man.output, "") << page;
  }
  EXPECT_GE(pages, 7);
}

}  // namespace
