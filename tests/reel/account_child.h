// Runs a piece of the tool inside a fresh account, in a forked child: the
// child enters a scratch directory, sets up the account ACC (newacct from the
// build's programs) and runs `body` there, with the run settings that
// `setup` gives. What the child prints comes back with its exit status.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "common/mrv_marks.h"
#include "flib/fl_voc.h"
#include "reel/reel_account.h"
#include "reel/reel_current.h"
#include "reel/reel_settings.h"
#include "support/run_program.h"

namespace account_test {

inline ProgramResult in_account(const std::string& dir, const std::function<void(RunSettings&)>& setup,
                                const std::function<void()>& body, const std::string& input = "") {
  return run_in_child(
      [&] {
        if (chdir(dir.c_str()) != 0) _exit(3);
        setenv("MRVBIN", REEL_BIN_DIR, 1);
        reel_reset_settings();
        RunSettings& s = reel_settings;
        s.account_name = "ACC";
        setup(s);
        s.max_name_len = s.short_names ? 12 : 198;
        reel_open_account();
        reel_open_dispmsg();
        body();
      },
      input);
}

// A VOC record with its field marks shown as "|".
inline std::string voc_text(const std::string& key) {
  std::string record;
  if (M_voc_read(key, &record) != 1) return "<none>";
  for (char& c : record)
    if (static_cast<unsigned char>(c) == M_FM) c = '|';
  return record;
}

}  // namespace account_test
