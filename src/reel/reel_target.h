// The target of a tape file in the account: its name on disk, its
// creation, its VOC entry, and opening it for the load.
//
// The tape name is always the VOC key; only the name on disk changes. A
// name on disk is the tape name cut to max_name_len, with the characters of
// name_bad_chars made "_", and, when that changed it or it is taken, made
// unique by a letter in its last place (then the place before it).
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

// The name on disk of `key` into `target_out`. Mode 1: `key` is a tape
// file name; a VOC item of the name that is no file ("V", "K", ...) is
// deleted, and an existing file entry gives its name (result 2 when the
// half of the slot's kind is there, else 0/1 so that the new half goes
// beside the other). Mode 2: `key` is a member's path and `target_out` its
// plain name; pgm_map gives a known mapping (result 2), otherwise `key`
// becomes the plain name and the name is worked out as in mode 1.
int reel_target_name(std::string& key, std::string& target_out, int mode);
// 1 when `name` cut to `name_len` is taken (mode 1: a VOC item, a path or
// "D_" + name; mode 2: "<slot's name on disk>/<name>"), else 0. Any other
// mode: 1.
int reel_name_exists(const std::string& name, int name_len, int mode);
// What to do with an existing target: 1 go on and create (the old half is
// gone from the VOC entry and from disk), 2 skip the file. Asks the
// operator unless -R or the entry's type decides.
int reel_ask_overwrite(const std::string& tape_name, const std::string& target_name);

// Makes the target of the current-file slot; 1 made, 0 not made (the file
// is to be skipped). `dynamic` asks for a dynamic hashed file. `for_load`:
// the slot's loader opens the file next (see reel_create_under_name).
int reel_create_target(int dynamic, bool for_load);
// Creates `target` with M_create_file while the VOC entry of `tape_name`
// (when the names differ) stands under `target` for the time of the call,
// and leaves the entry keyed by `tape_name`. 1 or 0. With `for_load`, a
// data file's group heads are left to the memory-buffered writer that the
// caller starts on it next (flib/fl_heads.h).
int reel_create_under_name(const std::string& tape_name, const std::string& target, int32_t dict_modulo,
                           int32_t modulo, int32_t dict_block, int32_t block, int32_t flags, int32_t type,
                           bool for_load);
// For -D and -O: the slot's name on disk from the VOC entry of its tape
// name, or empty when there is none.
void reel_target_from_voc();
// Opens the slot's target for the load; 1 or 0.
int reel_open_target();
// The target of a hashed file whose modulo the slot holds: with -D or -O
// the existing file named in the VOC, otherwise a new one (dynamic or
// static); then opened for the load. 1, or 0 when the file is to be skipped.
int reel_prepare_hashed_target(int dynamic);
// Opens the slot's hashed target `name` through the VOC (its data or its
// dictionary by the slot's kind) and starts the buffered writer. 1 or 0.
int reel_open_loader(const std::string& name);
// Closes the slot's open target that is not loaded through the record
// loader (a directory-type file) and marks the slot closed.
void reel_close_target();
// Records that stand in the slot's hashed target, counted through a fresh
// open of it; 0 when it does not open.
int32_t reel_count_standing();

// A write into the slot's target failed with `error`: the first time, the
// file is marked incomplete and one line (console and dispmsg) names it
// and the cause; the library's own reports are silenced until
// reel_write_failure_done, so that a file costs a few lines, not one per
// block.
void reel_write_failed(int error);
// The slot's target is closed: the library reports again.
void reel_write_failure_done();

// Tells what happens to the file of the current-file slot, on the console
// and in dispmsg:
//   'L'  "Loading <kind> <name> ..."
//   'O'  the open failed
//   'M'  the file is resized to the slot's modulo; `ok` says whether it was
//   'C'  the file was made (`ok` 1), with its modulo and its name on disk
//        when that differs, or could not be made (`ok` 0)
void reel_show(char letter, int ok);
