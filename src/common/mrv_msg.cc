#include "common/mrv_msg.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "common/mrv_exit.h"
#include "common/mrv_status.h"

int32_t msg_output_fd = -1;
char msg_buffer[MRV_MSG_BUFFER_SIZE];
size_t msg_buffer_fill = 0;
char last_message_number[10] = "-10000000";

std::string M_vformat(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  char local[1024];
  int n = std::vsnprintf(local, sizeof local, format, copy);
  va_end(copy);
  if (n < 0) return {};
  if (static_cast<size_t>(n) < sizeof local) return std::string(local, static_cast<size_t>(n));
  std::string text(static_cast<size_t>(n) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, args);
  text.resize(static_cast<size_t>(n));
  return text;
}

namespace {

// The pause after each message when a person reads the console.
constexpr int32_t kTerminalPauseMs = 1000;

// Appends to the message buffer at the fill mark; what does not fit is cut.
void buffer_append(const char* text, size_t length) {
  size_t room = MRV_MSG_BUFFER_SIZE - 1 - msg_buffer_fill;
  if (length > room) length = room;
  std::memcpy(msg_buffer + msg_buffer_fill, text, length);
  msg_buffer_fill += length;
  msg_buffer[msg_buffer_fill] = '\0';
}

}  // namespace

void M_set_last_message_number(int32_t number) {
  std::snprintf(last_message_number, sizeof last_message_number, "%d", number);
}

int32_t M_msg_pause_for(const char* setting, bool console_is_terminal) {
  if (setting == nullptr || *setting == '\0') return console_is_terminal ? kTerminalPauseMs : 0;
  long ms = std::strtol(setting, nullptr, 10);
  return ms < 0 ? 0 : static_cast<int32_t>(std::min<long>(ms, INT32_MAX));
}

int32_t M_msg_pause_ms() {
  static int32_t pause = M_msg_pause_for(std::getenv("MRV_MSG_PAUSE_MS"), isatty(STDOUT_FILENO) != 0);
  return pause;
}

void M_sleep_ms(int32_t milliseconds) {
  if (milliseconds <= 0) return;
  timespec ts{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

int M_msg_out(const char* text, size_t length) {
  if (msg_output_fd >= 0) {
    buffer_append(text, length);
    return static_cast<int>(length);
  }
  M_status_clear();
  std::fwrite(text, 1, length, stdout);
  std::fflush(stdout);
  M_console_note(text, length);
  return static_cast<int>(length);
}

int M_msg_buffer_printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = M_vformat(format, args);
  va_end(args);
  buffer_append(text.data(), text.size());
  return static_cast<int>(text.size());
}

int M_errmsg(int32_t code, const char* format, ...) {
  int saved_errno = errno;
  M_set_error(code);
  va_list args;
  va_start(args, format);
  std::string text = M_vformat(format, args);
  va_end(args);
  errno = saved_errno;
  M_msg_out(text.data(), text.size());
  if (msg_output_fd < 0) M_sleep_ms(M_msg_pause_ms());
  return static_cast<int>(text.size());
}

int M_errno_msg(const char* text) {
  int err = errno;
  error_code = err + MRV_ERR_SYSTEM_BASE;
  M_set_severity(1);
  char line[1024];
  if (msg_output_fd < 0) {
    int n = std::snprintf(line, sizeof line, "%s: errno = %d\n", text, err);
    M_msg_out(line, static_cast<size_t>(n) < sizeof line ? n : sizeof line - 1);
    M_sleep_ms(M_msg_pause_ms() > 0 ? 100 : 0);  // tests turn pauses off
    return n;
  }
  int n = std::snprintf(line, sizeof line, "%s: %s\n", text, std::strerror(err));
  M_msg_out(line, static_cast<size_t>(n) < sizeof line ? n : sizeof line - 1);
  return n;
}
