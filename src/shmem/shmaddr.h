// Process login.
//
// This build has no shared memory manager: every process runs in the
// no-shared-memory mode, with a zeroed configuration record of its own, and
// the memory, lock and process tables of the library are local to the
// process.
#pragma once

#include <cstdint>

extern int32_t M_no_shared_memory;

// Logs the process in; -1 is the ordinary login. Returns 0.
int M_init_process(int32_t process_slot, int32_t fatal);
// Leaves at the end of a run: releases what the login took.
void M_exit_process();
