#include "reel/reel_settings.h"

RunSettings reel_settings;
volatile sig_atomic_t stop_requested = 0;

void reel_reset_settings() {
  reel_settings = RunSettings{};
  stop_requested = 0;
}
