// Descriptors of large (multi-part) files.
//
// Every part of every open dynamic file has a row in the process's
// large-file table (at most M_large_file_limit rows). Descriptors are
// bounded by NFILES (default 512) less 20: when the open parts reach that
// limit, the part with the oldest use stamp that holds no lock and is not
// temporary is closed and marked closed; its next use reopens it. Callers
// never see that a part was closed.
#pragma once

#include <cstddef>
#include <cstdint>

struct REL_TYPE;
struct PartEntry;

// Size of the table of large-file descriptors.
extern int32_t M_large_file_limit;
void M_set_large_file_limit(int32_t limit);

// Part designators: the 1-based part number, with bit 31 for an overflow
// part. Table rows store the part index (number - 1) the same way.
inline constexpr uint32_t PART_OVERFLOW = 0x80000000u;

// Records a part of `rel` in the table and stamps its row; `part` is the
// part index with PART_OVERFLOW for an overflow part. 0 or -1.
int M_insert_part_file(REL_TYPE* rel, uint32_t part);
// Descriptor of a part (1-based number | PART_OVERFLOW), reopened when it
// had been closed. -1 after a message.
int open_large_file(REL_TYPE* rel, uint32_t part);
// Brings the part rows of `rel` up to the counts of its sfd row. 1 or -1.
int M_open_large_file(REL_TYPE* rel);
// The row of the part that holds `address` in a dynamic file, or null (a
// static file, or a part the handle does not know yet).
PartEntry* M_part_entry(REL_TYPE* rel, uint32_t address);
// 1 when the sfd row shows another modulo than the handle.
int M_check_file_stat(const REL_TYPE* rel);
// Takes the rows of `rel` out of the table and closes its parts.
void M_remove_part_files(REL_TYPE* rel);
// Makes room for one more descriptor: closes the least recently used
// candidate when the limit is reached; ends the run when there is none.
void M_reserve_descriptor();
// Name of a part: "%s/dat%03d" or "%s/over%03d".
void M_part_path(const REL_TYPE* rel, uint32_t part, char* out, size_t size);
// open(2) flags for the handle's open mode.
int M_open_flags(int32_t mode);
// Open part descriptors counted against the limit (statistics and tests).
int32_t M_open_part_count();
