// The part table: where the parts of a file are placed.
#pragma once

// Loads the table at start-up; -1 when it can't be loaded.
int M_load_part_table();
