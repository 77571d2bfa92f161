// Opening a file for a command, with the reason in words when it fails.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/mrv_msg.h"
#include "common/mrv_msgno.h"
#include "flib/fl_open.h"
#include "flib/fl_read.h"
#include "flib/fl_rel.h"
#include "mrvfile.h"

namespace {

constexpr char kFirstPart[] = "/dat001";

// The library reports a failed open with message numbers and its function
// names; while a command opens a file those lines are collected and
// dropped, and the command says what is wrong in words instead.
class QuietLibrary {
 public:
  QuietLibrary() : saved_(msg_output_fd) { msg_output_fd = STDERR_FILENO; }
  ~QuietLibrary() {
    msg_output_fd = saved_;
    msg_buffer_fill = 0;
    msg_buffer[0] = '\0';
  }
  QuietLibrary(const QuietLibrary&) = delete;
  QuietLibrary& operator=(const QuietLibrary&) = delete;

 private:
  int32_t saved_;
};

// What the library's refusals of an open mean, by message number.
struct Refusal {
  int32_t message_number;
  const char* words;
};
constexpr Refusal kRefusals[] = {
    {MRV_MSG_BAD_FILE_LAYOUT, "its header does not agree with its size or layout (damaged)"},
    {MRV_MSG_UNKNOWN_HASH, "an unknown hash type in its header"},
    {MRV_MSG_NO_SUCH_FILE, "no such file"},
    {MRV_MSG_SHORT_HEADER, "too short to hold a file header"},
    {MRV_MSG_DIR_NOT_DYNAMIC, "a directory whose header is not a dynamic file's"},
    {MRV_MSG_LANGUAGE_DIFFERS, "made under another language group than this installation's (the marks differ)"},
};

// The words for the library's last refusal, with its number for reference.
std::string refusal_words() {
  const int32_t number = static_cast<int32_t>(std::strtol(last_message_number, nullptr, 10));
  for (const Refusal& r : kRefusals)
    if (r.message_number == number) return std::string(r.words) + " (library message " + last_message_number + ")";
  return "not a hashed file, or its header is damaged";
}

std::string access_problem(const std::string& path, bool write) {
  if (access(path.c_str(), write ? R_OK | W_OK : R_OK) == 0) return "";
  return errno == EACCES || errno == EPERM || errno == EROFS ? "permission denied" : std::strerror(errno);
}

}  // namespace

std::string mrvfile_path_problem(const std::string& path, bool write) {
  struct stat st{};
  if (stat(path.c_str(), &st) != 0)
    return errno == ENOENT || errno == ENOTDIR ? "no such file"
           : errno == EACCES                  ? "permission denied"
                                              : std::strerror(errno);
  if (S_ISDIR(st.st_mode)) {
    const std::string first = path + kFirstPart;
    if (stat(first.c_str(), &st) != 0) return "not a hashed file (a directory without dat001)";
    return access_problem(first, write);
  }
  if (!S_ISREG(st.st_mode)) return "not a hashed file (not a regular file)";
  return access_problem(path, write);
}

bool mrvfile_is_hashed(const std::string& path) {
  struct stat st{};
  if (stat(path.c_str(), &st) != 0) return false;
  if (S_ISREG(st.st_mode)) return true;
  return S_ISDIR(st.st_mode) && stat((path + kFirstPart).c_str(), &st) == 0;
}

bool mrvfile_open(REL_TYPE* rel, const std::string& path, OpenMode mode) {
  std::string problem = mrvfile_path_problem(path, mode != OpenMode::Read);
  if (problem.empty()) {
    QuietLibrary quiet;
    M_set_last_message_number(0);
    if (M_openfile(rel, path.c_str(), mode) == 1) return true;
    problem = refusal_words();
  }
  std::fprintf(stderr, "mrvfile: %s: %s\n", path.c_str(), problem.c_str());
  return false;
}

int64_t mrvfile_count_records(const std::string& path) {
  REL_TYPE rel;
  if (!mrvfile_open(&rel, path, OpenMode::Read)) return -1;
  int64_t n = 0;
  int r = M_for_each_key(&rel, [&](const uint8_t*, int32_t, const uint8_t*, int32_t, uint32_t) {
    ++n;
    return 0;
  });
  M_closefile(&rel);
  return r == 0 ? n : -1;
}
