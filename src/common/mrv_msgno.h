// Numbers of the messages that M_msgno_out prints ("Error msgno = %d. ")
// and that M_map_error turns into error codes: every message number of the
// library and the common services, in decimal as it is printed, in one
// place.
#pragma once

#include <cstdint>

// What last_message_number holds after an unnumbered message.
inline constexpr int32_t MRV_MSG_UNNUMBERED = -10000000;

// ---- Opening, hashing and writing hashed files -------------------------------
// The header disagrees with the file's size or layout.
inline constexpr int32_t MRV_MSG_BAD_FILE_LAYOUT = 75;
// A key longer than the longest key, or of negative length.
inline constexpr int32_t MRV_MSG_BAD_KEY_LENGTH = 76;
// A hash type that no hash function stands behind.
inline constexpr int32_t MRV_MSG_UNKNOWN_HASH = 117;
// The file named does not exist.
inline constexpr int32_t MRV_MSG_NO_SUCH_FILE = 427;
// The file is too short to hold a file header.
inline constexpr int32_t MRV_MSG_SHORT_HEADER = 682;
// A block address whose part has no descriptor.
inline constexpr int32_t MRV_MSG_NO_PART_DESCRIPTOR = 30361;
// A directory whose header is not a dynamic file's.
inline constexpr int32_t MRV_MSG_DIR_NOT_DYNAMIC = 30372;
// The file was made under another language group (the marks differ).
inline constexpr int32_t MRV_MSG_LANGUAGE_DIFFERS = 30411;
// The shared file table has no free row.
inline constexpr int32_t MRV_MSG_FILE_TABLE_FULL = 30020;

// ---- Memory --------------------------------------------------------------
// The current memory pool has no free descriptor.
inline constexpr int32_t MRV_MSG_POOL_FULL = 259;
// An allocation failed.
inline constexpr int32_t MRV_MSG_NO_MEMORY = 30062;
// A buffer freed that is not in use in the current pool.
inline constexpr int32_t MRV_MSG_BAD_FREE = 30147;

// ---- Creating files and their VOC entries ----------------------------------
// The new file could not be initialised.
inline constexpr int32_t MRV_MSG_INIT_FAILED = 279;
// The operator is asked for a modulo.
inline constexpr int32_t MRV_MSG_ASK_MODULO = 478;
// The modulo given was rounded to a prime (old and new value).
inline constexpr int32_t MRV_MSG_MODULO_CHANGED = 895;
// A directory file could not be made.
inline constexpr int32_t MRV_MSG_NO_DIRECTORY = 921;
// The file type asked for has no hash type.
inline constexpr int32_t MRV_MSG_BAD_HASH_TYPE = 10030;
// Both the data and the dictionary of the file exist already.
inline constexpr int32_t MRV_MSG_BOTH_HALVES_EXIST = 10049;
// The new dictionary could not be opened, or written.
inline constexpr int32_t MRV_MSG_DICT_OPEN = 10184;
inline constexpr int32_t MRV_MSG_DICT_WRITE = 10263;
// The answer to the modulo question is not a number above 0.
inline constexpr int32_t MRV_MSG_BAD_MODULO = 10353;
// The VOC key, or the file's short name, is too long.
inline constexpr int32_t MRV_MSG_KEY_TOO_LONG = 10355;
inline constexpr int32_t MRV_MSG_NAME_TOO_LONG = 10356;
// The file could not be created.
inline constexpr int32_t MRV_MSG_CREATE_FAILED = 10804;
// The data, or the dictionary, exists already.
inline constexpr int32_t MRV_MSG_DATA_EXISTS = 10805;
inline constexpr int32_t MRV_MSG_DICT_EXISTS = 10807;
// The VOC entry could not be written.
inline constexpr int32_t MRV_MSG_VOC_WRITE = 10808;
// The path of the new file exists already.
inline constexpr int32_t MRV_MSG_PATH_EXISTS = 10811;
// The VOC entry names a file of several levels.
inline constexpr int32_t MRV_MSG_MULTI_LEVEL = 10812;

// ---- Clearing files ------------------------------------------------------
inline constexpr int32_t MRV_MSG_CLEARED = 10187;
// The dictionary's, the data's or the directory's path is not the one its
// name gives.
inline constexpr int32_t MRV_MSG_DICT_PATH_DIFFERS = 10337;
inline constexpr int32_t MRV_MSG_DATA_PATH_DIFFERS = 10341;
inline constexpr int32_t MRV_MSG_DIR_PATH_DIFFERS = 10343;
// The VOC itself is not cleared.
inline constexpr int32_t MRV_MSG_NOT_CLEARED = 10470;
inline constexpr int32_t MRV_MSG_NO_FILE = 10543;
// The operating system denied the open.
inline constexpr int32_t MRV_MSG_DENIED = 10569;
inline constexpr int32_t MRV_MSG_RECORD_LOCK = 10689;
inline constexpr int32_t MRV_MSG_OPEN_FAILED = 10690;
inline constexpr int32_t MRV_MSG_FILE_LOCK = 10837;
// A file with a delete trigger is not cleared.
inline constexpr int32_t MRV_MSG_DELETE_TRIGGER = 10924;

// ---- Languages -----------------------------------------------------------
inline constexpr int32_t MRV_MSG_NOT_A_LANGUAGE = 30403;

// ---- Alternate key indexes -------------------------------------------------
// A range lock of the index failed.
inline constexpr int32_t MRV_MSG_INDEX_LOCK = 110084;
// No place is left for a new index entry.
inline constexpr int32_t MRV_MSG_INDEX_NO_ENTRY_ROOM = 110101;
// A node of the tree could not be read.
inline constexpr int32_t MRV_MSG_INDEX_NODE_READ = 110132;
// The new index entry could not be written.
inline constexpr int32_t MRV_MSG_INDEX_ENTRY_WRITE = 110134;
// A search mode out of range.
inline constexpr int32_t MRV_MSG_INDEX_FIND_MODE = 110135;
// The index count of the headers could not be updated.
inline constexpr int32_t MRV_MSG_INDEX_COUNT_UPDATE = 110158;
