// Process login.
//
// This build has no shared memory manager: every process runs in the
// no-shared-memory mode. The login then gives the process a zeroed
// configuration record and statistics record of its own, takes the marks and
// NULL_FLAG straight from mrvconfig, and the memory, lock and process tables
// of the library stay local to the process.
#pragma once

#include <cstdint>

#include "common/init_params.h"

extern int32_t M_no_shared_memory;

// The process's own copy of the shared head, zeroed at login.
struct ProcessStatistics {
  int64_t reads = 0;
  int64_t writes = 0;
};
extern ConfigRecord* M_shared_config;
extern ProcessStatistics* M_statistics;

// Logs the process in; -1 is the ordinary login. Once per process. Returns 0.
int M_init_process(int32_t process_slot, int32_t fatal);
// Leaves at the end of a run: releases what the login took.
void M_exit_process();
