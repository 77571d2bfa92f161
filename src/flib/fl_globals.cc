#include "flib/fl_globals.h"

int32_t M_startup_messages = 0;
int32_t M_file_time_stamp = 0;
int32_t M_no_wait = 0;
int32_t M_full_wait_abandoned = 0;
int32_t M_spread = 0;
