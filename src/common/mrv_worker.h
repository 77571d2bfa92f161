// A thread that does one job at a time for the thread that hands it over.
//
// The restore keeps its work where it was and hands over only what can run
// beside it without changing any result: writes of flushed blocks, reads of
// the tape image ahead of the decoder. The caller starts a job and later
// settles it (waits until it is done) before it touches what the job uses.
//
// The thread takes no signal (they are the run's to handle). A process
// forked from the owner has no such thread and no job out: its first use
// starts afresh. The worker lives as long as the process; a job that is out
// when the process exits is waited for.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

class MrvWorker {
 public:
  MrvWorker() = default;
  MrvWorker(const MrvWorker&) = delete;
  MrvWorker& operator=(const MrvWorker&) = delete;

  // Runs `job` on the thread, after settling the job before.
  void start(std::function<void()> job);
  // Waits until the job started last is done.
  void settle();

 private:
  void own_process();
  void launch();
  void run();

  std::thread* thread_ = nullptr;
  pid_t owner_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::function<void()> job_;
  bool busy_ = false;
};

// A worker that is never destroyed: a forked child would otherwise wait
// forever in the destructor of a condition variable that the parent's
// thread waits on. One per use (`Tag` tells them apart).
template <typename Tag>
MrvWorker& mrv_worker() {
  static MrvWorker* worker = new MrvWorker;
  return *worker;
}
