#include "common/mrv_worker.h"

#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

namespace {

// Workers whose thread runs, to be settled at exit. Never destroyed, like
// the workers.
std::vector<MrvWorker*>& launched() {
  static auto* all = new std::vector<MrvWorker*>;
  return *all;
}

void settle_all_at_exit() {
  for (MrvWorker* w : launched()) w->settle();
}

}  // namespace

void MrvWorker::own_process() {
  const pid_t self = getpid();
  if (owner_ == self) return;
  // Forked: the parent's thread does not run here, and the lock and the
  // condition may have been taken or waited on by it.
  new (&mutex_) std::mutex();
  new (&changed_) std::condition_variable();
  thread_ = nullptr;
  job_ = nullptr;
  busy_ = false;
  owner_ = self;
}

void MrvWorker::launch() {
  static const bool exit_hook = std::atexit(settle_all_at_exit) == 0;
  (void)exit_hook;
  launched().push_back(this);
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  thread_ = new std::thread([this] { run(); });
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

void MrvWorker::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return busy_; });
    std::function<void()> job = std::move(job_);
    lock.unlock();
    job();
    lock.lock();
    busy_ = false;
    changed_.notify_all();
  }
}

void MrvWorker::start(std::function<void()> job) {
  settle();
  if (thread_ == nullptr) launch();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    job_ = std::move(job);
    busy_ = true;
  }
  changed_.notify_all();
}

void MrvWorker::settle() {
  own_process();
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return !busy_; });
}
