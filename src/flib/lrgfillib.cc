#include "flib/lrgfillib.h"

int32_t M_large_file_limit = 1000;

void M_set_large_file_limit(int32_t limit) { M_large_file_limit = limit; }
