// A sandbox for runs of the built programs: a home laid out by mrvhome,
// with tapeinfo (unit 0 is
// "t.tap" in the run directory), the program directory with newacct, the
// temporary directory, and a run directory that holds the tape. A restore
// works inside the account, one below the run directory.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/run_program.h"
#include "support/temp_dir.h"

class Sandbox {
 public:
  Sandbox() {
    for (const char* d : {"bin", "tmp", "run"}) std::filesystem::create_directories(dir_.path() / d);
    ProgramResult home = run_program({.program = "mrvhome", .args = {"init", home_dir()}});
    EXPECT_EQ(home.status, 0) << home.output;
    std::filesystem::create_symlink(std::filesystem::path(REEL_BIN_DIR) / "newacct",
                                    dir_.path() / "bin/newacct");
  }
  // A sandbox with the tape that `save` describes in mkreel's text form.
  explicit Sandbox(const std::string& save) : Sandbox() {
    ProgramResult made = run_program({.program = "mkreel", .input = save, .directory = run()});
    EXPECT_EQ(made.status, 0) << made.output;
  }
  std::string root() const { return dir_.str(); }
  std::string run() const { return (dir_.path() / "run").string(); }
  std::string home_dir() const { return (dir_.path() / "home").string(); }
  std::string config_path() const { return home_dir() + "/include/mrvconfig"; }
  std::string tape() const { return run() + "/t.tap"; }
  std::string account(const std::string& name) const { return run() + "/" + name; }
  // A run of REEL_INTAKE in the run directory; `input` is what the operator
  // types.
  ProgramResult reel(std::vector<std::string> args, const std::string& input = "") const {
    return reel(std::move(args), {}, input);
  }
  // The same with `extra` added to the environment of the run.
  ProgramResult reel(std::vector<std::string> args, std::vector<std::pair<std::string, std::string>> extra,
                     const std::string& input = "") const {
    set_unit(args);
    std::vector<std::pair<std::string, std::string>> all = env();
    all.insert(all.end(), extra.begin(), extra.end());
    return run_program(
        {.program = "REEL_INTAKE", .args = std::move(args), .input = input, .directory = run(), .env = all});
  }
  // The same run in a child that the test talks to as an operator.
  Child start(std::vector<std::string> args, std::vector<std::pair<std::string, std::string>> extra = {}) const {
    set_unit(args);
    std::vector<std::pair<std::string, std::string>> all = env();
    all.insert(all.end(), extra.begin(), extra.end());
    all.emplace_back("MRV_MSG_PAUSE_MS", "0");
    const std::string program = std::string(REEL_BIN_DIR) + "/REEL_INTAKE", directory = run();
    return Child([=] {
      if (chdir(directory.c_str()) != 0) _exit(127);
      for (const auto& [name, value] : all) setenv(name.c_str(), value.c_str(), 1);
      std::vector<char*> argv{const_cast<char*>(program.c_str())};
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(program.c_str(), argv.data());
      _exit(127);
    });
  }
  // Unit 0 in tapeinfo: the tape seen from the run directory for an
  // analysis (-A), from the account one below it otherwise.
  void set_unit(const std::vector<std::string>& args) const {
    const bool analyse = std::find(args.begin(), args.end(), "-A") != args.end();
    spill(dir_.path() / "home/sys/tapeinfo",
          analyse ? "0 t.tap rt.tap 8192\n" : "0 ../t.tap r../t.tap 8192\n");
  }
  // The environment of a run in this home.
  std::vector<std::pair<std::string, std::string>> env() const {
    const std::string root = dir_.str();
    return {{"MRVHOME", root + "/home"},
            {"MRVBIN", root + "/bin"},
            {"TMP", root + "/tmp"},
            {"MRV_REGISTRY", registry()}};
  }
  std::string registry() const { return dir_.str() + "/no-registry"; }
  // A program of the build run in this home, from the run directory.
  ProgramResult program(const std::string& name, std::vector<std::string> args) const {
    return run_program({.program = name, .args = std::move(args), .directory = run(), .env = env()});
  }

 private:
  TempDir dir_;
};

// The records of a hashed file as `mrvfile list --records` shows them, one
// line each, sorted.
inline std::vector<std::string> listed_records(const std::string& path) {
  ProgramResult r = run_program({.program = "mrvfile", .args = {"list", "--records", path}});
  EXPECT_EQ(r.status, 0) << r.output;
  std::vector<std::string> lines;
  size_t at = 0;
  for (size_t nl; (nl = r.output.find('\n', at)) != std::string::npos; at = nl + 1)
    lines.push_back(r.output.substr(at, nl - at));
  std::sort(lines.begin(), lines.end());
  return lines;
}

// What `mrvfile check` says of a file: "" when it is sound.
inline std::string check_of(const std::string& path) {
  ProgramResult r = run_program({.program = "mrvfile", .args = {"check", path}});
  return r.status == 0 ? "" : r.output;
}

inline std::string info_of(const std::string& path) {
  return run_program({.program = "mrvfile", .args = {"info", path}}).output;
}

// A key and its record in that text form: backslash, TAB and newline
// escaped, any other byte that can't stand as it is in \xHH.
inline std::string listed_record(const std::string& key, const std::string& data) {
  auto escape = [](const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
      char hex[8];
      if (c == '\\')
        out += "\\\\";
      else if (c == '\t')
        out += "\\t";
      else if (c == '\n')
        out += "\\n";
      else if (c < 0x20 || c >= 0x7F)
        out += (std::snprintf(hex, sizeof hex, "\\x%02X", c), hex);
      else
        out += static_cast<char>(c);
    }
    return out;
  };
  return escape(key) + "\t" + escape(data);
}
