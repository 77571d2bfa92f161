// The console: the pause after a message belongs to a person reading a
// terminal, and the status line gives way to every other console line.
#include "common/mrv_status.h"

#include <gtest/gtest.h>

#include "common/mrv_msg.h"
#include "support/run_program.h"

namespace {

TEST(ConsolePause, OnlyATerminalPausesUnlessTheSettingSays) {
  struct Case {
    const char* setting;
    bool terminal;
    int32_t pause;
  } cases[] = {
      {nullptr, true, 1000}, {nullptr, false, 0}, {"", false, 0},   {"250", false, 250},
      {"250", true, 250},    {"0", true, 0},      {"-5", true, 0},
  };
  for (const Case& c : cases)
    EXPECT_EQ(M_msg_pause_for(c.setting, c.terminal), c.pause) << (c.setting ? c.setting : "unset") << c.terminal;
}

// In a child whose standard error is forced to carry the line: drawing,
// then a message, then the line again, then a dot row under it.
TEST(StatusLine, ClearedBeforeEveryConsoleLine) {
  ProgramResult r = run_in_child([] {
    setenv("MRV_STATUS", "1", 1);
    M_status_show("status one");
    M_msg_out("message\n", 8);
    M_status_show("status two");
    M_status_clear();
    M_status_clear();  // nothing shown: nothing written
  });
  EXPECT_EQ(r.output, "\r\x1b[Kstatus one\r\x1b[Kmessage\n\r\x1b[Kstatus two\r\x1b[K");

  // Off a terminal (a pipe here) nothing is drawn at all.
  r = run_in_child([] {
    unsetenv("MRV_STATUS");
    M_status_show("status");
    M_msg_out("message\n", 8);
  });
  EXPECT_EQ(r.output, "message\n");
}

}  // namespace
