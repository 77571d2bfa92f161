// Growth and shrinking of a dynamic file by one group at a time.
//
// Linear hashing: with modulo m and split base b (b <= m < 2b) the next
// group to split is s = m - b, whatever group the add that asked for the
// split loaded; its records are spread over s and the new group m by their
// hash under m + 1. A delete that leaves the last group or its partner
// under the merge load lays both into the partner, and the modulo falls by
// one, never below the minimum modulo.
//
// Invariants (the order of writes):
//  1. A split writes every overflow block of both new chains first, then
//     the new group's head, then raises the modulo (over001), then rewrites
//     the old group's head, and only then gives the old chain's blocks back.
//     Until the modulo rises the old chain is untouched and serves every
//     key; from then on the new group is complete.
//  2. A merge writes the partner's head with the records of both groups
//     before the modulo falls: at either modulo every key is found.
//  3. A failed split or merge leaves the modulo and both groups as they
//     were; the blocks it had taken go back to their parts.
//
// Named locks of a file: "1" guards the making of a part, "2" is held
// through a split (waited for) or a merge (only tried), "3" is tried by an
// add around starting a split, so that one process at a time starts one.
// The flag in the sfd row remembers a split that is due but could not run.
#pragma once

#include <cstdint>

struct REL_TYPE;

// Splits the next group in linear-hashing order. 0 split (or nothing to
// do, or the file has reached its last primary part), -1 failure, the file
// unchanged.
int M_split_group(REL_TYPE* rel);
// Raises the modulo by one and moves the split base with it, in the sfd
// row, the handle and over001. 0 or -1.
int M_set_split_stat(REL_TYPE* rel);
// Lowers the modulo by one, the split base with it. 0 or -1.
int M_set_merge_stat(REL_TYPE* rel);

// Offered every head block that a delete has rewritten (its image in
// `block`, at `address`): merges the last group into its partner when the
// block is under the merge load and one of the two. Lock conflicts and
// failures only skip the merge.
void try_merge_group(REL_TYPE* rel, uint8_t* block, uint32_t address);
// Merges the two groups whose heads are at `partner_address` and `address`
// (`block` holds the latter). 2 merged, 0 not merged (a chain, or too
// loaded), -1 failure with both groups unchanged.
int M_merge_group(REL_TYPE* rel, uint32_t partner_address, uint32_t address, uint8_t* block);
// The delete trigger of a merge: whether a head block is under the merge
// load by the file's accounting (KEYONLY: keys and rows; KEYDATA: also the
// record bytes of all rows but long overflow records).
bool below_merge_load(const REL_TYPE* rel, const uint8_t* block);

// The split that an add runs when one is due (the flag in sfd already set):
// tries lock 3 without waiting, splits, and clears the flag on success. A
// refused lock or a failed split leaves the flag for a later add.
void M_split_due(REL_TYPE* rel);
// The routines the add and delete paths call; tests put failing ones in
// their place to reach the failure paths.
extern int (*M_split_routine)(REL_TYPE* rel);
extern void (*M_merge_routine)(REL_TYPE* rel, uint8_t* block, uint32_t address);
