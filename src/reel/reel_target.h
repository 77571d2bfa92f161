// The target of a tape file in the account: its name on disk, its
// creation, its VOC entry, and opening it for the load.
#pragma once

#include <cstdint>
#include <string>

// Lookup modes of reel_target_name and reel_name_exists.
inline constexpr int REEL_NAME_FILE = 1;    // a file of the account, mapped by the VOC
inline constexpr int REEL_NAME_MEMBER = 2;  // a member, mapped by pgm_map

// Results of reel_target_name.
inline constexpr int REEL_TARGET_SAME = 0;     // the name on disk is the tape name
inline constexpr int REEL_TARGET_OTHER = 1;    // the name on disk differs
inline constexpr int REEL_TARGET_EXISTS = 2;   // the part being restored is there already

// The name on disk of `key` into `target_out`. Mode 2: `key` is a member's
// path and `target_out` its plain name; pgm_map gives a known mapping
// (result 2), otherwise `key` becomes the plain name and the name is
// worked out as for a file.
int reel_target_name(std::string& key, std::string& target_out, int mode);

// Makes the target of the current-file slot; 1 made, 0 not made (the file
// is to be skipped). `dynamic` asks for a dynamic hashed file.
int reel_create_target(int dynamic);
// For -D and -O: the slot's name on disk from the VOC entry of its tape
// name, or empty when there is none.
void reel_target_from_voc();
// Opens the slot's target for the load; 1 or 0.
int reel_open_target();
// Closes the slot's open target that is not loaded through the record
// loader (a directory-type file) and marks the slot's handle closed.
void reel_close_target();

// Tells what happens to the file of the current-file slot, on the console
// and in dispmsg:
//   'L'  "Loading <kind> <name> ..."
//   'O'  the open failed
//   'M'  the file is resized to the slot's modulo; `ok` says whether it was
//   'C'  the file was made (`ok` 1), with its modulo and its name on disk
//        when that differs, or could not be made (`ok` 0)
void reel_show(char letter, int ok);
