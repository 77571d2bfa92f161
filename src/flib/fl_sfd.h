// The shared file table: one row per open dynamic file, holding the state
// that all users of the file must agree on (modulo, part counts, split flag).
//
// No other process shares files with this build, so the table is one of
// this process; rows are still found by file identity, so two opens of one
// file share a row and see each other's changes.
#pragma once

#include <cstdint>

struct REL_TYPE;
struct SharedFileRow;

inline constexpr int32_t DEFAULT_SHM_FILE_ROWS = 256;
inline constexpr uint32_t MAX_FILE_USERS = 1000000000;

// Sets up an empty table of `rows` rows (done at first use with the
// default); rows already handed out become invalid.
void M_init_shm_file_table(int32_t rows);
// Finds or takes the row of rel->file_id and takes over the counts and
// modulo of the over001 header block where they differ. 0, or -1 with
// message 30020 when the table is full.
int M_link_file_entry(REL_TYPE* rel, const uint8_t* over_header);
// One user less; the row is emptied with its last user.
void M_del_file_entry(REL_TYPE* rel);
void M_cleansfd(const uint32_t file_id[3]);
