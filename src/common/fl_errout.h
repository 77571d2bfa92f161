// Error output of the file library.
//
// It sits among the common services, below the platform layer, because the
// platform layer and the allocator report through it as the library does.
//
// M_errout prints a library error unless V__Errout is 0; M_errout_log sends
// the same decision's text to the level logger; M_msgno_out prints a
// numbered message of the message file in its number-only form.
#pragma once

#include <cstdint>

extern "C" {
// Exported for modules loaded into the process: 0 silences M_errout and
// M_msgno_out entirely.
extern int32_t V__Errout;
}

int M_errout(int32_t code, const char* format, ...) __attribute__((format(printf, 2, 3)));
int M_errout_log(int32_t code, const char* format, ...) __attribute__((format(printf, 2, 3)));
// The arguments would fill the message's text; without message files only
// the number is shown: "Error msgno = %d. ".
int M_msgno_out(int32_t message_number, const char* format_args, ...);
