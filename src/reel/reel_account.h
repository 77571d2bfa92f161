// Account set-up and close-down.
#pragma once

#include <string>

#include "flib/fl_rel.h"

// The name of the account that the tape is at, from its description block;
// empty until the first one.
extern std::string tape_account;

// The work files, open from reel_open_account to reel_close_account:
// pgm_map maps the path of a renamed member on tape to its name on disk.
extern REL_TYPE reel_pgm_map;

// Makes or opens the account directory, enters it, and opens the VOC, the
// side files and the work files.
void reel_open_account();
// Opens the run's log, dispmsg.
void reel_open_dispmsg();
// Flushes and closes everything, reports overflowed files, moves the account.
void reel_close_account();

// Writes the text to the console and to dispmsg (when it is open).
void reel_tell(const char* format, ...) __attribute__((format(printf, 1, 2)));
