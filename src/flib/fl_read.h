// Reading records.
//
// A keyed read finds the key's row with M_read_grpblk and copies the
// record from the block that holds the row, from one DATA_BLOCK, or along
// a long record's chain. The closing record mark is never copied. The pair
// M_pre_read / M_post_read lets the caller learn the length first; the
// head stays locked (shared) between the two calls.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

struct REL_TYPE;

// 1 the key exists, 0 absent, -1 error.
int M_read_key(REL_TYPE* rel, const uint8_t* key, int32_t length);
// 1 and the record in `record`, 0 absent, -1 error.
int M_read_tuple(REL_TYPE* rel, const uint8_t* key, int32_t length, std::string* record);
// 1 with the record's length in *size (the lock held for M_post_read),
// 0 absent, -1 error.
int M_pre_read(REL_TYPE* rel, const uint8_t* key, int32_t length, int32_t* size);
// REQUIRES: `buffer` holds *size + 1 bytes; the record is NUL-terminated.
// *size must be what M_pre_read gave. 1 or -1.
int M_post_read(REL_TYPE* rel, const uint8_t* key, int32_t* size, uint8_t* buffer);
// M_pre_read for a directory-type file: opens the entry, gives its size.
int M_preread_seq(REL_TYPE* rel, const uint8_t* name, int32_t length, int32_t* size);
// Calls `visit` with each key of the file, group by group along each
// chain, with the group block that holds it and the row; a non-zero result
// of `visit` ends the walk with that result. 0 when all were visited, -1
// after a report.
int M_for_each_key(REL_TYPE* rel,
                   const std::function<int(const uint8_t* key, int32_t key_length, const uint8_t* block,
                                           int32_t row, uint32_t address)>& visit);
// The record of row `row` of the group block `block` at `address`; with
// `with_key` the result is the key, a field mark, then the record. 1 or -1
// (the string then holds what was read).
int M_catch_tuple(REL_TYPE* rel, const uint8_t* key, int32_t key_length, const uint8_t* block, int32_t row,
                  uint32_t address, std::string* record, int with_key);
