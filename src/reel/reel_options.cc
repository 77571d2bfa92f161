#include "reel/reel_options.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/mrv_exit.h"
#include "common/mrv_msg.h"
#include "reel/reel_app_tuple.h"
#include "reel/reel_get_expbuf.h"
#include "reel/reel_init.h"
#include "reel/reel_settings.h"
#include "reel/reel_util.h"

int reel_optind = 1;
const char* reel_optarg = nullptr;

int reel_getopt(int argc, char** argv, const char* optstring) {
  reel_optarg = nullptr;
  if (reel_optind >= argc || argv[reel_optind][0] != '-') return -1;
  const char* word = argv[reel_optind];
  if (std::strcmp(word, "--") == 0) {
    ++reel_optind;
    return -1;
  }
  char letter = word[1];
  ++reel_optind;
  const char* entry = nullptr;
  if (letter != '\0' && letter != ':' && letter != '?') entry = std::strchr(optstring, letter);
  std::fflush(stdout);
  if (entry == nullptr) {
    std::fprintf(stderr, "%s: illegal option -- %c\n", argv[0], letter);
    return '?';
  }
  if (entry[1] != ':') return letter;
  if (word[2] != '\0') {
    reel_optarg = word + 2;
  } else if (reel_optind < argc) {
    reel_optarg = argv[reel_optind++];
  } else {
    std::fprintf(stderr, "%s: option requires an argument -- %c\n", argv[0], letter);
    return '?';
  }
  return letter;
}

namespace {

// A fault of the command line: message, usage, status 1. The library is not
// up yet, so there is no process clean-up.
[[noreturn]] void usage_exit(const char* message) {
  M_errmsg(0, "%s", message);
  M_errmsg(0, "%s", REEL_USAGE);
  MRV_EXIT(1);
}

void set_level(const char* arg) {
  if (arg[0] < '0' || arg[0] > '9') usage_exit("illegal level number! [0-9]\n");
  reel_settings.level_base = reel_level_length(arg[0] - '0');
}

void append_bad_chars(const char* arg) {
  // Each replaceable character needs its underscore in the fill map, so the
  // list cannot grow beyond the map.
  std::string& chars = reel_settings.name_bad_chars;
  size_t room = REEL_NAME_FILL_LEN > chars.size() ? REEL_NAME_FILL_LEN - chars.size() : 0;
  chars.append(arg, std::min(room, std::strlen(arg)));
}

}  // namespace

void reel_parse_options(int argc, char** argv) {
  RunSettings& s = reel_settings;
  int c;
  while ((c = reel_getopt(argc, argv, REEL_OPTSTRING)) != -1) {
    const char* arg = reel_optarg;
    switch (std::toupper(c)) {
      case 'A':
        s.analyse_mode = 1;
        s.analyse_file = arg;
        break;
      case 'B':
        if (!reel_load_block_list(arg)) usage_exit("Illegal blocksize filelist\n");
        s.block_list_on = 1;
        break;
      case 'C':
        s.create_mode = 1;
        s.create_file = arg;
        break;
      case 'D':
        s.data_only = 1;
        break;
      case 'E':
        s.erase_first = 1;
        break;
      case 'G':
        if (std::toupper(static_cast<unsigned char>(arg[0])) == 'B')
          s.transport_b = 1;
        else if (std::toupper(static_cast<unsigned char>(arg[0])) == 'C')
          s.transport_c = 1;
        else
          usage_exit("illegal -G option [B|C]\n");
        break;
      case 'H':
        if (std::strcmp(arg, "DYNAMIC0") == 0 || std::strcmp(arg, "dynamic0") == 0)
          s.dynamic_zero = 1;
        else if (std::strcmp(arg, "DYNAMIC1") == 0 || std::strcmp(arg, "dynamic1") == 0)
          s.dynamic_zero = 0;
        break;
      case 'K':
        if (!reel_is_number(arg)) usage_exit("illegal buf_factor number!\n");
        s.buffer_factor = std::atoi(arg);
        break;
      case 'L':
        set_level(arg);
        break;
      case 'M':
        if (arg[0] < '0' || arg[0] > '3') usage_exit("illegal mode number! [0-3]\n");
        s.convert_mode = arg[0];
        break;
      case 'O':
        s.overlay = 1;
        break;
      case 'R':
        if (std::strcmp(arg, "ALL") == 0 || std::strcmp(arg, "all") == 0) {
          s.recovery_mode = 2;
        } else {
          if (!reel_load_recovery_list(arg)) usage_exit("Illegal recovery filelist\n");
          s.recovery_mode = 1;
        }
        break;
      case 'S':
        s.short_names = 1;
        break;
      case 'T':
        s.target_dir = arg;
        break;
      case 'U':
        if (arg[0] < '0' || arg[0] > '9') usage_exit("illegal unit number! [0-9]\n");
        s.unit_char = arg[0];
        break;
      case 'X':
        append_bad_chars(arg);
        break;
      default:
        usage_exit("illegal options in command line!\n");
    }
  }

  s.level_file = s.level_base + REEL_LEVEL_STEP;
  s.level_sub = s.level_file + REEL_LEVEL_STEP;
  if (s.overlay) s.data_only = 0;

  bool analyse_only = s.analyse_mode && !s.create_mode;
  if (!analyse_only) {
    if (reel_optind >= argc) usage_exit("Missing account name!\n");
    s.account_name = argv[reel_optind++];
  } else if (reel_optind < argc) {
    ++reel_optind;  // an account word is allowed and ignored
  }
  if (reel_optind < argc) usage_exit("Too many argument in command line!\n");

  if (!s.analyse_mode && !s.create_mode) reel_init_tuples(s.buffer_factor);
}
