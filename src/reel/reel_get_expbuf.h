// Selection lists of the command line, and the level arena.
//
// The -B and -R lists each live in one fixed allocation: the names run up
// from its start, the index of entries runs down from its end, so the newest
// entry is the lowest and a look-up from there lets a later line win.
//
// The level arena gives the file library short-lived memory: a caller opens a
// level, allocates by bumping a pointer, and closes the level, which takes
// back everything allocated since at once. Levels are kept in pages of 200.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr size_t REEL_BLOCK_LIST_SIZE = 15360;
inline constexpr size_t REEL_RECOVERY_LIST_SIZE = 10240;
inline constexpr size_t REEL_BLOCK_LINE_MAX = 255;
inline constexpr size_t REEL_RECOVERY_LINE_MAX = 127;
inline constexpr size_t REEL_LIST_NAME_MAX = 128;

// Load a list file; non-zero when it could be read and held an entry.
int reel_load_block_list(const char* path);
int reel_load_recovery_list(const char* path);

// 1 with the entry's values, or 0 with both set to -1. A value that the list
// did not give is -1.
int reel_find_block_entry(const char* name, int32_t* factor, int32_t* modulo);
int reel_in_recovery_list(const char* name);
// The modulo that a DATA file of `modulo` gets under the -B list, and in
// *block (when given) its block code: the listed factor, 1 when none or
// below 0.
int32_t reel_block_list_modulo(const char* name, int32_t modulo, int32_t* block = nullptr);
// Empties both lists (tests).
void reel_clear_lists();

inline constexpr int32_t REEL_ARENA_DEFAULT_SIZE = 524288;
inline constexpr int32_t REEL_LEVELS_PER_PAGE = 200;

void reel_init_levels();
// Opens a level; returns its number.
int32_t reel_push_level();
// Closes `level` and every level above it: 1; 0 for an illegal level; -1
// when the page chain is broken.
int reel_pop_level(int32_t level);
// Memory until the level is closed, 8-aligned; null for a negative size.
void* reel_arena_alloc(int32_t size);

// Introspection of the arena (tests).
int32_t reel_arena_level();
int32_t reel_arena_region_count();
int32_t reel_arena_region_size();
// Page and place of a level's entry; false when the chain has no such page.
bool reel_level_entry_position(int32_t level, int32_t* page, int32_t* place);
