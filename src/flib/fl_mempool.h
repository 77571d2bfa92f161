// Memory pools of the file library.
#pragma once

// Sets up the library's pools at start-up.
void M_init_pools();
