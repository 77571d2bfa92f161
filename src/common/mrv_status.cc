#include "common/mrv_status.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

// "\r" to the line's start, then the erase-to-end-of-line control.
constexpr char kEraseLine[] = "\r\x1b[K";
// Room for the unfinished console line; longer ones are redrawn cut.
constexpr size_t kPartialRoom = 256;

bool shown = false;
char partial[kPartialRoom];
size_t partial_length = 0;

void put(const char* text, size_t length) { M_write_all(STDERR_FILENO, text, length); }

bool stdout_is_terminal() {
  static const bool terminal = isatty(STDOUT_FILENO) != 0;
  return terminal;
}

}  // namespace

void M_write_all(int fd, const char* text, size_t length) {
  while (length > 0) {
    ssize_t n = write(fd, text, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    text += n;
    length -= static_cast<size_t>(n);
  }
}

bool M_status_enabled() {
  static const bool enabled = [] {
    const char* v = std::getenv("MRV_STATUS");
    if (v != nullptr && *v != '\0') return std::strcmp(v, "0") != 0;
    return isatty(STDERR_FILENO) != 0;
  }();
  return enabled;
}

void M_status_show(const std::string& text) {
  if (!M_status_enabled()) return;
  std::string line = kEraseLine + text;
  put(line.data(), line.size());
  shown = true;
}

void M_status_clear() {
  if (!shown) return;
  shown = false;
  put(kEraseLine, sizeof kEraseLine - 1);
  if (stdout_is_terminal()) put(partial, partial_length);
}

void M_console_note(const char* text, size_t length) {
  const char* end = text + length;
  const char* last_newline = static_cast<const char*>(memrchr(text, '\n', length));
  if (last_newline != nullptr) {
    partial_length = 0;
    text = last_newline + 1;
  }
  size_t n = std::min(static_cast<size_t>(end - text), kPartialRoom - partial_length);
  std::memcpy(partial + partial_length, text, n);
  partial_length += n;
}
