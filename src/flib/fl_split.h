// The split of a group (the growth of a dynamic file by one group).
//
// The add path decides when a split is due; the split itself is a seam
// until the splitting module is built: without it a dynamic file keeps its
// modulo, and the flag in the shared row stays set so that a later add
// asks again.
#pragma once

struct REL_TYPE;

// The split routine, null until one is installed. 0 split done, -1 failed.
extern int (*M_split_seam)(REL_TYPE* rel);
// Called by an add when a split is due (the flag in sfd already set): tries
// the file's split lock without waiting, runs the split, and clears the
// flag when it succeeded.
void M_split_due(REL_TYPE* rel);
