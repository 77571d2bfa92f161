// The file library's error report.
//
// The innermost routine that fails sets the cause text and reports first;
// each caller with something to add reports again under its own name with
// the same cause. The sequence number counts the lines of one such chain.
#pragma once

#include <cstddef>
#include <cstdint>

struct REL_TYPE;

inline constexpr size_t FL_CAUSE_SIZE = 256;
extern char M_err_cause[FL_CAUSE_SIZE];

// Prints "%d:%s error in %s for file '%s', key '%s', number=%d\n" with the
// sequence number, the cause, the function, the file, the key and `number`.
// A non-null `cause` becomes the cause cell's text and starts a new chain; a
// null one repeats the cell's text. `key` may be null. Returns -1.
int M_file_error(const REL_TYPE* rel, const char* function, const char* cause, const uint8_t* key,
                 int32_t key_length, int32_t number);
