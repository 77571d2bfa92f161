#include "common/readconf.h"

#include <cstdlib>

// This build has no reader for mrvconfig yet: nothing is exported, and every
// parameter takes the environment's value or its reader's own default, which
// is what a lone tool run gets from a configuration that names nothing.
int M_readconfg() { return 0; }

int32_t M_env_param(const char* name, int32_t fallback) {
  const char* v = std::getenv(name);
  if (v == nullptr || *v == '\0') return fallback;
  char* end = nullptr;
  long n = std::strtol(v, &end, 10);
  if (end == v) return fallback;
  return static_cast<int32_t>(n);
}
