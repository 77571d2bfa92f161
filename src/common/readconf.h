// The installation's configuration at start-up, and the readers of its
// parameters.
//
// M_readconfg loads mrvconfig through the strict loader (this build has no
// shared memory manager whose record would come first) and exports every
// parameter of the record to the process environment as NAME=VALUE. From
// then on all code reads a parameter from the environment by name, with a
// fallback of its own: the readers below are the one place for each rule.
#pragma once

#include <cstdint>

#include "common/init_params.h"

// The configuration as loaded; all zero when the load failed.
extern ConfigRecord M_config;

// Reads mrvconfig and exports it. Once per process; later calls return at
// once. `wait_seconds` is the patience for a server's record, which this
// build never has. Returns 0.
int M_readconfg(int wait_seconds = 0);
// The export alone (tests; the configuration tools).
void config_export(const ConfigRecord& record);
// Forgets that the configuration was read (tests).
void config_reset_for_tests();

// An environment parameter as a number, or `fallback` when unset or not a
// number.
int32_t M_env_param(const char* name, int32_t fallback);

// ---- Readers of the parameters the library and the tool use ---------------

// MAX_FLENGTH: largest part file in bytes; 1073741824 when absent or below 1.
int32_t M_cfg_max_flength();
// GRP_FREE_BLK: 5 when absent; the low 8 bits.
int32_t M_cfg_grp_free_blk();
// SPLIT_LOAD / KEYDATA_SPLIT_LOAD: 60 and 95 when absent or below 1.
int32_t M_cfg_split_load(bool keydata);
// MERGE_LOAD / KEYDATA_MERGE_LOAD: 40 when absent or below 1, at most 90.
int32_t M_cfg_merge_load(bool keydata);
// MAX_DSFILES: 1000 when absent or below 1.
int32_t M_cfg_max_dsfiles();
// NFILES: 512 when absent or below 1.
int32_t M_cfg_nfiles();
// LOCKFIFO: on only when exactly 1.
bool M_cfg_lockfifo();
// WRITE_TO_CONSOLE: on only when exactly 1.
bool M_cfg_write_to_console();
// NULL_FLAG: 0 when unset.
int32_t M_cfg_null_flag();
// AVG_TUPLE_LEN, EXPBLKSIZE, MIN_MEMORY_TEMP, MIN_MEMORY_BASIC: the value, or
// 0 when absent or below 1 (the memory manager has its own fallback).
int32_t M_cfg_memory_setting(const char* name);
// PART_TBL: path of the part table; "<MRVHOME>parttbl" when absent.
const char* M_cfg_part_tbl();
