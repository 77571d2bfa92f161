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

// Dynamic files. Until their decoder exists, a dynamic file's data is
// passed over unread: the walk, and with it an analysis, stays right.
void reel_dyn_file(unsigned char* buffer, int32_t* length) { pass_sub_objects(buffer, length); }

// Pages of a dynamic source's overflow part are held by its decoder; until
// it exists none is held, and a large record reports as lost.
int reel_overflow_get(unsigned char*, int32_t, int32_t*) { return 0; }
