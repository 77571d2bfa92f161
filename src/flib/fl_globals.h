// Library-wide values set at start-up.
#pragma once

#include <cstdint>

// While on, a failed file open says "Open %s error.\n" on the console. The
// tool turns it on at start-up and off once its account is open.
extern int32_t M_startup_messages;
// The run's time stamp, written into the headers of the files it makes.
extern int32_t M_file_time_stamp;
