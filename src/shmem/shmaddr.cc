#include "shmem/shmaddr.h"

int32_t M_no_shared_memory = 1;

namespace {
bool g_logged_in = false;
}

int M_init_process(int32_t, int32_t) {
  // Without a server the login takes no slot in any shared table; the marks
  // stay those of the process.
  g_logged_in = true;
  return 0;
}

void M_exit_process() { g_logged_in = false; }
