// Runs a piece of the tool in a forked child that talks to the test as an
// operator would: the child's standard input and output are pipes, so the
// test can wait for a prompt, change the mounted tape, and answer.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/mrv_msg.h"
#include "reel/reel_current.h"
#include "reel/reel_device.h"
#include "reel/reel_settings.h"
#include "reel/reel_tape_script.h"
#include "support/files.h"

namespace tape_test {

namespace fs = std::filesystem;

// A fresh scratch directory under the build's test folder.
inline std::string scratch(const std::string& name) {
  fs::path dir = fs::path(REEL_TEST_TMP) / name;
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir.string();
}

inline size_t count_of(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

// A unit directory: tapeinfo names "t.tap" (or the device of `line`)
// relative to it.
inline std::string unit_dir(const std::string& name,
                            const std::string& line = "0 t.tap rt.tap 8192") {
  std::string dir = scratch(name);
  fs::create_directories(dir + "/sys");
  spill(dir + "/sys/tapeinfo", line + "\n");
  return dir;
}

// Writes the tapes of a script in the tape writer's text form.
inline void make_tape(const std::string& script) {
  std::istringstream in(script);
  std::string error;
  ASSERT_EQ(reel_run_tape_script(in, &error), 0) << error;
}

struct ReadRun {
  char unit = '0';
  char convert = '0';
  bool buffered = false;
  bool cartridge = false;
};

// In the child: enters `dir`, sets the run up (dispmsg made afresh) and
// opens the unit; returns the tape buffer.
inline std::vector<unsigned char> open_unit_in(const std::string& dir, const ReadRun& run) {
  if (chdir(dir.c_str()) != 0) _exit(3);
  setenv("MRVHOME", dir.c_str(), 1);
  reel_reset_settings();
  reel_settings.convert_mode = run.convert;
  reel_settings.transport_b = run.buffered;
  reel_settings.transport_c = run.cartridge;
  dispmsg = std::fopen("dispmsg", "w");
  return std::vector<unsigned char>(static_cast<size_t>(reel_open_unit(run.unit)));
}

class TapeChild {
 public:
  // Starts `body` in a child; it ends with status 0 when body returns.
  explicit TapeChild(const std::function<void()>& body) {
    std::signal(SIGPIPE, SIG_IGN);
    std::fflush(nullptr);
    int in[2];
    int out[2];
    if (pipe(in) != 0 || pipe(out) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], STDIN_FILENO);
      dup2(out[1], STDOUT_FILENO);
      dup2(out[1], STDERR_FILENO);
      close(in[1]);
      close(out[0]);
      alarm(30);  // a hung read must not hang the suite
      body();
      std::fflush(nullptr);
      _exit(0);
    }
    close(in[0]);
    close(out[1]);
    to_child_ = in[1];
    from_child_ = out[0];
  }
  ~TapeChild() {
    if (pid_ > 0 && status_ < 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (to_child_ >= 0) close(to_child_);
    if (from_child_ >= 0) close(from_child_);
  }

  // Reads until `text` appears beyond what earlier waits consumed; false
  // when the child ends or 10 s pass first.
  bool wait_for(const std::string& text) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
      if (size_t at = output_.find(text, consumed_); at != std::string::npos) {
        consumed_ = at + text.size();
        return true;
      }
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0 || !read_some(static_cast<int>(left.count()))) return false;
    }
  }
  void send(const std::string& text) {
    if (write(to_child_, text.data(), text.size()) < 0) return;
  }
  // Closes the child's input, collects all output and the exit status.
  int finish() {
    close(to_child_);
    to_child_ = -1;
    while (read_some(10000)) {
    }
    int status = 0;
    waitpid(pid_, &status, 0);
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return status_;
  }
  const std::string& output() const { return output_; }

 private:
  bool read_some(int timeout_ms) {
    pollfd p{from_child_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) return false;
    char chunk[4096];
    ssize_t n = read(from_child_, chunk, sizeof chunk);
    if (n <= 0) return false;
    output_.append(chunk, static_cast<size_t>(n));
    return true;
  }

  pid_t pid_ = -1;
  int to_child_ = -1;
  int from_child_ = -1;
  int status_ = -1;
  std::string output_;
  size_t consumed_ = 0;
};

}  // namespace tape_test
