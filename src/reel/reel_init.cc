#include "reel/reel_init.h"

#include <sys/resource.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "NT/NT_signal.h"
#include "common/mrv_alloc.h"
#include "common/mrv_exit.h"
#include "common/mrv_marks.h"
#include "common/mrv_msg.h"
#include "common/mrv_status.h"
#include "common/readconf.h"
#include "common/readroot.h"
#include "flib/fl_globals.h"
#include "flib/fl_mempool.h"
#include "flib/lrgfillib.h"
#include "flib/parttbl.h"
#include "reel/reel_account.h"
#include "reel/reel_device.h"
#include "reel/reel_dispatch.h"
#include "reel/reel_get_expbuf.h"
#include "reel/reel_options.h"
#include "reel/reel_plan.h"
#include "reel/reel_progress.h"
#include "reel/reel_settings.h"
#include "reel/reel_summary.h"
#include "reel/reel_tape_format.h"
#include "shmem/shmaddr.h"

namespace {

constexpr rlim_t kOpenStreams = 2048;
constexpr char kBreakPrompt[] = "\nBREAK: Enter Q<return> to Quit. Any other character to continue";

void write_all(int fd, const char* text, size_t length) { M_write_all(fd, text, length); }

}  // namespace

void reel_platform_start() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < kOpenStreams) {
    limit.rlim_cur = limit.rlim_max == RLIM_INFINITY || limit.rlim_max >= kOpenStreams
                         ? kOpenStreams
                         : limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  NT_console_init(0);
}

void reel_startup() {
  M_errmsg(0, "%s", REEL_BANNER);
  M_startup_messages = 1;
  M_file_time_stamp = static_cast<int32_t>(std::time(nullptr));
  M_readconfg();
  M_init_process(-1, 1);
  M_init_pools();
  reel_init_levels();
  read_root();
  if (M_load_part_table() < 0) MRV_EXIT(1);
  M_set_large_file_limit(M_cfg_max_dsfiles());
}

[[noreturn]] void reel_fatal(const char* message) {
  reel_summary_end(RunEnd::Fatal);
  M_errmsg(0, "%s\n", message);
  M_errmsg(0, "%s", REEL_USAGE);
  M_exit_process();
  MRV_EXIT(1);
}

[[noreturn]] void reel_finish() {
  reel_close_device();
  M_errmsg(0, "%s", REEL_FINISHED);
  M_exit_process();
  MRV_EXIT(1);
}

[[noreturn]] void reel_end_run() {
  // The block loop notes its own end first: with none noted, this is the
  // operator's E at a reel prompt.
  reel_summary_end(RunEnd::Operator);
  if (reel_settings.analyse_mode) reel_finish_analysis();
  reel_close_account();
  reel_finish();
}

int reel_get_answer() {
  std::fflush(stdout);
  bool terminal = NT_console_init(0).input_is_device;
  if (terminal) tcflush(STDIN_FILENO, TCIFLUSH);
  for (;;) {
    unsigned char c;
    ssize_t n = read(STDIN_FILENO, &c, 1);
    if (n == 1) {
      if (!terminal && (c == '\n' || c == '\r')) continue;
      return c;
    }
    if (n < 0 && errno == EINTR) continue;
    reel_summary_end(RunEnd::EndOfInput);
    reel_fatal("End of input while waiting for an answer.\n");
  }
}

// Runs beside the main thread, so it writes and reads with the plain system
// calls only.
void reel_break_handler(int signal_number) {
  if (M_critical_count > 0) {
    M_note_pending_signal(signal_number);
    return;
  }
  reel_progress_clear();
  write_all(STDOUT_FILENO, kBreakPrompt, sizeof kBreakPrompt - 1);
  int answer = reel_get_answer();
  if (answer == 'Q' || answer == 'q') {
    NT_signal(signal_number, NT_SIG_IGNORE);
    stop_requested = 1;
  }
}

void reel_install_break_handler() {
  NT_signal(SIGINT, reel_break_handler);
}

[[noreturn]] void reel_block_loop(unsigned char* buffer) {
  int32_t length = reel_next_block(buffer);
  while (stop_requested != 1)
    if (reel_dispatch_block(buffer, &length) == 0) break;
  // The loop leaves with the end-of-save block in the buffer, or after a quit.
  reel_summary_end(tape_block_type(buffer) == TAPE_BLOCK_END ? RunEnd::EndOfSave : RunEnd::Break);
  reel_end_run();
}

[[noreturn]] int reel_main(int argc, char** argv) {
  reel_summary_arm();
  reel_platform_start();
  reel_parse_options(argc, argv);
  reel_startup();

  RunSettings& s = reel_settings;
  if (M_RM != TAPE_RM) s.mark_translate = 1;
  s.max_name_len = s.short_names ? 12 : 198;

  if (!s.analyse_mode) reel_open_account();
  reel_open_dispmsg();
  if (s.create_mode) {
    reel_apply_plan();
    reel_summary_end(RunEnd::EndOfPlan);
    reel_close_account();
    reel_finish();
  }

  int32_t block_size = reel_open_unit(s.unit_char);
  // The one tape buffer of the run; it lives until the process ends.
  auto* buffer = static_cast<unsigned char*>(mrv_malloc(static_cast<size_t>(block_size)));
  if (buffer == nullptr) reel_fatal("tape buffer malloc failed!\n");

  stop_requested = 0;
  reel_install_break_handler();
  reel_block_loop(buffer);
}
