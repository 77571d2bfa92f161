// The installation's configuration.
//
// All code reads its parameters from the process environment by name, with a
// built-in fallback of its own. M_readconfg is where mrvconfig's values enter
// the environment at start-up.
#pragma once

#include <cstdint>

// Reads the configuration into the environment. Returns 0.
int M_readconfg();
// An environment parameter as a number, or `fallback` when unset or not a
// number.
int32_t M_env_param(const char* name, int32_t fallback);
