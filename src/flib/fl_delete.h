// Deleting records.
//
// Order of writes: blocks that a deleted record frees are cleared and put
// on a free list before the group block that held its key is written; a
// continuation block that became empty is unlinked (the block before it
// written) before it is given back to its part.
#pragma once

#include <cstdint>

struct REL_TYPE;

// Host hook before a record is deleted; non-zero refuses.
extern int (*M_delete_hook)(REL_TYPE* rel, const uint8_t* key, int32_t key_length);

// 1 deleted, 0 absent (or refused by the hook), -1 failure.
int M_delete_tuple(REL_TYPE* rel, const uint8_t* key, int32_t key_length, void* hook_data);
// Removes row `row` (key, row and record bytes) from the group block
// `block` at `address`; the block is left for the caller to write. 1 or -1.
int delete_record(REL_TYPE* rel, uint32_t address, uint8_t* block, int32_t row);
// Unlinks the empty continuation block `block` at `address` from the block
// at `previous` and gives it back. 1 or -1.
int offchain(REL_TYPE* rel, uint32_t address, uint8_t* block, uint32_t previous);
