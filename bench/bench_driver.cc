// bench_driver: restores the benchmark save with REEL_INTAKE and loads the
// same records into three key-value stores, in interleaved repetitions,
// then reads every key in random order through the file library and
// through the same stores, and prints medians and ratios.
//
//   bench_driver --bin DIR --work DIR --tape FILE [--records N] [--seed S]
//                [--reps R] [--kbuf K] [--dynamic]
//
// --bin is the build's program folder (REEL_INTAKE, newacct), --work an
// empty-able folder for the account and the stores, --tape the save that
// bench_gensave and mkreel wrote for the same records and seed. --kbuf is
// the restore's -K (KiB of load buffer). --dynamic says the save holds the
// dynamic half too. Every measured step runs in a process of its own, so
// that each peak memory (getrusage) is that step's.
//
// Exit status 0 when every restored record reads back byte for byte.
#include <fcntl.h>
#include <kcdb.h>
#include <kchashdb.h>
#include <lmdb.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tkrzw_dbm_hash.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_records.h"
#include "common/init_params.h"
#include "flib/fl_lock.h"
#include "flib/fl_mempool.h"
#include "flib/fl_open.h"
#include "flib/fl_read.h"
#include "flib/fl_rel.h"
#include "flib/parttbl.h"

namespace fs = std::filesystem;

namespace {

struct Options {
  std::string bin, work, tape;
  uint64_t records = 1000000, seed = 16;
  int reps = 3;
  long kbuf = 65536;
  bool dynamic = false;
};

Options opt;

// The records that the restore brings back, generated once before any
// measurement; children of fork share them.
struct Records {
  std::vector<std::string> keys, values;
  std::vector<int> files;
  uint64_t bytes = 0;        // keys and values
  uint64_t value_bytes = 0;
};

Records recs;

double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

long maxrss_kb() {
  struct rusage u;
  getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss;
}

// The result of one measured step.
struct Sample {
  double seconds = 0;
  double peak_mb = 0;
  bool ok = false;
};

// Runs `step` in a child. The child writes its seconds and its own peak
// memory figure through a pipe; a negative memory figure asks the parent
// to take the child's whole peak from wait4 instead.
Sample run_child(const std::function<bool(double*, double*)>& step) {
  // As before each restore: what the last step left dirty is written out
  // before this one is timed.
  sync();
  int fds[2];
  if (pipe(fds) != 0) return {};
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    double out[3] = {0, -1, 0};
    out[2] = step(&out[0], &out[1]) ? 1 : 0;
    ssize_t w = write(fds[1], out, sizeof out);
    _exit(w == sizeof out ? 0 : 1);
  }
  close(fds[1]);
  double in[3] = {0, 0, 0};
  ssize_t r = read(fds[0], in, sizeof in);
  close(fds[0]);
  int status = 0;
  struct rusage u;
  wait4(pid, &status, 0, &u);
  Sample s;
  s.seconds = in[0];
  s.peak_mb = in[1] >= 0 ? in[1] : u.ru_maxrss / 1024.0;
  s.ok = r == sizeof in && in[2] == 1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  return s;
}

// Touches every record so that the copy-on-write pages are resident, and
// gives the peak memory so far: a store's figure is its growth beyond it.
double touch_records() {
  uint64_t sum = 0;
  for (size_t i = 0; i < recs.keys.size(); ++i) sum += static_cast<unsigned char>(recs.values[i][0]) + recs.keys[i][0];
  if (sum == 1) std::fputs("", stderr);
  return maxrss_kb() / 1024.0;
}

uint64_t disk_bytes(const fs::path& p) {
  uint64_t total = 0;
  struct stat st;
  if (lstat(p.c_str(), &st) != 0) return 0;
  if (S_ISDIR(st.st_mode)) {
    for (const auto& e : fs::directory_iterator(p)) total += disk_bytes(e.path());
    return total;
  }
  return static_cast<uint64_t>(st.st_blocks) * 512;
}

// ---- the restore ----

fs::path run_dir() { return fs::path(opt.work) / "run"; }
fs::path account_dir() { return run_dir() / "BENCH"; }

void make_home() {
  fs::path home = fs::path(opt.work) / "home";
  fs::create_directories(home / "include");
  fs::create_directories(home / "sys");
  fs::create_directories(home / "bin");
  fs::create_directories(home / "Temp");
  fs::create_directories(run_dir());
  fs::remove(home / "bin" / "newacct");
  fs::create_symlink(fs::absolute(fs::path(opt.bin) / "newacct"), home / "bin" / "newacct");
  fs::remove(run_dir() / "t.tap");
  fs::create_symlink(fs::absolute(opt.tape), run_dir() / "t.tap");
  // The restore opens the unit from inside the account: the tape is one up.
  FILE* f = std::fopen((home / "sys" / "tapeinfo").c_str(), "w");
  std::fputs("0 ../t.tap r../t.tap 32768\n", f);
  std::fclose(f);
  // A complete configuration, as an installed home has: without one every
  // program would report each parameter missing.
  ConfigRecord config;
  config_default_record(home.string() + "/", &config);
  std::string text = config_file_text(config);
  FILE* c = std::fopen((home / "include" / "mrvconfig").c_str(), "w");
  std::fputs(text.c_str(), c);
  std::fclose(c);
  setenv("MRVHOME", home.c_str(), 1);
  setenv("MRVBIN", (home / "bin").c_str(), 1);
  setenv("TMP", (home / "Temp").c_str(), 1);
  setenv("MRV_REGISTRY", (home / "registry").c_str(), 1);
  setenv("MRV_MSG_PAUSE_MS", "0", 1);
}

// One restore, timed from the fork to the end of the program.
Sample run_restore() {
  fs::remove_all(account_dir());
  sync();
  double start = now();
  pid_t pid = fork();
  if (pid == 0) {
    if (chdir(run_dir().c_str()) != 0) _exit(127);
    int null_in = open("/dev/null", O_RDONLY);
    int log = open((fs::path(opt.work) / "restore.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(null_in, 0);
    dup2(log, 1);
    dup2(log, 2);
    std::string k = std::to_string(opt.kbuf);
    std::string prog = (fs::path(opt.bin) / "REEL_INTAKE").string();
    execl(prog.c_str(), "REEL_INTAKE", "-U", "0", "-K", k.c_str(), "BENCH", static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  struct rusage u;
  wait4(pid, &status, 0, &u);
  Sample s;
  s.seconds = now() - start;
  s.peak_mb = u.ru_maxrss / 1024.0;
  // Every run of the tool ends with status 1.
  s.ok = WIFEXITED(status) && WEXITSTATUS(status) == 1;
  return s;
}

// Restores are started by a small process forked before the records are
// generated: a child's peak memory counts what it had before its exec, and
// a child of the driver itself would carry the records.
int launcher_in = -1, launcher_out = -1;

void start_launcher() {
  int to[2], from[2];
  if (pipe(to) != 0 || pipe(from) != 0) return;
  if (fork() == 0) {
    close(to[1]);
    close(from[0]);
    char c;
    while (read(to[0], &c, 1) == 1) {
      Sample s = run_restore();
      double out[3] = {s.seconds, s.peak_mb, s.ok ? 1.0 : 0.0};
      if (write(from[1], out, sizeof out) != sizeof out) break;
    }
    _exit(0);
  }
  close(to[0]);
  close(from[1]);
  launcher_in = to[1];
  launcher_out = from[0];
}

Sample restore() {
  double in[3] = {0, 0, 0};
  char c = 'r';
  if (write(launcher_in, &c, 1) != 1 || read(launcher_out, in, sizeof in) != sizeof in) return {};
  return {in[0], in[1], in[2] == 1};
}

// ---- the peers' loads ----

fs::path peer_path(const char* name) { return fs::path(opt.work) / name; }

bool kc_load(double* seconds, double* peak) {
  double base = touch_records();
  fs::remove(peer_path("kc.kch"));
  double start = now();
  kyotocabinet::HashDB db;
  db.tune_buckets(static_cast<int64_t>(recs.keys.size() * 2));
  if (!db.open(peer_path("kc.kch").string(),
               kyotocabinet::HashDB::OWRITER | kyotocabinet::HashDB::OCREATE | kyotocabinet::HashDB::OTRUNCATE))
    return false;
  for (size_t i = 0; i < recs.keys.size(); ++i)
    if (!db.set(recs.keys[i], recs.values[i])) return false;
  if (!db.close()) return false;
  *seconds = now() - start;
  *peak = maxrss_kb() / 1024.0 - base;
  return true;
}

bool lmdb_load(double* seconds, double* peak) {
  // Sorting is part of the peer's work: it is what lets it append.
  double base = touch_records();
  fs::remove(peer_path("lmdb.mdb"));
  fs::remove(peer_path("lmdb.mdb-lock"));
  double start = now();
  std::vector<uint32_t> order(recs.keys.size());
  for (uint32_t i = 0; i < order.size(); ++i) order[i] = i;
  std::sort(order.begin(), order.end(), [](uint32_t a, uint32_t b) { return recs.keys[a] < recs.keys[b]; });
  MDB_env* env;
  MDB_txn* txn;
  MDB_dbi dbi;
  if (mdb_env_create(&env) != 0) return false;
  mdb_env_set_mapsize(env, size_t{16} << 30);
  if (mdb_env_open(env, peer_path("lmdb.mdb").c_str(), MDB_NOSUBDIR | MDB_NOSYNC | MDB_WRITEMAP, 0644) != 0)
    return false;
  if (mdb_txn_begin(env, nullptr, 0, &txn) != 0 || mdb_dbi_open(txn, nullptr, 0, &dbi) != 0) return false;
  for (uint32_t i : order) {
    MDB_val k{recs.keys[i].size(), recs.keys[i].data()};
    MDB_val v{recs.values[i].size(), recs.values[i].data()};
    if (mdb_put(txn, dbi, &k, &v, MDB_APPEND) != 0) return false;
  }
  if (mdb_txn_commit(txn) != 0) return false;
  mdb_env_close(env);
  *seconds = now() - start;
  *peak = maxrss_kb() / 1024.0 - base;
  return true;
}

bool tkrzw_load(double* seconds, double* peak) {
  double base = touch_records();
  fs::remove(peer_path("tkrzw.tkh"));
  double start = now();
  tkrzw::HashDBM db;
  tkrzw::HashDBM::TuningParameters tp;
  tp.num_buckets = static_cast<int64_t>(recs.keys.size() * 2);
  if (db.OpenAdvanced(peer_path("tkrzw.tkh").string(), true, tkrzw::File::OPEN_TRUNCATE, tp) != tkrzw::Status::SUCCESS)
    return false;
  for (size_t i = 0; i < recs.keys.size(); ++i)
    if (db.Set(recs.keys[i], recs.values[i]) != tkrzw::Status::SUCCESS) return false;
  if (db.Close() != tkrzw::Status::SUCCESS) return false;
  *seconds = now() - start;
  *peak = maxrss_kb() / 1024.0 - base;
  return true;
}

// ---- reads ----

std::vector<uint32_t> read_order() {
  std::vector<uint32_t> order(recs.keys.size());
  for (uint32_t i = 0; i < order.size(); ++i) order[i] = i;
  std::mt19937_64 rng(opt.seed * 7 + 1);
  std::shuffle(order.begin(), order.end(), rng);
  return order;
}

// Opens every restored file; the handles are indexed by file number, and
// the first `*opened` of them are open.
bool open_restored(std::vector<REL_TYPE>* rels, int* opened = nullptr) {
  M_init_pools();
  if (M_load_part_table() < 0) return false;
  rels->resize(2 * kBenchFiles);
  int last = recs.files.empty() ? -1 : recs.files.back();
  if (opened != nullptr) *opened = last + 1;
  for (int f = 0; f <= last; ++f) {
    std::string p = (account_dir() / bench_file_name(f)).string();
    if (M_openfile(&(*rels)[static_cast<size_t>(f)], p.c_str(), OpenMode::Read) != 1) {
      std::fprintf(stderr, "bench: cannot open %s\n", p.c_str());
      return false;
    }
  }
  return true;
}

bool library_reads(double* seconds, double*) {
  std::vector<REL_TYPE> rels;
  int opened = 0;
  if (!open_restored(&rels, &opened)) return false;
  // A read session holds each file shared, as the stores' readers hold
  // theirs: writers stay out, and no record needs a group lock of its own.
  // (A dynamic file's handle shows no descriptor until a part is used.)
  for (int f = 0; f < opened; ++f)
    if (M_lock_file(&rels[static_cast<size_t>(f)], LOCK_SHARED) != 0) return false;
  std::vector<uint32_t> order = read_order();
  std::string got;
  uint64_t bytes = 0;
  double start = now();
  for (uint32_t i : order) {
    const std::string& k = recs.keys[i];
    if (M_read_tuple(&rels[static_cast<size_t>(recs.files[i])], reinterpret_cast<const uint8_t*>(k.data()),
                     static_cast<int32_t>(k.size()), &got) != 1)
      return false;
    bytes += got.size();
  }
  *seconds = now() - start;
  return bytes == recs.value_bytes;
}

bool kc_reads(double* seconds, double*) {
  kyotocabinet::HashDB db;
  if (!db.open(peer_path("kc.kch").string(), kyotocabinet::HashDB::OREADER)) return false;
  std::vector<uint32_t> order = read_order();
  std::string got;
  double start = now();
  for (uint32_t i : order)
    if (!db.get(recs.keys[i], &got)) return false;
  *seconds = now() - start;
  return db.close();
}

bool lmdb_reads(double* seconds, double*) {
  MDB_env* env;
  MDB_txn* txn;
  MDB_dbi dbi;
  if (mdb_env_create(&env) != 0) return false;
  mdb_env_set_mapsize(env, size_t{16} << 30);
  if (mdb_env_open(env, peer_path("lmdb.mdb").c_str(), MDB_NOSUBDIR | MDB_RDONLY, 0644) != 0) return false;
  if (mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn) != 0 || mdb_dbi_open(txn, nullptr, 0, &dbi) != 0) return false;
  std::vector<uint32_t> order = read_order();
  std::string got;
  double start = now();
  for (uint32_t i : order) {
    MDB_val k{recs.keys[i].size(), recs.keys[i].data()}, v;
    if (mdb_get(txn, dbi, &k, &v) != 0) return false;
    // The other readers hand over a copy; so does this one.
    got.assign(static_cast<const char*>(v.mv_data), v.mv_size);
  }
  *seconds = now() - start;
  mdb_txn_abort(txn);
  mdb_env_close(env);
  return true;
}

bool tkrzw_reads(double* seconds, double*) {
  tkrzw::HashDBM db;
  if (db.Open(peer_path("tkrzw.tkh").string(), false) != tkrzw::Status::SUCCESS) return false;
  std::vector<uint32_t> order = read_order();
  std::string got;
  double start = now();
  for (uint32_t i : order)
    if (db.Get(recs.keys[i], &got) != tkrzw::Status::SUCCESS) return false;
  *seconds = now() - start;
  return db.Close() == tkrzw::Status::SUCCESS;
}

// Every record of the save reads back from the restored files byte for
// byte. Prints the first few that do not.
bool check_restore() {
  std::vector<REL_TYPE> rels;
  if (!open_restored(&rels)) return false;
  std::string got;
  uint64_t bad = 0;
  for (size_t i = 0; i < recs.keys.size(); ++i) {
    const std::string& k = recs.keys[i];
    int r = M_read_tuple(&rels[static_cast<size_t>(recs.files[i])], reinterpret_cast<const uint8_t*>(k.data()),
                         static_cast<int32_t>(k.size()), &got);
    if (r != 1 || got != recs.values[i]) {
      if (++bad <= 5)
        std::fprintf(stderr, "bench: record %zu (%s in %s) %s\n", i, k.c_str(), bench_file_name(recs.files[i]).c_str(),
                     r == 1 ? "differs" : "is missing");
    }
  }
  for (auto& rel : rels)
    if (rel.fd > 0) M_closefile(&rel);
  if (bad) std::fprintf(stderr, "bench: %llu of %zu records wrong\n", static_cast<unsigned long long>(bad), recs.keys.size());
  return bad == 0;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  if (v.empty()) return 0;
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

struct Series {
  std::string name;
  std::function<Sample()> run;
  std::vector<double> seconds, peaks;
  bool ok = true;
};

// Runs every series once per repetition, one after the other, so that the
// load of the machine falls on all of them alike.
void run_interleaved(std::vector<Series>& series, const char* what) {
  for (int rep = 0; rep < opt.reps; ++rep) {
    for (auto& s : series) {
      Sample r = s.run();
      s.ok = s.ok && r.ok;
      s.seconds.push_back(r.seconds);
      s.peaks.push_back(r.peak_mb);
      std::fprintf(stderr, "  rep %d %-5s %-22s %.2f s%s\n", rep + 1, what, s.name.c_str(), r.seconds,
                   r.ok ? "" : " FAILED");
    }
  }
}

int usage() {
  std::fputs(
      "usage: bench_driver --bin DIR --work DIR --tape FILE [--records N] [--seed S] [--reps R] [--kbuf K] "
      "[--dynamic]\n",
      stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    bool has = i + 1 < argc;
    if (a == "--dynamic") opt.dynamic = true;
    else if (a == "--bin" && has) opt.bin = argv[++i];
    else if (a == "--work" && has) opt.work = argv[++i];
    else if (a == "--tape" && has) opt.tape = argv[++i];
    else if (a == "--records" && has) opt.records = std::strtoull(argv[++i], nullptr, 10);
    else if (a == "--seed" && has) opt.seed = std::strtoull(argv[++i], nullptr, 10);
    else if (a == "--reps" && has) opt.reps = std::atoi(argv[++i]);
    else if (a == "--kbuf" && has) opt.kbuf = std::atol(argv[++i]);
    else return usage();
  }
  if (opt.bin.empty() || opt.work.empty() || opt.tape.empty() || opt.reps < 1 || opt.records < 2) return usage();
  fs::create_directories(opt.work);
  opt.work = fs::absolute(opt.work).string();
  opt.bin = fs::absolute(opt.bin).string();
  opt.tape = fs::absolute(opt.tape).string();
  make_home();
  start_launcher();

  uint64_t n = opt.dynamic ? opt.records : opt.records / 2;
  recs.keys.resize(n);
  recs.values.resize(n);
  recs.files.resize(n);
  uint64_t big = 0;
  for (uint64_t i = 0; i < n; ++i) {
    bench_key(opt.seed, i, &recs.keys[i]);
    bench_value(opt.seed, i, &recs.values[i]);
    recs.files[i] = bench_file_of(i, opt.records);
    recs.bytes += recs.keys[i].size() + recs.values[i].size();
    recs.value_bytes += recs.values[i].size();
    big += recs.values[i].size() >= 4096;
  }
  double mb = recs.bytes / 1e6;
  std::printf("records restored and loaded: %llu (%s), %.1f MB of keys and values, %llu of 4 KiB or more\n",
              static_cast<unsigned long long>(n), opt.dynamic ? "static and dynamic files" : "static files only",
              mb, static_cast<unsigned long long>(big));
  std::printf("REEL_INTAKE -K %ld, %d interleaved repetitions, medians\n\n", opt.kbuf, opt.reps);
  std::fflush(stdout);

  std::vector<Series> loads = {
      {"REEL_INTAKE restore", restore},
      {"Kyoto Cabinet HashDB", [] { return run_child(kc_load); }},
      {"LMDB (sorted, append)", [] { return run_child(lmdb_load); }},
      {"Tkrzw HashDBM", [] { return run_child(tkrzw_load); }},
  };
  run_interleaved(loads, "load");
  bool checked = check_restore();
  std::printf("restore check: %s\n\n", checked ? "every record reads back byte for byte" : "RECORDS WRONG OR MISSING");

  // The restore's figure counts the restored files only: the account's VOC
  // and side files are not record space.
  uint64_t restored = 0;
  for (int f = 0; f < 2 * kBenchFiles; ++f) restored += disk_bytes(account_dir() / bench_file_name(f));
  uint64_t disks[4] = {restored, disk_bytes(peer_path("kc.kch")), disk_bytes(peer_path("lmdb.mdb")),
                       disk_bytes(peer_path("tkrzw.tkh"))};
  double restore_s = median(loads[0].seconds);
  std::printf("%-24s %9s %12s %8s %14s %10s %12s\n", "bulk load", "median s", "records/s", "MB/s", "restore/peer",
              "peak MB", "disk/record");
  for (size_t j = 0; j < loads.size(); ++j) {
    double s = median(loads[j].seconds);
    char ratio[32] = "";
    if (j > 0) std::snprintf(ratio, sizeof ratio, "%.2f", s / restore_s);
    std::printf("%-24s %9.2f %12.0f %8.1f %14s %10.1f %12.2f%s\n", loads[j].name.c_str(), s, n / s, mb / s, ratio,
                median(loads[j].peaks), static_cast<double>(disks[j]) / recs.bytes, loads[j].ok ? "" : "  (FAILED)");
  }
  std::printf("(restore/peer = restore rate / peer rate; restore peak = whole process, peers' = growth over the "
              "records in memory)\n\n");
  std::fflush(stdout);

  std::vector<Series> reads = {
      {"file library", [] { return run_child(library_reads); }},
      {"Kyoto Cabinet HashDB", [] { return run_child(kc_reads); }},
      {"LMDB", [] { return run_child(lmdb_reads); }},
      {"Tkrzw HashDBM", [] { return run_child(tkrzw_reads); }},
  };
  run_interleaved(reads, "reads");
  double lib_s = median(reads[0].seconds);
  std::printf("%-24s %9s %12s %14s\n", "point reads, random order", "median s", "reads/s", "library/peer");
  for (size_t j = 0; j < reads.size(); ++j) {
    double s = median(reads[j].seconds);
    char ratio[32] = "";
    if (j > 0) std::snprintf(ratio, sizeof ratio, "%.2f", s / lib_s);
    std::printf("%-24s %9.2f %12.0f %14s%s\n", reads[j].name.c_str(), s, n / s, ratio, reads[j].ok ? "" : "  (FAILED)");
  }
  bool all_ok = checked;
  for (auto& s : loads) all_ok = all_ok && s.ok;
  for (auto& s : reads) all_ok = all_ok && s.ok;
  return all_ok ? 0 : 1;
}
