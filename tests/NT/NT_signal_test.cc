// The signal table: entries, raise, kill, pending delivery, early wake.
#include "NT/NT_signal.h"

#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

volatile sig_atomic_t g_seen = 0;
void count(int number) { g_seen = g_seen * 100 + number; }

TEST(NTSignal, TableEntriesRaiseAndKill) {
  EXPECT_EQ(NT_signal(9, count), NT_SIG_ERROR);
  EXPECT_EQ(NT_signal(0, count), NT_SIG_DEFAULT);
  EXPECT_EQ(NT_signal(33, count), NT_SIG_DEFAULT);
  EXPECT_EQ(NT_signal(SIGUSR1, count), NT_SIG_DEFAULT);
  EXPECT_EQ(NT_signal(SIGUSR1, count), count);
  g_seen = 0;
  EXPECT_EQ(NT_raise(SIGUSR1), 0);
  EXPECT_EQ(g_seen, SIGUSR1);
  g_seen = 0;
  EXPECT_EQ(NT_kill(-getpid(), SIGUSR1), 0);  // a negative pid is this process too
  EXPECT_EQ(g_seen, SIGUSR1);
  EXPECT_EQ(NT_kill(getpid(), 0), 0);
  EXPECT_EQ(NT_kill(0x3FFFFFF0, SIGUSR1), -1);  // no such process
  g_seen = 0;
  NT_signal(SIGUSR1, NT_SIG_IGNORE);
  EXPECT_EQ(NT_raise(SIGUSR1), 0);
  EXPECT_EQ(g_seen, 0);
  NT_signal(SIGUSR1, NT_SIG_DEFAULT);
}

TEST(NTSignal, PendingSignalsAreDeliveredLowestFirst) {
  NT_signal(SIGUSR1, count);
  NT_signal(SIGUSR2, count);
  g_seen = 0;
  M_note_pending_signal(SIGUSR2);
  M_note_pending_signal(SIGUSR1);
  NT_deliver_pending();
  EXPECT_EQ(g_seen, SIGUSR1 * 100 + SIGUSR2);
  EXPECT_EQ(M_pending_signals[0], 0u);
  NT_signal(SIGUSR1, NT_SIG_DEFAULT);
  NT_signal(SIGUSR2, NT_SIG_DEFAULT);
}

TEST(NTSignal, ASignalEndsASleepEarly) {
  NT_signal(SIGALRM, count);
  itimerval soon{};
  soon.it_value.tv_usec = 20000;
  setitimer(ITIMER_REAL, &soon, nullptr);
  EXPECT_GT(NT_sleep(30), 0u);
  NT_signal(SIGALRM, NT_SIG_DEFAULT);
}

}  // namespace
