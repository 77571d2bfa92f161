// Deferral of signals around critical code.
//
// While the critical count is above zero, handlers that honour it only note
// their signal as pending (signals 1..32 in the first word, higher ones in
// the second) and re-install themselves; leaving the outermost section
// delivers what is pending.
#pragma once

#include <csignal>
#include <cstdint>

extern volatile sig_atomic_t M_critical_count;
extern volatile uint32_t M_pending_signals[2];

void M_enter_critical();
void M_leave_critical();
// Notes a signal as pending; for handlers that find the count above zero.
void M_note_pending_signal(int number);
