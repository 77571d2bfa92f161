// Account set-up and close-down.
#pragma once

// Makes or opens the account directory, enters it, and opens the VOC, the
// side files and the work files.
void reel_open_account();
// Opens the run's log, dispmsg.
void reel_open_dispmsg();
// Flushes and closes everything, reports overflowed files, moves the account.
void reel_close_account();
