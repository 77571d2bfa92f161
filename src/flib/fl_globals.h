// Library-wide values set at start-up.
#pragma once

#include <cstdint>

#include "NT/NT_tape.h"
#include "common/mrv_marks.h"

// While on, a failed file open says "Open %s error.\n" on the console. The
// tool turns it on at start-up and off once its account is open.
extern int32_t M_startup_messages;
// The run's time stamp, written into the headers of the files it makes.
extern int32_t M_file_time_stamp;
// M_Status, the status of the last failed operation, which the index also
// sets, belongs to the platform layer (NT/NT_tape.h).

// The no-wait switch: when on, a full disk fails the write at once instead
// of waiting for the operator.
extern int32_t M_no_wait;
// Set when the full-disk wait met the end of input: nobody can free space,
// so the no-wait switch is on from then on and the run is to end in order.
extern int32_t M_full_wait_abandoned;
// The running language group (M_langgrp, common/mrv_marks.h) is what files
// record in header bytes 52..54.
// How new dynamic files lay out their overflow parts: 0 one part, 1 one per
// primary part, n > 1 n-1 parts spread over the groups.
extern int32_t M_spread;
