#include "NT/NT_signal.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

volatile sig_atomic_t M_critical_count = 0;
volatile uint32_t M_pending_signals[2] = {0, 0};
volatile sig_atomic_t NT_delivering = 0;

namespace {

constexpr int kUncatchable = 9;

// Entries 1..32; entry 0 is unused.
NT_handler g_handlers[NT_SIGNAL_COUNT + 1];
bool g_signals_ready = false;

void signals_first_use() {
  if (g_signals_ready) return;
  for (auto& h : g_handlers) h = NT_SIG_DEFAULT;
  g_signals_ready = true;
}

void dispatch(int number) {
  NT_handler h = number >= 1 && number <= NT_SIGNAL_COUNT ? g_handlers[number] : NT_SIG_DEFAULT;
  if (h != NT_SIG_DEFAULT && h != NT_SIG_IGNORE) h(number);
}

}  // namespace

void M_note_pending_signal(int number) {
  if (number >= 1 && number <= 32)
    M_pending_signals[0] = M_pending_signals[0] | (1u << (number - 1));
  else if (number >= 33 && number <= 64)
    M_pending_signals[1] = M_pending_signals[1] | (1u << (number - 33));
}

void M_enter_critical() { M_critical_count = M_critical_count + 1; }

void M_leave_critical() {
  if (M_critical_count > 0) M_critical_count = M_critical_count - 1;
  if (M_critical_count != 0) return;
  for (int word = 0; word < 2; ++word) {
    while (M_pending_signals[word] != 0) {
      uint32_t bits = M_pending_signals[word];
      int bit = __builtin_ctz(bits);
      M_pending_signals[word] = bits & ~(1u << bit);
      std::raise(word * 32 + bit + 1);
    }
  }
}

NT_handler NT_signal(int number, NT_handler handler) {
  if (number == kUncatchable) return NT_SIG_ERROR;
  if (number < 1 || number > NT_SIGNAL_COUNT) return NT_SIG_DEFAULT;
  signals_first_use();
  NT_handler old = g_handlers[number];
  g_handlers[number] = handler;
  struct sigaction action {};
  if (handler == NT_SIG_DEFAULT)
    action.sa_handler = SIG_DFL;
  else if (handler == NT_SIG_IGNORE)
    action.sa_handler = SIG_IGN;
  else
    action.sa_handler = dispatch;
  sigemptyset(&action.sa_mask);
  // Reads at the prompts go on after the break handler has run.
  action.sa_flags = SA_RESTART;
  sigaction(number, &action, nullptr);
  return old;
}

int NT_raise(int number) {
  if (number < 1 || number > NT_SIGNAL_COUNT) return -1;
  signals_first_use();
  NT_handler h = g_handlers[number];
  if (h == NT_SIG_IGNORE) return 0;
  if (h == NT_SIG_DEFAULT) return std::raise(number);
  h(number);
  return 0;
}

int NT_kill(int pid, int number) {
  if (pid < 0) pid = -pid;
  if (pid == getpid()) return number == 0 ? 0 : NT_raise(number);
  return kill(pid, number) == 0 ? 0 : -1;
}

void NT_deliver_pending() {
  NT_delivering = 1;
  for (int bit = 0; bit < 32; ++bit) {
    uint32_t mask = 1u << bit;
    if ((M_pending_signals[0] & mask) == 0) continue;
    M_pending_signals[0] = M_pending_signals[0] & ~mask;
    NT_raise(bit + 1);
  }
  NT_delivering = 0;
}

void NT_pause() { pause(); }

unsigned NT_sleep(unsigned seconds) {
  timespec want{static_cast<time_t>(seconds), 0};
  timespec left{};
  if (nanosleep(&want, &left) == 0) return 0;
  return static_cast<unsigned>(left.tv_sec + (left.tv_nsec > 0 ? 1 : 0));
}

const NT_console& NT_console_init(int mode) {
  static NT_console console;
  static bool done = false;
  if (done) return console;
  done = true;
  (void)mode;
  console.input_fd = STDIN_FILENO;
  console.output_fd = STDOUT_FILENO;
  if (const char* telnet = std::getenv("MR_TELNET_PID"); telnet != nullptr) {
    console.on_local_console = false;
    const char* term = std::getenv("TERM");
    console.terminal = term != nullptr && *term != '\0' ? term : "vt100";
  } else {
    console.on_local_console = true;
    console.terminal = "Console";
  }
  console.input_is_device = isatty(console.input_fd) != 0;
  return console;
}
