// Directory-type files: a file of modulo 0 is a directory that holds one
// operating-system file per record, named by the key.
#pragma once

#include <cstdint>
#include <string>

struct REL_TYPE;

// Writes the record as the file "<path>/<key>"; `mode` is the add mode
// (1 only if absent, 2 only if present). 1, or -1.
int M_dir_write(REL_TYPE* rel, const uint8_t* key, int32_t key_length, const uint8_t* record,
                int32_t record_length, int32_t mode);
// 1 and the record, 0 absent, -1 failure.
int M_dir_read(REL_TYPE* rel, const uint8_t* key, int32_t key_length, std::string* record);
// 1 exists, 0 absent.
int M_dir_exists(REL_TYPE* rel, const uint8_t* key, int32_t key_length);
// 1 deleted, 0 absent, -1 failure.
int M_dir_delete(REL_TYPE* rel, const uint8_t* key, int32_t key_length);
