// Hashing and group addressing.
//
// Static files hash with a fixed modulo. Dynamic files use linear hashing:
// with split base b (b <= modulo < 2b), a key first hashes over b groups; if
// that group has already been split (h + b < modulo) it hashes again over 2b.
// So a key's group follows from the modulo and the split base alone.
//
// Every hash stores its result in M_groupno, the group of the operation under
// way, which error reports and block checks read.
#pragma once

#include <cstddef>
#include <cstdint>

struct REL_TYPE;

// GROUP_NUMBER: the group under operation.
extern uint32_t M_groupno;
// Modulo and split base of the last dynamic hash.
extern uint32_t M_hash_modulo;
extern uint32_t M_split_base;

uint32_t hash_decimal_static(const uint8_t* key, int32_t length, uint32_t modulo);
// Uses M_split_base and M_hash_modulo.
uint32_t hash_decimal_dynamic(const uint8_t* key, int32_t length);
uint32_t hash_fold_key(const uint8_t* key, int32_t length);
// The fold with the key's end at its first NUL byte (or at `length`).
uint32_t hash_fold_string(const uint8_t* key, int32_t length);
uint32_t hash_bitrev_static(const uint8_t* key, int32_t length, uint32_t modulo);
// Uses M_split_base and M_hash_modulo.
uint32_t hash_bitrev_dynamic(const uint8_t* key, int32_t length);
uint32_t hash_key_range(const uint8_t* key, int32_t length, const REL_TYPE* rel);

// Split base of a modulo: hash type 0 from the minimum modulo by doubling and
// halving, hash type 1 the largest power of two not above the modulo, a
// key-range file 1.
uint32_t split_base_for(int32_t hashtype, uint32_t modulo, uint32_t min_modulo);
// Sets rel->split_base from rel->modulo.
void set_split_base(REL_TYPE* rel);

uint32_t M_hash(const uint8_t* key, int32_t length, REL_TYPE* rel);
// REQUIRES: M_split_base is set for `modulo`.
uint32_t M_hash_with_modulo(const uint8_t* key, int32_t length, uint32_t modulo, int32_t hashtype);
// Row of the primary part that holds a group's head: the last row whose
// first group is not above the group (row 0 when none is).
size_t M_primary_row_of(const REL_TYPE* rel, uint32_t group);
// BLOCK_ADDRESS of a group's head block; 0 on failure.
uint32_t M_get_head_off(REL_TYPE* rel, uint32_t group);
// Head block address of the key's group, locked with `lock_mode`; -1 after
// a report.
int64_t M_dyn_hash(REL_TYPE* rel, const uint8_t* key, int32_t length, int32_t lock_mode);
