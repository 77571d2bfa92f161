#include "common/mrv_exit.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <string>

#include "common/mrv_msg.h"
#include "common/mrv_msgno.h"
#include "common/readroot.h"

int32_t error_code = 0;
int32_t severity = 0;
int32_t in_protected_region = 0;
std::jmp_buf* protected_region_target = nullptr;
int32_t thread_mode = 0;
const char* M_program_name = nullptr;
int32_t M_program_line = 0;

namespace {

// Message number -> error code, ascending by message number for the binary
// search. Only the pairs this build's library can produce are listed.
struct ErrorPair {
  int32_t message_number;
  int32_t code;
};
constexpr ErrorPair kErrorTable[] = {
    {0, -2},
    {MRV_MSG_NO_MEMORY, MRV_ERR_NO_MEMORY},
};

void raise_severity(int32_t value) {
  if (severity < 3 && severity < value) severity = value;
}

// The rule shared by M_set_error and M_map_error for codes that are not the
// product's own: the system's error number stands in for them.
void store_system_error() {
  error_code = errno != 0 ? errno + MRV_ERR_SYSTEM_BASE : MRV_ERR_UNKNOWN;
}

}  // namespace

void M_set_severity(int32_t value) { raise_severity(value); }

void M_set_error(int32_t code) {
  if (code == 0 && severity != 0) {
    raise_severity(1);
    return;
  }
  if (code >= 300)
    error_code = code;
  else
    store_system_error();
  raise_severity(1);
}

int32_t M_error_for_message(int32_t message_number) {
  auto it = std::lower_bound(std::begin(kErrorTable), std::end(kErrorTable), message_number,
                             [](const ErrorPair& p, int32_t n) { return p.message_number < n; });
  if (it == std::end(kErrorTable) || it->message_number != message_number) return 0;
  return it->code;
}

void M_map_error(int32_t message_number) {
  int32_t code = M_error_for_message(message_number);
  if (code >= 300)
    error_code = code;
  else if (error_code == 0)
    store_system_error();
  raise_severity(1);
}

[[noreturn]] void mrv_exit(int status, const char* source_file, int line) {
  if (in_protected_region && protected_region_target != nullptr) {
    if (error_code == 0) error_code = MRV_ERR_EXIT_IN_REGION;
    raise_severity(5);
    M_msg_buffer_printf("mrv_exit(%d) called in File %s, Line %d\n", status, source_file, line);
    std::longjmp(*protected_region_target, 0);
  }
  std::fflush(nullptr);
  if (thread_mode) pthread_exit(nullptr);
  std::exit(status);
}

void M_errlog_exit(const char* text) {
  std::string path = mrv_bin_dir();
  if (path.empty()) return;
  path += "mrv.errlog";
  FILE* f = std::fopen(path.c_str(), "a+");
  if (f == nullptr) return;
  std::time_t now = std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  char when[16];
  char day[16];
  std::strftime(when, sizeof when, "%H:%M:%S", &tm);
  std::strftime(day, sizeof day, "%m/%d/%y", &tm);
  std::fprintf(f, "mrv (pid = %d) exit at %s %s.\nError = ", static_cast<int>(getpid()), when, day);
  if (M_program_name != nullptr) std::fprintf(f, "In %s at line %d ", M_program_name, M_program_line);
  std::fprintf(f, "%s\n\n", text);
  std::fclose(f);
}
