// A sandbox for runs of the built programs: a home with tapeinfo (unit 0 is
// "t.tap" in the run directory), the program and temporary directories,
// and a run directory that holds the tape.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/files.h"
#include "support/run_program.h"
#include "support/temp_dir.h"

class Sandbox {
 public:
  Sandbox() {
    for (const char* d : {"home/include", "home/sys", "bin", "tmp", "run"})
      std::filesystem::create_directories(dir_.path() / d);
    spill(dir_.path() / "home/sys/tapeinfo", "0 t.tap rt.tap 8192\n");
  }
  // A sandbox with the tape that `save` describes in mkreel's text form.
  explicit Sandbox(const std::string& save) : Sandbox() {
    ProgramResult made = run_program({.program = "mkreel", .input = save, .directory = run()});
    EXPECT_EQ(made.status, 0) << made.output;
  }
  std::string run() const { return (dir_.path() / "run").string(); }
  std::string tape() const { return run() + "/t.tap"; }
  ProgramResult reel(std::vector<std::string> args) const {
    const std::string root = dir_.str();
    return run_program({.program = "REEL_INTAKE",
                        .args = std::move(args),
                        .directory = run(),
                        .env = {{"MRVHOME", root + "/home"},
                                {"MRVBIN", root + "/bin"},
                                {"TMP", root + "/tmp"},
                                {"MRV_REGISTRY", root + "/no-registry"}}});
  }

 private:
  TempDir dir_;
};
