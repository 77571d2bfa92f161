// Analysis and creation plans.
#pragma once

// Creates the files of the -C plan.
void reel_apply_plan();
// Writes the last plan line, closes the plan and finishes the run.
[[noreturn]] void reel_finish_analysis();
