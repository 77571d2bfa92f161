// Clearing files: a file named in the VOC is emptied in place.
//
// A hashed file is not emptied record by record: it is truncated and laid
// out again by M_initfile with its modulo, block size, hash type, triggers
// and VOC entry kept. A dynamic file comes back at its minimum modulo and
// keeps only the primary parts that layout needs, its first overflow part,
// its index files, its key-range file and its part table. A directory-type
// file loses its files and keeps the directory. A multi-level dictionary
// keeps "@ID" and its member pointers. A cleared dictionary gets its "@ID"
// item back.
//
// Order that matters: the break signal is held back from the truncate to
// the end of the new layout, so that an interrupt never finds a file in
// pieces. A layout that fails leaves no file behind (M_initfile removes it).
#pragma once

#include <cstdint>

struct REL_TYPE;

// dict_mode of M_clear_one: CLEAR_DICT clears the dictionary of the entry;
// any other value the data part.
inline constexpr int32_t CLEAR_DICT = 1;
inline constexpr int32_t CLEAR_DATA = 2;

// Clears the file of VOC entry `name` (one name; there is no prompt and no
// select list in this build) with the signals deferred around the work.
// The result of M_clear_one.
int M_clear_file(const char* name, int32_t dict_mode, int32_t force, int32_t verbose, int32_t lock);
// Clears one file. `force` 0 asks that the path be the name itself ("D_" +
// name for a dictionary) unless the name holds a comma; `verbose` issues
// the numbered messages of success and of refusals; `lock` takes the file's
// named lock for the time of the clear. 1 cleared, 0 not (no entry, "VOC"
// itself, a delete trigger, an open or layout failure), -1 the lock was
// refused.
int M_clear_one(const char* name, int32_t name_len, int32_t dict_mode, int32_t force, int32_t verbose,
                int32_t lock);
// Deletes every entry of the directory-type file at `path`; the directory
// stays. 1 or 0.
int M_clear_dir(const char* name, const char* path, int32_t force, int32_t verbose);
// Deletes every item of a multi-level dictionary except "@ID" and the
// member pointers (keys "@..." whose first attribute starts "LF" or "LD" in
// any case). 1, or 0 after a failed read or delete.
int clear_l_dict_file(REL_TYPE* rel);
// Deletes entries of the directory `path` by `pattern`: name prefixes
// separated by "|"; a leading "^" keeps the matching names and deletes the
// rest. A null or empty pattern deletes every entry and then the directory.
// Names starting with "." always stay. 1, or 0 when something could not be
// deleted.
int M_remove_dir_files(const char* path, const char* pattern);

// The index files of a cleared file are emptied through their headers
// (M_clear_all_indexes): every tree emptied and still usable, the buckets
// reset, the update log gone, the header's index count put back. Called
// with the file open after its new layout. 1, or 0 when the reset failed.
int M_clear_reset_index(REL_TYPE* rel);
