// Signals and the console.
//
// A table of handlers for signals 1 to 32 stands between the process and the
// system: NT_signal sets an entry and installs one dispatcher for the
// signal, which calls the entry. An entry is a handler, NT_SIG_DEFAULT or
// NT_SIG_IGNORE. Signal 9 can't be caught.
//
// Deferral of signals around critical code: while the critical count is
// above zero, handlers that honour it only note their signal as pending
// (signals 1..32 in the first word, higher ones in the second) and return;
// leaving the outermost section delivers what is pending.
#pragma once

#include <csignal>
#include <cstdint>
#include <string>

using NT_handler = void (*)(int);
inline const NT_handler NT_SIG_DEFAULT = reinterpret_cast<NT_handler>(0);
inline const NT_handler NT_SIG_IGNORE = reinterpret_cast<NT_handler>(1);
inline const NT_handler NT_SIG_ERROR = reinterpret_cast<NT_handler>(-1);
inline constexpr int NT_SIGNAL_COUNT = 32;

extern volatile sig_atomic_t M_critical_count;
extern volatile uint32_t M_pending_signals[2];
// On while NT_deliver_pending runs a handler.
extern volatile sig_atomic_t NT_delivering;

void M_enter_critical();
void M_leave_critical();
// Notes a signal as pending; for handlers that find the count above zero.
void M_note_pending_signal(int number);

// Sets signal `number`'s handler and returns the old entry. Signal 9 gives
// NT_SIG_ERROR; a number outside 1..32 gives NT_SIG_DEFAULT and changes
// nothing. The first call clears the table.
NT_handler NT_signal(int number, NT_handler handler);
// Runs the signal's entry at once in this thread: a handler is called, an
// ignored signal does nothing, a default one goes to the system.
int NT_raise(int number);
// Sends a signal: a negative pid is taken as positive, a signal to this
// process is a raise, number 0 tests that the process exists. -1 when there
// is no such process.
int NT_kill(int pid, int number);
// Raises every pending signal of the first word, lowest first, clearing
// each bit before its handler runs.
void NT_deliver_pending();
// Waits for a signal.
void NT_pause();
// Sleeps up to `seconds`; a signal ends the sleep early. Returns the seconds
// left.
unsigned NT_sleep(unsigned seconds);

// The console as the prompts see it.
struct NT_console {
  int input_fd = -1;
  int output_fd = -1;
  bool on_local_console = false;
  bool input_is_device = false;  // a terminal, not a file or a pipe
  std::string terminal;          // "Console", or TERM ("vt100") in a telnet session
};
// Idempotent. Mode 2 leaves the terminal's modes alone; the others keep the
// line discipline that the prompts' "<letter><return>" answers rely on.
const NT_console& NT_console_init(int mode);
