// The installation's parameters: the mrvconfig file, its loaders, and the
// rule set that checks a parameter record.
//
// mrvconfig is a text file of NAME=VALUE lines in the include directory.
// The reader keeps it as a table of fixed line slots in file order, comments
// and blank lines included; look-up is a linear scan by name, and the first
// line of a name wins.
//
// One parameter table (MRV_CONFIG_PARAMS below) fixes the order of the file,
// its comment rows, each parameter's kind and the full loader's default. The
// strict loader, the full loader, the exporter to the environment and the
// generator of a complete file all walk it.
//
// There are two loaders:
//   strict   every parameter of the table must be in the file; an absent one
//            is logged and counted, and with any error the caller's record is
//            left as it was. This is the path of a tool run.
//   full     absent parameters take their defaults. The configuration tools
//            use it, and its defaults are what the generator writes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

inline constexpr int CONFIG_LINE_SLOTS = 257;
inline constexpr int CONFIG_LINE_SIZE = 128;
inline constexpr int CONFIG_READ_BUFFER = 512;
inline constexpr size_t CONFIG_TMP_LIMIT = 100;
inline constexpr char CONFIG_FILE_NAME[] = "mrvconfig";

// Sizes of the string fields, terminator included.
inline constexpr size_t CONFIG_PATH_FIELD = 128;
inline constexpr size_t CONFIG_TMP_FIELD = CONFIG_TMP_LIMIT;
inline constexpr size_t CONFIG_NVLMARK_FIELD = 5;
inline constexpr size_t CONFIG_LANGGRP_FIELD = 16;

// Values the full loader measures on the machine, or derives from the home.
struct ConfigDefaults {
  std::string home;  // MRVHOME with its trailing separator
  int32_t nfiles = 0;
  int32_t nusers = 0;
  int32_t toggle_nap_time = 0;
  uint32_t shm_att_add = 0;
  uint32_t shm_max_size = 2097152;
  uint32_t shm_lba = 268435456;
  int32_t shm_usrsz = 4194304;
};

// The table. C: comment row. U: number scanned with "%u" into a 32-bit
// integer. L: unsigned long ("%lu"). S: string with its field size. The third
// argument is the full loader's default, an expression over `d`
// (ConfigDefaults).
#define MRV_CONFIG_PARAMS(C, U, L, S)                                              \
  C("#\t\tMorvane Configuration Parameters")                                       \
  C("# Section 1 Neutral parameters")                                              \
  C("#       These parameters are required by all Morvane installations.")        \
  C("# 1.1 System dependent parameters, they should not be changed.")              \
  U(LOCKFIFO, 1)                                                                   \
  U(SYS_PV, 0)                                                                     \
  C("# 1.2 Changable parameters")                                                  \
  U(NFILES, d.nfiles)                                                              \
  U(NUSERS, 0)                                                                     \
  U(WRITE_TO_CONSOLE, 0)                                                           \
  S(TMP, CONFIG_TMP_FIELD, "/tmp/")                                                \
  S(NVLMARK, CONFIG_NVLMARK_FIELD, "")                                             \
  U(FCNTL_ON, 0)                                                                   \
  U(TOGGLE_NAP_TIME, d.toggle_nap_time)                                            \
  U(NULL_FLAG, 0)                                                                  \
  U(N_FILESYS, 200)                                                                \
  U(N_GLM_GLOBAL_BUCKET, 101)                                                      \
  U(N_GLM_SELF_BUCKET, 23)                                                         \
  U(GLM_MEM_SEGSZ, 4194304)                                                        \
  U(BGINPUTTIMEOUT, 0)                                                             \
  C("# 1.3 I18N related parameter")                                                \
  S(MRV_LANGGRP, CONFIG_LANGGRP_FIELD, "255/192/129")                              \
  U(ZERO_CHAR, 131)                                                                \
  C("# Section 2 Non-RFS related parameters")                                      \
  C("# 2.1 Shared memory related parameters")                                      \
  L(SBCS_SHM_SIZE, std::min<uint32_t>(1048576, d.shm_max_size))                    \
  L(SHM_MAX_SIZE, 2097152)                                                         \
  L(SHM_ATT_ADD, d.shm_att_add)                                                    \
  L(SHM_LBA, 268435456)                                                            \
  U(SHM_MIN_NATT, 4)                                                               \
  U(SHM_GNTBLS, config_default_gntbls(d))                                          \
  U(SHM_GNPAGES, config_default_gnpages(d))                                        \
  U(SHM_GPAGESZ, 256)                                                              \
  U(SHM_LPINENTS, 10)                                                              \
  U(SHM_LMINENTS, config_default_lminents(d))                                      \
  U(SHM_LCINENTS, 100)                                                             \
  U(SHM_LPAGESZ, 8)                                                                \
  U(SHM_FREEPCT, 25)                                                               \
  U(SHM_NFREES, 1)                                                                 \
  C("# 2.2 Size limitation parameters")                                            \
  U(AVG_TUPLE_LEN, 4)                                                              \
  U(EXPBLKSIZE, 16)                                                                \
  U(MAX_OBJ_SIZE, 307200)                                                          \
  U(MIN_MEMORY_TEMP, 64)                                                           \
  U(STATIC_GROWTH_WARN_TABLE_SIZE, 256)                                            \
  U(STATIC_GROWTH_WARN_SIZE, 1610612736)                                           \
  U(STATIC_GROWTH_WARN_INTERVAL, 300)                                              \
  C("# 2.3 Dynamic file related parameters")                                       \
  U(GRP_FREE_BLK, 5)                                                               \
  U(SHM_FIL_CNT, 2048)                                                             \
  U(SPLIT_LOAD, 60)                                                                \
  U(MERGE_LOAD, 40)                                                                \
  U(KEYDATA_SPLIT_LOAD, 95)                                                        \
  U(KEYDATA_MERGE_LOAD, 40)                                                        \
  L(MAX_FLENGTH, 1073741824)                                                       \
  S(PART_TBL, CONFIG_PATH_FIELD, d.home + "parttbl")                               \
  C("# 2.4 NFA/Telnet service related parameter")                                  \
  U(EFS_LCKTIME, 0)                                                                \
  U(TSTIMEOUT, 60)                                                                 \
  U(NFA_CONVERT_CHAR, 0)                                                           \
  C("# 2.5 Journal related parameters")                                            \
  U(JRNL_MAX_PROCS, 1)                                                             \
  U(JRNL_MAX_FILES, 400)                                                           \
  C("# 2.6 MorBasic file related parameters")                                      \
  U(MAX_OPEN_FILE, 500)                                                            \
  U(MAX_OPEN_SEQF, 150)                                                            \
  U(MAX_OPEN_OSF, 100)                                                             \
  U(MAX_DSFILES, 1000)                                                             \
  C("#2.7 MorBasic related parameters")                                            \
  U(MAX_CAPT_LEVEL, 2)                                                             \
  U(MAX_RETN_LEVEL, 2)                                                             \
  U(COMPACTOR_POLICY, 1)                                                           \
  U(VARMEM_PCT, 50)                                                                \
  C("# 2.8 Number of semaphores per semaphore set")                                \
  U(NSEM_PSET, 8)                                                                  \
  C("# 2.9 Index related parameters")                                              \
  U(SETINDEX_BUFFER_KEYS, 0)                                                       \
  U(SETINDEX_VALIDATE_KEY, 0)                                                      \
  C("# 2.10 UPL/MGLM parameter")                                                   \
  U(MGLM_BUCKET_SIZE, 50)                                                          \
  U(UPL_LOGGING, 0)                                                                \
  C("# 2.11 Printer _HOLD_ file related parameters")                               \
  U(MAX_NEXT_HOLD_DIGITS, 4)                                                       \
  U(CHECK_HOLD_EXIST, 0)                                                           \
  C("# Section 3 RFS related parameters")                                          \
  C("#       These parameters are only used for RFS which is turned by")          \
  C("#       setting SB_FLAG to a positive value.")                               \
  C("# 3.1 RFS flag")                                                              \
  U(SB_FLAG, 0)                                                                    \
  C("# 3.2 File related parameters")                                               \
  U(BPF_NFILES, 80)                                                                \
  U(N_PARTFILE, 500)                                                               \
  C("# 3.3 AFT related parameters")                                                \
  U(N_AFT, 200)                                                                    \
  U(N_AFT_SECTION, 0)                                                              \
  U(N_AFT_BUCKET, 0)                                                               \
  U(N_AFT_MLF_BUCKET, 0)                                                           \
  U(N_TMAFT_BUCKET, 0)                                                             \
  C("# 3.4 Archive related parameters")                                            \
  U(ARCH_FLAG, 0)                                                                  \
  U(N_ARCH, 2)                                                                     \
  U(ARCHIVE_TO_TAPE, 0)                                                            \
  U(ARCH_WRITE_SZ, 0)                                                              \
  C("# 3.5 System buffer parameters")                                              \
  U(N_BIG, 233)                                                                    \
  U(N_PUT, 8192)                                                                   \
  C("# 3.6 TM message queue related parameters")                                   \
  U(N_PGQ, d.nusers / 4)                                                           \
  U(N_TMQ, d.nusers / 4)                                                           \
  C("# 3.7 After/before image related parameters")                                 \
  U(N_AIMG, 2)                                                                     \
  U(N_BIMG, 2)                                                                     \
  U(AIMG_BUFSZ, 102400)                                                            \
  U(BIMG_BUFSZ, 102400)                                                            \
  U(AIMG_MIN_BLKS, 10)                                                             \
  U(BIMG_MIN_BLKS, 10)                                                             \
  U(AIMG_FLUSH_BLKS, 2)                                                            \
  U(BIMG_FLUSH_BLKS, 2)                                                            \
  S(LOG_OVRFLO, CONFIG_PATH_FIELD, "")                                             \
  C("# 3.8 Flushing interval related parameters")                                  \
  U(CHKPNT_TIME, 300)                                                              \
  U(GRPCMT_TIME, 5)                                                                \
  C("# 3.9 Sync Daemon related parameters")                                        \
  U(N_SYNC, 0)                                                                     \
  U(SYNC_TIME, 0)                                                                  \
  C("# Section 5 NT-message-queue parameters")                                     \
  U(MSGMNI, 8)                                                                     \
  U(MSGMAX, 2048)                                                                  \
  U(MSGTQL, 100)                                                                   \
  U(MSGTX, 512)                                                                    \
  C("# Section 6 Century Pivot Date")                                              \
  U(CENTURY_PIVOT, 1930)                                                           \
  C("# Section 7 Replication parameters")                                          \
  U(REP_FLAG, 0)                                                                   \
  U(TCA_SIZE, 128)                                                                 \
  U(MAX_LRF_FILESIZE, 134217728)                                                   \
  U(N_REP_OPEN_FILE, 8)                                                            \
  U(MAX_REP_DISTRIB, 1)                                                            \
  U(MAX_REP_SHMSZ, 2097152)                                                        \
  S(REP_LOG_PATH, CONFIG_PATH_FIELD, d.home + "replog")                            \
  U(MRR_CONVERT_CHAR, 1)                                                           \
  C("# Euro data handling symbols")                                                \
  U(CONVERT_EURO, 0)                                                               \
  U(SYSTEM_EURO, 128)                                                              \
  U(TERM_EURO, 128)

int32_t config_default_gnpages(const ConfigDefaults& d);
int32_t config_default_lminents(const ConfigDefaults& d);
int32_t config_default_gntbls(const ConfigDefaults& d);

// All parameters in parsed form. Numbers are 32-bit; strings are terminated
// texts in fields of the sizes above. After the table's fields come the
// values that stand in no row of the table and the derived ones.
struct ConfigRecord {
#define MRV_CR_C(text)
#define MRV_CR_U(name, def) int32_t name;
#define MRV_CR_L(name, def) uint32_t name;
#define MRV_CR_S(name, size, def) char name[size];
  MRV_CONFIG_PARAMS(MRV_CR_C, MRV_CR_U, MRV_CR_L, MRV_CR_S)
#undef MRV_CR_C
#undef MRV_CR_U
#undef MRV_CR_L
#undef MRV_CR_S
  // Read by name from the file, in no table row.
  int32_t SHM_USRSZ;
  int32_t MAX_RECORD_LOCKS;
  int32_t DEFAULT_ISO_LEVEL;
  int32_t OLB_BUFSZ;
  int32_t AUTO_SYNC;
  int32_t GLM_MEM_ALLOC;
  // The language group as three numbers: record mark, print-at, null value.
  uint32_t lang_record_mark;
  uint32_t lang_print_at;
  uint32_t lang_null_value;
  // Derived.
  int32_t journal_overhead;
  int32_t local_tables;
  // Set to 1 by a server once the record is complete.
  int32_t ready;
};

enum class ParamKind : uint8_t { Comment, Uint, Ulong, String };

struct ConfigParam {
  const char* text;  // the name, or the whole comment row
  ParamKind kind;
  size_t offset;  // of the field in ConfigRecord
  size_t size;    // of a string field
};

// The table's rows in order.
const std::vector<ConfigParam>& config_params();
// Whether the environment's value of `name` beats the file's.
bool config_is_override(const char* name);

// Field access through a row.
int32_t* config_number(ConfigRecord& r, const ConfigParam& p);
const int32_t* config_number(const ConfigRecord& r, const ConfigParam& p);
char* config_text(ConfigRecord& r, const ConfigParam& p);
const char* config_text(const ConfigRecord& r, const ConfigParam& p);
// The value of a row as the file and the environment hold it; empty for a
// comment row.
std::string config_value_text(const ConfigRecord& r, const ConfigParam& p);

// ---- The line table -------------------------------------------------------

// The path the reader works on ("<include>/mrvconfig" unless set).
void config_set_path(const std::string& path);
const std::string& config_path();
// Loads the line table from the path. A missing file is created empty with
// mode 0644 and gives an empty table. -1 on failure, after its message.
int config_read_file();
int config_line_count();
const char* config_line(int index);
// Index of the name's line, or the count of lines when absent.
int config_find_line(const char* name);
int64_t config_get_uint(const char* name, int64_t fallback);
int64_t config_get_ulong(const char* name, int64_t fallback);
// As config_get_uint; a value that is negative as a signed number gives the
// fallback too.
int64_t config_get_uint_nonneg(const char* name, int64_t fallback);
const char* config_get_string(const char* name, const char* fallback);
// Forgets the line table (tests, and a second file in one process).
void config_clear_lines();

struct ConfigFinding {
  std::string text;
  bool counted;  // an error, not a notice or a warning
};

// ---- Loaders --------------------------------------------------------------

// The strict loader on the current path. 0: `out` holds the record; 1: the
// file did not load or a parameter is missing (out unchanged); 2: loaded,
// but check_params counted errors.
int config_strict_load(ConfigRecord* out);
// The full loader on `path` (the standard path when empty), with the
// machine's measured defaults; check_params in its print form, or its
// buffer form when `findings` is given. Returns the count of errors, or -1
// when the file can't be read.
int init_params(const std::string& path, ConfigRecord* out, std::vector<ConfigFinding>* findings = nullptr);
// Every field at its full-loader default.
void config_set_defaults(ConfigRecord* r, const ConfigDefaults& d);
// Measured values, and the values the line table gives for the sizes that
// other defaults derive from. `home` has its trailing separator.
ConfigDefaults config_measure_defaults(const std::string& home);
// The home as the defaults name it: the one read_root found, else MRVHOME
// of the environment, with a trailing separator; empty when unknown.
std::string config_home();
// The values derived after a strict load, for a given current year.
void config_derive(ConfigRecord* r, int current_year);

// The record a generator writes for `home`: the full loader's defaults as its
// checks leave them, so that the file passes them. Clears the line table.
void config_default_record(const std::string& home, ConfigRecord* r);
// A complete mrvconfig: the comment rows and every parameter of the record.
std::string config_file_text(const ConfigRecord& r);

// ---- Checks ---------------------------------------------------------------

// The rule set. With `findings` null the findings are printed (the print
// form); otherwise they are collected (the buffer form), and with
// `stop_on_first` the first finding of the checks after the mends ends the
// run of rules. `nfiles_limit` and `measured_nusers` are the machine's
// figures (0 for "not measured"). Returns the count of errors.
int check_params(ConfigRecord* r, std::vector<ConfigFinding>* findings, bool stop_on_first,
                 int32_t nfiles_limit, int32_t measured_nusers);

inline constexpr int64_t kPrimeSearchLimit = 1000000000;
// n itself below 4; else the smallest odd number from n / 2 * 2 + 1 on with
// no odd factor up to its square root plus one; -1 when the search reaches
// kPrimeSearchLimit.
int32_t prime_at_or_above(int32_t n);
// As prime_at_or_above, but past the limit it says so and gives n.
int32_t next_prime(int32_t n);
// The same with only the first line of what it says: "Number %d out of
// prime number table range.\n".
int32_t prime_or_itself(int32_t n);
int32_t previous_prime(int32_t n);
// Size read-out: "unknown", "unlimited", or "1G 2M 3K 4".
const char* format_size(int64_t n);
// The open-file limit measured by duplicating standard output.
int32_t config_measure_nfiles();
