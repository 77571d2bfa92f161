#include "NT/NT_command.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "common/fl_errout.h"
#include "common/mrv_msg.h"

namespace fs = std::filesystem;

namespace {

std::string last_path_part(std::string_view path) {
  size_t cut = path.find_last_of("/\\");
  return std::string(cut == std::string_view::npos ? path : path.substr(cut + 1));
}

bool same_folded(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

constexpr int kNotStarted = -2;

// Runs `path` with `argv` and waits: the exit status, -1 for a child that did
// not exit normally, kNotStarted when no child could be made.
int spawn_and_wait(const std::string& path, const std::vector<std::string>& argv) {
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) return kNotStarted;
  if (pid == 0) {
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(path.c_str(), args.data());
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0)
    if (errno != EINTR) return -1;  // a break handler may interrupt the wait
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool is_executable_file(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

void complain(const char* command, const std::string& what, const std::error_code& ec) {
  std::fflush(stdout);
  std::fprintf(stderr, "%s: %s: %s\n", command, what.c_str(), ec.message().c_str());
}

std::string without_extension(const std::string& name) {
  size_t dot = name.rfind('.');
  return dot == std::string::npos ? name : name.substr(0, dot);
}

}  // namespace

bool is_command(const char* command, const char* name) {
  std::string full = last_path_part(name);
  const char* p = command;
  while (*p != '\0' && std::isspace(static_cast<unsigned char>(*p))) ++p;
  const char* end = p;
  while (*end != '\0' && !std::isspace(static_cast<unsigned char>(*end))) ++end;
  std::string word = last_path_part(std::string_view(p, static_cast<size_t>(end - p)));
  if (word.empty()) return false;
  return same_folded(word, full) || same_folded(without_extension(word), without_extension(full));
}


int NT_RunCommand(const char* command) {
  if (spawn_and_wait("/bin/sh", {"sh", "-c", command}) == kNotStarted) {
    M_errout(0, "Unable to create child process %s\n", command);
    return std::system(command);
  }
  return 0;
}

int NT_system(const char* command) { return NT_RunCommand(command); }

std::string NT_find_program(const char* name) {
  if (std::strchr(name, '/') != nullptr) return is_executable_file(name) ? name : "";
  std::vector<std::string> dirs;
  if (const char* bin = std::getenv("MRVBIN"); bin != nullptr && *bin != '\0') dirs.push_back(bin);
  if (const char* path = std::getenv("PATH")) {
    std::string all = path;
    size_t start = 0;
    for (size_t colon; (colon = all.find(':', start)) != std::string::npos; start = colon + 1)
      dirs.push_back(all.substr(start, colon - start));
    dirs.push_back(all.substr(start));
  }
  for (std::string dir : dirs) {
    if (dir.empty()) dir = ".";
    std::string candidate = dir + (dir.back() == '/' ? "" : "/") + name;
    if (is_executable_file(candidate)) return candidate;
  }
  return "";
}

int NT_run_program(const char* program, const std::vector<std::string>& args) {
  std::string path = NT_find_program(program);
  if (path.empty()) {
    M_errout(0, "Unable to create child process %s\n", program);
    return -1;
  }
  std::vector<std::string> argv{program};
  argv.insert(argv.end(), args.begin(), args.end());
  int status = spawn_and_wait(path, argv);
  return status == kNotStarted ? -1 : status;
}

int NT_cmd_mkdir(const char* path) {
  if (mkdir(path, 0777) == 0) return 0;
  complain("mkdir", std::string("cannot create directory '") + path + "'",
           std::error_code(errno, std::generic_category()));
  return -1;
}

int NT_cmd_move(const char* from, const char* to) {
  fs::path source(from);
  fs::path target(to);
  std::error_code ec;
  if (fs::is_directory(target, ec)) target /= source.filename();
  fs::rename(source, target, ec);
  if (ec == std::errc::cross_device_link) {
    ec.clear();
    fs::copy(source, target, fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
    if (!ec) fs::remove_all(source, ec);
  }
  if (ec) {
    complain("mv", std::string("cannot move '") + from + "' to '" + target.string() + "'", ec);
    return -1;
  }
  return 0;
}

int NT_cmd_cat(const char* path) {
  FILE* f = std::fopen(path, "rb");
  if (f == nullptr) {
    complain("cat", path, std::error_code(errno, std::generic_category()));
    return -1;
  }
  std::fflush(stdout);
  char buffer[8192];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) M_msg_out(buffer, n);
  std::fclose(f);
  return 0;
}

int NT_cmd_echo_append(const char* file, const std::string& text) {
  FILE* f = std::fopen(file, "a");
  if (f == nullptr) {
    complain("echo", file, std::error_code(errno, std::generic_category()));
    return -1;
  }
  std::fwrite(text.data(), 1, text.size(), f);
  std::fputc('\n', f);
  std::fclose(f);
  return 0;
}

std::string NT_echo_word(const std::string& word) { return "'" + word + "'"; }
