#include "flib/fl_memflush.h"

#include <cerrno>
#include <utility>

#include "NT/NT_fault.h"
#include "common/mrv_worker.h"

namespace {

struct FlushTag;

// The batch out and what became of it. The loader's thread reads the
// outcome only after settling the worker, which orders it after the
// thread's writes.
struct Batch {
  std::vector<FlushRun> runs;
  int32_t failed = -1;
  int error = 0;
};
Batch g_batch;

MrvWorker& flush_thread() { return mrv_worker<FlushTag>(); }

}  // namespace

ssize_t M_mem_write_run(const FlushRun& run) { return NT_pwrite_whole(run.fd, run.bytes, run.length, run.offset); }

void M_flush_start(std::vector<FlushRun> runs) {
  flush_thread().settle();
  g_batch.runs = std::move(runs);
  g_batch.failed = -1;
  g_batch.error = 0;
  flush_thread().start([] {
    for (size_t i = 0; i < g_batch.runs.size(); ++i) {
      const FlushRun& r = g_batch.runs[i];
      if (M_mem_write_run(r) != static_cast<ssize_t>(r.length)) {
        g_batch.failed = static_cast<int32_t>(i);
        g_batch.error = errno;
        return;
      }
    }
  });
}

void M_flush_settle() { flush_thread().settle(); }

int32_t M_flush_collect(int* error) {
  flush_thread().settle();
  const int32_t failed = g_batch.failed;
  *error = g_batch.error;
  g_batch.failed = -1;
  return failed;
}
