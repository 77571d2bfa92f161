// Account set-up and close-down.
//
// reel_open_account makes or finds the account directory, enters it (all
// paths are relative to the account from then on), opens its VOC, makes
// the side files pgm_list, idx_list and resize_list (kept and added to by
// a later run) and opens the work files pgm_map, SAM and DAM, creating
// those that the VOC lacks. reel_close_account closes in order, reports the
// files that overflowed, and puts the account where it belongs.
#pragma once

#include <string>

#include "flib/fl_rel.h"

// The name of the account that the tape is at, from its description block;
// empty until the first one.
extern std::string tape_account;

// The work files, open from reel_open_account to reel_close_account:
// pgm_map maps the path of a renamed member on tape to its name on disk;
// SAM and DAM receive the items of those types.
extern REL_TYPE reel_pgm_map;
extern REL_TYPE reel_sam_file;
extern REL_TYPE reel_dam_file;

// The real parent of the account directory, an absolute path once the
// account is entered ("..", until then). "The directory above the account" of the -T moves and
// the renames of the close-down.
extern std::string reel_account_parent;
// Where -T sends the account's files: an absolute -T is that directory
// itself, a relative one lies beside the account directory.
std::string reel_target_path();

// Makes or opens the account directory, enters it, and opens the VOC, the
// side files and the work files. Every failure ends the run.
void reel_open_account();
// Opens the run's log, dispmsg.
void reel_open_dispmsg();
// Flushes and closes everything, reports overflowed files, moves the account.
void reel_close_account();

// Writes the text to the console and to dispmsg (when it is open).
void reel_tell(const char* format, ...) __attribute__((format(printf, 1, 2)));
