#include "common/mrv_marks.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include "common/init_params.h"
#include "common/mrv_msg.h"
#include "common/readroot.h"

unsigned char M_RM = 255;
unsigned char M_FM = 254;
unsigned char M_VM = 253;
unsigned char M_SM = 252;
unsigned char M_TM = 251;
unsigned char M_RMM2 = 250;
unsigned char M_RMM1 = 249;
unsigned char M_NULLVAL = 129;
char M_nullval[2] = {static_cast<char>(129), '\0'};
unsigned char M_PRINT_AT = 192;
uint8_t M_langgrp[3] = {DEFAULT_RECORD_MARK, DEFAULT_PRINT_AT, DEFAULT_NULL_VALUE};
int32_t M_null_flag = 0;
int32_t M_locale_unset = 0;

void M_set_marks(unsigned record_mark, unsigned print_at, unsigned null_value) {
  M_RM = static_cast<unsigned char>(record_mark);
  M_FM = static_cast<unsigned char>(record_mark - 1);
  M_VM = static_cast<unsigned char>(record_mark - 2);
  M_SM = static_cast<unsigned char>(record_mark - 3);
  M_TM = static_cast<unsigned char>(record_mark - 4);
  M_RMM2 = static_cast<unsigned char>(record_mark - 5);
  M_RMM1 = static_cast<unsigned char>(record_mark - 6);
  M_NULLVAL = static_cast<unsigned char>(null_value);
  M_nullval[0] = static_cast<char>(null_value);
  M_nullval[1] = '\0';
  M_PRINT_AT = static_cast<unsigned char>(print_at);
  M_langgrp[0] = M_RM;
  M_langgrp[1] = M_PRINT_AT;
  M_langgrp[2] = M_NULLVAL;
}

namespace {

bool printable(int v) { return v >= 32 && v <= 126; }

std::vector<std::string> tokens_of(const std::string& line) {
  std::vector<std::string> out;
  size_t at = 0;
  while (at < line.size()) {
    size_t start = line.find_first_not_of(" \t\r\n", at);
    if (start == std::string::npos) break;
    size_t end = line.find_first_of(" \t\r\n", start);
    if (end == std::string::npos) end = line.size();
    out.push_back(line.substr(start, end - start));
    at = end;
  }
  return out;
}

constexpr size_t kLanguageLimit = 15;
constexpr size_t kLocaleLimit = 8;
constexpr size_t kLangLineLimit = 512;

std::string group_or_running(const char* group_text) {
  return group_text != nullptr ? group_text : M_langgrp_text();
}

// Calls `row` for each (language, locales) line of the group's section.
// Returns 1 when the group is in the file, 0 when not, -1 on a bad token or
// a file that can't be opened. `row` returns true to stop.
template <typename Row>
int walk_group(const std::string& group, Row row) {
  std::string path = langgrp_path();
  FILE* f = std::fopen(path.c_str(), "r");
  if (f == nullptr) {
    M_errmsg(0, "Can't open file %s\n", path.c_str());
    return -1;
  }
  char buffer[kLangLineLimit];
  bool inside = false, found = false;
  int result = 0;
  while (std::fgets(buffer, sizeof buffer, f) != nullptr) {
    std::vector<std::string> t = tokens_of(buffer);
    if (t.empty() || t[0][0] == '#') continue;
    if (!inside) {
      if (t[0] == group) inside = found = true;
      continue;
    }
    if (t[0] == "END") break;
    if (t[0].size() > kLanguageLimit) {
      M_errmsg(0, "Bad mrvlang '%s' in LANGGRP file", t[0].c_str());
      result = -1;
      break;
    }
    bool bad = false;
    for (size_t i = 1; i < t.size(); ++i)
      if (t[i].size() > kLocaleLimit) {
        M_errmsg(0, "Bad locale '%s' in LANGGRP file", t[i].c_str());
        bad = true;
        break;
      }
    if (bad) {
      result = -1;
      break;
    }
    if (row(t)) break;
  }
  std::fclose(f);
  if (result < 0) return -1;
  return found ? 1 : 0;
}

}  // namespace

bool langgrp_valid(int rm, int pa, int nv) {
  if (rm <= 6 || rm > 255 || pa < 0 || pa > 255 || nv < 0 || nv > 255) return false;
  if (printable(rm) || printable(rm - 6) || printable(pa) || printable(nv)) return false;
  if ((pa >= rm - 6 && pa <= rm) || (nv >= rm - 6 && nv <= rm)) return false;
  return pa != nv;
}

std::string M_langgrp_text() {
  char text[16];
  std::snprintf(text, sizeof text, "%u/%u/%u", M_langgrp[0], M_langgrp[1], M_langgrp[2]);
  return text;
}

std::string langgrp_path() { return mrv_home_dir_if_known() + "sys/LANGGRP"; }

int read_config_marks() {
  std::string path = std::string(get_include_dir()) + "/" + CONFIG_FILE_NAME;
  std::ifstream in(path);
  if (!in) {
    M_errmsg(0, "Can't open %s", path.c_str());
    return -1;
  }
  bool have_group = false, have_flag = false;
  std::string line;
  while ((!have_group || !have_flag) && std::getline(in, line)) {
    std::vector<std::string> t = tokens_of(line);
    if (t.empty()) continue;
    const std::string& first = t[0];
    size_t eq = first.find('=');
    if (eq == std::string::npos) continue;
    const char* value = first.c_str() + eq + 1;
    if (!have_group && first.compare(0, 11, "MRV_LANGGRP") == 0) {
      have_group = true;
      int rm, pa, nv;
      if (std::sscanf(value, "%d%*c%d%*c%d", &rm, &pa, &nv) == 3 && langgrp_valid(rm, pa, nv))
        M_set_marks(static_cast<unsigned>(rm), static_cast<unsigned>(pa), static_cast<unsigned>(nv));
    } else if (!have_flag && first.compare(0, 9, "NULL_FLAG") == 0) {
      have_flag = true;
      M_null_flag = std::atoi(value);
    }
  }
  return 0;
}

int langgrp_check(int mode, const char* group_text, const char* name) {
  bool hit = false;
  int found = walk_group(group_or_running(group_text), [&](const std::vector<std::string>& t) {
    if (mode == LANGGRP_HAS_LANGUAGE) hit = t[0] == name;
    if (mode == LANGGRP_HAS_LOCALE)
      for (size_t i = 1; i < t.size() && !hit; ++i) hit = t[i] == name;
    return hit;
  });
  if (found != 1) return 0;
  return mode == LANGGRP_HAS_GROUP || hit ? 1 : 0;
}

int langgrp_find(int mode, const char* group_text, const char* name, std::string* result) {
  bool hit = false;
  int found = walk_group(group_or_running(group_text), [&](const std::vector<std::string>& t) {
    if (mode == LANGGRP_LOCALE_OF_LANGUAGE && t[0] == name && t.size() > 1) {
      *result = t[1];
      hit = true;
    }
    for (size_t i = 1; mode == LANGGRP_LANGUAGE_OF_LOCALE && i < t.size() && !hit; ++i)
      if (t[i] == name) {
        *result = t[0];
        hit = true;
      }
    return hit;
  });
  return found == 1 && hit ? 0 : -1;
}

void langgrp_list(const char* group_text) {
  std::ifstream in(langgrp_path());
  if (!in) {
    M_errmsg(0, "Can't open file %s\n", langgrp_path().c_str());
    return;
  }
  std::string group = group_or_running(group_text);
  std::printf("        Language    Locale\n");
  std::printf("  ------------------------------\n");
  bool inside = false;
  std::string line;
  while (std::getline(in, line)) {
    std::vector<std::string> t = tokens_of(line);
    if (t.empty() || t[0][0] == '#') continue;
    if (!inside) {
      inside = t[0] == group;
      continue;
    }
    if (t[0] == "END") break;
    if (t[0] == "BEGIN") continue;
    for (size_t i = 1; i < t.size(); ++i) std::printf("%16s %9s\n", i == 1 ? t[0].c_str() : "", t[i].c_str());
  }
}
