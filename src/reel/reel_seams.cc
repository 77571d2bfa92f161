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
#include "reel/reel_dynamic.h"
#include "reel/reel_hashed.h"
#include "reel/reel_init.h"
#include "reel/reel_member.h"
#include "reel/reel_plan.h"
#include "reel/reel_settings.h"
#include "reel/reel_target.h"
#include "reel/reel_util.h"

namespace {

// Passes the sub-file or member descriptions at hand with their data, so
// that the walk goes on at the next file; anything else is left in place.
void pass_sub_objects(unsigned char* buffer, int32_t* length) {
  if (*length == reel_settings.level_sub && tape_block_type(buffer) == TAPE_BLOCK_DESCRIPTION)
    reel_skip_blocks(buffer, length, 1);
}

}  // namespace

void reel_open_account() { reel_fatal("Setting up accounts is not available in this build.\n"); }

void reel_close_account() {}

void reel_apply_plan() {
  reel_fatal("Creating files from a plan is not available in this build.\n");
}

// Dynamic files. Until their decoder exists, a dynamic file's data is
// passed over unread: the walk, and with it an analysis, stays right.
void reel_dyn_file(unsigned char* buffer, int32_t* length) { pass_sub_objects(buffer, length); }

// Record loading and the work files arrive with account set-up. No target
// is ever open before then, so no record reaches the loader; a member keeps
// its tape name, and its file can't be written for want of SAM, DAM or its
// directory, which its writer reports.
REL_TYPE reel_pgm_map;
void reel_add_tuple(const char*, int32_t, const char*, int32_t) {
  reel_fatal("Loading records is not available in this build.\n");
}
int reel_target_name(std::string&, std::string&, int) { return 0; }

// Targets. Nothing can be made or opened yet, so every file is skipped by
// its caller, no handle is ever open, and the two closes only mark the
// slot closed.
int reel_create_target(int) { return 0; }
void reel_target_from_voc() { reel_current.short_name.clear(); }
int reel_open_target() { return 0; }
void reel_close_target() { reel_current.handle = -1; }
void reel_finish_file(int32_t) { reel_current.handle = -1; }
