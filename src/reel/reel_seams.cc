// Entry points of the tool's layers that this build does not have yet.
//
// Each one either fails in the open, through the fatal path with a message
// that says what is missing, or, where nothing depends on it yet, does
// nothing and says so here. A layer that arrives removes its entry from this
// file and defines it in its own module.
#include "reel/reel_account.h"
#include "reel/reel_dispatch.h"
#include "reel/reel_init.h"
#include "reel/reel_plan.h"
#include "common/mrv_msg.h"

int reel_dispatch_block(unsigned char*, int32_t*) {
  reel_fatal("Restoring saved accounts is not available in this build.\n");
}

void reel_open_account() {
  reel_fatal("Setting up accounts is not available in this build.\n");
}

void reel_close_account() {}

void reel_apply_plan() { reel_fatal("Creating files from a plan is not available in this build.\n"); }
