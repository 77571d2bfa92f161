// The -C plan reader end to end: the input is a plan, applied as a -C run
// applies it, from opening the account to its close-down, in a fresh copy
// of an account that newacct made once. The first byte picks the options
// that change what a plan line becomes: bit 0 short names (-S), bit 1 the
// -R ALL answer to files that exist; the rest is the plan.
//
// After each input the target checks what the run left: nothing beside
// the account but the plan, and no VOC entry naming a path that leads out
// of the account. A plan line's modulo sizes a file, which the text does
// not bound, so the run's files are capped in size (RLIMIT_FSIZE): a file
// beyond the cap fails to be made as it would on a full disk.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "flib/fl_globals.h"
#include "flib/fl_mempool.h"
#include "flib/fl_open.h"
#include "flib/fl_read.h"
#include "flib/fl_rel.h"
#include "flib/fl_voc.h"
#include "flib/parttbl.h"
#include "fuzz/fuzz_support.h"
#include "reel/reel_account.h"
#include "reel/reel_current.h"
#include "reel/reel_init.h"
#include "reel/reel_plan.h"
#include "reel/reel_settings.h"
#include "reel/reel_summary.h"

namespace {

namespace fs = std::filesystem;

constexpr char kAccount[] = "ACC";
constexpr char kTemplate[] = "template";
constexpr rlim_t kFileCap = 1 << 20;

// The scratch directory: the plan and the account stand in it.
std::string scratch;

void settle_after_run() {
  if (dispmsg != nullptr) std::fclose(dispmsg);
  dispmsg = nullptr;
  for (REL_TYPE* rel : {&reel_pgm_map, &reel_sam_file, &reel_dam_file}) M_closefile(rel);
  M_close_voc();
  reel_current = CurrentFile{};
  if (chdir(scratch.c_str()) != 0) std::abort();
}

// The account the runs copy: what newacct and an account's opening make.
void make_template() {
  setenv("MRVBIN", REEL_BIN_DIR, 1);
  fs::create_directory(kTemplate);
  if (chdir(kTemplate) != 0) std::abort();
  fuzz_run([] {
    reel_reset_settings();
    reel_settings.account_name = kAccount;
    reel_open_account();
    reel_close_account();
  });
  settle_after_run();
  if (!fs::exists(fs::path(kTemplate) / kAccount / "VOC")) std::abort();
}

// The file cap for the run; what stderr (the fuzzer's log) holds already
// stays writable beyond it.
void cap_files(bool on) {
  static rlimit original{};
  static bool saved = getrlimit(RLIMIT_FSIZE, &original) == 0;
  if (!saved) std::abort();
  rlimit limit = original;
  struct stat log {};
  if (on)
    limit.rlim_cur = std::min(original.rlim_cur,
                              kFileCap + (fstat(STDERR_FILENO, &log) == 0 ? static_cast<rlim_t>(log.st_size) : 0));
  if (setrlimit(RLIMIT_FSIZE, &limit) != 0) std::abort();
}

// The descriptors open in the process.
std::set<int> open_descriptors() {
  std::set<int> fds;
  std::error_code ec;
  for (const fs::directory_entry& e : fs::directory_iterator("/proc/self/fd", ec))
    fds.insert(std::atoi(e.path().filename().c_str()));
  return fds;
}

// A path of a VOC entry stays in the account: a plain name.
bool inside(const std::string& path) {
  return path.find('/') == std::string::npos && path != "." && path != "..";
}

void check_what_the_run_left() {
  for (const fs::directory_entry& e : fs::directory_iterator(scratch)) {
    const std::string name = e.path().filename().string();
    if (name != "plan" && name != kAccount && name != kTemplate) {
      std::fprintf(stderr, "the run wrote %s beside the account\n", name.c_str());
      std::abort();
    }
  }
  REL_TYPE voc;
  if (M_openfile(&voc, (std::string(kAccount) + "/VOC").c_str(), OpenMode::Read) != 1) {
    std::fprintf(stderr, "the account's VOC does not open after the run\n");
    std::abort();
  }
  std::vector<std::string> keys;
  M_for_each_key(&voc, [&keys](const uint8_t* key, int32_t length, const uint8_t*, int32_t, uint32_t) {
    keys.emplace_back(reinterpret_cast<const char*>(key), static_cast<size_t>(length));
    return 0;
  });
  std::string record;
  for (const std::string& key : keys) {
    if (M_read_tuple(&voc, reinterpret_cast<const uint8_t*>(key.data()), static_cast<int32_t>(key.size()),
                     &record) != 1)
      continue;
    const VocEntry entry = M_voc_fields(record);
    if (!entry.type.starts_with("F") && !entry.type.starts_with("DIR")) continue;
    if (inside(entry.data_path) && inside(entry.dict_path)) continue;
    std::fprintf(stderr, "VOC entry %s leads out of the account: %s, %s\n", key.c_str(),
                 entry.data_path.c_str(), entry.dict_path.c_str());
    std::abort();
  }
  M_closefile(&voc);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (scratch.empty() && access("/dev/shm", W_OK) == 0) {
    // The run notes each file it makes with an fsync: in memory that costs
    // nothing, on a disk milliseconds a file, most of an input's time.
    setenv("TMPDIR", "/dev/shm", 1);
  }
  fuzz_setup();
  if (scratch.empty()) {
    scratch = fs::current_path().string();
    signal(SIGXFSZ, SIG_IGN);  // a write beyond the cap fails with EFBIG instead
    M_init_pools();
    M_load_part_table();
    make_template();
  }
  if (size == 0) return 0;
  const uint8_t how = data[0];
  std::error_code ec;
  fs::remove_all(kAccount, ec);
  if (!ec) fs::copy(fs::path(kTemplate) / kAccount, kAccount, fs::copy_options::recursive, ec);
  if (ec) {
    std::fprintf(stderr, "the account cannot be made again: %s\n", ec.message().c_str());
    std::abort();
  }
  fuzz_write_file("plan", data + 1, size - 1);

  const int32_t no_wait = M_no_wait;
  const std::set<int> descriptors = open_descriptors();
  cap_files(true);
  fuzz_run([how] {
    reel_reset_settings();
    RunSettings& s = reel_settings;
    s.account_name = kAccount;
    s.create_mode = 1;
    s.create_file = "plan";
    s.short_names = how & 1;
    s.recovery_mode = (how & 2) != 0 ? 2 : 0;
    s.max_name_len = s.short_names ? 12 : 198;
    reel_current = CurrentFile{};
    reel_summary = RunSummary{};
    reel_open_account();
    reel_open_dispmsg();
    reel_apply_plan();
    reel_summary_end(RunEnd::EndOfPlan);
    reel_close_account();
    reel_finish();
  });
  cap_files(false);
  settle_after_run();
  // A run that ended by the jump out of the plan left the plan open.
  for (int fd : open_descriptors())
    if (!descriptors.contains(fd)) close(fd);
  // A write that met the cap asked for room on a full disk and was given up.
  M_no_wait = no_wait;
  M_full_wait_abandoned = 0;
  check_what_the_run_left();
  return 0;
}
