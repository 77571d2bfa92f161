// Bucket chains of the index file: NUL-terminated texts (the tails of long
// keys, the expressions of virtual fields) in slotted blocks of idx001.
//
// A chain starts at a fixed block: block 1 for expressions, block b + 2 for
// tail bucket b. A block other than the chain's first leaves the chain when
// its free bytes fall below 100 (next -3, its chain's first block number at
// offset 4) and comes back, behind the first block, when a release gives it
// 200 or more: full blocks are not walked again and again.
#pragma once

#include <cstdint>
#include <string>

struct IndexState;

// The first block of the tail bucket that the @ID hashes to.
uint32_t M_tail_bucket_block(IndexState* h, const std::string& id);
// Stores `text` (no NUL inside) in the chain that starts at block
// `first_block`; the chain of block 1 always takes a new slot at the end.
// The link, or 0 after a report.
uint32_t M_store_text(IndexState* h, uint32_t first_block, const std::string& text);
// Reads the text a link names. 1 or -1.
int M_read_text(IndexState* h, uint32_t link, std::string* text);
// Clears the text's slot and closes its gap. 1 or -1.
int M_release_text(IndexState* h, uint32_t link, bool keep_slots);
// Empties every block of every chain, keeping the chains; blocks that were
// off their chain are linked back in. 1 or -1.
int M_reset_buckets(IndexState* h);
// The expression of a virtual field: in the chain of block 1 when it fits
// a bucket block; a longer one (plain index only) in a run of whole blocks
// at the end of idx001 (0xFF in bytes 0..5, the block count at 6, 65535 at
// 8 and 10, 14 at 12, the text from 14), named by a link to its first block
// with slot 0. The link, or 0 after a report.
uint32_t M_store_expression(IndexState* h, const std::string& text);
int M_read_expression(IndexState* h, uint32_t link, std::string* text);
// A run's blocks go to the free list; a bucket text leaves its slot empty.
int M_release_expression(IndexState* h, uint32_t link);
// `blocks` whole blocks at the end of idx001 holding `buffer`; the first
// one's address or IDX_NONE.
uint32_t M_take_run(IndexState* h, const uint8_t* buffer, uint32_t blocks);
// Node-sized block of idx001 for a bucket: from the free list or the end.
uint32_t M_get_first_part_block(IndexState* h, const uint8_t* buffer);
