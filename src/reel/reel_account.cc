#include "reel/reel_account.h"

#include "reel/reel_current.h"
#include "reel/reel_init.h"

CurrentFile reel_current;
FILE* dispmsg = nullptr;

void reel_open_dispmsg() {
  reel_current.name.clear();
  reel_current.short_name.clear();
  reel_current.handle = -1;
  dispmsg = std::fopen("dispmsg", "a");
  if (dispmsg == nullptr) reel_fatal("Can't open dispmsg file");
}
