#include "common/init_params.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "common/init_logs.h"
#include "common/mrv_marks.h"
#include "common/mrv_msg.h"
#include "common/readroot.h"

namespace {

// ---- The table ------------------------------------------------------------

std::vector<ConfigParam> build_params() {
  std::vector<ConfigParam> rows;
#define MRV_P_C(text) rows.push_back({text, ParamKind::Comment, 0, 0});
#define MRV_P_U(name, def) rows.push_back({#name, ParamKind::Uint, offsetof(ConfigRecord, name), 0});
#define MRV_P_L(name, def) rows.push_back({#name, ParamKind::Ulong, offsetof(ConfigRecord, name), 0});
#define MRV_P_S(name, size, def) \
  rows.push_back({#name, ParamKind::String, offsetof(ConfigRecord, name), size});
  MRV_CONFIG_PARAMS(MRV_P_C, MRV_P_U, MRV_P_L, MRV_P_S)
#undef MRV_P_C
#undef MRV_P_U
#undef MRV_P_L
#undef MRV_P_S
  return rows;
}

constexpr const char* kOverrides[] = {
    "COMPACTOR_POLICY", "MAX_DSFILES",      "MAX_OPEN_FILE",        "MAX_OPEN_SEQF",
    "MAX_OPEN_OSF",     "MAX_CAPT_LEVEL",   "MAX_RETN_LEVEL",       "VARMEM_PCT",
    "MIN_MEMORY_BASIC", "MIN_MEMORY_TEMP",  "OLB_BUFSZ",            "SETINDEX_BUFFER_KEYS",
    "SETINDEX_VALIDATE_KEY", "TMP",         "PART_TBL",             "MAX_RECORD_LOCKS",
    "DEFAULT_ISO_LEVEL", "MSGMNI",          "MSGMAX",               "MSGTQL",
    "MSGTX"};

// ---- The line table -------------------------------------------------------

struct LineTable {
  std::array<std::array<char, CONFIG_LINE_SIZE>, CONFIG_LINE_SLOTS> slots{};
  int count = 0;
};

LineTable g_lines;
std::string g_path;

bool is_blank(char c) { return c == ' ' || c == '\t'; }
bool ends_token(char c) { return c == '\0' || c == '\n' || c == '\r'; }

// Reports a failed system call on the file: verb, path, errno and its text.
int file_failure(const char* verb, const std::string& path) {
  int e = errno;
  M_errmsg(0, "%s \"%s\" error(%d): %s\n", verb, path.c_str(), e, std::strerror(e));
  return -1;
}

enum class LineResult { Ok, NoEquals, BadEquals };

// Rewrites a parameter line in place to exactly "NAME=VALUE".
LineResult normalise(char* slot) {
  const char* p = slot;
  while (is_blank(*p)) ++p;
  if (ends_token(*p)) return LineResult::Ok;  // only white space: left alone
  std::string out;
  while (!is_blank(*p) && *p != '=' && !ends_token(*p)) out += *p++;
  while (is_blank(*p)) ++p;
  if (*p != '=') return std::strchr(slot, '=') == nullptr ? LineResult::NoEquals : LineResult::BadEquals;
  out += *p++;
  while (is_blank(*p)) ++p;
  while (!is_blank(*p) && !ends_token(*p)) out += *p++;
  std::snprintf(slot, CONFIG_LINE_SIZE, "%s", out.c_str());
  if (slot[0] == '=') return LineResult::BadEquals;
  return LineResult::Ok;
}

bool starts_parameter(unsigned char c) {
  if (c == '#') return false;
  if (M_locale_unset) return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || std::isdigit(c) || std::isspace(c);
  return std::isalnum(c) || std::isspace(c);
}

// The value part of the name's line, or null.
const char* find_value(const char* name) {
  int i = config_find_line(name);
  if (i >= g_lines.count) return nullptr;
  return std::strchr(g_lines.slots[i].data(), '=') + 1;
}

// "%u" semantics: leading blanks, an optional sign, digits; negative values
// wrap. Nothing scannable is the invalid value, reported as the fallback.
// Both "%u" and "%lu" fields are 32 bits wide in the record.
bool scan_unsigned(const char* text, int64_t* out) {
  unsigned long v = 0;
  if (std::sscanf(text, "%lu", &v) != 1) return false;
  *out = static_cast<int64_t>(static_cast<uint32_t>(v));
  return true;
}

// ---- Defaults -------------------------------------------------------------

void parse_langgrp(ConfigRecord* r);

void copy_text(char* field, size_t size, const std::string& text) {
  std::snprintf(field, size, "%s", text.c_str());
}

}  // namespace

int32_t config_default_gnpages(const ConfigDefaults& d) {
  uint32_t cap = d.shm_lba > 1048576 ? 16777216u : 4194304u;
  return static_cast<int32_t>(std::min(d.shm_max_size, cap) / 131072);
}

int32_t config_default_lminents(const ConfigDefaults& d) {
  return std::min(std::max(d.shm_usrsz / 131072, 8), 255);
}

int32_t config_default_gntbls(const ConfigDefaults& d) {
  int32_t pages = config_default_gnpages(d);
  int32_t n = pages > 0 ? d.nusers * config_default_lminents(d) / pages : 0;
  return n < 10 ? 20 : n;
}

const std::vector<ConfigParam>& config_params() {
  static const std::vector<ConfigParam> rows = build_params();
  return rows;
}

bool config_is_override(const char* name) {
  return std::any_of(std::begin(kOverrides), std::end(kOverrides),
                     [name](const char* o) { return std::strcmp(o, name) == 0; });
}

int32_t* config_number(ConfigRecord& r, const ConfigParam& p) {
  return reinterpret_cast<int32_t*>(reinterpret_cast<char*>(&r) + p.offset);
}

const int32_t* config_number(const ConfigRecord& r, const ConfigParam& p) {
  return reinterpret_cast<const int32_t*>(reinterpret_cast<const char*>(&r) + p.offset);
}

char* config_text(ConfigRecord& r, const ConfigParam& p) { return reinterpret_cast<char*>(&r) + p.offset; }

const char* config_text(const ConfigRecord& r, const ConfigParam& p) {
  return reinterpret_cast<const char*>(&r) + p.offset;
}

std::string config_value_text(const ConfigRecord& r, const ConfigParam& p) {
  switch (p.kind) {
    case ParamKind::Comment:
      return {};
    case ParamKind::String:
      return config_text(r, p);
    case ParamKind::Ulong:
    case ParamKind::Uint:
      return std::to_string(static_cast<uint32_t>(*config_number(r, p)));
  }
  return {};
}

// ---- The line table -------------------------------------------------------

void config_set_path(const std::string& path) { g_path = path; }

const std::string& config_path() {
  if (g_path.empty()) g_path = std::string(get_include_dir()) + "/" + CONFIG_FILE_NAME;
  return g_path;
}

void config_clear_lines() { g_lines = LineTable{}; }

int config_line_count() { return g_lines.count; }

const char* config_line(int index) {
  return index >= 0 && index < g_lines.count ? g_lines.slots[index].data() : nullptr;
}

int config_read_file() {
  config_clear_lines();
  const std::string& path = config_path();
  if (access(path.c_str(), F_OK) != 0) {
    if (errno != ENOENT) return file_failure("Accessing", path);
    FILE* f = std::fopen(path.c_str(), "w");
    if (f == nullptr) return file_failure("Create", path);
    std::fclose(f);
    if (chmod(path.c_str(), 0644) != 0) return file_failure("Chmod on", path);
    return 0;
  }
  FILE* f = std::fopen(path.c_str(), "r");
  if (f == nullptr) return file_failure("Open", path);
  char buffer[CONFIG_READ_BUFFER];
  while (std::fgets(buffer, sizeof buffer, f) != nullptr) {
    int index = g_lines.count;
    if (index >= CONFIG_LINE_SLOTS - 1) {
      M_errmsg(0, "Too many configuration items\n");
      std::fclose(f);
      return -1;
    }
    char* slot = g_lines.slots[index].data();
    size_t kept = std::min(std::strlen(buffer), static_cast<size_t>(CONFIG_LINE_SIZE - 1));
    std::memcpy(slot, buffer, kept);
    slot[kept] = '\0';
    slot[std::strcspn(slot, "\r\n")] = '\0';
    g_lines.count = index + 1;
    if (!starts_parameter(static_cast<unsigned char>(slot[0]))) continue;
    LineResult result = normalise(slot);
    if (result == LineResult::NoEquals) {
      M_errmsg(0, "Invalid item in \"%s\", line %d\n", path.c_str(), index + 1);
    } else if (result == LineResult::BadEquals) {
      M_errmsg(0, "Invalid item \"%s\" in \"%s\", line %d\n", slot, path.c_str(), index + 1);
    } else {
      continue;
    }
    std::fclose(f);
    return -1;
  }
  std::fclose(f);
  return 0;
}

int config_find_line(const char* name) {
  size_t length = std::strlen(name);
  for (int i = 0; i < g_lines.count; ++i) {
    const char* line = g_lines.slots[i].data();
    if (line[0] == '#') continue;
    const char* eq = std::strchr(line, '=');
    if (eq == nullptr) continue;
    if (static_cast<size_t>(eq - line) == length && std::memcmp(line, name, length) == 0) return i;
  }
  return g_lines.count;
}

int64_t config_get_uint(const char* name, int64_t fallback) {
  const char* v = find_value(name);
  int64_t n;
  if (v == nullptr || !scan_unsigned(v, &n)) return fallback;
  return n;
}

int64_t config_get_ulong(const char* name, int64_t fallback) {
  const char* v = find_value(name);
  int64_t n;
  if (v == nullptr || !scan_unsigned(v, &n)) return fallback;
  return n;
}

int64_t config_get_uint_nonneg(const char* name, int64_t fallback) {
  int64_t n = config_get_uint(name, fallback);
  return static_cast<int32_t>(n) < 0 ? fallback : n;
}

const char* config_get_string(const char* name, const char* fallback) {
  const char* v = find_value(name);
  return v != nullptr ? v : fallback;
}

// ---- Loaders --------------------------------------------------------------

void config_set_defaults(ConfigRecord* r, const ConfigDefaults& d) {
  *r = ConfigRecord{};
#define MRV_D_C(text)
#define MRV_D_U(name, def) r->name = static_cast<int32_t>(def);
#define MRV_D_L(name, def) r->name = static_cast<uint32_t>(def);
#define MRV_D_S(name, size, def) copy_text(r->name, size, def);
  MRV_CONFIG_PARAMS(MRV_D_C, MRV_D_U, MRV_D_L, MRV_D_S)
#undef MRV_D_C
#undef MRV_D_U
#undef MRV_D_L
#undef MRV_D_S
  r->SHM_USRSZ = d.shm_usrsz;
  r->MAX_RECORD_LOCKS = 200;
  r->DEFAULT_ISO_LEVEL = 2;
  r->OLB_BUFSZ = 65536;
  r->AUTO_SYNC = 1;
  r->GLM_MEM_ALLOC = 10;
  parse_langgrp(r);
}

int32_t config_measure_nfiles() {
  std::vector<int> copies;
  while (copies.size() + 3 < 1024) {
    int fd = dup(STDOUT_FILENO);
    if (fd < 0) break;
    copies.push_back(fd);
  }
  for (int fd : copies) close(fd);
  int32_t count = static_cast<int32_t>(copies.size()) + 3;
  return count < 25 ? count : count - 5;
}

namespace {

volatile uint32_t g_nap_sink = 0;

int32_t measure_toggle_nap_time() {
  std::clock_t start = std::clock();
  for (uint32_t i = 0; i < 150000; ++i) g_nap_sink = g_nap_sink * 31u + i;
  auto ticks = static_cast<int32_t>(std::clock() - start);
  if (ticks < 1) {
    MRV_LOG_SOURCE();
    mrv_log(3, "Invalid TOGGLE_NAP_TIME. .\n");
    return 1;
  }
  return std::min(ticks, 500);
}

// A trial mapping in the low address range, rounded up to the boundary.
uint32_t measure_attach_address(uint32_t size, uint32_t boundary) {
#ifdef MAP_32BIT
  int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT;
#else
  int flags = MAP_PRIVATE | MAP_ANONYMOUS;
#endif
  void* at = mmap(nullptr, size, PROT_NONE, flags, -1, 0);
  if (at == MAP_FAILED) {
    file_failure("Attach shared memory segment", "anonymous");
    return boundary;
  }
  munmap(at, size);
  uint64_t address = reinterpret_cast<uintptr_t>(at) & 0xFFFFFFFFu;
  if (boundary != 0) address = (address + boundary - 1) / boundary * boundary;
  return static_cast<uint32_t>(address);
}

// The language group text into its three numbers; an empty text is the
// default group, and a group that breaks the rules of marks is refused.
void parse_langgrp(ConfigRecord* r) {
  unsigned rm = DEFAULT_RECORD_MARK, pa = DEFAULT_PRINT_AT, nv = DEFAULT_NULL_VALUE;
  if (r->MRV_LANGGRP[0] != '\0' &&
      (std::sscanf(r->MRV_LANGGRP, "%u%*c%u%*c%u", &rm, &pa, &nv) != 3 || !langgrp_valid(rm, pa, nv))) {
    rm = DEFAULT_RECORD_MARK;
    pa = DEFAULT_PRINT_AT;
    nv = DEFAULT_NULL_VALUE;
  }
  r->lang_record_mark = rm;
  r->lang_print_at = pa;
  r->lang_null_value = nv;
}

// Fields the record keeps as single bytes.
void keep_low_bytes(ConfigRecord* r) {
  r->AVG_TUPLE_LEN &= 0xFF;
  r->EXPBLKSIZE &= 0xFF;
  r->GRP_FREE_BLK &= 0xFF;
}

void read_unlisted(ConfigRecord* r) {
  r->SHM_USRSZ = static_cast<int32_t>(config_get_uint("SHM_USRSZ", 4194304));
  r->MAX_RECORD_LOCKS = static_cast<int32_t>(config_get_uint("MAX_RECORD_LOCKS", 200));
  r->DEFAULT_ISO_LEVEL = static_cast<int32_t>(config_get_uint("DEFAULT_ISO_LEVEL", 2));
  r->OLB_BUFSZ = static_cast<int32_t>(config_get_uint("OLB_BUFSZ", 65536));
  r->AUTO_SYNC = static_cast<int32_t>(config_get_uint("AUTO_SYNC", 1));
  r->GLM_MEM_ALLOC = static_cast<int32_t>(config_get_uint("GLM_MEM_ALLOC", 10));
  if (r->GLM_MEM_ALLOC < 1) r->GLM_MEM_ALLOC = 10;
}

}  // namespace

std::string config_home() { return mrv_home_dir_if_known(); }

ConfigDefaults config_measure_defaults(const std::string& home) {
  ConfigDefaults d;
  d.home = home;
  d.nfiles = config_measure_nfiles();
  d.nusers = 64;  // the platform gives no figure
  d.toggle_nap_time = measure_toggle_nap_time();
  d.shm_max_size = static_cast<uint32_t>(config_get_ulong("SHM_MAX_SIZE", 2097152));
  d.shm_lba = static_cast<uint32_t>(config_get_ulong("SHM_LBA", 268435456));
  d.shm_usrsz = static_cast<int32_t>(config_get_uint("SHM_USRSZ", 4194304));
  d.shm_att_add = measure_attach_address(std::min<uint32_t>(1048576, d.shm_max_size), d.shm_lba);
  return d;
}

void config_derive(ConfigRecord* r, int current_year) {
  r->SHM_GPAGESZ *= 512;
  r->SHM_LPAGESZ *= 512;
  parse_langgrp(r);
  int32_t overhead = ((((r->JRNL_MAX_FILES << 7) + 979) >> 3) * r->JRNL_MAX_PROCS * 8 + 1543) / 512 * 512;
  r->journal_overhead = overhead < 1 ? 0 : overhead;
  r->local_tables = r->NUSERS;
  r->SHM_LPINENTS = std::min(r->SHM_LPINENTS, 255);
  r->SHM_LMINENTS = std::min(r->SHM_LMINENTS, 255);
  r->SHM_LCINENTS = std::min(r->SHM_LCINENTS, 255);
  if (r->CENTURY_PIVOT < 100) r->CENTURY_PIVOT += current_year - 100;
  if (r->N_REP_OPEN_FILE < 2) r->N_REP_OPEN_FILE = 2;
  r->MAX_REP_DISTRIB = 1;
}

int config_strict_load(ConfigRecord* out) {
  if (config_read_file() < 0) return 1;
  ConfigRecord work{};
  int errors = 0;
  bool tmp_too_long = false;
  for (const ConfigParam& p : config_params()) {
    if (p.kind == ParamKind::Comment) continue;
    if (p.kind == ParamKind::String) {
      const char* v = config_get_string(p.text, nullptr);
      if (v == nullptr) {
        MRV_LOG_SOURCE();
        mrv_log(3, "mrvconfig parameter %s is missed.\n", p.text);
        ++errors;
        continue;
      }
      if (std::strcmp(p.text, "TMP") == 0 && std::strlen(v) >= CONFIG_TMP_LIMIT) {
        MRV_LOG_SOURCE();
        mrv_log(3, "TMP directory should not exceed %d characters.\n", static_cast<int>(CONFIG_TMP_LIMIT));
        tmp_too_long = true;
        continue;
      }
      std::snprintf(config_text(work, p), p.size, "%s", v);
      continue;
    }
    int64_t v = p.kind == ParamKind::Ulong ? config_get_ulong(p.text, -1) : config_get_uint(p.text, -1);
    if (static_cast<int32_t>(v) == -1) {
      MRV_LOG_SOURCE();
      mrv_log(3, "mrvconfig parameter %s is missed or holds an invalid value.\n", p.text);
      ++errors;
      continue;
    }
    *config_number(work, p) = static_cast<int32_t>(v);
  }
  if (errors > 0 || tmp_too_long) return 1;

  read_unlisted(&work);
  keep_low_bytes(&work);
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  config_derive(&work, local.tm_year + 1900);
  *out = work;
  if (check_params(out, nullptr, false, config_measure_nfiles(), 0) > 0) {
    MRV_LOG_SOURCE();
    mrv_log(3, "mrvconfig parameter(s) holds invalid value(s). Please use 'mrvconf' to check it.\n");
    return 2;
  }
  return 0;
}

int init_params(const std::string& path, ConfigRecord* out, std::vector<ConfigFinding>* findings) {
  config_set_path(path.empty() ? std::string(get_include_dir()) + "/" + CONFIG_FILE_NAME : path);
  if (config_read_file() < 0) return -1;
  ConfigDefaults d = config_measure_defaults(config_home());
  ConfigRecord r;
  config_set_defaults(&r, d);
  for (const ConfigParam& p : config_params()) {
    switch (p.kind) {
      case ParamKind::Comment:
        break;
      case ParamKind::String:
        std::snprintf(config_text(r, p), p.size, "%s", config_get_string(p.text, config_text(r, p)));
        break;
      case ParamKind::Ulong:
        *config_number(r, p) = static_cast<int32_t>(
            config_get_ulong(p.text, static_cast<uint32_t>(*config_number(r, p))));
        break;
      case ParamKind::Uint:
        *config_number(r, p) = static_cast<int32_t>(config_get_uint_nonneg(p.text, *config_number(r, p)));
        break;
    }
  }
  read_unlisted(&r);
  keep_low_bytes(&r);
  parse_langgrp(&r);
  *out = r;
  return check_params(out, findings, false, d.nfiles, d.nusers);
}

void config_default_record(const std::string& home, ConfigRecord* r) {
  config_clear_lines();
  ConfigDefaults d = config_measure_defaults(home);
  config_set_defaults(r, d);
  std::vector<ConfigFinding> ignored;
  check_params(r, &ignored, false, d.nfiles, d.nusers);
}

std::string config_file_text(const ConfigRecord& r) {
  std::string text;
  for (const ConfigParam& p : config_params()) {
    if (p.kind == ParamKind::Comment)
      text += std::string(p.text) + "\n";
    else
      text += std::string(p.text) + "=" + config_value_text(r, p) + "\n";
  }
  return text;
}

// ---- Primes and sizes -----------------------------------------------------

namespace {

bool has_no_odd_factor(int64_t n) {
  int64_t limit = static_cast<int64_t>(std::sqrt(static_cast<double>(n))) + 1;
  for (int64_t f = 3; f <= limit && f < n; f += 2)
    if (n % f == 0) return false;
  return true;
}

}  // namespace

int32_t prime_at_or_above(int32_t n) {
  if (n < 4) return n;
  for (int64_t c = static_cast<int64_t>(n) / 2 * 2 + 1; c < kPrimeSearchLimit; c += 2)
    if (has_no_odd_factor(c)) return static_cast<int32_t>(c);
  return -1;
}

int32_t next_prime(int32_t n) {
  int32_t p = prime_at_or_above(n);
  if (p >= 0) return p;
  M_errmsg(0, "Number %d out of prime number table range.\n", n);
  M_errmsg(0, "Please make sure it is a prime number.\n");
  return n;
}

int32_t prime_or_itself(int32_t n) {
  int32_t p = prime_at_or_above(n);
  if (p >= 0) return p;
  M_errmsg(0, "Number %d out of prime number table range.\n", n);
  return n;
}

int32_t previous_prime(int32_t n) {
  if (n < 4) return n;
  for (int32_t c = (n + 1) / 2 * 2 - 1; c > 3; c -= 2)
    if (has_no_odd_factor(c)) return c;
  return 3;
}

const char* format_size(int64_t n) {
  static char text[64];
  if (n == -1) return "unknown";
  if (n == -2) return "unlimited";
  if (n == 0) return "0";
  std::string out;
  auto part = [&out](int64_t value, const char* unit) {
    if (value == 0) return;
    if (!out.empty()) out += ' ';
    out += std::to_string(value) + unit;
  };
  part(n >> 30, "G");
  part((n >> 20) & 1023, "M");
  part((n >> 10) & 1023, "K");
  part(n & 1023, "");
  std::snprintf(text, sizeof text, "%s", out.c_str());
  return text;
}
