#include "shmem/shmaddr.h"

#include "common/mrv_alloc.h"
#include "common/mrv_marks.h"

int32_t M_no_shared_memory = 1;
ConfigRecord* M_shared_config = nullptr;
ProcessStatistics* M_statistics = nullptr;

namespace {
bool g_logged_in = false;
}

int M_init_process(int32_t, int32_t) {
  if (g_logged_in) return 0;
  g_logged_in = true;
  if (M_no_shared_memory) {
    // Both records live as long as the process; M_emalloc zero-fills.
    M_shared_config = static_cast<ConfigRecord*>(M_emalloc(sizeof(ConfigRecord)));
    M_statistics = static_cast<ProcessStatistics*>(M_emalloc(sizeof(ProcessStatistics)));
    read_config_marks();
  }
  return 0;
}

void M_exit_process() { g_logged_in = false; }
