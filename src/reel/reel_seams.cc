// Entry points of the tool's layers that this build does not have yet.
//
// Each one either fails in the open, through the fatal path with a message
// that says what is missing, or does what keeps its callers right until the
// layer arrives, as said at each. A layer that arrives removes its entry
// from this file and defines it in its own module, under the declaration
// that stands in the module's header already.
#include "reel/reel_account.h"
#include "reel/reel_app_tuple.h"
#include "reel/reel_current.h"
#include "reel/reel_hashed.h"
#include "reel/reel_init.h"
#include "reel/reel_member.h"
#include "reel/reel_plan.h"
#include "reel/reel_settings.h"
#include "reel/reel_target.h"
#include "reel/reel_util.h"

void reel_apply_plan() {
  reel_fatal("Creating files from a plan is not available in this build.\n");
}

