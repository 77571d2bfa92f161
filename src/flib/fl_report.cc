#include "flib/fl_report.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "common/fl_errout.h"
#include "flib/fl_rel.h"

char M_err_cause[FL_CAUSE_SIZE] = {};

namespace {
int32_t g_sequence = 0;
}

int M_file_error(const REL_TYPE* rel, const char* function, const char* cause, const uint8_t* key,
                 int32_t key_length, int32_t number) {
  if (cause != nullptr) {
    std::snprintf(M_err_cause, sizeof M_err_cause, "%s", cause);
    g_sequence = 0;
  }
  ++g_sequence;
  std::string key_text;
  if (key != nullptr && key_length > 0) key_text.assign(reinterpret_cast<const char*>(key), static_cast<size_t>(key_length));
  const char* text = M_err_cause[0] != '\0' ? M_err_cause : "unknown";
  M_errout(0, "%d:%s error in %s for file '%s', key '%s', number=%d\n", g_sequence, text, function,
           rel != nullptr ? rel->path : "", key_text.c_str(), number);
  return -1;
}
