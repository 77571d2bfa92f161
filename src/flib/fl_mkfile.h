// Making the files of an account: a hashed file with its dictionary, a
// directory-type file, and the VOC entry that names them.
//
// The VOC entry of a pair is written after both halves stand, and a
// dictionary gets its "@ID" item last. A half made before a later failure
// is removed again; the entry of the other half, made earlier, is completed
// rather than replaced.
#pragma once

#include <cstdint>
#include <string>

// Flags of M_create_file.
inline constexpr int32_t CREATE_DICT = 0x08;
inline constexpr int32_t CREATE_DATA = 0x10;
inline constexpr int32_t CREATE_DIR = 0x20;
inline constexpr int32_t CREATE_DIR_NO_DICT = 0x100;
inline constexpr int32_t CREATE_KEY_AS_GIVEN = 0x400;
// Type words beyond the hash types 0..2 and 0x40/0x41.
inline constexpr int32_t CREATE_TYPE_NONE = -1;
inline constexpr int32_t CREATE_TYPE_DEFAULT_DYNAMIC = 0x80;
// Longest short name of a file.
inline constexpr size_t CREATE_NAME_MAX = 198;

// Makes the dictionary (CREATE_DICT), the data file (CREATE_DATA) or a
// directory-type file (CREATE_DIR, with CREATE_DIR_NO_DICT: no dictionary)
// of `name`, and writes its VOC entry "F"/"DIR", data path, dictionary
// path. Block codes are clamped to 0..16 (0 = 512 bytes, n = n KiB). An
// existing entry of the other half is completed. 1, or 0 after a numbered
// message. `dict_name` and `part_table` may be null.
int M_create_file(const char* name, const char* dict_name, int32_t dict_modulo, int32_t modulo,
                  int32_t dict_block, int32_t block, int32_t flags, int32_t verbose, int32_t type,
                  const char* part_table);
// The directory part of M_create_file: the directory, its VOC entry and,
// unless an entry existed or CREATE_DIR_NO_DICT is set, its dictionary.
// The dictionary path written is left in *dict_path_out. 1 or 0.
int M_create_dir_file(const char* name, int32_t name_len, int32_t flags, int voc_entry_exists,
                      std::string* dict_path_out, int32_t verbose, const char* part_table);
// Writes the "@ID" item of the dictionary at `dict_path` for the file
// `name`. 1 or 0.
int M_dict_at_id(const char* name, const char* dict_path, int32_t verbose);
