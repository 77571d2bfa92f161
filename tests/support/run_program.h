// Runs code or a built program in a child process and collects what it
// printed on standard output and standard error (interleaved as a user would
// see them) and its exit status.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

struct ProgramResult {
  int status = -1;  // exit status, or -1 when the child did not exit normally
  std::string output;
};

// Runs `body` in a forked child with `input` on its standard input. For code
// that ends the process, and as the base of run_program.
template <typename Body>
ProgramResult run_in_child(Body body, const std::string& input = "") {
  int out[2];
  int in[2];
  if (pipe(out) != 0 || pipe(in) != 0) return {};
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(out[1], 2);
    close(in[0]);
    close(in[1]);
    close(out[0]);
    close(out[1]);
    body();
    std::fflush(nullptr);
    _exit(0);
  }
  close(in[0]);
  close(out[1]);
  // Inputs of tests are small enough for the pipe.
  if (!input.empty()) {
    ssize_t ignored = write(in[1], input.data(), input.size());
    (void)ignored;
  }
  close(in[1]);
  ProgramResult result;
  char buf[4096];
  ssize_t n;
  while ((n = read(out[0], buf, sizeof buf)) > 0) result.output.append(buf, static_cast<size_t>(n));
  close(out[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
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
