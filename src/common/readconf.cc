#include "common/readconf.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/init_logs.h"
#include "common/mrv_alloc.h"
#include "common/mrv_exit.h"
#include "common/mrv_msg.h"
#include "common/readroot.h"

ConfigRecord M_config{};

namespace {

bool g_config_done = false;
constexpr int kExportLimit = 150;
constexpr size_t kExportBuffer = 129;
constexpr size_t kOverrideLimit = 128;
constexpr size_t kTmpOverrideLimit = 104;

// The environment keeps the text it is given, so each entry lives in a
// buffer of its own for the life of the process.
char* entry_buffer() {
  auto* text = static_cast<char*>(mrv_malloc(kExportBuffer));
  if (text == nullptr) {
    M_set_error(MRV_ERR_NO_MEMORY);
    M_errmsg(0, "Config-error: mrv_malloc(%d) failed.\n", static_cast<int>(kExportBuffer));
    MRV_EXIT(1);
  }
  return text;
}

void put(char* entry, const char* failure) {
  if (putenv(entry) != 0) M_errmsg(0, "%s", failure);
}

}  // namespace

void config_export(const ConfigRecord& record) {
  ConfigRecord r = record;
  std::snprintf(r.MRV_LANGGRP, sizeof r.MRV_LANGGRP, "%u/%u/%u", r.lang_record_mark, r.lang_print_at,
                r.lang_null_value);
  int exported = 0;
  for (const ConfigParam& p : config_params()) {
    if (p.kind == ParamKind::Comment) continue;
    if (exported == kExportLimit) {
      M_errmsg(0, "config file has too many items \n");
      MRV_EXIT(1);
    }
    ++exported;
    char* entry = entry_buffer();
    bool replacing = false;
    if (config_is_override(p.text)) {
      if (const char* existing = std::getenv(p.text)) {
        size_t limit = std::strcmp(p.text, "TMP") == 0 ? kTmpOverrideLimit : kOverrideLimit;
        if (std::strlen(existing) < limit) continue;
        replacing = true;
      }
    }
    const char* failure = replacing ? "M_readconfg():putenv() failed.\n" : "M_readconfg():mrv_putenv() failed.\n";
    switch (p.kind) {
      case ParamKind::String: {
        const char* text = config_text(r, p);
        if (*text == '\0') break;
        std::snprintf(entry, kExportBuffer, "%s=%s", p.text, text);
        put(entry, failure);
        if (replacing) {
          // The replacing branch exports a string once more as a number made
          // of its first four bytes; the environment keeps that last value.
          uint32_t first_four = 0;
          std::memcpy(&first_four, text, sizeof first_four);
          char* again = entry_buffer();
          std::snprintf(again, kExportBuffer, "%s=%u", p.text, first_four);
          put(again, failure);
        }
        break;
      }
      case ParamKind::Ulong:
      case ParamKind::Uint:
        std::snprintf(entry, kExportBuffer, "%s=%u", p.text, static_cast<uint32_t>(*config_number(r, p)));
        put(entry, failure);
        break;
      case ParamKind::Comment:
        break;
    }
  }
}

int M_readconfg(int wait_seconds) {
  (void)wait_seconds;
  if (g_config_done) return 0;
  // Without a server there is no shared record to wait for: the file is the
  // source, through the strict loader. Its result is not acted on; a record
  // that did not load stays zero and each reader's fallback decides.
  ConfigRecord record{};
  config_set_path(std::string(get_include_dir()) + "/" + CONFIG_FILE_NAME);
  config_strict_load(&record);
  g_config_done = true;
  M_config = record;
  config_export(M_config);
  return 0;
}

void config_reset_for_tests() {
  g_config_done = false;
  M_config = ConfigRecord{};
}

int32_t M_env_param(const char* name, int32_t fallback) {
  const char* v = std::getenv(name);
  if (v == nullptr || *v == '\0') return fallback;
  char* end = nullptr;
  long n = std::strtol(v, &end, 10);
  if (end == v) return fallback;
  return static_cast<int32_t>(n);
}

namespace {

int32_t positive_param(const char* name, int32_t fallback) {
  int32_t v = M_env_param(name, fallback);
  return v > 0 ? v : fallback;
}

}  // namespace

int32_t M_cfg_max_flength() { return positive_param("MAX_FLENGTH", 1073741824); }

int32_t M_cfg_grp_free_blk() {
  int32_t v = positive_param("GRP_FREE_BLK", 5) & 0xFF;
  return v != 0 ? v : 5;
}

int32_t M_cfg_split_load(bool keydata) {
  return keydata ? positive_param("KEYDATA_SPLIT_LOAD", 95) : positive_param("SPLIT_LOAD", 60);
}

int32_t M_cfg_merge_load(bool keydata) {
  int32_t v = keydata ? positive_param("KEYDATA_MERGE_LOAD", 40) : positive_param("MERGE_LOAD", 40);
  return v > 90 ? 90 : v;
}

int32_t M_cfg_max_dsfiles() { return positive_param("MAX_DSFILES", 1000); }

int32_t M_cfg_nfiles() { return positive_param("NFILES", 512); }

bool M_cfg_lockfifo() { return M_env_param("LOCKFIFO", 0) == 1; }

bool M_cfg_write_to_console() { return M_env_param("WRITE_TO_CONSOLE", 0) == 1; }

int32_t M_cfg_null_flag() { return M_env_param("NULL_FLAG", 0); }

int32_t M_cfg_memory_setting(const char* name) {
  int32_t v = M_env_param(name, 0);
  return v > 0 ? v : 0;
}

const char* M_cfg_part_tbl() {
  static std::string path;
  const char* v = std::getenv("PART_TBL");
  path = v != nullptr && *v != '\0' ? v : mrv_home_dir() + "parttbl";
  return path.c_str();
}
