// Adding and replacing records.
//
// A key hashes to a group; its key and KEY_ENTRY row go into one of the
// group's GROUP_BLOCKs, and its record into that block's data area or into
// DATA_BLOCKs of the group's overflow part.
//
// Order of writes, the invariant of this module: a key is published only
// after its bytes are on disk. Every block that holds record bytes is
// written first (write_record, the reserved blocks of the block stack, the
// free lists); the group block that holds the key and row is written last,
// in one write. A reader that finds the key therefore finds its record.
#pragma once

#include <cstdint>

struct REL_TYPE;

// Longest key: keys of 127 bytes or more are refused.
inline constexpr int32_t MAX_KEY_LENGTH = 126;
// A record is below this many bytes.
inline constexpr int32_t MAX_RECORD_BYTES = 0x80000;
// Add modes: write only if the key is absent (1), only if it exists (2).
inline constexpr int32_t ADD_IF_ABSENT = 1;
inline constexpr int32_t ADD_IF_EXISTS = 2;
// The add mode of the next call (consumed by it) and the refusal of the
// last call (the mode that refused it, or 0).
extern int32_t M_add_mode;
extern int32_t M_add_refused;
// Result of M_add_record that asks the caller to scan the group again.
inline constexpr int ADD_RETRY = 5;

// Host hook before a record is added or replaced; null when the host has
// none. A non-zero result refuses the write.
extern int (*M_update_hook)(REL_TYPE* rel, const uint8_t* key, int32_t key_length, const uint8_t* record,
                            int32_t record_length);

// Adds or replaces a record. 1 done, 0 refused by a hook, -1 failure.
int M_append_strtuple(REL_TYPE* rel, const uint8_t* key, int32_t key_length, const uint8_t* record,
                      int32_t record_length, int32_t reserved, void* index_data);

// The add without lock or hooks, on the group whose head is at `head`;
// `split` runs the split test after the write. 1 or -1.
int add_to_group(REL_TYPE* rel, uint32_t head, const uint8_t* key, int32_t key_length, const uint8_t* record,
                 int32_t stored_length, void* hook_data, void* index_data);
// 1 key found (its block in `block`, address and row set), 2 room for the
// key in `block`, 0 no room anywhere (last block in `block`), -1 error.
int check_group(REL_TYPE* rel, uint8_t* block, const uint8_t* key, int32_t key_length, uint32_t* address,
                int32_t* row, int32_t* skip);
int make_new_group(REL_TYPE* rel, uint8_t* block, uint32_t address, const uint8_t* key, int32_t key_length,
                   const uint8_t* record, int32_t stored_length);
int64_t make_keyspace(REL_TYPE* rel, uint8_t* block, uint32_t address, int32_t key_length, int in_continuation);
int64_t M_add_record(REL_TYPE* rel, uint8_t* block, uint32_t address, const uint8_t* key, int32_t key_length,
                     const uint8_t* record, int32_t stored_length, int write_now, int in_continuation);
uint32_t find_block_space(REL_TYPE* rel, const uint8_t* block, uint32_t address, int32_t stored_length);
// The record's position, 1 for a spent attempt, 0 for failure.
uint32_t write_record(REL_TYPE* rel, const uint8_t* block, uint32_t address, const uint8_t* record,
                      int32_t stored_length, int in_continuation);
// REQUIRES: make_keyspace has made room for the key and one more row.
void insert_key(uint8_t* block, uint32_t block_size, const uint8_t* key, int32_t key_length, uint32_t position,
                int32_t stored_length);
void slide_key_area(REL_TYPE* rel, uint8_t* block, int32_t new_datapos);
void init_group_block(REL_TYPE* rel, uint8_t* block, uint32_t group, uint8_t flags);
int modify_record(REL_TYPE* rel, uint8_t* block, const uint8_t* key, int32_t key_length, const uint8_t* record,
                  int32_t stored_length, int32_t row, uint32_t address, int in_continuation);
int writeshort(REL_TYPE* rel, uint8_t* block, uint32_t table_address, int32_t row, uint8_t* data_block,
               uint32_t data_address, int32_t stored_length, const uint8_t* record);
int need_split(REL_TYPE* rel, const uint8_t* block, int32_t key_length, int32_t stored_length);

// The time stamp of a block change.
uint32_t M_block_time();
// Whether a record position lies in the block at `address`.
bool position_in_block(uint32_t position, uint32_t address, uint32_t block_size);
// The DATA_BLOCK that holds the record at `position` of a row of `block`.
uint32_t data_block_address(const REL_TYPE* rel, const uint8_t* block, uint32_t position);
// Puts the rows of a group block, with their keys, back in ascending order
// of position after positions have changed.
void M_sort_rows(uint8_t* block, uint32_t block_size);
// Prologue of keyed calls: refuses a key of 127 bytes or more (message 76)
// and drops a closing field mark. The usable length, or -1.
int32_t M_key_prologue(const uint8_t* key, int32_t key_length);
