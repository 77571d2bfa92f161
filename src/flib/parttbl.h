// The part table: the directories (partitions) that may hold the parts of
// dynamic files, each with a reserve of space that must stay free.
//
// A part placed outside its file's directory lives in
// "<partition>/<prefix><file name>/", and the file's directory holds a
// symbolic link of the part's normal name (datNNN, overNNN) to it, so parts
// are always reached by their normal names. The two-letter prefix, kept in
// the partition's ".fil_prefix_tbl" as lines "<prefix>:<file name>", keeps
// parts of equally named files apart.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

struct REL_TYPE;

struct PartTableRow {
  char path[128] = {};
  uint32_t reserve = 0;  // 512-byte units that must stay free
  uint32_t id = 0;       // 0 in the default row: the file's own directory
  uint32_t* space_cell = nullptr;  // available space cell; null = ask the disk
};

inline constexpr uint32_t DEFAULT_PARTITION_RESERVE = 1000;

// The table in force; row 0 is always the default row.
extern std::vector<PartTableRow> M_part_table;
// When 1, the partition checks explain their refusals.
extern int32_t M_fl_debug;

// Builds the table: the default row, then the rows of "<MRVHOME>parttbl"
// when that file exists (lines "PATH RESERVE ID", "#" starts a comment).
// -1 when the file exists and a line is malformed.
int M_load_part_table();
// 1 when the partition's free space exceeds its reserve plus size/512.
int M_check_partition_space(uint32_t partition_id, const char* path, uint32_t size);
// A partition other than the current device with room for `size` bytes, or
// null. *result is 0, or -2 when a wait passed and `wait` asked to be told.
const PartTableRow* search_available_partition(REL_TYPE* rel, uint32_t* device, uint32_t size, int wait,
                                               int* result);
// The prefix after `prefix` (two letters): the last letter is raised, 'Z'
// is followed by 'a', and 'z' wraps to 'A' and carries to the first letter.
void next_prefix(char prefix[3]);
// "<partition>/<prefix><name>" for the file whose directory is `file_path`,
// taking or adding the file's line in the partition's .fil_prefix_tbl.
int form_relative_dirname(char* target, size_t size, const char* partition, const char* file_path);
// Creates a part file (datNNN or overNNN) in a partition with room; result a
// read-write descriptor, -1, or -2 (see search_available_partition).
int M_create_part_file(REL_TYPE* rel, const char* path, uint32_t* device, uint32_t size, int wait);
