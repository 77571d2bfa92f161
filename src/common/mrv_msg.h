// Console messages of the system.
//
// M_errmsg is the general console output: it records the error code, prints
// the text and then pauses, so that a person at the console can read it: one
// second when standard output is a terminal, none when it goes to a file or
// a pipe. MRV_MSG_PAUSE_MS sets the pause in milliseconds in both cases.
//
// When msg_output_fd is 0 or above, messages are not printed but collected in
// a 4096-byte buffer to be flushed to that descriptor by its owner.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

inline constexpr size_t MRV_MSG_BUFFER_SIZE = 4096;

extern int32_t msg_output_fd;
extern char msg_buffer[MRV_MSG_BUFFER_SIZE];
extern size_t msg_buffer_fill;
// Text of the number of the last message; "-10000000" for an unnumbered one.
extern char last_message_number[10];

int M_errmsg(int32_t code, const char* format, ...) __attribute__((format(printf, 2, 3)));
int M_errno_msg(const char* text);

// Writes a text to the console (standard output), or into the message buffer
// when messages are buffered. No pause, no error recording.
int M_msg_out(const char* text, size_t length);
int M_msg_buffer_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

void M_set_last_message_number(int32_t number);

// printf-style formatting into a string of whatever length it needs.
std::string M_vformat(const char* format, va_list args);

// The console pause in milliseconds: MRV_MSG_PAUSE_MS when it is set
// (0: none), else 1000 on a terminal and 0 off one. Decided once a process.
int32_t M_msg_pause_ms();
// The rule behind it, for a setting (null when unset) and a console.
int32_t M_msg_pause_for(const char* setting, bool console_is_terminal);
void M_sleep_ms(int32_t milliseconds);
