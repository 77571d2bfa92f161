// Analysis and creation plans.
#pragma once

#include <cstdint>

// Creates the files of the -C plan.
void reel_apply_plan();
// Writes the last plan line, closes the plan and finishes the run.
[[noreturn]] void reel_finish_analysis();

// Appends the current file's line to the -A plan, opening the plan on the
// first call (even when there is nothing to write yet).
void reel_write_plan_line();
// The modulo a plan proposes for a file with these counts.
int32_t reel_suggest_modulo(int32_t kind, int64_t key_bytes, int64_t data_bytes, int32_t records,
                            int32_t tape_modulo);
