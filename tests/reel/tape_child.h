// Tapes and unit directories for tests of the tape layers, and the child
// (support/run_program.h) that reads them as the tool does: the test can
// wait for a prompt, change the mounted tape, and answer.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/mrv_msg.h"
#include "reel/reel_current.h"
#include "reel/reel_device.h"
#include "reel/reel_settings.h"
#include "reel/reel_tape_script.h"
#include "support/files.h"
#include "support/run_program.h"

namespace tape_test {

namespace fs = std::filesystem;

// A fresh scratch directory under the build's test folder.
inline std::string scratch(const std::string& name) {
  fs::path dir = fs::path(REEL_TEST_TMP) / name;
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir.string();
}

using ::count_of;

// A unit directory: tapeinfo names "t.tap" (or the device of `line`)
// relative to it.
inline std::string unit_dir(const std::string& name,
                            const std::string& line = "0 t.tap rt.tap 8192") {
  std::string dir = scratch(name);
  fs::create_directories(dir + "/sys");
  spill(dir + "/sys/tapeinfo", line + "\n");
  return dir;
}

// Writes the tapes of a script in the tape writer's text form.
inline void make_tape(const std::string& script) {
  std::istringstream in(script);
  std::string error;
  ASSERT_EQ(reel_run_tape_script(in, &error), 0) << error;
}

struct ReadRun {
  char unit = '0';
  char convert = '0';
  bool buffered = false;
  bool cartridge = false;
};

// In the child: enters `dir`, sets the run up (dispmsg made afresh) and
// opens the unit; returns the tape buffer.
inline std::vector<unsigned char> open_unit_in(const std::string& dir, const ReadRun& run) {
  if (chdir(dir.c_str()) != 0) _exit(3);
  setenv("MRVHOME", dir.c_str(), 1);
  reel_reset_settings();
  reel_settings.convert_mode = run.convert;
  reel_settings.transport_b = run.buffered;
  reel_settings.transport_c = run.cartridge;
  dispmsg = std::fopen("dispmsg", "w");
  return std::vector<unsigned char>(static_cast<size_t>(reel_open_unit(run.unit)));
}

using TapeChild = ::Child;

}  // namespace tape_test
