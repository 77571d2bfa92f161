// Library-wide values set at start-up.
#pragma once

#include <cstdint>

// While on, a failed file open says "Open %s error.\n" on the console. The
// tool turns it on at start-up and off once its account is open.
extern int32_t M_startup_messages;
// The run's time stamp, written into the headers of the files it makes.
extern int32_t M_file_time_stamp;
// Status of the last failed operation of the platform's device layers
// (2 end of data, 3 name unusable, 6 other fault). Exported for modules
// loaded into the process.
extern "C" int32_t M_Status;
