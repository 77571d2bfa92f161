#include "reel/reel_account.h"

#include <cstdarg>
#include <cstdio>

#include "common/mrv_msg.h"
#include "reel/reel_current.h"
#include "reel/reel_init.h"

CurrentFile reel_current;
FILE* dispmsg = nullptr;
std::string tape_account;

void reel_open_dispmsg() {
  reel_current.name.clear();
  reel_current.short_name.clear();
  reel_current.handle = -1;
  dispmsg = std::fopen("dispmsg", "a");
  if (dispmsg == nullptr) reel_fatal("Can't open dispmsg file");
}

void reel_tell(const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  M_errmsg(0, "%s", text);
  if (dispmsg == nullptr) return;
  std::fputs(text, dispmsg);
  std::fflush(dispmsg);
}
