// Runs code or a built program in a child process and collects what it
// printed and its exit status.
#pragma once

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

struct ProgramResult {
  int status = -1;  // exit status, or 128 + the signal when a signal ended the child
  std::string output;
};

// A forked child that runs `body` and talks to the test through pipes, the
// way an operator would: the test may wait for a prompt, act, and answer.
// What the child writes on standard output and standard error arrives
// interleaved as a user would see it.
class Child {
 public:
  // Starts `body` in a child; it ends with status 0 when body returns.
  explicit Child(const std::function<void()>& body) {
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
      alarm(30);  // a hung child must not hang the suite
      body();
      std::fflush(nullptr);
      _exit(0);
    }
    close(in[0]);
    close(out[1]);
    to_child_ = in[1];
    from_child_ = out[0];
  }
  ~Child() {
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

// Runs `body` in a child with `input` on its standard input (small enough
// for the pipe), for code that ends the process, and as the base of
// run_program.
inline ProgramResult run_in_child(const std::function<void()>& body, const std::string& input = "") {
  Child child(body);
  child.send(input);
  int status = child.finish();
  return {status, child.output()};
}

struct ProgramRun {
  std::string program;  // name in REEL_BIN_DIR, or a path
  std::vector<std::string> args;
  std::string input;      // standard input
  std::string directory;  // working directory, empty for the current one
  std::vector<std::pair<std::string, std::string>> env;  // added to the environment
  std::vector<std::string> unset;                        // removed from the environment
};

inline ProgramResult run_program(const ProgramRun& run) {
  std::string path = run.program.find('/') == std::string::npos
                         ? std::string(REEL_BIN_DIR) + "/" + run.program
                         : run.program;
  return run_in_child(
      [&] {
        if (!run.directory.empty() && chdir(run.directory.c_str()) != 0) _exit(127);
        setenv("MRV_MSG_PAUSE_MS", "0", 1);
        for (const auto& name : run.unset) unsetenv(name.c_str());
        for (const auto& [name, value] : run.env) setenv(name.c_str(), value.c_str(), 1);
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(path.c_str()));
        for (const auto& a : run.args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(path.c_str(), argv.data());
        _exit(127);
      },
      run.input);
}
