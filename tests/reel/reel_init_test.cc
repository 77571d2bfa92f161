// The run driver's interrupt key, answers and ways out.
#include "reel/reel_init.h"

#include <gtest/gtest.h>

#include "NT/NT_signal.h"
#include "reel/reel_settings.h"
#include "support/run_program.h"

namespace {

const std::string kPrompt = "\nBREAK: Enter Q<return> to Quit. Any other character to continue";

TEST(BreakHandler, QuitSetsTheStopAndIgnoresFurtherBreaks) {
  ProgramResult r = run_in_child(
      [] {
        reel_install_break_handler();
        std::raise(SIGINT);
        struct sigaction now {};
        sigaction(SIGINT, nullptr, &now);
        std::printf("|stop=%d ignored=%d", static_cast<int>(stop_requested),
                    now.sa_handler == SIG_IGN ? 1 : 0);
      },
      "q\n");
  EXPECT_EQ(r.output, kPrompt + "|stop=1 ignored=1");
}

TEST(BreakHandler, AnyOtherAnswerGoesOnAndTheHandlerStays) {
  ProgramResult r = run_in_child(
      [] {
        reel_install_break_handler();
        std::raise(SIGINT);
        std::raise(SIGINT);
        std::printf("|stop=%d", static_cast<int>(stop_requested));
      },
      "x\nQ\n");
  EXPECT_EQ(r.output, kPrompt + kPrompt + "|stop=1");
  r = run_in_child(
      [] {
        reel_install_break_handler();
        std::raise(SIGINT);
        std::printf("|stop=%d", static_cast<int>(stop_requested));
      },
      "c");
  EXPECT_EQ(r.output, kPrompt + "|stop=0");
}

TEST(BreakHandler, InsideAProtectedSectionTheBreakWaitsForItsEnd) {
  ProgramResult r = run_in_child(
      [] {
        setvbuf(stdout, nullptr, _IONBF, 0);  // as the tool's start-up leaves it
        reel_install_break_handler();
        M_enter_critical();
        std::raise(SIGINT);
        std::printf("pending=%x|", M_pending_signals[0]);
        M_leave_critical();
        std::printf("|stop=%d pending=%x", static_cast<int>(stop_requested), M_pending_signals[0]);
      },
      "q");
  EXPECT_EQ(r.output, "pending=2|" + kPrompt + "|stop=1 pending=0");
}

TEST(GetAnswer, ScriptedAnswersComeInOrderPastLineEnds) {
  ProgramResult r = run_in_child(
      [] {
        int a = reel_get_answer('S');
        int b = reel_get_answer('S');
        std::printf("%c%c", a, b);
      },
      "C\n\nE\n");
  EXPECT_EQ(r.output, "CE");
}

TEST(GetAnswer, EndOfInputSaysSoAndTakesTheAnswerThatLosesNothing) {
  ProgramResult r = run_in_child(
      [] {
        int a = reel_get_answer('Q');
        int b = reel_get_answer(REEL_NO_ANSWER);
        std::printf("%c|%d", a, b);
      },
      "");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.output, "End of input while waiting for an answer.\nEnd of input while waiting for an answer.\nQ|-1");
}

}  // namespace
