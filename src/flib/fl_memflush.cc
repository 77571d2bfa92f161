#include "flib/fl_memflush.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

#include "NT/NT_fault.h"

namespace {

class FlushThread;
FlushThread& flush_thread();

class FlushThread {
 public:
  // A run that ends while a batch is out waits for it: what the loader
  // handed over reaches the disk, as it would have written it itself.
  // (The object lives as long as the process; its thread ends with it.)
  void settle_if_owner() {
    if (thread_ != nullptr && owner_ == getpid()) settle();
  }

  void start(std::vector<FlushRun> runs) {
    settle();
    if (thread_ == nullptr) launch();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      runs_ = std::move(runs);
      failed_ = -1;
      error_ = 0;
      busy_ = true;
    }
    changed_.notify_all();
  }

  void settle() {
    own_process();
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return !busy_; });
  }

  int32_t collect(int* error) {
    settle();
    std::lock_guard<std::mutex> lock(mutex_);
    const int32_t failed = failed_;
    *error = error_;
    failed_ = -1;
    return failed;
  }

 private:
  // A process forked from the one that started the thread (a test's
  // child, say) has no flush thread and no batch out: it starts afresh,
  // with a thread of its own at its first flush.
  void own_process() {
    const pid_t self = getpid();
    if (owner_ == self) return;
    new (&mutex_) std::mutex();
    new (&changed_) std::condition_variable();
    thread_ = nullptr;  // the parent's, which does not run here
    runs_.clear();
    busy_ = false;
    failed_ = -1;
    owner_ = self;
  }

  void launch() {
    static const bool exit_hook = [] { return std::atexit([] { flush_thread().settle_if_owner(); }) == 0; }();
    (void)exit_hook;
    // The thread takes no signal: they are the loader's to handle.
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    thread_ = new std::thread([this] { run(); });
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
  }


  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return busy_; });
      // The runs stay untouched by the loader until the batch settles.
      const std::vector<FlushRun>& runs = runs_;
      lock.unlock();
      int32_t failed = -1;
      int error = 0;
      for (size_t i = 0; i < runs.size(); ++i) {
        const FlushRun& r = runs[i];
        if (M_mem_write_run(r) != static_cast<ssize_t>(r.length)) {
          failed = static_cast<int32_t>(i);
          error = errno;
          break;
        }
      }
      lock.lock();
      failed_ = failed;
      error_ = error;
      busy_ = false;
      changed_.notify_all();
    }
  }

  std::thread* thread_ = nullptr;
  pid_t owner_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<FlushRun> runs_;
  bool busy_ = false;
  int32_t failed_ = -1;
  int error_ = 0;
};

FlushThread& flush_thread() {
  // Never destroyed: a forked child would wait forever in the destructor
  // of a condition variable that the parent's thread waits on.
  static FlushThread* thread = new FlushThread;
  return *thread;
}

}  // namespace

ssize_t M_mem_write_run(const FlushRun& run) { return NT_pwrite_whole(run.fd, run.bytes, run.length, run.offset); }

void M_flush_start(std::vector<FlushRun> runs) { flush_thread().start(std::move(runs)); }

void M_flush_settle() { flush_thread().settle(); }

int32_t M_flush_collect(int* error) { return flush_thread().collect(error); }
