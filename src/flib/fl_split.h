// The split of a group (the growth of a dynamic file by one group) and the
// merge of the last group into its partner (the shrinking by one).
//
// The add path decides when a split is due, the delete path offers each
// rewritten head block for a merge; both are seams until the module that
// splits and merges is built: without it a dynamic file keeps its modulo,
// and the split flag in the shared row stays set so that a later add asks
// again.
#pragma once

#include <cstdint>

struct REL_TYPE;

// The split routine, null until one is installed. 0 split done, -1 failed.
extern int (*M_split_seam)(REL_TYPE* rel);
// Called by an add when a split is due (the flag in sfd already set): tries
// the file's split lock without waiting, runs the split, and clears the
// flag when it succeeded.
void M_split_due(REL_TYPE* rel);

// The merge routine, null until one is installed; it decides itself
// whether the group at `address` (its block in `block`) merges.
extern void (*M_merge_seam)(REL_TYPE* rel, uint8_t* block, uint32_t address);
