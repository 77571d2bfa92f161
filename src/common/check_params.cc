// The rule set over a parameter record: mends that change a value in place,
// and checks whose findings are printed (print form) or collected (buffer
// form). Rules run in a fixed order, each on the record as the rules before
// it left it.
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdarg>
#include <cstring>

#include "common/init_params.h"
#include "common/mrv_marks.h"
#include "common/mrv_msg.h"
#include "common/readroot.h"

namespace {

bool is_prime(int32_t n) { return next_prime(n) == n; }

class Reporter {
 public:
  Reporter(std::vector<ConfigFinding>* findings, bool stop_on_first)
      : findings_(findings), stop_on_first_(stop_on_first) {}

  void count_silently() { ++errors_; }
  bool buffer_form() const { return findings_ != nullptr; }
  int errors() const { return errors_; }
  // A finding of the checks after the mends ends the buffer form's run when
  // it stops on the first.
  bool stop() const { return stop_on_first_ && buffer_form() && checks_reported_; }

  void note(bool counted, const char* format, ...) __attribute__((format(printf, 3, 4))) {
    va_list args;
    va_start(args, format);
    std::string text = M_vformat(format, args);
    va_end(args);
    if (counted) ++errors_;
    if (findings_ != nullptr)
      findings_->push_back({text, counted});
    else
      M_errmsg(0, "%s", text.c_str());
  }
  // A finding of checks 2 to 14.
  void check(bool counted, const char* format, ...) __attribute__((format(printf, 3, 4))) {
    va_list args;
    va_start(args, format);
    std::string text = M_vformat(format, args);
    va_end(args);
    note(counted, "%s", text.c_str());
    checks_reported_ = true;
  }

 private:
  std::vector<ConfigFinding>* findings_;
  bool stop_on_first_;
  bool checks_reported_ = false;
  int errors_ = 0;
};

void aft_rules(ConfigRecord* r, Reporter& rep) {
  int32_t& sec = r->N_AFT_SECTION;
  const int32_t aft = r->N_AFT;
  if (sec == 0) {
    sec = 1;
    if (rep.buffer_form()) rep.note(false, "N_AFT_SECTION is defaulted to 1.\n");
  } else if (sec < 0) {
    sec = 1;
    rep.note(false, "N_AFT_SECTION must not be negative; using 1.\n");
  }
  if (sec > aft) {
    sec = std::max(next_prime(aft / 4), 1);
    rep.note(false, "N_AFT_SECTION must not be more than N_AFT (%d); using %d.\n", sec, sec);
  }
  if ((aft - 1) / sec < 2) {
    int32_t old = sec;
    sec = std::max(previous_prime((aft - 1) / 2), 1);
    rep.note(false,
             "An N_AFT_SECTION of %d and N_AFT of %d would produce some AFT sections\n"
             "with fewer than 2 entries. Using N_AFT_SECTION of %d.\n",
             old, aft, sec);
  }
  if (!is_prime(sec)) {
    int32_t next = next_prime(sec);
    sec = (aft - 1) / next < 2 ? std::max(previous_prime((aft - 1) / 2), 1) : next;
    rep.note(false, "N_AFT_SECTION should be prime; using %d.\n", sec);
  }
  int32_t& bucket = r->N_AFT_BUCKET;
  if (bucket <= 0) {
    bool negative = bucket < 0;
    bucket = sec * next_prime(aft / 2 / sec);
    if (negative) rep.note(false, "N_AFT_BUCKET must not be negative; using %d.\n", bucket);
  }
  int32_t& mlf = r->N_AFT_MLF_BUCKET;
  if (mlf <= 0) {
    bool negative = mlf < 0;
    mlf = next_prime(aft / 10);
    if (negative) rep.note(false, "N_AFT_MLF_BUCKET must not be negative; using %d.\n", mlf);
  }
  if (bucket > 10 * aft)
    rep.note(false,
             "%sWarning: Your N_AFT_BUCKET (%d) is much larger than your N_AFT (%d),\n"
             "so most buckets will be empty.\n"
             "This wastes shared memory and will not improve performance.\n",
             rep.buffer_form() ? "*" : "", bucket, aft);
  if (bucket % sec != 0 || !is_prime(bucket / sec)) {
    bucket = sec * next_prime(bucket / sec);
    rep.note(false, "N_AFT_BUCKET should be a prime multiple of N_AFT_SECTION (%d);\nusing %d.\n", sec,
             bucket);
  }
  if (!is_prime(mlf)) {
    mlf = next_prime(mlf);
    rep.note(false, "N_AFT_MLF_BUCKET should be prime; using %d.\n", mlf);
  }
  if (sec > aft / 20)
    rep.note(false,
             "Warning: Your AFT sections will have only %d entries, which may\n"
             "cause opens to fail unnecessarily.\n"
             "You may want to make N_AFT_SECTION smaller.\n",
             aft / sec);
  if (mlf > 0 && aft / mlf > 100)
    rep.note(false,
             "Warning: Your AFT MLF buckets are large; this slows opens of multilevel files, and may "
             "slow down crash and media recovery.\n");
  if (mlf > 10 * aft)
    rep.note(false,
             "Warning: Your N_AFT_MLF_BUCKET (%d) is much larger than your\n"
             "N_AFT (%d), so most buckets will be empty.\n"
             "This wastes shared memory and will not improve performance.\n",
             mlf, aft);
  int32_t& tm = r->N_TMAFT_BUCKET;
  if (tm <= 0) {
    bool negative = tm < 0;
    tm = next_prime((r->BPF_NFILES + 10) / 5);
    if (negative) rep.note(false, "N_TMAFT_BUCKET must not be negative; using %d.\n", tm);
  }
  if (!is_prime(tm)) {
    tm = next_prime(tm);
    rep.note(false, "N_TMAFT_BUCKET should be prime; using %d\n", tm);
  }
}

void rfs_rules(ConfigRecord* r, Reporter& rep) {
  if (r->SB_FLAG < 0) r->SB_FLAG = 0;
  if (r->SB_FLAG > 0) {
    if (r->N_AIMG == 0 || r->N_BIMG == 0) rep.note(true, "SB_FLAG is turned on, N_AIMG and N_BIMG should not be 0.\n");
    if (r->N_PGQ == 0 || r->N_TMQ == 0) rep.note(true, "SB_FLAG is turned on, N_PGQ and N_TMQ should not be 0.\n");
  }
  if (r->ARCH_FLAG < 0) r->ARCH_FLAG = 0;
}

void language_rule(ConfigRecord* r, Reporter& rep) {
  if (r->lang_record_mark == DEFAULT_RECORD_MARK && r->lang_print_at == DEFAULT_PRINT_AT &&
      r->lang_null_value == DEFAULT_NULL_VALUE)
    return;
  char group[CONFIG_LANGGRP_FIELD];
  std::snprintf(group, sizeof group, "%u/%u/%u", r->lang_record_mark, r->lang_print_at, r->lang_null_value);
  if (langgrp_check(LANGGRP_HAS_GROUP, group, nullptr) == 1) return;
  rep.note(false, "Missing or invalid MRV_LANGGRP in %s/%s\n", get_include_dir_if_known().c_str(),
           CONFIG_FILE_NAME);
  rep.note(false, "Set language group id to %u/%u/%u.\n", DEFAULT_RECORD_MARK, DEFAULT_PRINT_AT,
           DEFAULT_NULL_VALUE);
  r->lang_record_mark = DEFAULT_RECORD_MARK;
  r->lang_print_at = DEFAULT_PRINT_AT;
  r->lang_null_value = DEFAULT_NULL_VALUE;
  std::snprintf(r->MRV_LANGGRP, sizeof r->MRV_LANGGRP, "%u/%u/%u", DEFAULT_RECORD_MARK, DEFAULT_PRINT_AT,
                DEFAULT_NULL_VALUE);
}

void mend(int32_t& v, int32_t low, int32_t high, int32_t value) {
  if (v < low || v > high) v = value;
}

void range_mends(ConfigRecord* r, int32_t nfiles_limit, int32_t measured_nusers) {
  if (r->MAX_NEXT_HOLD_DIGITS < 4) r->MAX_NEXT_HOLD_DIGITS = 4;
  if (r->MAX_NEXT_HOLD_DIGITS > 8) r->MAX_NEXT_HOLD_DIGITS = 8;
  mend(r->CHECK_HOLD_EXIST, 0, 1, r->CHECK_HOLD_EXIST < 0 ? 0 : 1);
  if (r->NUSERS < 1) r->NUSERS = measured_nusers;
  mend(r->SHM_FREEPCT, 1, 99, 25);
  mend(r->ARCHIVE_TO_TAPE, 0, 1, 0);
  if (nfiles_limit > 0) mend(r->NFILES, 0, nfiles_limit, nfiles_limit);
  mend(r->SPLIT_LOAD, 0, 100, 60);
  mend(r->MERGE_LOAD, 0, 100, 40);
  // Each KEYDATA load out of range resets the plain load, not itself.
  if (r->KEYDATA_SPLIT_LOAD < 0 || r->KEYDATA_SPLIT_LOAD > 100) r->SPLIT_LOAD = 95;
  if (r->KEYDATA_MERGE_LOAD < 0 || r->KEYDATA_MERGE_LOAD > 100) r->MERGE_LOAD = 40;
  mend(r->WRITE_TO_CONSOLE, 0, 1, 0);
  mend(r->COMPACTOR_POLICY, 0, 2, 1);
  mend(r->VARMEM_PCT, 1, 99, 50);
  mend(r->SETINDEX_BUFFER_KEYS, 0, 1, 0);
  mend(r->SETINDEX_VALIDATE_KEY, 0, 1, 0);
  if (r->NSEM_PSET < 1) r->NSEM_PSET = 8;
}

void n_big_check(ConfigRecord* r, Reporter& rep) {
  const int64_t low = 5 * static_cast<int64_t>(r->NUSERS);
  const int64_t high = r->N_PUT / 16;
  const int32_t rec = previous_prime(static_cast<int32_t>(std::floor(std::sqrt(static_cast<double>(low * high)))));
  const bool rec_in_range = rec >= low && rec <= high;
  if (high <= low && rep.buffer_form())
    rep.note(false,
             "*Warning: N_PUT is recommended to be great than (80*NUSERS) (%d) for performance purpose.",
             80 * r->NUSERS);
  if (!is_prime(r->N_BIG)) {
    int32_t next = next_prime(r->N_BIG);
    bool use_rec = high > low && (next < low || next > high);
    if (!rep.buffer_form()) {
      rep.count_silently();
      r->N_BIG = use_rec ? rec : next;
    } else if (use_rec && rec_in_range) {
      rep.note(true, "N_BIG should be a prime and in range [%d,%d].\nRecommended to be %d", static_cast<int>(low),
               static_cast<int>(high), rec);
    } else if (use_rec) {
      rep.note(true, "N_BIG should be a prime.\nRecommended to be %d", rec);
    } else {
      rep.note(true, "N_BIG should be a prime.\nSet to %d\n", next);
    }
  } else if ((r->N_BIG < low || r->N_BIG > high) && rep.buffer_form()) {
    if (rec_in_range)
      rep.note(false, "*N_BIG may be in range [%d,%d].\nRecommended to be %d", static_cast<int>(low),
               static_cast<int>(high), rec);
    else
      rep.note(false, "*N_BIG is recommended to be %d", rec);
  }
}

bool is_directory(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// A directory parameter: it must be a directory that can be searched and
// written.
void directory_check(const char* path, const char* name, Reporter& rep) {
  if (!is_directory(path))
    rep.check(true, "%s should be a directory and searchable and writable. Please change it.\n", name);
  else if (access(path, W_OK | X_OK) != 0)
    rep.check(true, "%s directory should be searchable and writable. Please change it.\n", name);
}

void later_checks(ConfigRecord* r, Reporter& rep) {
  if (4 * (r->N_AIMG + r->N_BIMG) > r->NFILES)
    rep.check(true,
              "(4 * N_AIMG + 4 * N_BIMG) should be < NFILES. Please make N_AIMG and/or N_BIMG smaller or "
              "enlarge NFILES.\n");
  if (rep.stop()) return;
  if (r->BIMG_BUFSZ % 512 != 0 || r->AIMG_BUFSZ % 512 != 0) {
    r->AIMG_BUFSZ = r->AIMG_BUFSZ / 512 * 512;
    r->BIMG_BUFSZ = r->BIMG_BUFSZ / 512 * 512;
    rep.check(false, "AIMG_BUFSZ and BIMG_BUFSZ should be multiples of 512.\n");
  }
  if (rep.stop()) return;
  if (r->SB_FLAG > 0) {
    if (r->LOG_OVRFLO[0] != '\0')
      directory_check(r->LOG_OVRFLO, "LOG_OVRFLO", rep);
    else
      rep.check(false,
                "LOG_OVRFLO is not set. This may cause Morvane to crash if there's any overflow in the "
                "system.\n");
  }
  if (rep.stop()) return;
  if (r->TMP[0] != '\0') directory_check(r->TMP, "TMP", rep);
  if (rep.stop()) return;
  if (r->MAX_FLENGTH < 32768u || r->MAX_FLENGTH > 2147467264u)
    rep.check(true, "MAX_FLENGTH is not reasonable. Recommended to be >= 32KB and <= 2GB-16KB.\n");
  if (rep.stop()) return;
  if (r->SHM_LBA != 0 && r->SHM_ATT_ADD % r->SHM_LBA != 0) {
    r->SHM_ATT_ADD = (r->SHM_ATT_ADD / r->SHM_LBA + 1) * r->SHM_LBA;
    rep.check(true, "SHM_ATT_ADD should be on the boundary of SHM_LBA.\n");
  }
  if (rep.stop()) return;
  if (r->SBCS_SHM_SIZE > r->SHM_MAX_SIZE) {
    r->SBCS_SHM_SIZE = r->SHM_MAX_SIZE;
    rep.check(true, "SBCS_SHM_SIZE shouldn't be greater than SHM_MAX_SIZE.\n");
  }
  if (rep.stop()) return;
  if (r->TOGGLE_NAP_TIME < 1) rep.check(true, "TOGGLE_NAP_TIME should be a positive number.\n");
  if (rep.stop()) return;
  if (r->GLM_MEM_ALLOC < 1) r->GLM_MEM_ALLOC = 10;
  if (static_cast<uint32_t>(r->GLM_MEM_SEGSZ) > r->SHM_MAX_SIZE) {
    r->GLM_MEM_SEGSZ = static_cast<int32_t>(r->SHM_MAX_SIZE);
    rep.check(true, "GLM_MEM_SEGSZ shouldn't be greater than SHM_MAX_SIZE.\n");
  }
  if (rep.stop()) return;
  if (!is_prime(r->N_GLM_GLOBAL_BUCKET)) {
    r->N_GLM_GLOBAL_BUCKET = next_prime(r->N_GLM_GLOBAL_BUCKET);
    rep.check(true, "N_GLM_GLOBAL_BUCKET should be a prime number.\n");
  }
  if (rep.stop()) return;
  if (!is_prime(r->N_GLM_SELF_BUCKET)) {
    r->N_GLM_SELF_BUCKET = next_prime(r->N_GLM_SELF_BUCKET);
    rep.check(true, "N_GLM_SELF_BUCKET should be a prime number.\n");
  }
  if (rep.stop()) return;
  if (r->CENTURY_PIVOT > 99 && (r->CENTURY_PIVOT < 1000 || r->CENTURY_PIVOT > 9999)) {
    r->CENTURY_PIVOT = 1930;
    rep.check(true, "CENTURY_PIVOT is invalid, defaulted to 1930.\n");
  }
  if (rep.stop()) return;
  if (r->ZERO_CHAR < 1 || r->ZERO_CHAR > 255) {
    r->ZERO_CHAR = 131;
    rep.check(true, "ZERO_CHAR is invalid, defaulted to 131.\n");
  }
  if (rep.stop()) return;
  if (static_cast<uint32_t>(r->SYSTEM_EURO) == r->lang_null_value ||
      static_cast<uint32_t>(r->TERM_EURO) == r->lang_null_value)
    rep.check(true, "SYSTEM_EURO or TERM_EURO cannot be equal to the value of NULL.\n");
}

}  // namespace

int check_params(ConfigRecord* r, std::vector<ConfigFinding>* findings, bool stop_on_first,
                 int32_t nfiles_limit, int32_t measured_nusers) {
  Reporter rep(findings, stop_on_first);
  aft_rules(r, rep);
  rfs_rules(r, rep);
  language_rule(r, rep);
  range_mends(r, nfiles_limit, measured_nusers);
  n_big_check(r, rep);
  later_checks(r, rep);
  return rep.errors();
}
