#include "NT/NT_signal.h"

volatile sig_atomic_t M_critical_count = 0;
volatile uint32_t M_pending_signals[2] = {0, 0};

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
