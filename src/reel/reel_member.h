// Sequential and direct members: program text that becomes one
// operating-system file each, in SAM or DAM or inside a directory file.
#pragma once

#include <cstdint>

// Restores a member at the top of the account.
// REQUIRES: the buffer holds the member's description.
void reel_member_file(unsigned char* buffer, int32_t* length);
// Restores the members of the directory of the current-file slot, from the
// block at hand; what is not a member description is left to the caller.
void reel_dir_members(unsigned char* buffer, int32_t* length);
