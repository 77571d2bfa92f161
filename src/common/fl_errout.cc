#include "common/fl_errout.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "common/init_logs.h"
#include "common/mrv_exit.h"
#include "common/mrv_msg.h"
#include "common/mrv_msgno.h"

int32_t V__Errout = 1;

namespace {

std::string program_prefix(const char* layout) {
  if (M_program_name == nullptr) return {};
  char prefix[512];
  std::snprintf(prefix, sizeof prefix, layout, M_program_name, M_program_line);
  return prefix;
}

}  // namespace

int M_errout(int32_t code, const char* format, ...) {
  M_set_last_message_number(MRV_MSG_UNNUMBERED);
  if (V__Errout == 0) return 0;
  va_list args;
  va_start(args, format);
  std::string text = program_prefix("In %s at line %d ") + M_vformat(format, args);
  va_end(args);
  M_set_error(code);
  return M_msg_out(text.data(), text.size());
}

int M_errout_log(int32_t code, const char* format, ...) {
  M_set_last_message_number(MRV_MSG_UNNUMBERED);
  if (V__Errout == 0) return 0;
  va_list args;
  va_start(args, format);
  std::string text = M_vformat(format, args);
  va_end(args);
  M_set_error(code);
  if (M_program_name != nullptr) {
    MRV_LOG_SOURCE();
    return mrv_log(2, "In %s at line %d: %s", M_program_name, M_program_line, text.c_str());
  }
  MRV_LOG_SOURCE();
  return mrv_log(2, "%s", text.c_str());
}

int M_msgno_out(int32_t message_number, const char* format_args, ...) {
  M_set_last_message_number(message_number);
  if (V__Errout == 0) return 0;
  M_map_error(message_number);
  char text[64];
  int n = std::snprintf(text, sizeof text, "Error msgno = %d. \n", message_number);
  return M_msg_out(text, static_cast<size_t>(n));
}
