// Creation of hashed files and of later part files.
//
// M_initfile writes the whole primary space of a new file at once: the
// header and every group's head block, so each group has its block from the
// start; a dynamic file also gets its overflow parts with the live state in
// block 0 of over001. A file that cannot be made whole is removed again.
#pragma once

#include <cstdint>

struct REL_TYPE;

// The split and merge loads of a new dynamic file of hash type word
// `hashtype` (its KEYDATA bit chooses the pair), from the settings
// SPLIT_LOAD and MERGE_LOAD, or KEYDATA_SPLIT_LOAD and KEYDATA_MERGE_LOAD,
// as the configuration exported them (common/readconf.h has their defaults).
void M_load_settings(int32_t hashtype, int32_t* split_load, int32_t* merge_load);
// Largest static file: (modulo+1) * (B div 1024) may not exceed this.
inline constexpr int64_t MAX_STATIC_KBLOCKS = 2097152;

// Lays out a new file on `fd` (the static file, or dat001 of the directory
// rel->path). Parts of a dynamic file that exist already are emptied and
// reused. The handle gives path, modulo, hash type word, block size,
// RFS field, split and merge load (0 = the setting) and trigger names; it
// receives the part counts. 1 done, 0 failed (the file is removed).
int M_initfile(int fd, REL_TYPE* rel);
// Adds datNNN / overNNN to an open dynamic file. 0, -1, or -2 when the part
// was placed only after a wait and the caller should search again.
int create_primary_part_file(REL_TYPE* rel, int wait);
int create_overflow_part_file(REL_TYPE* rel, int wait);
// Writes block 0 of a new part: `part` is the part number, with bit 31 for
// an overflow part. 0 or -1.
int write_file_header(REL_TYPE* rel, uint32_t part);
// Copies the sfd row's primary count (1), overflow count (2) or modulo (3)
// into block 0 of over001, under its lock. 0 or -1.
int update_file_info(REL_TYPE* rel, int what);
// Makes one static or dynamic hashed file. `block` is the size code (0 =
// 512, n = n*1024), `type` the hash type word (bit 0x40 dynamic). 1 or 0.
int M_create_hashed(const char* path, int32_t modulo, int32_t block, int32_t type, int32_t verbose,
                    const char* part_table);
