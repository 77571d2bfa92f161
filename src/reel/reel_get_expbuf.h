// Selection lists (-B, -R) and the level arena.
#pragma once

// Load a list file; non-zero when it could be read and held an entry.
int reel_load_block_list(const char* path);
int reel_load_recovery_list(const char* path);
// Start-up of the level arena.
void reel_init_levels();
