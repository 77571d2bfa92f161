// The console's status line.
//
// During long work a program may keep one line of status up to date in
// place on standard error, when standard error is a terminal; off a
// terminal nothing is drawn and every call here does nothing visible. The
// line is cleared before any other console line is written: M_msg_out does
// so, and code that writes to the console by other means calls
// M_status_clear first and M_console_note after.
//
// Drawing the line over a console line that is not finished yet (a row of
// progress dots) hides that line; clearing puts it back when standard
// output is the same terminal. Only write(2) is used, so M_status_clear may
// be called from a signal handler.
#pragma once

#include <cstddef>
#include <string>

// Writes all of `text` to `fd` with write(2), again after an interrupted
// call; gives up at an error. Safe in a signal handler.
void M_write_all(int fd, const char* text, size_t length);

// True when standard error is a terminal (decided once a process;
// MRV_STATUS=0 turns the line off, MRV_STATUS=1 forces it on).
bool M_status_enabled();
// Draws `text` as the status line, replacing the one shown.
void M_status_show(const std::string& text);
// Removes the status line, if one is shown, and redraws the unfinished
// console line under it.
void M_status_clear();
// Tells the status line what was written to standard output, so that the
// unfinished part of the console line can be redrawn.
void M_console_note(const char* text, size_t length);
