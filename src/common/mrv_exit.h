// The single way out of the program, and the run's record of the last error.
//
// Error codes are the product's own numbering. A code below 300 handed to
// M_set_error is not kept as it is: it stands for "the system error", and the
// process's errno is recorded instead as errno + 14000 (30102 when errno is 0).
//
// Severity only rises, and stops rising once it has reached 3:
//   0 none, 1 an error was noted, 3 a signal arrived,
//   5 exit asked for inside a protected region, 6 fatal signal.
#pragma once

#include <csetjmp>
#include <cstdint>

inline constexpr int32_t MRV_ERR_NO_MEMORY = 39203;
inline constexpr int32_t MRV_ERR_EXIT_IN_REGION = 39117;
inline constexpr int32_t MRV_ERR_UNKNOWN = 30102;
// The code of a system error is this plus the process's errno.
inline constexpr int32_t MRV_ERR_SYSTEM_BASE = 14000;

extern int32_t error_code;
extern int32_t severity;

// A process that serves as a callable engine runs its work inside a protected
// region: mrv_exit then jumps back to the region's owner instead of ending the
// process. REEL_INTAKE never turns it on.
extern int32_t in_protected_region;
extern std::jmp_buf* protected_region_target;
// When on, mrv_exit ends the calling thread only.
extern int32_t thread_mode;

[[noreturn]] void mrv_exit(int status, const char* source_file, int line);
#define MRV_EXIT(status) mrv_exit((status), __FILE__, __LINE__)

void M_set_error(int32_t code);
void M_map_error(int32_t message_number);
void M_set_severity(int32_t value);
// Translation of a library message number into an error code; 0 when the
// number is not in the table.
int32_t M_error_for_message(int32_t message_number);

// Appends a stanza to mrv.errlog in the bin directory. Silent when the file
// can't be opened.
void M_errlog_exit(const char* text);

// Position of a running MorBasic program, for the "In %s at line %d " prefix.
// Always empty in this tool; kept so that the library keeps its shape.
extern const char* M_program_name;
extern int32_t M_program_line;
